#include "lab/host/tree.h"

#include <cstdio>

namespace tflab {
namespace {

struct File {
    const char *built;      // below the build folder
    const char *installed;  // below the host's root
};

constexpr File files[] = {
    {"lib/libtimefinder_fim.so", "usr/quill/tessera/lib/libtimefinder_fim.so"},
    {"lib/libtessera_host.so", "usr/quill/tessera/lib/libtessera_host.so"},
    {"bin/tqtpcinfo", "usr/quill/tessera/bin/tqtpcinfo"},
    {"bin/tqdgclone", "usr/quill/tessera/bin/tqdgclone"},
    {"lab/libsymapi.so", "usr/symcli/shlib/libsymapi.so"},
    {"lab/libtflabsleep.so", "usr/lib/tflab/libtflabsleep.so"},
    {"bin/qzvm", "usr/sbin/qzdg"},
    {"bin/qzvm", "usr/sbin/qzdisk"},
    {"bin/qzvm", "usr/sbin/qzdctl"},
    {"bin/qzvm", "usr/sbin/qzvol"},
    {"bin/qzvm", "usr/sbin/qzvset"},
    {"bin/lockfs", "usr/sbin/lockfs"},
    {"bin/fimctl", "usr/bin/fimctl"},
    {"man/man8/fimctl.8", "usr/share/man/man8/fimctl.8"},
    {"man/man5/fimctl.toml.5", "usr/share/man/man5/fimctl.toml.5"},
    {"man/man7/tessera-snapshot.7", "usr/share/man/man7/tessera-snapshot.7"},
    {"bin/tfarray", "usr/bin/tfarray"},
    {"bin/tfwriter", "usr/bin/tfwriter"},
};

constexpr const char *folders[] = {
    "usr/quill/tessera/online_util/fi_cntl",
    "usr/quill/tessera/online_util/db_cntl",
    "var/symapi",
    "exchange",
};

}  // namespace

void install_tree(const fs::path &build, const fs::path &target) {
    for (const char *folder : folders) make_folder(target / folder);
    for (const File &file : files) {
        const fs::path source = build / file.built, copy = target / file.installed;
        if (!fs::exists(source)) {
            fprintf(stderr, "tflab: %s is not built; hosts do without it\n", source.c_str());
            continue;
        }
        make_folder(copy.parent_path());
        fs::copy_file(source, copy, fs::copy_options::overwrite_existing);
    }
}

}  // namespace tflab
