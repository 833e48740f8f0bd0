#include "proof/kit/site_names.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "proof/agent/sites.h"

namespace proof {
namespace {

std::string without_templates(const std::string &text) {
    std::string kept;
    int depth = 0;
    for (const char c : text) {
        if (c == '<') ++depth;
        if (depth == 0) kept += c;
        if (c == '>') --depth;
    }
    return kept;
}

void remove_all(std::string *text, const std::string &part) {
    for (size_t at; (at = text->find(part)) != std::string::npos;) text->erase(at, part.size());
}

// "int tf::(anonymous namespace)::call<int (*)()>(int) [clone .cold]" is "call".
std::string plain_name(std::string text) {
    remove_all(&text, "(anonymous namespace)::");
    text = without_templates(text);
    text = text.substr(0, text.find('('));
    text = text.substr(0, text.find(" [clone"));
    text = text.substr(text.rfind(' ') == std::string::npos ? 0 : text.rfind(' ') + 1);
    return text.starts_with("tf::") ? text.substr(4) : text;
}

// "<tempnam@plt>" is "tempnam"; what lies in the library itself is nothing.
std::string imported(const std::string &callee) {
    const size_t at = callee.find("@plt");
    return at == std::string::npos ? "" : callee.substr(1, at - 1);
}

bool is_wrapper(const std::string &function) {
    return function.starts_with("emc_tf_Sym") || function == "call";
}

}  // namespace

SiteNames::SiteNames(const std::filesystem::path &method, const std::filesystem::path &host) {
    read(method, 0);
    read(host, agent::in_host_library);
}

void SiteNames::read(const std::filesystem::path &library, uint64_t base) {
    const size_t known = places_.size();
    const std::string command = "objdump -dC --no-show-raw-insn '" + library.string() + "'";
    std::unique_ptr<FILE, int (*)(FILE *)> in(popen(command.c_str(), "re"), pclose);
    if (in == nullptr) throw std::runtime_error("cannot run objdump");
    std::string function, callee;
    std::map<std::string, int> calls;
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, in.get()) > 0) {
        const std::string text = line;
        const size_t open = text.find(" <"), end = text.rfind(">:");
        if (text[0] == '0' && open != std::string::npos && end != std::string::npos) {
            function = plain_name(text.substr(open + 2, end - open - 2));
            callee.clear();
            calls.clear();
            continue;
        }
        const size_t colon = text.find(":\t");
        if (colon == std::string::npos) continue;
        if (!callee.empty()) {
            places_[base + std::stoull(text.substr(0, colon), nullptr, 16)] = {
                function, ++calls[callee], imported(callee)};
        }
        callee.clear();
        if (text.compare(colon + 2, 4, "call") != 0) continue;
        const size_t named = text.find('<', colon);
        callee = named == std::string::npos ? "indirect" : text.substr(named);
    }
    free(line);
    if (places_.size() == known)
        throw std::runtime_error("objdump shows no calls of " + library.string());
}

std::string SiteNames::name(const std::string &kind, const std::string &function,
                            const std::vector<uint64_t> &offsets) const {
    std::string chain, callee;
    for (const uint64_t offset : offsets) {
        const auto found = places_.find(offset);
        const Place place = found == places_.end() ? Place{"unknown", 1, ""} : found->second;
        callee = place.callee;
        if (is_wrapper(place.function)) continue;
        if (!chain.empty()) chain += ">";
        chain += place.function;
        if (place.occurrence > 1) chain += "#" + std::to_string(place.occurrence);
    }
    if (kind == "alloc" && !callee.empty() && callee != function) chain += ">" + callee;
    return kind + ":" + function + "@" + chain;
}

}  // namespace proof
