#include "convert/convert.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "tessera_host.h"

namespace {

constexpr int32_t slot_step = 1024;
constexpr size_t buffer_step = 1024;

// Where a failed allocation is said to have happened; looked up by support staff, so they do not
// move with the code.
constexpr int place_growth = 123;
constexpr int place_make_room = 177;
constexpr int place_line = 207;
constexpr int place_result = 216;

constexpr char no_memory_format[] = "%s: Memory allocation failure at line %d";

// Writes the message and gives the status, so that a failing site is one line.
template <class... Args>
[[gnu::always_inline]] inline uint32_t fail(convert_table *table, const char *format,
                                            Args... args) {
    Q_snprintf(table->errmsg, sizeof table->errmsg, format, args...);
    return 1;
}

// A growing text that knows its length, so that nothing is ever scanned for its end.
struct Buffer {
    char *text = nullptr;
    size_t size = 0;
    size_t length = 0;

    Buffer() = default;
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() { free(text); }

    bool allocate() {
        text = static_cast<char *>(malloc(buffer_step));
        if (text == nullptr) return false;
        size = buffer_step;
        text[0] = '\0';
        return true;
    }
    // Appends what fits, and always leaves room for the final NUL.
    void append(const char *part, size_t part_length) {
        const size_t room = size - 1 - length;
        const size_t taken = part_length < room ? part_length : room;
        memcpy(text + length, part, taken);
        length += taken;
    }
    char *release() {
        char *released = text;
        text = nullptr;
        return released;
    }
};

void put_line(Buffer &line, const char *name, size_t name_length, const char *value,
              size_t value_length) {
    line.length = 0;
    line.append(name, name_length);
    line.append("=", 1);
    line.append(value, value_length);
    line.append("\n", 1);
}

// No room is made for an integer's line: one under a key of a thousand characters is cut at the
// buffer's end. Readers of old texts know such cut lines; no key of ours is that long.
void put_integer_line(Buffer &line, const convert_ent &entry) {
    char digits[16];
    const auto [end, error] =
        std::to_chars(digits, digits + sizeof digits, *static_cast<const int32_t *>(entry.value));
    put_line(line, entry.name, strlen(entry.name), digits, static_cast<size_t>(end - digits));
}

uint32_t put_text_line(convert_table *table, Buffer &line, const char *name, const char *text) {
    const size_t name_length = strlen(name);
    const size_t text_length = strlen(text);
    if (make_room(table, name_length + text_length + 3, &line.text, &line.size) != 0) return 1;
    put_line(line, name, name_length, text, text_length);
    return 0;
}

uint32_t put_entry_line(convert_table *table, Buffer &line, const convert_ent &entry) {
    switch (entry.type) {
    case CTYPE_STR:
        return put_text_line(table, line, entry.name, static_cast<const char *>(entry.value));
    case CTYPE_INT:
        put_integer_line(line, entry);
        return 0;
    case CTYPE_FUNC: {
        const char *text = entry.conv_func(entry.value);
        if (text == nullptr) {
            return fail(table, "Conversion function error : %s \n", entry.name);
        }
        return put_text_line(table, line, entry.name, text);
    }
    default:
        // Refused at its registration; it has no form of its own.
        line.length = 0;
        return 0;
    }
}

uint32_t append_line(convert_table *table, Buffer &result, const Buffer &line) {
    if (make_room(table, result.length + line.length, &result.text, &result.size) != 0) return 1;
    result.append(line.text, line.length);
    return 0;
}

int32_t scan_for_entry(const convert_table *table, const char *name) {
    for (int32_t i = 0; i < table->count; ++i) {
        if (strcmp(table->entries[i].name, name) == 0) return i + 1;
    }
    return 0;
}

// Lines repeat in groups, so the entry that followed the last line's entry before follows it again.
// It was found by a scan then: it still is the first of its name, since entries only come behind.
const convert_ent *find_entry(convert_table *table, const char *name) {
    int32_t found = 0;
    int32_t *follower = nullptr;
    if (table->last_found != 0) {
        follower = &table->entries[table->last_found - 1].follower;
        if (*follower != 0 && strcmp(table->entries[*follower - 1].name, name) == 0) {
            found = *follower;
        }
    }
    if (found == 0) {
        found = scan_for_entry(table, name);
        if (found == 0) return nullptr;
        if (follower != nullptr) *follower = found;
    }
    table->last_found = found;
    return &table->entries[found - 1];
}

uint32_t store_value(convert_table *table, const convert_ent &entry, const char *text) {
    switch (entry.type) {
    case CTYPE_STR:
        Q_strlcpy(static_cast<char *>(entry.value), text, entry.value_size);
        return 0;
    case CTYPE_INT:
        // 32 bits whatever value_size says: callers register their 32-bit fields with 8, and a
        // wider store would overwrite the field behind.
        *static_cast<int32_t *>(entry.value) = static_cast<int32_t>(strtol(text, nullptr, 10));
        return 0;
    case CTYPE_FUNC: {
        const char *converted = entry.conv_func(text);
        if (converted == nullptr) {
            return fail(table, "Conversion function error : %s \n", entry.name);
        }
        Q_strlcpy(static_cast<char *>(entry.value), converted, entry.value_size);
        return 0;
    }
    default:
        return 0;
    }
}

}  // namespace

uint32_t convert_open(convert_table **table) {
    auto *opened = static_cast<convert_table *>(calloc(1, sizeof(convert_table)));
    if (opened == nullptr) return 1;
    opened->entries = static_cast<convert_ent *>(malloc(slot_step * sizeof(convert_ent)));
    if (opened->entries == nullptr) {
        convert_close(opened);
        return 2;
    }
    opened->capacity = opened->slots = slot_step;
    *table = opened;
    return 0;
}

uint32_t convert_close(convert_table *table) {
    if (table != nullptr) free(table->entries);
    free(table);
    return 0;
}

uint32_t convert_add_ent(convert_table *table, const char *name, void *value, uint64_t value_size,
                         int32_t type, convert_function conv_func) {
    if (table->count >= table->capacity) table->capacity += slot_step;
    if (table->count >= table->slots) {
        void *grown =
            realloc(table->entries, static_cast<size_t>(table->capacity) * sizeof(convert_ent));
        if (grown == nullptr) return fail(table, no_memory_format, __func__, place_growth);
        table->entries = static_cast<convert_ent *>(grown);
        table->slots = table->capacity;
    }
    table->entries[table->count++] = {name, value, value_size, type, conv_func, 0};

    // Checked only now: a caller that ignores the refusal keeps the entry, as it always has, and
    // its text keeps the line.
    if (type == CTYPE_STR && value_size == sizeof(void *)) {
        return fail(table, "%s: CTYPE_STR and value_size == sizeof(void *), probable coding error",
                    __func__);
    }
    if (type < CTYPE_STR || type > CTYPE_FUNC) {
        return fail(table, "%s: Invalid value for type: %d", __func__, type);
    }
    return 0;
}

uint32_t make_room(convert_table *table, size_t needed, char **buffer, size_t *size) {
    if (*size > needed) return 0;
    *size += ((needed - *size) & ~(buffer_step - 1)) + buffer_step;
    char *grown = static_cast<char *>(realloc(*buffer, *size));
    if (grown == nullptr) {
        free(*buffer);
        *buffer = nullptr;
        return fail(table, no_memory_format, __func__, place_make_room);
    }
    *buffer = grown;
    return 0;
}

uint32_t convert_external(convert_table *table, char **text) {
    *text = nullptr;
    Buffer line;
    if (!line.allocate()) return fail(table, no_memory_format, __func__, place_line);
    Buffer result;
    if (!result.allocate()) return fail(table, no_memory_format, __func__, place_result);
    for (int32_t i = 0; i < table->count; ++i) {
        if (put_entry_line(table, line, table->entries[i]) != 0) return 1;
        if (append_line(table, result, line) != 0) return 1;
    }
    result.text[result.length] = '\0';
    *text = result.release();
    return 0;
}

uint32_t convert_internal(convert_table *table, char *line) {
    char *equals = strchr(line, '=');
    if (equals == nullptr) {
        return fail(table, "%s: input string not name=value pair: %s", __func__, line);
    }
    *equals = '\0';
    const convert_ent *entry = find_entry(table, line);
    if (entry == nullptr) {
        // No error: texts of older and newer releases hold other keys and must still load.
        fail(table, "%s: cant find key: %s", __func__, line);
        return 0;
    }
    return store_value(table, *entry, equals + 1);
}

uint32_t convert_reinit(convert_table *table) {
    for (int32_t i = 0; i < table->count; ++i) {
        const convert_ent &entry = table->entries[i];
        if (entry.type == CTYPE_INT) {
            *static_cast<int32_t *>(entry.value) = 0;
        } else {
            *static_cast<char *>(entry.value) = '\0';
        }
    }
    return 0;
}

char *convert_errmsg(convert_table *table) {
    return table->errmsg;
}
