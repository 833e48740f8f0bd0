// The row "abi": what callers were compiled against. Every exported name, every size and offset of
// a record that crosses a boundary, and how the libraries are linked, compared with
// proof/abi/promised line by line; a line too many is as wrong as one that is missing.
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "fim_config/qfm_fim_config.h"
#include "include/records.h"
#include "include/symapi.h"
#include "include/tessera_host.h"
#include "include/timefinder.h"
#include "proof/kit/row.h"
#include "snap/snap.h"

namespace {

using Lines = std::set<std::string>;

std::string output_of(const std::string &command) {
    FILE *stream = popen(command.c_str(), "re");
    if (stream == nullptr) throw std::runtime_error("cannot run " + command);
    std::string text;
    char part[4096];
    for (size_t size; (size = fread(part, 1, sizeof part, stream)) > 0;) text.append(part, size);
    if (pclose(stream) != 0) throw std::runtime_error("failed: " + command);
    return text;
}

bool holds(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

void add_symbols(const std::string &name, const std::string &library, Lines &lines) {
    std::istringstream table(output_of("nm -D --defined-only " + library));
    for (std::string value, kind, symbol; table >> value >> kind >> symbol;) {
        lines.insert(name + " exports " + symbol.substr(0, symbol.find('@')) +
                     (kind == "T" ? " (function)" : " (data)"));
    }
}

void add_linkage(const std::string &name, const std::string &library, Lines &lines) {
    const std::string head = output_of("readelf -dlW " + library);
    const std::string undefined = output_of("nm -D --undefined-only " + library);
    const auto tell = [&](const char *what, bool is_so) {
        lines.insert(name + (is_so ? " has " : " has no ") + what);
    };
    tell("relro", holds(head, "GNU_RELRO"));
    tell("immediate binding", holds(head, "BIND_NOW") || holds(head, "Flags: NOW"));
    tell("stack canaries", holds(undefined, "__stack_chk_fail"));
    tell("executable stack", !holds(head,
                                    "GNU_STACK      0x000000 0x0000000000000000 "
                                    "0x0000000000000000 0x000000 0x000000 RW "));
    tell("writable code", holds(head, " RWE "));
    tell("run-time search path", holds(head, "RPATH") || holds(head, "RUNPATH"));
    tell("text relocations", holds(head, "TEXTREL"));
    tell("symbolic binding", holds(head, "SYMBOLIC"));
    tell("ban on dlopen", holds(head, "NOOPEN"));
    tell("ban on dlclose", holds(head, "NODELETE"));
    std::istringstream dynamic(head);
    for (std::string line; std::getline(dynamic, line);) {
        const size_t open = line.find('[');
        if (!holds(line, "(NEEDED)") || open == std::string::npos) continue;
        lines.insert(name + " needs " + line.substr(open + 1, line.find(']') - open - 1));
    }
}

void add(Lines &lines, const char *record, const char *field, size_t offset, size_t size) {
    lines.insert("record " + std::string(record) + "." + field + " at " + std::to_string(offset) +
                 ", " + std::to_string(size) + " bytes");
}

#define FIELD(record, field) \
    add(lines, #record, #field, offsetof(record, field), sizeof(record::field))
#define SIZE(record) \
    lines.insert("record " #record " has " + std::to_string(sizeof(record)) + " bytes")

void add_method_records(Lines &lines) {
    SIZE(prim_mir_info);
    FIELD(prim_mir_info, symid);
    FIELD(prim_mir_info, dev_sym_devname);
    FIELD(prim_mir_info, dev_raw_device);
    FIELD(prim_mir_info, dev_block_device);
    FIELD(prim_mir_info, p_dev_raw_device);
    FIELD(prim_mir_info, bcv_raw_device);
    FIELD(prim_mir_info, bcv_block_device);
    FIELD(prim_mir_info, bcv_pdevname);
    FIELD(prim_mir_info, bcvdev_sym_devname);
    FIELD(prim_mir_info, dev_raw_uid);
    FIELD(prim_mir_info, dev_raw_gid);
    FIELD(prim_mir_info, dev_blk_uid);
    FIELD(prim_mir_info, dev_blk_gid);
    FIELD(prim_mir_info, lock_file);
    FIELD(prim_mir_info, issplit);
    FIELD(prim_mir_info, sync_at_end);
    FIELD(prim_mir_info, lock_set);
    FIELD(prim_mir_info, next);
    SIZE(hdef);
    FIELD(hdef, sync_at_start);
    FIELD(hdef, async_resync);
    FIELD(hdef, backup_copy);
    FIELD(hdef, is_vol);
    FIELD(hdef, is_mount);
    FIELD(hdef, object_type);
    FIELD(hdef, mount_point);
    FIELD(hdef, out_file);
    FIELD(hdef, err_file);
    FIELD(hdef, vol_group);
    FIELD(hdef, vol_name);
    FIELD(hdef, clone_group);
    FIELD(hdef, primary_host);
    FIELD(hdef, fstype);
    FIELD(hdef, pminfo_list);
    FIELD(hdef, transfer_file);
    FIELD(hdef, is_rebuilt);
    FIELD(hdef, is_tgt);
    FIELD(hdef, restore);
    FIELD(hdef, max_snapshots);
    FIELD(hdef, reserved);
    FIELD(hdef, dgimport);
    FIELD(hdef, keep_fi);
    FIELD(hdef, fs_path);
    FIELD(hdef, dev_block_device);
    FIELD(hdef, dev_raw_device);
    SIZE(dg_member);
    FIELD(dg_member, h);
    FIELD(dg_member, next);
    SIZE(dg_entry);
    FIELD(dg_entry, cloned);
    FIELD(dg_entry, imported);
    FIELD(dg_entry, thaw_count);
    FIELD(dg_entry, restore_count);
    FIELD(dg_entry, vol_count);
    FIELD(dg_entry, dg_name);
    FIELD(dg_entry, members);
    FIELD(dg_entry, next);
}

void add_array_records(Lines &lines) {
    SIZE(SymBcvInfo);
    FIELD(SymBcvInfo, dev_serial_id);
    FIELD(SymBcvInfo, dev_sym_devname);
    FIELD(SymBcvInfo, dev_dgname);
    FIELD(SymBcvInfo, bcvdev_serial_id);
    FIELD(SymBcvInfo, bcvdev_sym_devname);
    FIELD(SymBcvInfo, bcvdev_dgname);
    FIELD(SymBcvInfo, bcv_pair_state);
    SIZE(SymDevice);
    FIELD(SymDevice, vendor_id);
    FIELD(SymDevice, product_id);
    FIELD(SymDevice, product_rev);
    FIELD(SymDevice, symid);
    FIELD(SymDevice, device_serial_id);
    FIELD(SymDevice, sym_devname);
    FIELD(SymDevice, pdevname);
    FIELD(SymDevice, dgname);
    FIELD(SymDevice, ldevname);
    FIELD(SymDevice, bcv_count);
    FIELD(SymDevice, bcvs);
    FIELD(SymDevice, port_count);
    FIELD(SymDevice, ports);
    SIZE(SymInitOptions);
    FIELD(SymInitOptions, version);
    FIELD(SymInitOptions, reserved);
}

void add_other_records(Lines &lines) {
    SIZE(Q_sys_cmd_exec_options);
    FIELD(Q_sys_cmd_exec_options, out_fd);
    FIELD(Q_sys_cmd_exec_options, err_fd);
    FIELD(Q_sys_cmd_exec_options, exit_status);
    SIZE(qfm_fcp_options);
    FIELD(qfm_fcp_options, allow_empty_pairs);
    FIELD(qfm_fcp_options, allow_empty_value);
    FIELD(qfm_fcp_options, allow_standalone_keyword);
    FIELD(qfm_fcp_options, trim_blanks);
    FIELD(qfm_fcp_options, reject_unknown_keywords);
    FIELD(qfm_fcp_options, case_sensitive_keywords);
    SIZE(FS_LOCK_REC);
    FIELD(FS_LOCK_REC, name);
    FIELD(FS_LOCK_REC, type);
    FIELD(FS_LOCK_REC, state);
    FIELD(FS_LOCK_REC, fd);
    FIELD(FS_LOCK_REC, next);
    SIZE(sn_text);
    FIELD(sn_text, code);
    FIELD(sn_text, text);
}

Lines what_is() {
    Lines lines;
    for (const auto &path : proof::shipped_libraries()) {
        const std::string library = "'" + path.string() + "'";
        add_symbols(path.filename(), library, lines);
        add_linkage(path.filename(), library, lines);
    }
    add_method_records(lines);
    add_array_records(lines);
    add_other_records(lines);
    return lines;
}

Lines what_was_promised() {
    std::ifstream in(TF_SOURCE_DIR "/proof/abi/promised");
    if (!in) throw std::runtime_error("cannot read proof/abi/promised");
    Lines lines;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '#') lines.insert(line);
    }
    return lines;
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc == 2 && std::string(argv[1]) == "--print") {
        for (const std::string &line : what_is()) std::cout << line << "\n";
        return 0;
    }
    proof::Row row("abi", proof::options_of(argc, argv, "what callers were compiled against"),
                   proof::shipped_libraries());
    const Lines is = what_is(), promised = what_was_promised();
    Lines all = is;
    all.insert(promised.begin(), promised.end());
    for (const std::string &line : row.choose({all.begin(), all.end()}, all.size())) {
        if (!is.contains(line))
            row.failed(line, "promised, and not so");
        else if (!promised.contains(line))
            row.failed(line, "so, and not promised: a line for proof/abi/promised, if it is meant");
        else
            row.held(line);
    }
    return row.finish();
} catch (const std::exception &error) {
    fprintf(stderr, "abi: %s\n", error.what());
    return proof::row_missed;
}
