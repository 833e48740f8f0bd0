#include "proof/hostile_names/names.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <random>

namespace hostile {
namespace {

void add_bytes(std::vector<Name> *names) {
    for (int byte = 1; byte < 256; ++byte) {
        // One letter, one digit and one byte of a longer character stand for all.
        if (byte < 128 && isalnum(byte) != 0 && byte != 'z' && byte != '5') continue;
        if (byte > 128 && byte % 16 != 15) continue;
        char id[16];
        snprintf(id, sizeof id, "byte-%02x", static_cast<unsigned>(byte));
        const std::string one(1, static_cast<char>(byte));
        names->push_back({id, "a" + one + "b"});
    }
}

// Every way known to us in which a shell would run the canary.
void add_shell(std::vector<Name> *names) {
    const std::string run = canary;
    const std::pair<const char *, std::string> forms[] = {
        {"semicolon", "a;" + run + ";b"},
        {"and", "a&&" + run},
        {"or", "a||" + run},
        {"background", "a&" + run + "&b"},
        {"pipe", "a|" + run},
        {"newline", "a\n" + run + "\nb"},
        {"carriage-return", "a\r" + run + "\rb"},
        {"substitution", "$(" + run + ")"},
        {"nested-substitution", "\"$(echo `" + run + "`)\""},
        {"backquotes", "`" + run + "`"},
        {"process-substitution", "<(" + run + ")"},
        {"subshell", "(" + run + ")"},
        {"group", "{ " + run + ";}"},
        {"leaves-single-quotes", "'; " + run + "; '"},
        {"leaves-escaped-quotes", "'\\''; " + run + "; '\\''"},
        {"leaves-double-quotes", "\"; " + run + "; \""},
        {"quote-newline", "'\n" + run + "\n'"},
        {"comment-newline", "#'\n" + run},
    };
    for (const auto &[id, text] : forms) names->push_back({std::string("shell-") + id, text});
}

// What a shell would expand, redirect or take for its own words.
void add_expansions(std::vector<Name> *names) {
    const std::string run = canary;
    const std::pair<const char *, std::string> forms[] = {
        {"one-quote", "a'b"},
        {"one-double-quote", "a\"b"},
        {"one-backquote", "a`b"},
        {"backslash-end", "a\\"},
        {"backslash-newline", "a\\\nb"},
        {"backslash-quote", "\\'; " + run + " #"},
        {"dollar-end", "a$"},
        {"variable", "$HOME"},
        {"braces-variable", "${PATH}"},
        {"field-separator", "a${IFS}" + run},
        {"assigning-variable", "${x:=$(" + run + ")}"},
        {"arithmetic", "$((1+1))"},
        {"ansi-quotes", "$'\\n" + run + "\\n'"},
        {"star", "*"},
        {"root-star", "/*"},
        {"question", "?????"},
        {"range", "[a-z]*"},
        {"braces", "{a,b}"},
        {"tilde", "~"},
        {"tilde-root", "~root"},
        {"history", "!!"},
        {"comment", "#b"},
        {"blank-comment", "a #b"},
        {"writes", ">/proof/written"},
        {"appends", "a >>/proof/written"},
        {"reads", "</etc/passwd"},
        {"duplicates", "2>&1"},
        {"here", "<<a"},
        {"assignment", "a=b " + run},
        {"path-assignment", "PATH=/proof/bin canary"},
        {"keyword", "if " + run + ";then"},
        {"eval", "eval " + run},
        {"exec", "exec " + run},
        {"canary", "canary"},
        {"canary-path", run},
        {"blank", "a b"},
        {"blanks-around", " a "},
        {"only-blank", " "},
        {"tab", "a\tb"},
        {"only-newline", "\n"},
        {"newline-end", "a\n"},
        {"empty", ""},
        {"formats", "%s%s%n%x"},
        {"percent-percent", "%%s"},
        {"long-format", "%999999d"},
        {"escape-sequence", "\033[2J\033]0;a\007"},
        {"bad-utf8", "\xff\xfe\xc0\xaf"},
        {"utf8", "\xc3\xa4\xe2\x80\xae\xf0\x9f\x98\x80"},
        {"octal", "a\\040b"},
    };
    for (const auto &[id, text] : forms) names->push_back({std::string("shell-") + id, text});
}

// What a tool or a path could take for something else than a name.
void add_words(std::vector<Name> *names) {
    const std::pair<const char *, std::string> forms[] = {
        {"dash", "-"},
        {"two-dashes", "--"},
        {"dash-n", "-n"},
        {"dash-rf", "-rf"},
        {"help", "--help"},
        {"option", "--option=value"},
        {"dash-run", "-a;" + std::string(canary)},
        {"dot", "."},
        {"two-dots", ".."},
        {"up", "../../../../proof/outside"},
        {"up-inside", "a/../../../../proof/outside"},
        {"absolute", "/proof/outside"},
        {"slashes", "//a//b//"},
        {"slash-end", "a/"},
        {"comma", "a,b"},
        {"colon", "a:b"},
        {"equals", "a=b"},
        {"equals-first", "=b"},
        {"key", "HDEF-restore=1"},
        {"restore-line", "a\nHDEF-no_such_key=0"},
        {"serial-and-path", "a p=/proof/outside s=b"},
        {"null-device", "/dev/null"},
        {"label", "LABEL=a"},
    };
    for (const auto &[id, text] : forms) names->push_back({std::string("word-") + id, text});
}

// The buffers end at 13, 48, 64, 256, 1024 and 16384 bytes, file names at 255, paths at 4095.
void add_lengths(std::vector<Name> *names) {
    const std::pair<const char *, char> fills[] = {
        {"letters", 'x'}, {"quotes", '\''}, {"semicolons", ';'}, {"blanks", ' '}, {"dashes", '-'}};
    for (const size_t length :
         {13U, 26U, 48U, 64U, 254U, 255U, 256U, 511U, 1022U, 1023U, 1024U, 1025U, 4095U, 4096U}) {
        for (const auto &[fill, c] : fills) {
            names->push_back(
                {"length-" + std::to_string(length) + "-" + fill, std::string(length, c)});
        }
        // Whatever is cut off, what is left must not be open.
        const std::string run = std::string(";") + canary + ";";
        std::string ending(length > run.size() ? length - run.size() : 0, 'x');
        names->push_back({"length-" + std::to_string(length) + "-canary-last", ending + run});
        std::string quote_last(length - 1, 'x');
        names->push_back(
            {"length-" + std::to_string(length) + "-quote-last", quote_last + "'" + run});
    }
}

// The generator is fixed: all of N are the same names in every run.
void add_random(std::vector<Name> *names) {
    static const std::string pieces[] = {
        "'", "\"", "\\", "`", "$(", ")",    ";",    "&",    "|", "\n", " ", "\t",
        "*", "?",  "-",  "#", "~",  "<",    ">",    "{",    "}", "%s", "a", "Z",
        "/", "..", "=",  ",", ":",  "\x01", "\x7f", "\xff", "$", "!",  "(", canary};
    std::mt19937_64 random(20'240'229);
    for (int i = 0; i < 100; ++i) {
        std::string text;
        const uint64_t count = 1 + random() % 24;
        for (uint64_t piece = 0; piece < count; ++piece) {
            text += pieces[random() % std::size(pieces)];
        }
        names->push_back({"random-" + std::to_string(i), text});
    }
}

bool holds(const std::string &text, const char *any) {
    return text.find_first_of(any) != std::string::npos;
}

}  // namespace

std::vector<Name> all_names() {
    std::vector<Name> names;
    add_bytes(&names);
    add_shell(&names);
    add_expansions(&names);
    add_words(&names);
    add_lengths(&names);
    add_random(&names);
    return names;
}

std::string kind_of(const std::string &text) {
    if (text.empty()) return "empty";
    if (holds(text, "\n")) return "newline";
    if (text.size() > 1023) return "over-1023";
    if (text.size() > 255) return "over-255";
    if (holds(text, "/")) return "slash";
    if (holds(text, " \t\v\f\r")) return "blank";
    if (holds(text, ",")) return "comma";
    return "other";
}

}  // namespace hostile
