// Stand-ins for the fixed-path commands of the volume manager and of the host product: they append
// their command line to a file and succeed, or fail when told so.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/private_root.h"

namespace test {

class RecordedCommands {
  public:
    RecordedCommands() {
        make_folders(folder());
        for (const char *command : {"/usr/sbin/qzdg", "/usr/sbin/qzdisk", "/usr/sbin/qzdctl",
                                    "/usr/sbin/qzvol", "/usr/quill/tessera/bin/tqdgclone"}) {
            install(command, "");
        }
        forget();
    }
    ~RecordedCommands() { forget(); }

    // The site's hook, which is not installed otherwise.
    static void install_site_script() { install(site_script(), ""); }
    // The device-information tool, which gives every device the same serial number.
    static void install_device_tool(const std::string &serial) {
        install("/usr/quill/tessera/bin/tqtpcinfo",
                "echo \"EMC SYMMETRIX p=$3 s=" + serial + "\"\n");
        make_folders("/usr/quill/tessera/online_util/fi_cntl");
        make_folders("/usr/quill/tessera/online_util/db_cntl");
    }
    // The n-th command (1 is the first) exits with status 3.
    static void fail(int n) { write_file(folder() + "/fail." + std::to_string(n), ""); }

    // The command lines so far, in order.
    static std::vector<std::string> lines() {
        std::vector<std::string> found;
        std::ifstream in(folder() + "/lines");
        for (std::string line; std::getline(in, line);) found.push_back(line);
        return found;
    }
    static void forget() {
        write_file(folder() + "/lines", "");
        for (int n = 1; n < 20; ++n) {
            std::remove((folder() + "/fail." + std::to_string(n)).c_str());
        }
        std::remove(site_script());
    }

  private:
    static std::string folder() { return "/var/recorded"; }
    static const char *site_script() { return "/usr/quill/tessera/bin/tqdgclone_script"; }
    static void install(const std::string &command, const std::string &body) {
        write_script(command, "echo \"$0 $*\" >>" + folder() + "/lines\n" + body + "n=$(wc -l <" +
                                  folder() + "/lines)\n[ ! -e " + folder() +
                                  "/fail.$n ] || exit 3\nexit 0");
    }
};

}  // namespace test
