#include "proof/kit/scenario.h"

#include <stdexcept>

namespace proof {
namespace {

// Captures of commands that failed stay for the administrator; he removes them in the end.
constexpr char remove_captures[] = "rm -f /tmp/QfMS* /tmp/EMCTX* /tmp/EMCTF*";
constexpr char let_the_array_settle[] = "tfarray clock advance 60";

Scenario file_system() {
    return {"file_system",
            "demo",
            {"client1"},
            {"mkfs.ext4 -q /dev/qz/dmp/p0 && mkdir /data /copy && mount /dev/qz/dmp/p0 /data",
             "head -c 100000 /dev/urandom >/data/file && cp /data/file /exchange/original && sync",
             "tfarray establish --full 000184500123 00A1 01A1", let_the_array_settle},
            {{"freeze",
              "client1",
              {"cp /exchange/original /data/file && sync -f /data"},
              {"freeze", "-", "/data", "/copy", "or_give_up", "ctl", "4", "or_give_up", "commit",
               "or_give_up", "ckpt", "/exchange/text", "or_give_up"}},
             {"volumes",
              "client1",
              {"echo later >/data/file && sync -f /data"},
              {"rebuild", "/exchange/text", "or_stop", "volumes", "or_stop", "run",
               "cmp /copy/file /exchange/original", "ckpt", "/exchange/text.up", "or_stop"}},
             {"release",
              "client1",
              {},
              {"rebuild", "/exchange/text.up", "or_stop", "thaw", "or_stop", "thaw_commit"}}},
            {remove_captures, "rm -rf /exchange/text* /var/symapi/db", let_the_array_settle},
            {"grep -q later /data/file || cmp /data/file /exchange/original"}};
}

}  // namespace

const std::vector<Scenario> &scenarios() {
    static const std::vector<Scenario> all = {file_system()};
    return all;
}

const Scenario &scenario(const std::string &name) {
    for (const Scenario &one : scenarios()) {
        if (one.name == name) return one;
    }
    throw std::runtime_error("there is no scenario " + name);
}

}  // namespace proof
