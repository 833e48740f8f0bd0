#include "fimctl/inspect/host_service.h"

#include <dlfcn.h>

#include <cstring>

#include "fimctl/paths.h"

namespace fimctl {
namespace {

constexpr const char *entry_points[] = {
    "TimeFinder_init",     "TimeFinder_query",   "TimeFinder_set_locale",
    "TimeFinder_set_logf", "TimeFinder_freeze",  "TimeFinder_freeze_commit",
    "TimeFinder_ctl",      "TimeFinder_thaw",    "TimeFinder_thaw_commit",
    "TimeFinder_ckpt",     "TimeFinder_rebuild", "TimeFinder_volumes"};

// The method's word for a host whose name cannot be read.
constexpr char unnamed_host[] = "host";
constexpr size_t text_size = 1024;

// Looks in a library and in those that it is linked to, in their order: as the method would.
template <typename Function>
Function *find(void *library, const char *name) {
    void *found = library == nullptr ? nullptr : dlsym(library, name);
    Function *function = nullptr;
    memcpy(&function, &found, sizeof function);
    return function;
}

using ReadEntry = int(const char *root, const char *key, char *value, size_t size);
using IsLocal = int(const char *name);
using GetName = int(char *name, size_t size);

}  // namespace

HostService::HostService(const std::string &method)
    : library_(dlopen(method.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) trouble_ = dlerror();
}

std::vector<std::string> HostService::missing_entry_points() const {
    std::vector<std::string> missing;
    for (const char *name : entry_points) {
        if (library_ == nullptr || dlsym(library_, name) == nullptr) missing.emplace_back(name);
    }
    return missing;
}

bool HostService::answers() const {
    return find<ReadEntry>(library_, "read_AD_HOC_config_entry") != nullptr &&
           find<IsLocal>(library_, "qnet_is_local_host") != nullptr &&
           find<GetName>(library_, "tq_gethostname") != nullptr;
}

bool HostService::has_entry(const std::string &key) const {
    char value[text_size] = "";
    auto *read = find<ReadEntry>(library_, "read_AD_HOC_config_entry");
    return read != nullptr && read(path::product_root, key.c_str(), value, sizeof value) == 0;
}

bool HostService::is_local(const std::string &host) const {
    auto *ask = find<IsLocal>(library_, "qnet_is_local_host");
    return ask != nullptr && ask(host.c_str()) != 0;
}

std::string HostService::short_name() const {
    char name[text_size] = "";
    auto *get = find<GetName>(library_, "tq_gethostname");
    if (get == nullptr || get(name, sizeof name) != 0) return unnamed_host;
    const std::string whole(name, strnlen(name, sizeof name));
    return whole.substr(0, whole.find('.'));
}

}  // namespace fimctl
