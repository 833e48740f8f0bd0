#include "tests/support/fake_host.h"

#include <algorithm>

namespace test {

FakeHost &fake_host() {
    static FakeHost host;
    return host;
}

namespace {

int answer(const std::string &line, Q_sys_cmd_exec_options *options, int result, int exit_status) {
    FakeHost &host = fake_host();
    host.calls.push_back(line);
    if (host.on_command) host.on_command(line, *options);
    options->exit_status = exit_status;
    return result;
}

}  // namespace
}  // namespace test

using test::fake_host;

void Q_sys_cmd_exec_options_init(Q_sys_cmd_exec_options *options) {
    *options = {-1, -1, 0};
    ++fake_host().fresh_records;
}

int Q_mount(const char *block, const char *dir, const char *fstype, int flags,
            Q_sys_cmd_exec_options *options) {
    return test::answer(
        std::string("mount ") + block + " " + dir + " " + fstype + " " + std::to_string(flags),
        options, fake_host().mount_result, fake_host().mount_exit);
}

int Q_umount(const char *dir, int flags, Q_sys_cmd_exec_options *options) {
    return test::answer(std::string("umount ") + dir + " " + std::to_string(flags), options,
                        fake_host().umount_result, fake_host().umount_exit);
}

int Q_fsck(const char *device, const char *fstype, int flags, Q_sys_cmd_exec_options *options) {
    return test::answer(std::string("fsck ") + device + " " + fstype + " " + std::to_string(flags),
                        options, fake_host().fsck_result, fake_host().fsck_exit);
}

int tq_gethostname(char *name, size_t size) {
    if (fake_host().host_name_result == 0) Q_strlcpy(name, fake_host().host_name.c_str(), size);
    return fake_host().host_name_result;
}

int qnet_is_local_host(const char *name) {
    const auto &local = fake_host().local_hosts;
    return std::find(local.begin(), local.end(), name) != local.end() ? 1 : 0;
}

int read_AD_HOC_config_entry(const char *root, const char *key, char *value, size_t size) {
    fake_host().looked_up.push_back(std::string(root) + " " + key);
    const auto entry = fake_host().entries.find(key);
    if (entry == fake_host().entries.end()) return 1;
    Q_strlcpy(value, entry->second.c_str(), size);
    return 0;
}
