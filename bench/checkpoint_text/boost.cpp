// Boost.PropertyTree in its INI form: a section an object, a section a device.
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>

#include "bench/checkpoint_text/records.h"
#include "method/text.h"

namespace bench {
namespace {

using Tree = boost::property_tree::ptree;

struct Out {
    Tree &tree;
    template <class Value>
    void operator()(const char *key, const Value &value) const {
        tree.put(key, value);
    }
};

struct In {
    const Tree &tree;
    void operator()(const char *key, int32_t &value) const { value = tree.get<int32_t>(key); }
    template <size_t N>
    void operator()(const char *key, char (&value)[N]) const {
        tf::put(value, tree.get<std::string>(key).c_str());
    }
};

}  // namespace

std::string boost_out(const Records &records) {
    Tree tree;
    for_object(records.h, Out{tree.add_child("HDEF", {})});
    int number = 0;
    for (const prim_mir_info *pm = records.h.pminfo_list; pm != nullptr; pm = pm->next) {
        Tree device;
        if (number == 0) for_owners(*pm, Out{device});
        for_device(*pm, Out{device});
        tree.push_back({"PMINFO " + std::to_string(number++), std::move(device)});
    }
    std::ostringstream out;
    boost::property_tree::ini_parser::write_ini(out, tree);
    return out.str();
}

void boost_in(const std::string &text, Records &records) {
    std::istringstream in(text);
    Tree tree;
    boost::property_tree::ini_parser::read_ini(in, tree);
    for_object(records.h, In{tree.get_child("HDEF")});
    bool first = true;
    for (const auto &[name, device] : tree) {
        if (name == "HDEF") continue;
        prim_mir_info *pm = records.next_device();
        if (first) for_owners(*pm, In{device});
        first = false;
        for_device(*pm, In{device});
    }
}

}  // namespace bench
