// Key=value conversion: a table of registered variables that becomes text of "name=value" lines,
// and takes such lines back into the variables.
//
// Every operation works on a table that the caller opens and closes; nothing is global. Status 0 is
// success; a message stands in the table's own buffer (convert_errmsg).
#pragma once

#include <cstdint>

// How a variable stands in the text.
enum {
    CTYPE_STR = 0,  // NUL-terminated text; value_size is the size of its buffer
    CTYPE_INT = 1,  // signed 32-bit integer, whatever value_size says
    CTYPE_FUNC = 2  // through the entry's conversion function
};

// Conversion function of a CTYPE_FUNC entry, called with the variable on the way out and with the
// text after "=" on the way in. Returns a text that is not freed, or null for an error.
typedef const char *(*convert_function)(const void *value);

struct convert_table;

// Makes a table with room for 1024 entries: 0, 1 when the table, 2 when its entries have no memory
// (*table is then left alone).
uint32_t convert_open(convert_table **table);
// Frees a table, or nothing for null. The registered variables are not touched.
uint32_t convert_close(convert_table *table);
// Appends an entry. name must outlive the table. Returns 0, or 1 with a message; an entry that is
// refused for its type or size stays registered.
uint32_t convert_add_ent(convert_table *table, const char *name, void *value, uint64_t value_size,
                         int32_t type, convert_function conv_func);
// The text of all entries in the order of registration; *text comes from malloc and the caller
// frees it. Returns 0, or 1 with *text null.
uint32_t convert_external(convert_table *table, char **text);
// Stores one line "name=value" (which is changed) into its variable. An unknown name is not an
// error.
uint32_t convert_internal(convert_table *table, char *line);
// Sets every registered integer to 0 and every other variable's first byte to NUL.
uint32_t convert_reinit(convert_table *table);
// The last message; lives as long as the table.
char *convert_errmsg(convert_table *table);
