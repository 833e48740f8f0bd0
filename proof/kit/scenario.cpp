#include "proof/kit/scenario.h"

#include <stdexcept>

#include "proof/kit/scenario_parts.h"

namespace proof {
namespace {

// The processes of one object that is no volume: freeze, read, release.
struct Plain {
    std::string source, copy, config = "-";
    std::string original;  // a line that writes it, one that changes it, one that compares the copy
    std::string change, compare;
};

std::vector<Process> processes_of(const Plain &object) {
    return {
        {"freeze",
         "client1",
         {object.original},
         {"freeze", object.config, object.source, object.copy, "or_give_up", "ctl", "4",
          "or_give_up", "commit", "or_give_up", "ckpt", "/exchange/text", "or_give_up"}},
        {"volumes",
         "client1",
         {object.change},
         {"rebuild", "/exchange/text", "or_stop", "volumes", "or_stop", "run", object.compare,
          "ckpt", "/exchange/text.up", "or_stop"}},
        {"release",
         "client1",
         {},
         {"rebuild", "/exchange/text.up", "or_stop", "thaw", "or_stop", "thaw_commit", "or_stop"}}};
}

Plain file_on_data(const std::string &config = "-") {
    return {"/data",
            "/copy",
            config,
            "cp /exchange/original /data/file && sync -f /data",
            "echo later >/data/file && sync -f /data",
            "cmp /copy/file /exchange/original"};
}

constexpr char same_file[] = "grep -q later /data/file || cmp /data/file /exchange/original";

std::string ext4_on(const std::string &device) {
    return "mkfs.ext4 -q " + device + " && mkdir /data /copy && mount " + device +
           " /data && head -c 100000 /dev/urandom >/exchange/original &&"
           " cp /exchange/original /data/file && sync";
}

Scenario file_system() {
    const std::string pair = "000184500123 00A1 01A1";
    return {"file_system",
            "demo",
            {"client1"},
            {ext4_on("/dev/qz/dmp/p0"), "tfarray establish --full " + pair},
            processes_of(file_on_data()),
            {part::remove_captures, part::forget_the_snapshot, part::let_the_array_settle,
             part::establish(pair), part::let_the_array_settle},
            {same_file}};
}

Scenario block_device() {
    const std::string first =
        "head -c 200000 /exchange/original | dd of=/dev/qz/dmp/p0 bs=64k"
        " iflag=fullblock conv=fsync status=none";
    return {"block_device",
            "demo",
            {"client1"},
            {"head -c 300000 /dev/urandom >/exchange/original; mkdir /copy"},
            processes_of({"/dev/qz/dmp/p0", "/copy", "-", first,
                          "head -c 100000 /exchange/original | tac | dd of=/dev/qz/dmp/p0 bs=64k"
                          " iflag=fullblock conv=fsync status=none",
                          "cmp -n 200000 /dev/sdq /exchange/original"}),
            {part::remove_captures, part::forget_the_snapshot, part::let_the_array_settle,
             part::split("000184500123 00A1 01A1"), part::let_the_array_settle},
            {"stat -c '%u:%g %a' /dev/sdq /dev/qz/dmp/p0"}};
}

Scenario two_objects() {
    const std::string files = "for n in 1 3; do cp /exchange/original$n /data$n/file; done; sync";
    return {"two_objects",
            "two_arrays",
            {"client1"},
            {"for n in 1 3; do mkfs.ext4 -q /dev/qz/dmp/p$n && mkdir /data$n /copy$n &&"
             " mount /dev/qz/dmp/p$n /data$n && head -c 100000 /dev/urandom >/exchange/original$n"
             " || exit 1; done; " +
             files},
            {{"freeze",
              "client1",
              {files},
              {"object",
               "0",
               "freeze",
               "sync_at_start=1",
               "/data1",
               "/copy1",
               "or_give_up",
               "object",
               "1",
               "freeze",
               "sync_at_start=1",
               "/data3",
               "/copy3",
               "or_give_up",
               "ctl",
               "4",
               "or_give_up",
               "commit",
               "or_give_up",
               "object",
               "0",
               "commit",
               "or_give_up",
               "ckpt",
               "/exchange/text0",
               "or_give_up",
               "object",
               "1",
               "ckpt",
               "/exchange/text1",
               "or_give_up"}},
             {"volumes",
              "client1",
              {"for n in 1 3; do echo later >/data$n/file; done; sync"},
              {"object",
               "0",
               "rebuild",
               "/exchange/text0",
               "or_stop",
               "object",
               "1",
               "rebuild",
               "/exchange/text1",
               "or_stop",
               "object",
               "0",
               "volumes",
               "or_stop",
               "object",
               "1",
               "volumes",
               "or_stop",
               "run",
               "for n in 1 3; do cmp /copy$n/file /exchange/original$n || exit 1; done",
               "object",
               "0",
               "ckpt",
               "/exchange/text0.up",
               "or_stop",
               "object",
               "1",
               "ckpt",
               "/exchange/text1.up",
               "or_stop"}},
             {"release",
              "client1",
              {},
              {"object",
               "0",
               "rebuild",
               "/exchange/text0.up",
               "or_stop",
               "object",
               "1",
               "rebuild",
               "/exchange/text1.up",
               "or_stop",
               "object",
               "0",
               "thaw",
               "or_stop",
               "object",
               "1",
               "thaw",
               "or_stop",
               "object",
               "0",
               "thaw_commit",
               "or_stop",
               "object",
               "1",
               "thaw_commit",
               "or_stop"}}},
            {part::remove_captures, part::forget_the_snapshot, part::let_the_array_settle,
             part::split("000184500123 00A1 01A1"), part::split("000184500777 00B1 01B1"),
             part::let_the_array_settle},
            {"for n in 1 3; do grep -q later /data$n/file ||"
             " cmp /data$n/file /exchange/original$n || exit 1; done"}};
}

Scenario multipath() {
    return {"multipath",
            "multipath",
            {"client1"},
            {ext4_on("/dev/emcpowera")},
            processes_of(file_on_data("sync_at_start=2")),
            {part::remove_captures, part::forget_the_snapshot, part::let_the_array_settle,
             part::split("000184500123 00A1 01A1"), part::let_the_array_settle},
            {same_file}};
}

Scenario association() {
    return {"association",
            "mirrors",
            {"client1"},
            {ext4_on("/dev/qz/dmp/p3")},
            processes_of(file_on_data()),
            {part::remove_captures, part::forget_the_snapshot, part::let_the_array_settle,
             part::split("000184500123 00A3 03A2"), part::let_the_array_settle,
             part::establish("000184500123 00A3 03A1"), part::let_the_array_settle},
            {same_file}};
}

}  // namespace

const std::vector<Scenario> &scenarios() {
    static const std::vector<Scenario> all = {file_system(),    block_device(),  two_objects(),
                                              multipath(),      association(),   part::volumes(),
                                              part::imported(), part::restored()};
    return all;
}

const std::vector<Scenario> &call_scenarios() {
    static const std::vector<Scenario> all = [] {
        std::vector<Scenario> made = scenarios();
        for (const auto &one :
             {part::names(), part::devices(), part::quiesce(), part::parser(), part::resolved()})
            made.push_back(one);
        return made;
    }();
    return all;
}

const Scenario &scenario(const std::string &name) {
    for (const Scenario &one : call_scenarios()) {
        if (one.name == name) return one;
    }
    throw std::runtime_error("there is no scenario " + name);
}

}  // namespace proof
