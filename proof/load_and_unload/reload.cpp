// One process of a host that loads the method, works with it and unloads it, again and again, and
// looks at what stays.
//
// usage: tfreload CYCLES WORK [figures]   WORK: nothing, settings, refusals, snapshot, backup
//
// With figures it tells what it held before and behind the cycles, "held WHAT BEFORE BEHIND", too.
// Prints a line for each thing that grew or stayed behind, and at the end "cycles N". Status 1:
// there was such a line; 2: the work itself failed.
#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "include/timefinder.h"
#include "tests/lab_method/phase/host_state.h"

namespace {

constexpr char method_path[] = "/usr/quill/tessera/lib/libtimefinder_fim.so";
constexpr char text_file[] = "/exchange/text";
// What the C library and the array's keep after their first use is there by then.
constexpr int warm_up = 20;

[[noreturn]] void give_up(const std::string &why) {
    printf("failed: %s\n", why.c_str());
    exit(2);
}

int32_t number;
char errmsg[TF_MESSAGE_SIZE], logmsg[TF_MESSAGE_SIZE];

class Library {
  public:
    Library() : library_(dlopen(method_path, RTLD_NOW | RTLD_LOCAL)) {
        if (library_ == nullptr) give_up(dlerror());
    }
    ~Library() { dlclose(library_); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    template <class Entry>
    Entry *entry(const char *symbol) const {
        void *const found = dlsym(library_, symbol);
        if (found == nullptr) give_up(dlerror());
        return reinterpret_cast<Entry *>(found);
    }
    // An entry point whose status has to be this.
    template <class Entry, class... Arguments>
    void call(int32_t expected, const char *symbol, Arguments... arguments) const {
        const int32_t status = entry<Entry>(symbol)(arguments...);
        if (status != expected) {
            give_up(std::string(symbol) + " " + std::to_string(status) + ": " + errmsg);
        }
    }
    void set_up() const {
        call<decltype(TimeFinder_init)>(0, "TimeFinder_init", &number, logmsg, errmsg);
        call<decltype(TimeFinder_set_locale)>(0, "TimeFinder_set_locale", "C", "C");
        call<decltype(TimeFinder_set_logf)>(
            0, "TimeFinder_set_logf", [](const char *) {}, 2);
    }

  private:
    void *library_;
};

void refusals(const Library &method) {
    int32_t volumes = 0;
    hdef *handle = nullptr;
    char path[TF_VOLPATH_SIZE], text[] = "HDEF-keep_fi=1\nnonsense\n";
    method.call<decltype(TimeFinder_freeze)>(11, "TimeFinder_freeze", "nonsense", "/data", "/copy",
                                             nullptr, &volumes, TF_FREEZE_WAIT, &handle);
    method.call<decltype(TimeFinder_freeze)>(11, "TimeFinder_freeze", nullptr, "/nowhere", "/copy",
                                             nullptr, &volumes, TF_FREEZE_WAIT, &handle);
    method.call<decltype(TimeFinder_rebuild)>(11, "TimeFinder_rebuild", &handle, text);
    method.call<decltype(TimeFinder_volumes)>(11, "TimeFinder_volumes", nullptr, path, &volumes);
    method.call<decltype(TimeFinder_thaw)>(11, "TimeFinder_thaw", nullptr);
}

void snapshot(const Library &method) {
    int32_t volumes = 0;
    hdef *handle = nullptr;
    char *text = nullptr;
    method.call<decltype(TimeFinder_freeze)>(0, "TimeFinder_freeze", nullptr, "/data", "/copy",
                                             nullptr, &volumes, TF_FREEZE_WAIT, &handle);
    method.call<decltype(TimeFinder_ctl)>(0, "TimeFinder_ctl", handle, 4);
    method.call<decltype(TimeFinder_freeze_commit)>(0, "TimeFinder_freeze_commit", handle);
    method.call<decltype(TimeFinder_ckpt)>(0, "TimeFinder_ckpt", handle, &text);
    free(text);
    method.call<decltype(TimeFinder_thaw)>(0, "TimeFinder_thaw", handle);
    method.call<decltype(TimeFinder_thaw_commit)>(0, "TimeFinder_thaw_commit", handle);
}

// As on the backup host: no locks, and the mirror stays split.
void backup(const Library &method) {
    std::ifstream in(text_file);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    text = "HDEF-is_tgt=1\n" + text;
    int32_t volumes = 0;
    hdef *handle = nullptr;
    char path[TF_VOLPATH_SIZE];
    method.call<decltype(TimeFinder_rebuild)>(0, "TimeFinder_rebuild", &handle, text.data());
    method.call<decltype(TimeFinder_volumes)>(0, "TimeFinder_volumes", handle, path, &volumes);
    method.call<decltype(TimeFinder_thaw)>(0, "TimeFinder_thaw", handle);
}

void work(const char *what) {
    const Library method;
    if (strcmp(what, "nothing") == 0) return;
    method.set_up();
    if (strcmp(what, "settings") == 0) return;
    if (strcmp(what, "refusals") == 0) return refusals(method);
    if (strcmp(what, "snapshot") == 0) return snapshot(method);
    if (strcmp(what, "backup") == 0) return backup(method);
    give_up(std::string("there is no work ") + what);
}

struct Footprint {
    size_t heap = 0, mappings = 0, descriptors = 0, libraries = 0;
};

Footprint footprint() {
    const struct mallinfo2 heap = mallinfo2();
    Footprint now = {heap.uordblks + heap.hblkhd, 0, 0, 0};
    if (DIR *const folder = opendir("/proc/self/fd")) {
        while (readdir(folder) != nullptr) ++now.descriptors;
        closedir(folder);
    }
    // Read into a buffer that is always there: a stream's own would be counted.
    static char maps[1 << 18];
    FILE *const file = fopen("/proc/self/maps", "re");
    if (file == nullptr) give_up("no maps");
    const size_t size = fread(maps, 1, sizeof maps - 1, file);
    fclose(file);
    maps[size] = '\0';
    for (const char *at = maps; (at = strchr(at, '\n')) != nullptr; ++at) ++now.mappings;
    for (const char *name : {"libtimefinder_fim", "libtessera_host", "libsymapi"}) {
        if (strstr(maps, name) != nullptr) ++now.libraries;
    }
    return now;
}

// Returns whether something grew.
bool compare(int cycle, const char *what, size_t before, size_t now) {
    if (now <= before) return false;
    printf("cycle %d: %s %zu, before %zu\n", cycle, what, now, before);
    return true;
}

void print_figures(const Footprint &before, const Footprint &behind) {
    printf("held bytes-of-heap %zu %zu\n", before.heap, behind.heap);
    printf("held mappings %zu %zu\n", before.mappings, behind.mappings);
    printf("held descriptors %zu %zu\n", before.descriptors, behind.descriptors);
}

}  // namespace

int main(int argc, char **argv) {
    const bool figures = argc == 4 && strcmp(argv[3], "figures") == 0;
    if (argc != 3 && !figures) give_up("usage: tfreload CYCLES WORK [figures]");
    const int cycles = atoi(argv[1]);
    const phase::HostState before;
    Footprint first, now;
    bool grown = false;
    for (int cycle = 1; cycle <= cycles + warm_up && !grown; ++cycle) {
        work(argv[2]);
        now = footprint();
        grown = compare(cycle, "libraries stay mapped:", 0, now.libraries);
        if (cycle <= warm_up) {
            first = now;
            continue;
        }
        grown = compare(cycle, "bytes of heap:", first.heap, now.heap) || grown;
        grown = compare(cycle, "mappings:", first.mappings, now.mappings) || grown;
        grown = compare(cycle, "descriptors:", first.descriptors, now.descriptors) || grown;
    }
    for (const std::string &change : before.changes(phase::HostState(), 1)) {
        printf("changed %s\n", change.c_str());
        grown = true;
    }
    if (figures) print_figures(first, now);
    printf("cycles %d\n", cycles);
    return grown ? 1 : 0;
}
