// Key=value lines: into the tables of both records, and back to text.
//
//     Input: lines as they stand in a checkpoint.
#include <cstring>

#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/input.h"
#include "fuzz/support/machine.h"
#include "method/checkpoint.h"
#include "method/text.h"

using fuzz::finding;

namespace {

// Both records under one table, as rebuild registers them.
struct Records {
    tf::HeapOwner<hdef> h{tf::make_zeroed<hdef>()};
    tf::HeapOwner<prim_mir_info> pm{tf::make_zeroed<prim_mir_info>()};
    tf::ConversionTable table;

    Records() {
        if (table.open("fuzz") != 0) finding("no table");
        build_table_hdef(table.get(), h.get());
        tf::build_table_owners(table.get(), pm.get());
        build_table_pminfo(table.get(), pm.get(), nullptr);
    }
    std::string text() {
        tf::HeapOwner<char> text;
        if (convert_external(table.get(), text.out()) != 0) finding("the text was refused");
        return text.get();
    }
    uint32_t take(const std::string &line) {
        fuzz::ExactText copy(line);
        const uint32_t status = convert_internal(table.get(), copy.get());
        fuzz::expect_terminated("errmsg", convert_errmsg(table.get()), sizeof table.get()->errmsg);
        const bool is_pair = strchr(line.c_str(), '=') != nullptr;
        if ((status == 0) != is_pair) finding("status %u for the line <%s>", status, line.c_str());
        return status;
    }
};

void expect_ends(const Records &r) {
    const hdef &h = *r.h.get();
    const prim_mir_info &pm = *r.pm.get();
    fuzz::expect_terminated("mount_point", h.mount_point, sizeof h.mount_point);
    fuzz::expect_terminated("vol_group", h.vol_group, sizeof h.vol_group);
    fuzz::expect_terminated("vol_name", h.vol_name, sizeof h.vol_name);
    fuzz::expect_terminated("clone_group", h.clone_group, sizeof h.clone_group);
    fuzz::expect_terminated("primary_host", h.primary_host, sizeof h.primary_host);
    fuzz::expect_terminated("fstype", h.fstype, sizeof h.fstype);
    fuzz::expect_terminated("fs_path", h.fs_path, sizeof h.fs_path);
    fuzz::expect_terminated("dev_raw_device", h.dev_raw_device, sizeof h.dev_raw_device);
    fuzz::expect_terminated("symid", pm.symid, sizeof pm.symid);
    fuzz::expect_terminated("dev_sym_devname", pm.dev_sym_devname, sizeof pm.dev_sym_devname);
    fuzz::expect_terminated("bcvdev_sym_devname", pm.bcvdev_sym_devname,
                            sizeof pm.bcvdev_sym_devname);
    // No key leads here, and nothing that a key fills may run into it.
    if (h.out_file != nullptr || h.err_file != nullptr || h.pminfo_list != nullptr ||
        h.transfer_file[0] != '\0' || h.is_rebuilt != 0 || h.is_tgt != 0 || pm.next != nullptr ||
        pm.lock_file[0] != '\0' || pm.bcv_pdevname[0] != '\0') {
        finding("a field that has no key was written");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const fuzz::Machine machine;
    const fuzz::Framework framework;
    Records first;
    for (const std::string &line : fuzz::lines_of(fuzz::text_of(data, size))) {
        first.take(line.c_str());
    }
    expect_ends(first);

    // Out, in again, and out: the same text.
    const std::string text = first.text();
    Records second;
    for (const std::string &line : fuzz::lines_of(text)) second.take(line);
    if (second.text() != text) finding("the text changes on its way through the records");

    convert_reinit(first.table.get());
    Records empty;
    if (first.text() != empty.text()) finding("reinit left a value behind");
    return 0;
}
