// tqtpcinfo: what the host product knows of one device. For a device of the array it prints its
// path and its serial number, on one line:
//
//   EMC SYMMETRIX p=/dev/qz/rdmp/p0 s=00018450012300A1
//
// The serial is the array's number followed by the device's name on the array, so that the serials
// of all devices of an array differ in their last characters only.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "include/symapi.h"

namespace {

constexpr char library_path[] = "/usr/symcli/shlib/libsymapi.so";
constexpr char database_folder[] = "/var/symapi/db";
constexpr char database_path[] = "/var/symapi/db/symapi_db.bin";
constexpr int use_database = 3, create_database = 4;

// The array library, opened as every program of the product opens it.
class Library {
  public:
    Library() : handle_(dlopen(library_path, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) throw std::runtime_error(dlerror());
    }
    ~Library() { dlclose(handle_); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    template <class Function>
    Function *find(const char *name) const {
        void *found = dlsym(handle_, name);
        if (found == nullptr) throw std::runtime_error(std::string(library_path) + ": no " + name);
        return reinterpret_cast<Function *>(found);
    }

  private:
    void *handle_;
};

class Session {
  public:
    explicit Session(const Library &library) : library_(library) {
        const char *text = nullptr;
        library_.find<decltype(SymApiVersion)>("SymApiVersion")(&version_, &text);
        // Whoever comes first on a host makes its database.
        if (access(database_path, F_OK) != 0) {
            mkdir(database_folder, 0755);  // what stands in the way shows at the next call
            open_with(create_database);
            check("SymDiscover", library_.find<decltype(SymDiscover)>("SymDiscover")(session_, 0));
            close();
        }
        open_with(use_database);
    }
    ~Session() { close(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    SymDevice show(const std::string &path) {
        SymDevice device = {};
        check("SymPdevShow",
              library_.find<decltype(SymPdevShow)>("SymPdevShow")(session_, path.c_str(), &device));
        return device;
    }

  private:
    void open_with(int mode) {
        SymInitOptions options = {};
        options.version = SYM_INIT_OPTIONS_VERSION;
        check("SymInitV", library_.find<decltype(SymInitV)>("SymInitV")(
                              database_path, mode, &session_, &options, version_));
    }
    void close() {
        if (session_ >= 0) library_.find<decltype(SymExit)>("SymExit")(session_, 0);
        session_ = -1;
    }
    void check(const char *call, int code) const {
        if (code == 0) return;
        const char *text = library_.find<decltype(SymPerror)>("SymPerror")(session_, code);
        throw std::runtime_error(std::string(call) + " answers " + std::to_string(code) + " (" +
                                 (text != nullptr ? text : "") + ")");
    }

    const Library &library_;
    int32_t session_ = -1;
    uint32_t version_ = 0;
};

void print(const std::string &output, const std::string &line) {
    if (output == "-") {
        std::cout << line << std::flush;
        if (!std::cout) throw std::runtime_error("cannot write");
        return;
    }
    std::ofstream file(output, std::ios::trunc);
    file << line << std::flush;
    if (!file) throw std::runtime_error("cannot write " + output);
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Prints what is known of a device.", "tqtpcinfo"};
    std::string device, output = "-";
    bool full = false;
    app.add_flag("-f", full, "all that is known");
    app.add_option("-p", device, "path of the device")->required();
    app.add_option("-o", output, "where to print it; - is the standard output");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    try {
        const Library library;
        Session session(library);
        const SymDevice found = session.show(device);
        print(output, "EMC SYMMETRIX p=" + device + " s=" + found.symid + found.sym_devname + "\n");
    } catch (const std::exception &error) {
        fprintf(stderr, "tqtpcinfo: %s: %s\n", device.c_str(), error.what());
        return 1;
    }
    return 0;
}
