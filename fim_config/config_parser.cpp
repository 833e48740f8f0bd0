// Reading a configuration string: the tokenizer hands out pairs, the parser stores their values.
#include <strings.h>

#include <cctype>
#include <cstring>
#include <utility>

#include "fim_config/parse_table.h"
#include "tessera_host.h"

namespace {

using fcp::OwnedText;

// The names under which the module has always reported.
constexpr char tokenizer_name[] = "qfm_fcp";
constexpr char parser_name[] = "qfm_fcp_parse";

// Where a failed allocation is said to have happened; looked up by support staff, so they do not
// move with the code.
constexpr int place_context = 457;
constexpr int place_text = 460;
constexpr int place_empty_text = 463;
constexpr int place_inner_pair = 559;
constexpr int place_last_pair = 562;
constexpr int place_keyword = 592;
constexpr int place_value = 593;
constexpr int place_parse = 1053;

constexpr qfm_fcp_options default_options = {0, 1, 0, 0, 0, 0};

bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

OwnedText copy_of(const char *text, size_t length) {
    OwnedText copy(static_cast<char *>(malloc(length + 1)));
    if (copy != nullptr) {
        memcpy(copy.get(), text, length);
        copy.get()[length] = '\0';
    }
    return copy;
}

struct FreeContext {
    void operator()(qfm_fcp_context *context) const {
        free(context->text);
        free(context);
    }
};
using OwnedContext = std::unique_ptr<qfm_fcp_context, FreeContext>;

OwnedContext context_new(const char *text, const qfm_fcp_options &options) {
    OwnedContext context(static_cast<qfm_fcp_context *>(calloc(1, sizeof(qfm_fcp_context))));
    if (context == nullptr) {
        fcp::report_no_memory(__func__, place_context);
        return nullptr;
    }
    context->text = strdup(text != nullptr ? text : "");
    if (context->text == nullptr) {
        fcp::report_no_memory(__func__, text != nullptr ? place_text : place_empty_text);
        return nullptr;
    }
    context->position = context->text;
    context->options = options;
    return context;
}

void skip_separators(qfm_fcp_context *context) {
    const char *from = nullptr;
    while (from != context->position) {
        from = context->position;
        if (context->options.trim_blanks != 0 && is_space(*context->position)) {
            ++context->position;
        }
        if (context->options.allow_empty_pairs != 0 && *context->position == ',') {
            ++context->position;
        }
    }
}

// Copies the text up to the next comma and moves behind it. The position moves first, so that it is
// past the pair however the call ends.
OwnedText take_pair(qfm_fcp_context *context) {
    const char *from = context->position;
    const char *comma = strchr(from, ',');
    const size_t length = comma != nullptr ? static_cast<size_t>(comma - from) : strlen(from);
    context->position = comma != nullptr ? comma + 1 : from + length;
    OwnedText pair = copy_of(from, length);
    if (pair == nullptr) {
        fcp::report_no_memory(tokenizer_name,
                              comma != nullptr ? place_inner_pair : place_last_pair);
    }
    return pair;
}

struct Pair {
    OwnedText keyword, value;
};

// Cuts a pair at its first "="; what follows, further "=" included, is the value.
int32_t split_pair(OwnedText text, const qfm_fcp_options &options, const char *rest, Pair &pair) {
    const char *equals = strchr(text.get(), '=');
    if (equals != nullptr) {
        pair.keyword = copy_of(text.get(), static_cast<size_t>(equals - text.get()));
        if (pair.keyword == nullptr) {
            fcp::report_no_memory(tokenizer_name, place_keyword);
            return QFM_FCP_NO_MEMORY;
        }
        pair.value = copy_of(equals + 1, strlen(equals + 1));
        if (pair.value == nullptr) {
            fcp::report_no_memory(tokenizer_name, place_value);
            return QFM_FCP_NO_MEMORY;
        }
    } else if (options.allow_standalone_keyword != 0) {
        pair.keyword = std::move(text);
    } else {
        fcp::report("%s: Standalone keyword: '%s'", tokenizer_name, rest);
        return QFM_FCP_STANDALONE_KEYWORD;
    }
    if (options.trim_blanks != 0) {
        trim(pair.keyword.get());
        trim(pair.value.get());
    }
    return 0;
}

int32_t check_pair(const Pair &pair, const qfm_fcp_options &options, const char *rest) {
    if (pair.keyword.get()[0] == '\0') {
        fcp::report("%s: Missing keyword: '%s'", tokenizer_name, rest);
        return QFM_FCP_NO_KEYWORD;
    }
    const bool empty = pair.value == nullptr || pair.value.get()[0] == '\0';
    if (empty && options.allow_empty_value == 0) {
        fcp::report("%s: Empty value: '%s'", tokenizer_name, rest);
        return QFM_FCP_EMPTY_VALUE;
    }
    return 0;
}

// One parse: what store_pair and its steps need to know.
struct Parse {
    const char *text;
    const qfm_fcp_options &options;
    qfm_fcp_table *table;
};

qfm_fcp_entry *find_entry(const Parse &parse, const char *keyword) {
    const auto compare = parse.options.case_sensitive_keywords != 0 ? strcmp : strcasecmp;
    for (qfm_fcp_entry *entry = parse.table->first; entry != nullptr; entry = entry->next) {
        if (fcp::logs_details) {
            fcp::trace("%s: Checking table entry %s", parser_name, entry->keyword);
        }
        if (compare(entry->keyword, keyword) == 0) return entry;
    }
    return nullptr;
}

// Puts a text into the entry's target. A text that this same parse put there before is released:
// the caller has never seen it. One that stood there before the parse is the caller's.
void store_text(const Parse &parse, qfm_fcp_entry *entry, OwnedText value) {
    for (qfm_fcp_entry *other = parse.table->first; other != nullptr; other = other->next) {
        if (other->target == entry->target) {
            free(other->stored_by_parse);
            other->stored_by_parse = nullptr;
        }
    }
    entry->stored_by_parse = value.get();
    *static_cast<char **>(entry->target) = value.release();
}

void store_in_range(const qfm_fcp_entry *entry, int64_t number) {
    if (entry->type == fcp::type_int) {
        *static_cast<int32_t *>(entry->target) = static_cast<int32_t>(number);
    } else {
        *static_cast<int64_t *>(entry->target) = number;
    }
}

int32_t store_number(const Parse &parse, const qfm_fcp_entry *entry, const char *keyword,
                     const char *value) {
    char *end = nullptr;
    const int64_t number = strtoll(value, &end, 10);
    if (*end != '\0') {
        fcp::report("%s: Non-numeric value '%s' for keyword '%s' in config string: %s", parser_name,
                    value, keyword, parse.text);
        return QFM_FCP_NOT_A_NUMBER;
    }
    if (entry->min <= number && number <= entry->max) {
        store_in_range(entry, number);
        return 0;
    }
    // Policies in use say max_snapshots=0 for "no limit" although the range starts at 1; without
    // this exception their backups would stop. It goes by the exact word in the string, and only an
    // int target takes the 0.
    if (number == 0 && strcmp(keyword, "max_snapshots") == 0) {
        if (entry->type == fcp::type_int) store_in_range(entry, 0);
        return 0;
    }
    return QFM_FCP_OUT_OF_RANGE;
}

int32_t store_pair(const Parse &parse, Pair pair) {
    const char *keyword = pair.keyword.get();
    fcp::trace("%s: Found keyword=value pair; keyword=%s, value=%s", parser_name,
               fcp::shown(keyword), fcp::shown(pair.value.get()));
    qfm_fcp_entry *entry = find_entry(parse, keyword);
    if (entry == nullptr) {
        if (parse.options.reject_unknown_keywords == 0) return 0;
        fcp::report("%s: Unknown keyword found: '%s'", parser_name, keyword);
        return QFM_FCP_UNKNOWN_KEYWORD;
    }
    // Before the value is looked at: a keyword whose value then fails was given all the same.
    if (entry->flag != nullptr) ++*entry->flag;
    if (pair.value == nullptr) {
        fcp::report("%s: No value for keyword '%s' in config string: %s", parser_name, keyword,
                    parse.text);
        return 0;  // the tokenizer lets it through only where an empty value is allowed
    }
    if (entry->type == fcp::type_string) {
        store_text(parse, entry, std::move(pair.value));
        return 0;
    }
    if (entry->type != fcp::type_int && entry->type != fcp::type_long) {
        fcp::report("%s: Unknown data type for keyword '%s': %d", parser_name, keyword,
                    entry->type);
        return QFM_FCP_BAD_CONTEXT;
    }
    return store_number(parse, entry, keyword, pair.value.get());
}

int32_t store_all_pairs(const Parse &parse, qfm_fcp_context *context) {
    for (;;) {
        char *keyword = nullptr;
        char *value = nullptr;
        int32_t status = qfm_fcp_next(context, &keyword, &value);
        if (status != 0 || keyword == nullptr) return status;
        status = store_pair(parse, {OwnedText(keyword), OwnedText(value)});
        if (status != 0) return status;
    }
}

int32_t check_table(const qfm_fcp_table *table) {
    if (table == nullptr) {
        fcp::report("%s: No table pointer was specified", parser_name);
        return QFM_FCP_NO_TABLE;
    }
    if (table->magic != fcp::magic) {
        fcp::report("%s: Invalid parse table was specified; expected %x, got %x", parser_name,
                    fcp::magic, table->magic);
        return QFM_FCP_WRONG_MAGIC;
    }
    return 0;
}

}  // namespace

void trim(char *text) {
    if (text == nullptr) return;
    size_t length = strlen(text);
    while (length > 0 && is_space(text[length - 1])) text[--length] = '\0';
    size_t blanks = 0;
    while (is_space(text[blanks])) ++blanks;
    if (blanks > 0) memmove(text, text + blanks, length - blanks + 1);
}

int32_t qfm_fcp_next(qfm_fcp_context *context, char **keyword, char **value) {
    if (context == nullptr || context->text == nullptr || context->position == nullptr) {
        const void *text = context != nullptr ? context->text : nullptr;
        const void *position = context != nullptr ? context->position : nullptr;
        fcp::report("%s: Bad context: %p %p %p", tokenizer_name, static_cast<void *>(context), text,
                    position);
        return QFM_FCP_BAD_CONTEXT;
    }
    const char *rest = context->position;
    fcp::trace("%s:   cur_position: %s", tokenizer_name, rest);
    skip_separators(context);
    *keyword = nullptr;
    *value = nullptr;
    if (*context->position == '\0') {
        fcp::trace("%s: End of string, exit", tokenizer_name);
        return 0;
    }

    OwnedText text = take_pair(context);
    if (text == nullptr) return QFM_FCP_NO_MEMORY;
    if (context->options.trim_blanks != 0) trim(text.get());
    // Where empty pairs are allowed they were skipped before.
    if (text.get()[0] == '\0') {
        fcp::report("%s: Empty pair: '%s'", tokenizer_name, rest);
        return QFM_FCP_EMPTY_PAIR;
    }
    fcp::trace("%s: next pair: '%s'", tokenizer_name, text.get());

    Pair pair;
    int32_t status = split_pair(std::move(text), context->options, rest, pair);
    if (status == 0) status = check_pair(pair, context->options, rest);
    if (status != 0) return status;
    *keyword = pair.keyword.release();
    *value = pair.value.release();
    return 0;
}

int32_t qfm_fcp_parse(const char *text, const qfm_fcp_options *options, qfm_fcp_table *table) {
    int32_t status = check_table(table);
    if (status != 0) return status;
    const OwnedContext context = context_new(text, options != nullptr ? *options : default_options);
    if (context == nullptr) {
        fcp::report("%s: Memory allocation failure at line %d", parser_name, place_parse);
        return QFM_FCP_NO_MEMORY;
    }
    for (qfm_fcp_entry *entry = table->first; entry != nullptr; entry = entry->next) {
        entry->stored_by_parse = nullptr;
    }
    status = store_all_pairs({context->text, context->options, table}, context.get());
    if (status != 0) {
        // Not logged: the caller reports the failure in its own words.
        Q_snprintf(fcp::message, sizeof fcp::message, "%s: Parse error %d in config string: %s",
                   parser_name, status, context->text);
    }
    return status;
}
