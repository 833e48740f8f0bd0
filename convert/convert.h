// Key=value conversion: a table of registered variables that becomes text of "name=value" lines,
// and takes such lines back into the variables.
//
//     convert_table *table = nullptr;
//     if (convert_open(&table) != 0) return no_memory;
//     convert_add_ent(table, "HDEF-fs_path", h->fs_path, sizeof h->fs_path, CTYPE_STR, nullptr);
//     char *text = nullptr;
//     if (convert_external(table, &text) != 0) log(convert_errmsg(table));
//     convert_close(table);                                 // text is the caller's: free it
//
// Every operation works on a table that the caller opens and closes; nothing is global, so two
// tables never disturb each other. Status 0 is success; a message stands in the table's own buffer
// (convert_errmsg). The format has no escape: a text that holds a newline cannot be read back.
#pragma once

#include <cstddef>
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

// One registered variable.
struct convert_ent {
    const char *name;     // the key; not owned
    void *value;          // the variable; not owned
    uint64_t value_size;  // bytes at value
    int32_t type;         // CTYPE_*; an entry refused for its type keeps what it was given
    convert_function conv_func;
    int32_t follower;  // internal: number, from 1, of the entry that the line behind this one's
                       // named the last time; 0 for none yet
};

// A table. Only the functions below change it; tests look into it.
struct convert_table {
    int32_t capacity;      // slots asked for so far, a multiple of 1024
    int32_t count;         // entries registered
    convert_ent *entries;  // owned
    char errmsg[1024];     // the last message
    int32_t slots;         // slots that entries really has; below capacity after a failed growth
    int32_t last_found;    // number, from 1, of the entry that the last line named
};

// Makes a table with room for 1024 entries, to be given back with convert_close. Returns 0; 1 when
// the table, 2 when its entries have no memory (*table is then left alone).
uint32_t convert_open(convert_table **table);
// Frees a table, or nothing for null; always 0. The registered variables are not touched.
uint32_t convert_close(convert_table *table);
// Appends an entry. name and value must outlive the table; value_size is the number of bytes at
// value; conv_func is only used for CTYPE_FUNC. Returns 0, or 1 with a message: no memory to grow
// (nothing is registered), a CTYPE_STR of the size of a pointer, or a type that does not exist
// (both stay registered).
uint32_t convert_add_ent(convert_table *table, const char *name, void *value, uint64_t value_size,
                         int32_t type, convert_function conv_func);
// The text of all entries in the order of registration; *text comes from malloc and the caller
// frees it. Returns 0, or 1 with *text null and a message: no memory, or a conversion function that
// returned null. The time is linear in the length of the text.
uint32_t convert_external(convert_table *table, char **text);
// Stores one line "name=value" (which is changed: its first "=" becomes NUL) into the first
// variable registered under that name. A text is cut to its variable's size; an integer is read
// like atoi. Returns 0, or 1 with a message for a line without "=" or a conversion function that
// returned null. An unknown name is no error: 0, with a message.
uint32_t convert_internal(convert_table *table, char *line);
// Sets every registered integer to 0 and every other variable's first byte to NUL; always 0.
uint32_t convert_reinit(convert_table *table);
// The last message, empty when there was none; lives as long as the table.
char *convert_errmsg(convert_table *table);

// Internal to the module. Grows a buffer from malloc until its size is strictly greater than
// needed, in steps of 1024 bytes: 0 with *buffer and *size renewed where necessary, or 1 with a
// message, the old buffer freed and *buffer null.
uint32_t make_room(convert_table *table, size_t needed, char **buffer, size_t *size);
