// A host with disk groups: real file systems as volumes, a volume manager of shell scripts, a
// snapshot in the catalogue that can be restored, and a method that plays restores.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/fimctl/loop_file_system.h"
#include "tests/fimctl/world.h"

namespace test {

// A descriptor that is open and belongs to no process: it is on its way through a socket. It keeps
// a loop device attached, or a file system busy, and nobody can be named for it.
class InFlight {
  public:
    explicit InFlight(const std::string &path);
    InFlight(const InFlight &) = delete;
    InFlight &operator=(const InFlight &) = delete;
    ~InFlight();

  private:
    int ends_[2] = {-1, -1};
};

struct Volume {
    std::string group, name, device, bcv, symid, fstype;
    int type = 3;
    std::unique_ptr<LoopFileSystem> file_system;  // none for a device that nothing is mounted from
    std::unique_ptr<InFlight> attached;

    std::string directory() const { return file_system->directory(); }
    std::string block() const { return "/dev/qz/dsk/" + group + "/" + name; }
};

class RestoreWorld : public FimctlWorld {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A file system on /data-NAME, of one pair that is split. False where the machine cannot.
    bool add_restorable(const std::string &group, const std::string &name,
                        const std::string &device, const std::string &symid = "000184500123",
                        int type = 3);
    // Enters a snapshot of all volumes so far; those of a group after its first have no pairs.
    int64_t enter();
    Ended restore(const std::vector<std::string> &more = {"--yes"});
    // Mounts and unmounts a volume as an operator would.
    void unmount(const std::string &directory);
    bool is_mounted(const std::string &directory) const;
    // The calls of one name, with their details.
    std::vector<std::string> calls_of(const std::string &name) const;
    std::string code_of_plan();
    bool is_imported(const std::string &group) const;
    // Whether every group is imported and every volume mounted.
    void expect_all_is_there() const;

    std::vector<std::unique_ptr<Volume>> restorable_;
};

// Skips the running test, with the reason, where there are no loop devices.
#define NEEDS_VOLUME(...) \
    if (!add_restorable(__VA_ARGS__)) GTEST_SKIP() << "needs root and loop devices"

}  // namespace test
