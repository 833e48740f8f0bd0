// Makes docs/bench.md and its plot of what the rows of ./dev bench have printed.
//
// usage: bench_report RESULTS_FOLDER PAGE.md PLOT.svg
//   RESULTS_FOLDER/*.no.json: lines as bench/kit/comparison.h describes them
#include <sys/utsname.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;
using Path = std::filesystem::path;

std::vector<Json> results_in(const Path &folder) {
    std::set<Path> files;
    for (const auto &file : std::filesystem::directory_iterator(folder)) {
        if (file.path().string().ends_with(".no.json")) files.insert(file.path());
    }
    std::vector<Json> results;
    for (const Path &file : files) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);) results.push_back(Json::parse(line));
    }
    if (results.empty()) throw std::runtime_error("no results in " + folder.string());
    return results;
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof text, value >= 100 ? "%.0f" : value >= 10 ? "%.1f" : "%.2f", value);
    return text;
}

std::string first_match(const char *file, const char *pattern) {
    std::ifstream in(file);
    const std::regex wanted(pattern);
    std::smatch match;
    for (std::string line; std::getline(in, line);) {
        if (std::regex_search(line, match, wanted)) return match[1];
    }
    return "unknown";
}

std::string machine() {
    utsname name{};
    uname(&name);
    char day[32];
    const time_t now = time(nullptr);
    strftime(day, sizeof day, "%Y-%m-%d", gmtime(&now));
    const std::string release = name.release;
    return first_match("/proc/cpuinfo", "model name\\s*: (.*)") + ", Linux " +
           release.substr(0, release.find('-')) + ", " +
           first_match("/etc/os-release", "PRETTY_NAME=\"(.*)\"") + ", " + day;
}

constexpr char introduction[] = R"(# Speed and scale

Written by `./dev bench`. Every figure is the ratio of two things that were measured in one run on the
same work. *ahead of*: how many times faster the first is; *to*: how many times the cost of the second
the first has; *beside it*: the same of the first and others. Median of the repetitions, of which the
freeze window has as few as one where the data that may be changed allows no more: its rows say how
many. Wall time has the machine's other work in it. `./dev bench --quick` asserts what does not depend
on the machine. How it is measured: [testing.md](testing.md).

Measured on: )";

void write_page(const std::vector<Json> &results, const Path &page, bool plotted) {
    std::ofstream out(page);
    out << introduction << machine() << ".\n";
    if (plotted) out << "\n![cost against the number of pairs](bench.svg)\n";
    std::string row;
    for (const Json &one : results) {
        if (one.at("row") != row) {
            row = one.at("row");
            out << "\n## " << static_cast<char>(toupper(row[0])) << row.substr(1)
                << "\n\n| work | measure | compared | ratio | target | | beside it |\n"
                   "|---|---|---|---:|---|---|---|\n";
        }
        out << "| " << one.at("what").get<std::string>() << " | "
            << one.at("measure").get<std::string>() << " | " << one.at("subject").get<std::string>()
            << " " << one.at("relation").get<std::string>() << " "
            << one.at("against").get<std::string>() << " | "
            << number(one.at("ratio").get<double>()) << " | ";
        if (!one.at("target").is_null()) {
            out << one.at("bound").get<std::string>() << " "
                << number(one.at("target").get<double>()) << " | "
                << (one.at("held").get<bool>() ? "met" : "**missed**");
        } else {
            out << " | ";
        }
        out << " | ";
        const Json beside = one.value("beside", Json::object());
        for (auto it = beside.begin(); it != beside.end(); ++it) {
            out << (it == beside.begin() ? "" : ", ") << it.key() << " " << number(it.value());
        }
        if (one.contains("note"))
            out << (beside.empty() ? "" : "; ") << one["note"].get<std::string>();
        out << " |\n";
    }
    if (!out.flush()) throw std::runtime_error("cannot write " + page.string());
}

// Points of the plot: number of pairs -> ratio of the cost per pair to that at 64 pairs.
using Curve = std::map<int, double>;

Curve curve_of(const std::vector<Json> &results, const std::string &subject) {
    Curve curve;
    const std::regex pairs("([0-9]+) pairs?$");
    std::smatch match;
    for (const Json &one : results) {
        const std::string what = one.at("what");
        if (one.at("measure") == "CPU time per pair" && one.at("subject") == subject &&
            std::regex_search(what, match, pairs)) {
            curve[std::stoi(match[1])] = one.at("ratio");
        }
    }
    return curve;
}

void write_plot(const std::vector<std::pair<std::string, Curve>> &curves, const Path &plot) {
    constexpr double left = 70, right = 690, top = 40, bottom = 330;
    double highest = 1.2;
    for (const auto &[name, curve] : curves) {
        for (const auto &[pairs, ratio] : curve) highest = std::max(highest, ratio * 1.1);
    }
    const auto x = [&](double pairs) {
        return left + (right - left) * std::log2(pairs) / std::log2(2048);
    };
    const auto y = [&](double ratio) { return bottom - (bottom - top) * ratio / highest; };
    std::ofstream out(plot);
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"760\" height=\"400\" "
           "font-family=\"sans-serif\" font-size=\"13\">\n"
           "<rect width=\"760\" height=\"400\" fill=\"white\"/>\n"
           "<text x=\"70\" y=\"22\" font-size=\"15\">Cost per pair of a whole cycle, by the number "
           "of "
           "pairs (64 pairs = 1)</text>\n";
    for (double tick = 0; tick <= highest; tick += highest > 4 ? 1 : highest > 2 ? 0.5 : 0.25) {
        out << "<line x1=\"" << left << "\" x2=\"" << right << "\" y1=\"" << y(tick) << "\" y2=\""
            << y(tick) << "\" stroke=\"#ddd\"/><text x=\"" << left - 8 << "\" y=\"" << y(tick) + 4
            << "\" text-anchor=\"end\">" << number(tick) << "</text>\n";
    }
    for (const int pairs : {1, 16, 64, 256, 1024, 2046}) {
        out << "<text x=\"" << x(pairs) << "\" y=\"" << bottom + 20 << "\" text-anchor=\"middle\">"
            << pairs << "</text>\n";
    }
    out << "<text x=\"" << (left + right) / 2 << "\" y=\"" << bottom + 42
        << "\" text-anchor=\"middle\">pairs</text>\n";
    const char *colours[] = {"#1f5fa8", "#b04a2f"};
    size_t index = 0;
    for (const auto &[name, curve] : curves) {
        const char *colour = colours[index % 2];
        out << "<polyline fill=\"none\" stroke-width=\"2\" stroke=\"" << colour << "\" points=\"";
        for (const auto &[pairs, ratio] : curve) out << x(pairs) << "," << y(ratio) << " ";
        out << "\"/>\n";
        for (const auto &[pairs, ratio] : curve) {
            out << "<circle r=\"3.5\" fill=\"" << colour << "\" cx=\"" << x(pairs) << "\" cy=\""
                << y(ratio) << "\"/>\n";
        }
        out << "<rect x=\"" << 500 << "\" y=\"" << 48 + 22 * index
            << "\" width=\"14\" height=\"4\" "
            << "fill=\"" << colour << "\"/><text x=\"520\" y=\"" << 54 + 22 * index << "\">" << name
            << "</text>\n";
        ++index;
    }
    out << "</svg>\n";
    if (!out.flush()) throw std::runtime_error("cannot write " + plot.string());
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc != 4) throw std::runtime_error("usage: bench_report RESULTS_FOLDER PAGE.md PLOT.svg");
    const std::vector<Json> results = results_in(argv[1]);
    std::vector<std::pair<std::string, Curve>> curves;
    for (const char *subject : {"the method", "the floor"}) {
        const Curve curve = curve_of(results, subject);
        if (!curve.empty()) curves.emplace_back(subject, curve);
    }
    write_page(results, argv[2], !curves.empty());
    if (!curves.empty()) write_plot(curves, argv[3]);
    return 0;
} catch (const std::exception &error) {
    fprintf(stderr, "bench_report: %s\n", error.what());
    return 1;
}
