#include "tests/lab_method/phase/parse.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fim_config/qfm_fim_config.h"

namespace {

template <class Function>
Function *exported(void *library, const char *name) {
    void *found = dlsym(library, name);
    if (found != nullptr) return reinterpret_cast<Function *>(found);
    fprintf(stderr, "tfphase: %s\n", dlerror());
    exit(2);
}

}  // namespace

#define EXPORTED(name) exported<decltype(name)>(library, #name)

std::vector<std::pair<std::string, std::string>> parse_result(void *library, const char *options,
                                                              const char *text) {
    int32_t a = 77, c = 77, counted = 0, snapshots = 77, status = 0;
    int64_t d = 77;
    char *b = nullptr;
    qfm_fcp_table *table = EXPORTED(qfm_fcp_table_new)(&status);
    EXPORTED(qfm_fcp_int_new)(table, &status, "a", &a);
    EXPORTED(qfm_fcp_string_new)(table, &status, "b", &b);
    EXPORTED(qfm_fcp_int_range_flag_new)(table, &status, "c", &c, 0, 10, &counted);
    EXPORTED(qfm_fcp_long_new)(table, &status, "d", &d);
    EXPORTED(qfm_fcp_int_range_new)(table, &status, "max_snapshots", &snapshots, 1, 10);
    qfm_fcp_options given = {};
    if (options != nullptr && strlen(options) == sizeof given / sizeof(int32_t)) {
        int32_t digits[sizeof given / sizeof(int32_t)];
        for (size_t i = 0; i < std::size(digits); ++i) digits[i] = options[i] - '0';
        memcpy(&given, digits, sizeof given);
    }
    if (status == 0)
        status = EXPORTED(qfm_fcp_parse)(text, options == nullptr ? nullptr : &given, table);
    std::vector<std::pair<std::string, std::string>> result = {
        {"status", std::to_string(status)},
        {"field", "a=" + std::to_string(a)},
        {"field", "b=" + std::string(b == nullptr ? "" : b)},
        {"field", "c=" + std::to_string(c)},
        {"field", "counted=" + std::to_string(counted)},
        {"field", "d=" + std::to_string(d)},
        {"field", "max_snapshots=" + std::to_string(snapshots)}};
    free(b);
    EXPORTED(qfm_fcp_table_delete)(table);
    return result;
}
