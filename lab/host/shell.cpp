#include "lab/host/shell.h"

#include <cstdio>
#include <string>

#include "lab/host/host.h"

namespace tflab {
namespace {

constexpr char welcome[] = R"(
You are root on the client host "%s" of a lab world: an own root, /dev, mount table and
processes. What you do here touches nothing of your machine; everything ends with this shell.

  tfarray show                              the array: devices, pairs, who sees what
  ls -l /dev/qz/dmp /dev/sd*                its devices as this host sees them
  mkfs.ext4 -q /dev/qz/dmp/p0               a file system on the primary p0
  mkdir -p /data && mount /dev/qz/dmp/p0 /data && cp -r /etc /data
  fimctl run /data -- tar -cf /exchange/backup.tar -C {} .
                                            one whole snapshot: {} is where the copy is mounted
  fimctl freeze /data                       the same step by step; it prints the snapshot's ID
  fimctl mount ID; fimctl release ID        look at the copy, give it back
  fimctl list; fimctl show ID               the catalogue of snapshots
  tfarray fault --help; tfarray path --help make calls fail, paths go down
  qzdg --help; qzvol --help                 disk groups and volumes
  tfarray clock show; tfarray rate --help   the array's own time, and how fast it copies

docs/lab.md, docs/volumes.md and docs/fimctl.md say more. "exit" ends the world.

)";

// The prompt names the host; the shell reads no file of the machine's root user.
constexpr char prompt[] = "PS1=[lab] \\h:\\w\\$ ";

}  // namespace

int run_shell_in_host(const char *host) {
    printf(welcome, host);
    fflush(stdout);
    return execute_in_host(host, {"bash", "--norc", "--noprofile"}, {prompt, "HISTFILE="});
}

}  // namespace tflab
