#include "lab/array/model/codes.h"

namespace lab {
namespace {

struct Row {
    int number;
    const char *symbol, *text;
};

constexpr Row rows[] = {
#define LAB_CODE(number, name, symbol, text) {number, symbol, text},
#include "lab/array/model/codes.def"
#undef LAB_CODE
};

const Row *find(int number) {
    for (const Row &row : rows) {
        if (row.number == number) return &row;
    }
    return nullptr;
}

}  // namespace

const char *code_text(int number) {
    const Row *row = find(number);
    return row != nullptr ? row->text : "The array has no text for this code";
}

const char *code_symbol(int number) {
    const Row *row = find(number);
    return row != nullptr ? row->symbol : "ARRAY_CODE_UNKNOWN";
}

}  // namespace lab
