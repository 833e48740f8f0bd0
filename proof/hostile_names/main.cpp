// The row "hostile names": every name in every place in every operation that sees it.
//
// A point is PLACE/OPERATION/NAME. It holds when the tools got that name as one word and nothing
// else, nothing else was run, no file was touched that an ordinary name would have left alone, and
// the calls gave what proof/expected/hostile_names says.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "proof/hostile_names/judge.h"
#include "proof/kit/expectations.h"
#include "proof/kit/row.h"

namespace hostile {
namespace {

constexpr size_t quick_points = 500;
constexpr char expected_file[] = TF_SOURCE_DIR "/proof/expected/hostile_names/outcomes";

struct Point {
    const Place *place;
    const Operation *operation;
    const Name *name;
};

class HostileNames {
  public:
    explicit HostileNames(const std::string &programs)
        : roots_(programs), places_(all_places()), names_(hostile::all_names()) {
        for (const Place &place : places_) {
            for (const std::string &operation_name : place.operations) {
                for (const Name &name : names_) {
                    const std::string id = place.name + "/" + operation_name + "/" + name.id;
                    points_[id] = {&place, &operation(operation_name), &name};
                    order_.push_back(id);
                }
            }
        }
    }

    const std::vector<std::string> &points() const { return order_; }

    struct Verdict {
        std::string why;  // empty: held
        std::string outcome;
        Seen seen;
    };
    Verdict run(const std::string &id) {
        const Point &point = points_.at(id);
        const Seen &same = with_ordinary_name(point);
        const Setting setting = setting_of(point, point.name->text);
        Verdict verdict;
        verdict.seen = run(point, setting);
        verdict.outcome = outcome_of(setting, verdict.seen);
        verdict.why = judged(*point.place, setting, *point.name, verdict.seen, same);
        return verdict;
    }
    const Point &point(const std::string &id) const { return points_.at(id); }

  private:
    static Setting setting_of(const Point &point, const std::string &name) {
        Setting setting;
        point.operation->prepare(&setting);
        point.place->put(&setting, name);
        return setting;
    }
    Seen run(const Point &point, const Setting &setting) {
        return roots_.run(
            [&] {
                if (point.place->name == "source_device") make_node(setting.source, S_IFBLK);
                set_up(setting);
            },
            [&] { return point.operation->run(setting); });
    }
    const Seen &with_ordinary_name(const Point &point) {
        const std::string word = ordinary_for(point.name->text);
        const std::string key = point.place->name + "/" + point.operation->name + "/" + word;
        const auto known = ordinary_.find(key);
        if (known != ordinary_.end()) return known->second;
        return ordinary_[key] = run(point, setting_of(point, word));
    }

    Roots roots_;
    std::vector<Place> places_;
    std::vector<Name> names_;
    std::map<std::string, Point> points_;
    std::vector<std::string> order_;
    std::map<std::string, Seen> ordinary_;
};

std::string shell_word(const std::string &text) {
    std::string word = "'";
    for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return word + "'";
}

void print(const std::string &id, const HostileNames::Verdict &verdict) {
    printf("%s: %s\n", id.c_str(), verdict.outcome.c_str());
    for (const Words &words : verdict.seen.runs) {
        for (const std::string &word : words) printf("  %s", shell_word(word).c_str());
        printf("\n");
    }
    for (const std::string &path : verdict.seen.changed) printf("  changed %s\n", path.c_str());
    printf("  %s\n", verdict.why.empty() ? "held" : verdict.why.c_str());
}

std::string program_folder() {
    char path[4096] = "";
    if (readlink("/proc/self/exe", path, sizeof path - 1) <= 0) return ".";
    const std::string whole = path;
    return whole.substr(0, whole.rfind('/'));
}

int run_row(int argc, char **argv) {
    const proof::Options options = proof::options_of(
        argc, argv, "Names that are commands, options, other paths or too long, in every place.");
    if (geteuid() != 0) {
        return proof::Row::cannot_run("it makes mount namespaces, which needs root");
    }
    proof::Row row("hostile_names", options, proof::shipped_libraries());
    const proof::Expectations expected(expected_file);
    const bool records = getenv("TFPROOF_RECORD") != nullptr;
    proof::SeenOutcomes recorded;
    HostileNames all(program_folder());
    for (const std::string &id : row.choose(all.points(), quick_points)) {
        HostileNames::Verdict verdict = all.run(id);
        const Point &point = all.point(id);
        const std::string place = point.place->name + "/" + point.operation->name;
        const std::string kind = kind_of(point.name->text);
        if (records) {
            recorded.add(place, point.name->id, kind, verdict.outcome);
        } else if (verdict.why.empty()) {
            verdict.why = expected.differs(place, point.name->id, kind, verdict.outcome);
        }
        if (row.verbose()) print(id, verdict);
        if (verdict.why.empty()) {
            row.held(id);
        } else {
            row.failed(id, verdict.why);
        }
    }
    if (records) {
        std::ofstream(options.state / "recorded") << recorded.lines();
    }
    return row.finish("names in places and operations");
}

}  // namespace
}  // namespace hostile

int main(int argc, char **argv) {
    return hostile::run_row(argc, argv);
}
