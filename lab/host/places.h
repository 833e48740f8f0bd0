// Where everything of a world lies. All of it is below /run, which is a tmpfs of the world's own;
// the folder itself is there on every machine, so nothing has to be made outside.
#pragma once

#include <filesystem>
#include <string>

namespace tflab::place {

inline const std::filesystem::path run = "/run";
inline const std::filesystem::path base = "/run/tflab";
inline const std::filesystem::path store_image = base / "store.img";
inline const std::filesystem::path store = base / "store";  // the reflink xfs on that image
inline const std::filesystem::path state = base / "array.db";
inline const std::filesystem::path logs = base / "log";
inline const std::filesystem::path tree = base / "tree";  // what is installed in every host
inline const std::filesystem::path hosts = base / "hosts";
inline const std::filesystem::path exchange = base / "exchange";
inline const std::filesystem::path build = base / "build";  // a link to the build folder
inline const std::filesystem::path warden = base / "warden.sock";
inline const std::filesystem::path administrator = "/run/tfarray";
inline const std::filesystem::path control = administrator / "control.sock";

// Of one host.
struct Host {
    explicit Host(const std::string &name) : folder(hosts / name) {}
    std::filesystem::path folder;
    std::filesystem::path root = folder / "root";
    std::filesystem::path changes = folder / "changes";  // upper and work folders of its overlays
    std::filesystem::path dev = folder / "dev";          // its /dev; the array makes nodes here
    std::filesystem::path own_run = folder / "run";      // its /run, with the array's socket
    std::filesystem::path socket = own_run / "tfarray.sock";
    std::filesystem::path pid = folder / "pid";  // of its first process
};

// Seen from inside a host.
inline const std::filesystem::path exchange_in_host = "/exchange";

}  // namespace tflab::place
