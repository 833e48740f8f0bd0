// The host library's commands, which do nothing here.
#include <cstring>

#include "method/text.h"
#include "tessera_host.h"

void Q_sys_cmd_exec_options_init(Q_sys_cmd_exec_options *options) {
    *options = {-1, -1, 0};
}
int Q_mount(const char *, const char *, const char *, int, Q_sys_cmd_exec_options *) {
    return 0;
}
int Q_umount(const char *, int, Q_sys_cmd_exec_options *) {
    return 0;
}
int Q_fsck(const char *, const char *, int, Q_sys_cmd_exec_options *) {
    return 0;
}
int tq_gethostname(char *name, size_t size) {
    Q_strlcpy(name, "client1.example.com", size);
    return 0;
}
int qnet_is_local_host(const char *) {
    return 0;
}
// The one entry that is there asks for the import of the disk group on the backup client.
int read_AD_HOC_config_entry(const char *, const char *key, char *, size_t) {
    return strcmp(key, "dgimport") == 0 ? 0 : 1;
}
