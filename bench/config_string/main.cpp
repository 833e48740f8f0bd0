// The configuration string: the parser against GLib's option parsing, and against a plain loop that
// makes the same copies, conversions and checks and nothing else.
#include <glib.h>
#include <strings.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/kit/comparison.h"
#include "fim_config/qfm_fim_config.h"

namespace {

// As many keywords as pairs; every third takes a text, the others a number from 0 to 100.
struct Configuration {
    explicit Configuration(int pairs) {
        for (int i = 0; i < pairs; ++i) {
            keywords.push_back("keyword" + std::to_string(i));
            const std::string value = takes_text(i) ? "host" + std::to_string(i) : "42";
            text += (i == 0 ? "" : ",") + keywords.back() + "=" + value;
            options.push_back("--" + keywords.back() + "=" + value);
        }
        numbers.resize(keywords.size());
        texts.resize(keywords.size());
    }
    static bool takes_text(size_t i) { return i % 3 == 2; }
    static bool takes_text(int i) { return i % 3 == 2; }
    // What a parse gave; its texts are the caller's to free.
    void check_and_free(void (*give_back)(void *)) {
        for (size_t i = 0; i < keywords.size(); ++i) {
            if (takes_text(i)) {
                if (texts[i] == nullptr || texts[i][0] != 'h') abort();
                give_back(texts[i]);
                texts[i] = nullptr;
            } else if (numbers[i] != 42) {
                abort();
            }
            numbers[i] = 0;
        }
    }

    std::vector<std::string> keywords, options;
    std::string text;
    std::vector<int32_t> numbers;
    std::vector<char *> texts;
};

class Table {
  public:
    explicit Table(Configuration &c) : table_(qfm_fcp_table_new(&status_)) {
        for (size_t i = 0; i < c.keywords.size(); ++i) {
            const char *keyword = c.keywords[i].c_str();
            if (Configuration::takes_text(i))
                qfm_fcp_string_new(table_, &status_, keyword, &c.texts[i]);
            else
                qfm_fcp_int_range_new(table_, &status_, keyword, &c.numbers[i], 0, 100);
        }
        if (status_ != 0) abort();
    }
    ~Table() { qfm_fcp_table_delete(table_); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    void parse(const Configuration &c) const {
        if (qfm_fcp_parse(c.text.c_str(), nullptr, table_) != 0) abort();
    }

  private:
    int32_t status_ = 0;
    qfm_fcp_table *table_;
};

void by_goption(Configuration &c) {
    std::vector<GOptionEntry> entries;
    for (size_t i = 0; i < c.keywords.size(); ++i) {
        const bool text = Configuration::takes_text(i);
        entries.push_back(
            {c.keywords[i].c_str(), 0, 0, text ? G_OPTION_ARG_STRING : G_OPTION_ARG_INT,
             text ? static_cast<void *>(&c.texts[i]) : &c.numbers[i], nullptr, nullptr});
    }
    entries.push_back({nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr});
    GOptionContext *context = g_option_context_new(nullptr);
    g_option_context_add_main_entries(context, entries.data(), nullptr);
    auto **arguments = static_cast<char **>(g_malloc0((c.options.size() + 2) * sizeof(char *)));
    arguments[0] = g_strdup("bench");
    for (size_t i = 0; i < c.options.size(); ++i) arguments[i + 1] = g_strdup(c.options[i].c_str());
    if (!g_option_context_parse_strv(context, &arguments, nullptr)) abort();
    g_strfreev(arguments);
    g_option_context_free(context);
    for (size_t i = 0; i < c.numbers.size(); ++i) {
        if (!Configuration::takes_text(i) && (c.numbers[i] < 0 || c.numbers[i] > 100)) abort();
    }
}

char *copy_of(const char *text, size_t length) {
    auto *copy = static_cast<char *>(malloc(length + 1));
    if (copy == nullptr) abort();
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

// Where the loop is, on the heap as the parser's.
struct Place {
    char *whole;
    const char *position;
    qfm_fcp_options options;
};

// The string, each pair, each keyword and each value are copied, since messages quote them whole.
void by_plain_loop(Configuration &c) {
    auto *place = static_cast<Place *>(calloc(1, sizeof(Place)));
    if (place == nullptr) abort();
    place->whole = strdup(c.text.c_str());
    for (place->position = place->whole; *place->position != '\0';) {
        const char *from = place->position;
        const char *comma = strchr(from, ',');
        const size_t length = comma != nullptr ? static_cast<size_t>(comma - from) : strlen(from);
        char *pair = copy_of(from, length);
        const char *equals = strchr(pair, '=');
        if (equals == nullptr || equals == pair) abort();
        char *keyword = copy_of(pair, static_cast<size_t>(equals - pair));
        char *value = copy_of(equals + 1, strlen(equals + 1));
        for (size_t i = 0; i < c.keywords.size(); ++i) {
            if (strcasecmp(c.keywords[i].c_str(), keyword) != 0) continue;
            if (Configuration::takes_text(i)) {
                c.texts[i] = value;
                value = nullptr;
            } else {
                char *end = nullptr;
                const long long number = strtoll(value, &end, 10);
                if (*end != '\0' || number < 0 || number > 100) abort();
                c.numbers[i] = static_cast<int32_t>(number);
            }
            break;
        }
        free(value);
        free(keyword);
        free(pair);
        place->position = from + length + (comma != nullptr ? 1 : 0);
    }
    free(place->whole);
    free(place);
}

// Finds the keywords and copies and checks nothing.
void by_getsubopt(Configuration &c) {
    std::vector<char *> tokens;
    for (std::string &keyword : c.keywords) tokens.push_back(keyword.data());
    tokens.push_back(nullptr);
    char *whole = strdup(c.text.c_str());
    for (char *rest = whole, *value = nullptr; *rest != '\0';) {
        const int i = getsubopt(&rest, tokens.data(), &value);
        if (i < 0) abort();
        if (Configuration::takes_text(i))
            c.texts[static_cast<size_t>(i)] = value;
        else
            c.numbers[static_cast<size_t>(i)] = atoi(value);
    }
    c.check_and_free([](void *) {});
    free(whole);
}

void free_block(void *block) {
    free(block);
}

}  // namespace

int main(int argc, char **argv) {
    bench::Comparisons all("config string", argc, argv);
    for (const int pairs : {1, 7, 60}) {
        const auto c = std::make_shared<Configuration>(pairs);
        const auto table = std::make_shared<Table>(*c);
        const std::string size = std::to_string(pairs) + (pairs == 1 ? " pair" : " pairs");
        all.ahead("table and parse, " + size,
                  {"qfm_fcp",
                   [=] {
                       Table(*c).parse(*c);
                       c->check_and_free(free_block);
                   }},
                  {{"GOptionContext",
                    [=] {
                        by_goption(*c);
                        c->check_and_free(g_free);
                    }}},
                  1.0);
        all.within("parse, " + size,
                   {"qfm_fcp_parse",
                    [=] {
                        table->parse(*c);
                        c->check_and_free(free_block);
                    }},
                   {{"plain loop",
                     [=] {
                         by_plain_loop(*c);
                         c->check_and_free(free_block);
                     }},
                    {"getsubopt", [=] { by_getsubopt(*c); }}},
                   1.3);
    }
    return all.run();
}
