// Sequences of entry points with right and wrong arguments, in one process, against a fake array
// and a fake host.
//
//     One step a line; H is one of four handles, all null at first, the last argument is the rest
//     of its line. freeze H FLAG SOURCE [CONFIG]       commit H       ctl H CODE       ckpt H
//     volumes H thaw H       thaw_commit H          rebuild H FROM: of the last checkpoint of the
//     handle FROM line H TEXT                         puts a line in front of the checkpoint of H
//     null ENTRY                          the entry point with null arguments
//     answer FUNCTION CODE...             the next answers of an array function
//     state N STATE                       of the pair of primary N
//     tool STATUS...                      exit statuses of the next commands
//     devices TEXT                        what the clone tool lists, "|" ends a line
//     serial TEXT, tmpdir TEXT, client TEXT, entry TEXT       of the host
//     host MOUNT UMOUNT FSCK              results of the host's file-system commands
//     locale TEXT, level N, site_script
#include <algorithm>
#include <cstring>
#include <sstream>

#include "fuzz/support/every_device.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "method/paths.h"
#include "method/records.h"
#include "tests/support/fake_host.h"

using fuzz::finding;
using test::fake_host;

namespace {

constexpr size_t most_steps = 60;
constexpr size_t handle_count = 4;
constexpr int primary_count = 4;
constexpr char symid[] = "000184500123";
constexpr char mount_table[] =
    "/dev/emcpowera /data ext4 rw 0 0\n"
    "/dev/qz/dsk/dg/vol1 /vol1 qzfs rw 0 0\n"
    "/dev/qz/dsk/dg/vol2 /vol2 ext4 rw 0 0\n"
    "/dev/sdb /small ext4 rw 0 0\n"
    "server:/x /net nfs rw 0 0\n";

std::string primary_name(int n) {
    return "00A" + std::to_string(n);
}

int worn_out() {
    return 99;
}

// The host on which the steps happen.
class World {
  public:
    World() {
        machine.put_file(tf::path::mount_table, mount_table);
        machine.on_command = [this](const fuzz::Words &words) { return answer(words); };
        machine.on_patience_lost = wear_out;
        fake_host() = test::FakeHost();
        for (int n = 0; n < primary_count; ++n) {
            const std::string letter(1, static_cast<char>('a' + n));
            test::FakeDevice &primary =
                array.add_primary(symid, primary_name(n), "/dev/emcpower" + letter);
            primary.record.port_count = 1;
            tf::put(primary.record.ports[0], ("/dev/sd" + letter).c_str());
            array.pair(primary,
                       array.add_bcv(symid, "00B" + std::to_string(n), "/dev/rdsk/c1t0d" + letter),
                       2);
        }
    }

    std::vector<int> tool_statuses;
    std::string devices = "/dev/emcpowerb\n/dev/emcpowerc\n";
    std::string serial = "00018450012300A1";

    fuzz::Machine machine;
    test::FakeArray array;

  private:
    // Every poll ends when the array no longer answers.
    static void wear_out() {
        p_emc_tf_SymPdevShow = [](int32_t, const char *, SymDevice *) { return worn_out(); };
        p_emc_tf_SymDevListBcvControl = [](int32_t, const char *, int, const char *const *,
                                           const char *const *, int, int,
                                           int) { return worn_out(); };
    }
    fuzz::Answer answer(const fuzz::Words &words) {
        int status = 0;
        if (!tool_statuses.empty()) {
            status = tool_statuses.front() & 0xff;
            tool_statuses.erase(tool_statuses.begin());
        }
        const auto file = std::find(words.begin(), words.end(), "-f");
        if (words[0] == tf::path::clone_tool && file != words.end()) {
            machine.put_file(*(file + 1), devices);
        }
        if (words[0] != tf::path::device_information_tool) return {status, "some output\n"};
        return {status, "EMC SYMMETRIX p=/dev/x s=" + serial + "\n"};
    }
};

// What the framework does, one step a line.
class Steps {
  public:
    Steps(World &world, fuzz::Framework &framework) : world_(world), framework_(framework) {}

    void take(const std::string &line) {
        std::istringstream in(line);
        std::string verb;
        in >> verb;
        take_call(verb, in);
        take_host(verb, in);
    }
    bool rebuild_failed() const { return rebuild_failed_; }

  private:
    struct Handle {
        hdef *h = nullptr;
        std::string text;  // the last checkpoint
    };

    static std::string rest(std::istringstream &in) {
        std::string text;
        std::getline(in >> std::ws, text);
        return text;
    }
    static int number(std::istringstream &in) {
        int value = 0;
        in >> value;
        return value;
    }
    Handle &handle(std::istringstream &in) {
        return handles_[static_cast<unsigned>(number(in)) % handle_count];
    }

    // A failure has its number and its message; only a failed unmount is reported by the host
    // alone.
    void expect(const char *call, int32_t status) {
        if (status != 0 && fake_host().umount_result == 0) framework_.expect_report(call);
    }

    void take_call(const std::string &verb, std::istringstream &in) {
        framework_.forget();
        if (verb == "freeze") freeze(in);
        if (verb == "commit") expect("freeze_commit", TimeFinder_freeze_commit(handle(in).h));
        if (verb == "ctl") control(in);
        if (verb == "ckpt") checkpoint(handle(in));
        if (verb == "rebuild") rebuild(in);
        if (verb == "volumes") volumes(handle(in).h);
        if (verb == "thaw") expect("thaw", TimeFinder_thaw(handle(in).h));
        if (verb == "thaw_commit") expect("thaw_commit", TimeFinder_thaw_commit(handle(in).h));
        if (verb == "null") call_with_nothing(rest(in));
    }
    void take_host(const std::string &verb, std::istringstream &in) {
        if (verb == "answer") script(in);
        if (verb == "state") set_state(in);
        if (verb == "tool") {
            for (int status; in >> status;) world_.tool_statuses.push_back(status);
        }
        if (verb == "devices") {
            world_.devices = rest(in);
            std::replace(world_.devices.begin(), world_.devices.end(), '|', '\n');
        }
        if (verb == "serial") world_.serial = rest(in);
        if (verb == "tmpdir") world_.machine.temporary_folder = "/" + rest(in);
        if (verb == "client") fake_host().host_name = rest(in);
        if (verb == "entry") fake_host().entries[rest(in)] = "1";
        if (verb == "host") set_results(in);
        if (verb == "line") add_line(in);
        if (verb == "locale") TimeFinder_set_locale(rest(in).c_str(), nullptr);
        if (verb == "level") TimeFinder_set_logf([](const char *) {}, number(in));
        if (verb == "site_script") world_.machine.installed.insert(tf::path::clone_script);
    }

    void freeze(std::istringstream &in) {
        Handle &to = handle(in);
        const int32_t flag = number(in);
        std::string source;
        in >> source;
        const std::string config = rest(in);
        int32_t nvols = 77;
        hdef *h = nullptr;
        const int32_t status =
            TimeFinder_freeze(config.empty() ? nullptr : config.c_str(), source.c_str(),
                              "/the/copy's place", nullptr, &nvols, flag, &h);
        expect("freeze", status);
        if (nvols != 0) finding("freeze: nvols is %d", nvols);
        if (status == 0 && h == nullptr) finding("freeze: no handle");
        to = {h, ""};
    }
    void control(std::istringstream &in) {
        hdef *const h = handle(in).h;
        expect("ctl", TimeFinder_ctl(h, number(in)));
    }
    void checkpoint(Handle &of) {
        char *text = nullptr;
        const int32_t status = TimeFinder_ckpt(of.h, &text);
        expect("ckpt", status);
        if ((status == 0) != (text != nullptr)) finding("ckpt: %d with or without a text", status);
        if (text != nullptr) of.text = text;
        free(text);
    }
    void rebuild(std::istringstream &in) {
        Handle &to = handle(in);
        const Handle &from = handle(in);
        // The carrier's business: what stood in the file may be deleted where the text says so.
        for (const std::string &line : fuzz::lines_of(from.text)) {
            if (line.starts_with("TRANSFER_FILE="))
                world_.machine.may_unlink.insert(line.substr(14));
        }
        fuzz::ExactText text(from.text);
        hdef *h = nullptr;
        const int32_t status = TimeFinder_rebuild(&h, text.get());
        expect("rebuild", status);
        if (status != 0) rebuild_failed_ = true;
        to = {h, from.text};
    }
    void volumes(hdef *h) {
        std::vector<char> volpath(TF_VOLPATH_SIZE, 'x');
        int32_t nvols = 77;
        const int32_t status = TimeFinder_volumes(h, volpath.data(), &nvols);
        expect("volumes", status);
        if (status != 0) return;
        fuzz::expect_terminated("volpath", volpath.data(), volpath.size());
        if (nvols != 0 && nvols != 1) finding("volumes: nvols is %d", nvols);
    }
    void call_with_nothing(const std::string &entry) {
        int32_t nvols = 0;
        char volpath[TF_VOLPATH_SIZE];
        hdef *const h = handles_[0].h;
        hdef *out = nullptr;
        if (entry == "freeze nvols") {
            expect("freeze", TimeFinder_freeze("", "/data", "/x", nullptr, nullptr, 1, &out));
        }
        if (entry == "freeze source") {
            expect("freeze", TimeFinder_freeze("", nullptr, "/x", nullptr, &nvols, 1, &out));
        }
        if (entry == "freeze fifs") {
            expect("freeze", TimeFinder_freeze("", "/data", nullptr, nullptr, &nvols, 1, &out));
        }
        if (entry == "freeze handle") {
            expect("freeze", TimeFinder_freeze("", "/data", "/x", nullptr, &nvols, 1, nullptr));
        }
        if (entry == "ckpt text") expect("ckpt", TimeFinder_ckpt(h, nullptr));
        if (entry == "rebuild text") expect("rebuild", TimeFinder_rebuild(&out, nullptr));
        if (entry == "rebuild handle") expect("rebuild", TimeFinder_rebuild(nullptr, volpath));
        if (entry == "volumes path") expect("volumes", TimeFinder_volumes(h, nullptr, &nvols));
        if (entry == "volumes nvols") expect("volumes", TimeFinder_volumes(h, volpath, nullptr));
        if (entry == "locale") TimeFinder_set_locale(nullptr, nullptr);
        if (entry == "log") TimeFinder_set_logf(nullptr, 5);
    }

    void script(std::istringstream &in) {
        std::string function;
        in >> function;
        std::vector<int> codes;
        for (int code; in >> code;) codes.push_back(code);
        world_.array.script(function, codes);
    }
    void set_state(std::istringstream &in) {
        const int n = static_cast<int>(static_cast<unsigned>(number(in)) % primary_count);
        world_.array.set_state(symid, primary_name(n), number(in));
    }
    static void set_results(std::istringstream &in) {
        fake_host().mount_result = fake_host().mount_exit = number(in);
        fake_host().umount_result = fake_host().umount_exit = number(in);
        fake_host().fsck_result = fake_host().fsck_exit = number(in);
    }
    void add_line(std::istringstream &in) {
        Handle &of = handle(in);
        of.text = rest(in) + "\n" + of.text;
    }

    World &world_;
    fuzz::Framework &framework_;
    Handle handles_[handle_count];
    bool rebuild_failed_ = false;
};

// Every lock that a listed record holds is counted in its file. Without a failed rebuild, whose
// record no list names, nothing else is counted.
void expect_locks(const fuzz::Machine &machine, bool exactly) {
    std::map<std::string, int32_t> held;
    for (const dg_entry *group = DG_LIST; group != nullptr; group = group->next) {
        for (const dg_member *member = group->members; member != nullptr; member = member->next) {
            for (const prim_mir_info *pm = member->h->pminfo_list; pm != nullptr; pm = pm->next) {
                held[pm->lock_file] += pm->lock_set == 1 && pm->lock_file[0] != '\0' ? 1 : 0;
            }
        }
    }
    for (const auto &[path, count] : held) {
        int32_t fields[3] = {};
        const std::string stored = machine.file(path);
        memcpy(fields, stored.data(), std::min(stored.size(), sizeof fields));
        if (fields[1] < count || (exactly && fields[1] != count)) {
            finding("%s counts %d, %d are held", path.c_str(), fields[1], count);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    World world;
    fuzz::Framework framework;
    Steps steps(world, framework);
    std::vector<std::string> lines = fuzz::lines_of(fuzz::text_of(data, size));
    lines.resize(std::min(lines.size(), most_steps));
    for (const std::string &line : lines) steps.take(line.c_str());
    expect_locks(world.machine, !steps.rebuild_failed());
    return 0;
}
