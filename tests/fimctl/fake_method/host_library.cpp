// The host library's part, which the method's own process finds through the method.
#include <cstdio>
#include <cstring>

#include "tests/fimctl/fake_method/script.h"

extern "C" {
#pragma GCC visibility push(default)

int read_AD_HOC_config_entry(const char *, const char *key, char *value, size_t size) {
    for (const std::string &line : fake::lines_of("conf")) {
        if (line != key) continue;
        snprintf(value, size, "1");
        return 0;
    }
    return -1;
}

int qnet_is_local_host(const char *name) {
    return strcmp(name, "here") == 0 ? 1 : 0;
}

int tq_gethostname(char *name, size_t size) {
    snprintf(name, size, "here.example.com");
    return 0;
}

#pragma GCC visibility pop
}
