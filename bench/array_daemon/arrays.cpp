#include "bench/array_daemon/arrays.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "include/symapi.h"
#include "lab/array/transport/wire.h"
#include "lab/host/places.h"
#include "lab/host/world.h"

namespace bench {
namespace {

namespace place = tflab::place;

// The world's /run is its own, so the host library finds its socket there without a host's root.
const std::string devices = place::run / "bench-dev";
const std::string database = place::run / "bench.db";
constexpr uint64_t mib = 1 << 20;

std::string formatted(const char *format, int number) {
    char text[32];
    snprintf(text, sizeof text, format, number);
    return text;
}

std::string path_below_dev(const Kind &kind, int pair) {
    return "/qz/dmp/" + kind.symid + formatted(".%d", pair);
}

void write_array(const Kind &kind, std::ofstream *masks, std::ofstream *out) {
    *out << "[[array]]\nsymid = \"" << kind.symid << "\"\ndevice = [\n";
    for (int i = 0; i < kind.pairs; ++i) {
        *out << "  { name = \"" << standard_name(i) << "\", size = \"" << kind.size / mib
             << "M\", bcv = [{ name = \"" << bcv_name(i) << "\" }] },\n";
        *masks << "[[mask]]\nsymid = \"" << kind.symid << "\"\ndevice = \"" << standard_name(i)
               << "\"\nhost = \"bench\"\npaths = [\"/dev" << path_below_dev(kind, i) << "\"]\n";
    }
    *out << "]\n";
}

void build(const std::string &file) {
    tflab::administer({"build", file});
}

}  // namespace

const std::vector<Kind> &kinds() {
    static const std::vector<Kind> all = {
        {"000184500001", 1, 64 * mib},   {"000184500002", 8, 64 * mib},
        {"000184500003", 64, 64 * mib},  {"000184500004", 1, 1024 * mib},
        {"000184500005", 8, 1024 * mib}, {"000184500006", 64, 1024 * mib},
    };
    return all;
}

std::string standard_name(int pair) {
    return formatted("%04X", 0xA000 + pair);
}
std::string bcv_name(int pair) {
    return formatted("%04X", 0xB000 + pair);
}
std::string standard_node(const Kind &kind, int pair) {
    return devices + path_below_dev(kind, pair);
}
std::string bcv_file(const Kind &kind, int pair) {
    return place::store / (kind.symid + "-" + bcv_name(pair) + ".bcv");
}

void build_arrays() {
    const std::string file = place::base / "bench.toml", mask_file = place::base / "masks.toml";
    {
        std::ofstream out(file), masks(mask_file);
        out << "[settings]\nrate = 0\n";
        for (const Kind &kind : kinds()) write_array(kind, &masks, &out);
    }
    tflab::make_folder(devices);
    tflab::administer({"host", "add", "bench", "--socket", lab::host_socket, "--dev", devices});
    build(file);
    build(mask_file);
}

int32_t open_session() {
    int32_t session = 0;
    expect("SymInitV", SymInitV(database.c_str(), 4, &session, nullptr, 0));
    return session;
}

void expect(const char *what, int answer, int expected) {
    if (answer == expected) return;
    throw std::runtime_error(std::string(what) + " answers " + std::to_string(answer) + ", " +
                             SymPerror(0, answer));
}

}  // namespace bench
