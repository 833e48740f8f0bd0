// Checkpoint and rebuild text: the entry points of the method against three libraries that write
// and read the same records.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/checkpoint_text/records.h"
#include "bench/kit/comparison.h"
#include "bench/kit/heap.h"
#include "include/timefinder.h"
#include "method/capture.h"
#include "method/checkpoint.h"
#include "method/interface.h"
#include "method/records.h"
#include "method/text.h"
#include "symapi/symapi_wrappers.h"

namespace {

using bench::Records;

int show(int32_t, const char *, const char *, SymDevice *device) {
    static const SymDevice shown = [] {
        SymDevice one = {};
        tf::put(one.pdevname, "/dev/rdsk/c1t0d0");
        return one;
    }();
    *device = shown;
    return 0;
}

void method_out(const Records &records, tf::HeapOwner<char> &text) {
    if (TimeFinder_ckpt(const_cast<hdef *>(&records.h), text.out()) != 0) abort();
}

std::string text_of(const Records &records) {
    tf::HeapOwner<char> text;
    method_out(records, text);
    return text.get();
}

void write_by_method(const Records &records) {
    tf::HeapOwner<char> text;
    method_out(records, text);
}

// The record lives in the list of disk groups as long as the library does; here it goes at once.
void method_in(std::string text, hdef *kept = nullptr) {
    hdef *h = nullptr;
    if (TimeFinder_rebuild(&h, text.data()) != 0) abort();
    if (kept != nullptr) {
        *kept = *h;
        h->pminfo_list = nullptr;
    }
    unlink(h->transfer_file);
    tf::remove_capture_files(h);
    tf::dg_remove(h);
    tf::free_hdef(h);
}

void check_that_all_do_the_same() {
    const Records records(3);
    Records read[] = {Records(Records::Devices::kept), Records(Records::Devices::kept),
                      Records(Records::Devices::kept)};
    bench::glib_in(bench::glib_out(records), read[0]);
    bench::json_in(bench::json_out(records), read[1]);
    bench::boost_in(bench::boost_out(records), read[2]);
    Records rebuilt(Records::Devices::kept);
    method_in("HDEF-is_tgt=1\n" + text_of(records), &rebuilt.h);
    for (const hdef *h : {&read[0].h, &read[1].h, &read[2].h, &rebuilt.h}) {
        if (!bench::same(records.h, *h)) {
            fprintf(stderr, "checkpoint text: a variant does not read what it wrote\n");
            exit(2);
        }
    }
}

// The text with another marker in the place of each one that ends a device. All lines are read, yet
// into the same record: to keep thousands of records is work of another kind, and the same for all.
std::string without_ends(std::string text) {
    for (size_t at = 0; (at = text.find("=NEXT\n", at)) != std::string::npos;) {
        text.replace(at, 6, "=START\n");
    }
    return text;
}

void read_by(void (*reader)(const std::string &, Records &), const std::string &text) {
    Records records(Records::Devices::passed_over);
    reader(text, records);
}

// The text under construction, beyond the table of its lines.
bool print_memory(int pairs) {
    const Records records(pairs);
    tf::ConversionTable table;
    if (table.open("bench") != 0) abort();
    build_table_hdef(table.get(), const_cast<hdef *>(&records.h));
    for (prim_mir_info *pm = records.h.pminfo_list; pm != nullptr; pm = pm->next) {
        build_table_pminfo(table.get(), pm, nullptr);
    }
    char *text = nullptr;
    bench::heap_mark();
    if (convert_external(table.get(), &text) != 0) abort();
    bench::Result result;
    result.row = "checkpoint text";
    result.what = "memory, " + std::to_string(pairs) + " pairs";
    result.measure = "bytes at the peak";
    result.subject = "convert_external";
    result.against = "the text";
    result.ratio =
        static_cast<double>(bench::heap_peak_since_mark()) / static_cast<double>(strlen(text));
    result.target = 2.0;
    free(text);
    return bench::print(result);
}

}  // namespace

int main(int argc, char **argv) {
    int32_t number = 0;
    char errmsg[TF_MESSAGE_SIZE], logmsg[TF_MESSAGE_SIZE];
    TimeFinder_init(&number, logmsg, errmsg);
    p_emc_tf_SymDevShow = show;
    resolve_symapi = 1;  // the array is there
    check_that_all_do_the_same();
    bench::Comparisons all("checkpoint text", argc, argv);
    static const int sizes[] = {1, 64, 2046};
    for (const int pairs : sizes) {
        const auto records = std::make_shared<Records>(pairs);
        const std::string size = std::to_string(pairs) + (pairs == 1 ? " pair" : " pairs");
        const bool judged = pairs == 2046;
        all.ahead("out, " + size, {"TimeFinder_ckpt", [=] { write_by_method(*records); }},
                  {{"GLib key file", [=] { bench::glib_out(*records); }},
                   {"nlohmann-json", [=] { bench::json_out(*records); }},
                   {"Boost.PropertyTree", [=] { bench::boost_out(*records); }}},
                  judged ? std::optional(4.0) : std::nullopt);
        const std::string own = without_ends(text_of(*records));
        const std::string key_file = bench::glib_out(*records);
        const std::string json = bench::json_out(*records);
        const std::string ini = bench::boost_out(*records);
        all.ahead("in, " + size, {"TimeFinder_rebuild", [=] { method_in(own); }},
                  {{"GLib key file", [=] { read_by(bench::glib_in, key_file); }},
                   {"nlohmann-json", [=] { read_by(bench::json_in, json); }},
                   {"Boost.PropertyTree", [=] { read_by(bench::boost_in, ini); }}},
                  judged ? std::optional(5.0) : std::nullopt);
    }
    const int status = all.run();
    return all.measures("memory") && !print_memory(2046) ? 1 : status;
}
