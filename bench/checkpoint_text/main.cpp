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
void method_in(char *text, hdef *kept = nullptr) {
    hdef *h = nullptr;
    if (TimeFinder_rebuild(&h, text) != 0) abort();
    if (kept != nullptr) {
        *kept = *h;
        h->pminfo_list = nullptr;
    }
    unlink(h->transfer_file);
    tf::remove_capture_files(h);
    tf::dg_remove(h);
    tf::free_hdef(h);
}

// What the backup host puts in front of a text: no locks there.
std::string on_backup_host(const std::string &text) {
    return "HDEF-is_tgt=1\n" + text;
}

// As a rebuild reads, and nothing besides: each line goes through the table into a scratch record,
// and the line that ends a device makes a record of it.
void read_by_table(std::string text, Records &records) {
    const tf::HeapOwner<prim_mir_info> scratch(tf::make_zeroed<prim_mir_info>());
    tf::ConversionTable table;
    if (!scratch || table.open("bench") != 0) abort();
    build_table_hdef(table.get(), &records.h);
    tf::build_table_owners(table.get(), scratch.get());
    build_table_pminfo(table.get(), scratch.get(), nullptr);
    const std::string pair = std::string(tf::key::pair) + "=";
    const std::string next = pair + tf::marker::next;
    for (char *line = text.data(), *end; (end = strchr(line, '\n')) != nullptr; line = end + 1) {
        *end = '\0';
        if (strncmp(line, pair.c_str(), pair.size()) != 0) {
            if (convert_internal(table.get(), line) != 0) abort();
        } else if (next == line) {
            *records.next_device() = *scratch.get();
            memset(scratch.get(), 0, sizeof *scratch.get());
        }
    }
}

void check_that_all_do_the_same() {
    const Records records(3);
    Records read[4];
    bench::glib_in(bench::glib_out(records), read[0]);
    bench::json_in(bench::json_out(records), read[1]);
    bench::boost_in(bench::boost_out(records), read[2]);
    read_by_table(text_of(records), read[3]);
    read[3].h.is_tgt = records.h.is_tgt;  // a line of the framework's
    Records rebuilt;
    std::string own = on_backup_host(text_of(records));
    method_in(own.data(), &rebuilt.h);
    for (const hdef *h : {&read[0].h, &read[1].h, &read[2].h, &read[3].h, &rebuilt.h}) {
        if (!bench::same(records.h, *h)) {
            fprintf(stderr, "checkpoint text: a variant does not read what it wrote\n");
            exit(2);
        }
    }
}

// The text with another marker in the place of each one that ends a device: all lines are read, yet
// into the same record.
std::string without_ends(std::string text) {
    for (size_t at = 0; (at = text.find("=NEXT\n", at)) != std::string::npos;) {
        text.replace(at, 6, "=START\n");
    }
    return text;
}

void read_records_by_table(const std::string &text) {
    Records records;
    read_by_table(text, records);
}

// Reading changes the text.
void read_by_method(std::string text) {
    method_in(text.data());
}

template <bench::Records::Devices devices>
void read_by(void (*reader)(const std::string &, Records &), const std::string &text) {
    Records records(devices);
    reader(text, records);
}

constexpr char row[] = "checkpoint text";

bench::Result memory(const std::string &what, int pairs, const char *subject, size_t bytes,
                     size_t text) {
    bench::Result result;
    result.row = row;
    result.what = "memory, " + what + ", " + std::to_string(pairs) + " pairs";
    result.measure = "bytes at the peak";
    result.subject = subject;
    result.against = "the text";
    result.ratio = static_cast<double>(bytes) / static_cast<double>(text);
    return result;
}

std::string per_pair(const char *what, size_t bytes, int pairs) {
    return std::string(what) + " " + std::to_string(bytes / static_cast<size_t>(pairs)) +
           " bytes a pair";
}

// The text under construction, beyond the table of its lines.
bool print_text_memory(const Records &records, int pairs) {
    tf::ConversionTable table;
    if (table.open("bench") != 0) abort();
    build_table_hdef(table.get(), const_cast<hdef *>(&records.h));
    for (prim_mir_info *pm = records.h.pminfo_list; pm != nullptr; pm = pm->next) {
        build_table_pminfo(table.get(), pm, nullptr);
    }
    char *text = nullptr;
    bench::heap_mark();
    if (convert_external(table.get(), &text) != 0) abort();
    bench::Result result = memory("the text alone", pairs, "convert_external",
                                  bench::heap_peak_since_mark(), strlen(text));
    free(text);
    result.target = 2.0;
    return bench::print(result);
}

// The whole of both entry points. A checkpoint registers every line before the first is written, in
// entries of a given form; a rebuild makes the records, of a given size. Neither is the text's.
void print_whole_memory(const Records &records, int pairs) {
    tf::HeapOwner<char> text;
    bench::heap_mark();
    method_out(records, text);
    const size_t out = bench::heap_peak_since_mark(), length = strlen(text.get());
    bench::Result result =
        memory("out with the table of its lines", pairs, "TimeFinder_ckpt", out, length);
    result.note = per_pair("text", length, pairs) + ", " + per_pair("table", out - length, pairs);
    bench::print(result);

    std::string own = on_backup_host(text.get());
    bench::heap_mark();
    method_in(own.data());
    const size_t in = bench::heap_peak_since_mark();
    const size_t made = static_cast<size_t>(pairs) * sizeof(prim_mir_info) + sizeof(hdef);
    bench::print(memory("in with the records", pairs, "TimeFinder_rebuild", in, length));
    result = memory("in beyond the records", pairs, "TimeFinder_rebuild", in - made, length);
    result.note = per_pair("records", made, pairs);
    bench::print(result);
}

bool print_memory(int pairs) {
    const Records records(pairs);
    const bool held = print_text_memory(records, pairs);
    print_whole_memory(records, pairs);
    return held;
}

}  // namespace

int main(int argc, char **argv) {
    int32_t number = 0;
    char errmsg[TF_MESSAGE_SIZE], logmsg[TF_MESSAGE_SIZE];
    TimeFinder_init(&number, logmsg, errmsg);
    p_emc_tf_SymDevShow = show;
    resolve_symapi = 1;  // the array is there
    check_that_all_do_the_same();
    bench::Comparisons all(row, argc, argv);
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
        const std::string text = text_of(*records), own = on_backup_host(text),
                          one = without_ends(own);
        const std::string key_file = bench::glib_out(*records);
        const std::string json = bench::json_out(*records);
        const std::string ini = bench::boost_out(*records);
        const auto readers = [=]<auto devices>()->std::vector<bench::Variant> {
            return {{"GLib key file", [=] { read_by<devices>(bench::glib_in, key_file); }},
                    {"nlohmann-json", [=] { read_by<devices>(bench::json_in, json); }},
                    {"Boost.PropertyTree", [=] { read_by<devices>(bench::boost_in, ini); }}};
        };
        const auto into_records = readers.operator()<bench::Records::Devices::kept>();
        const auto into_one = readers.operator()<bench::Records::Devices::passed_over>();
        const auto target = judged ? std::optional(5.0) : std::nullopt;
        // The records are twenty-five times the text, and what the kernel takes to give their
        // memory is the same for all: it hides how fast any of them reads, and varies with what the
        // process has at hand. So the row that keeps them is shown, and the lines alone are judged.
        all.ahead("in, " + size, {"convert_internal", [=] { read_records_by_table(text); }},
                  into_records, std::nullopt);
        all.ahead("lines read into one record, " + size,
                  {"TimeFinder_rebuild", [=] { read_by_method(one); }}, into_one, target);
        // Besides reading, it asks the array for each mirror and makes paths of the answer, which
        // none of the others does.
        all.ahead("in with what the array says, " + size,
                  {"TimeFinder_rebuild", [=] { read_by_method(own); }}, into_records, std::nullopt);
    }
    const int status = all.run();
    return all.measures("memory") && !print_memory(2046) ? 1 : status;
}
