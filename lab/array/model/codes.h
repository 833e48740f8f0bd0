// The array's answer codes. Also part of the client library: no exceptions, no allocation.
#pragma once

namespace lab {

namespace code {
enum : int {
#define LAB_CODE(number, name, symbol, text) name = number,
#include "lab/array/model/codes.def"
#undef LAB_CODE
};
}  // namespace code

// The text and the symbolic name of a code; never null, also for a code that is not in the table.
const char *code_text(int number);
const char *code_symbol(int number);

}  // namespace lab
