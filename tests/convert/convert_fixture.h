// An open conversion table with a text and a number to register.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "convert/convert.h"

namespace test {

// Conversion functions for entries of type 2.
inline const char *quote(const void *value) {
    static char quoted[256];
    snprintf(quoted, sizeof quoted, "<%s>", static_cast<const char *>(value));
    return quoted;
}
inline const char *refuse(const void *) {
    return nullptr;
}

class Convert : public testing::Test {
  protected:
    Convert() { convert_open(&table); }
    ~Convert() override { convert_close(table); }

    template <size_t N>
    void add_text(const char *name, char (&value)[N]) {
        ASSERT_EQ(convert_add_ent(table, name, value, N, CTYPE_STR, nullptr), 0u);
    }
    void add_number(const char *name, int32_t *value) {
        ASSERT_EQ(convert_add_ent(table, name, value, 8, CTYPE_INT, nullptr), 0u);
    }
    void add_numbers(int count) {
        for (int i = 0; i < count; ++i) add_number("n", &number);
    }
    // The text of the table, or "failed".
    std::string external() {
        char *out = nullptr;
        if (convert_external(table, &out) != 0) return "failed";
        std::string result = out;
        free(out);
        return result;
    }
    uint32_t internal(const std::string &line) {
        std::vector<char> writable(line.begin(), line.end());
        writable.push_back('\0');
        return convert_internal(table, writable.data());
    }
    std::string message() { return convert_errmsg(table); }

    convert_table *table = nullptr;
    char text[64] = "";
    int32_t number = 0;
};

}  // namespace test
