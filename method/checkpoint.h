// The fields of the records under their checkpoint keys, shared by both directions: what is written
// and what is read back agree because one table serves both.
#pragma once

#include <cstdint>

#include "convert/convert.h"
#include "include/records.h"

// Registers the object's keys; for a freshly frozen volume it also runs the disk group's clone
// step, once per group. Returns 0 or the failing step's status.
int32_t build_table_hdef(convert_table *table, hdef *h);
// Registers the nine keys of one device record. Returns 0.
int32_t build_table_pminfo(convert_table *table, prim_mir_info *pm, convert_function conv_func);

namespace tf {

// The keys and values that stand for themselves, not for a field.
namespace key {
inline constexpr char clone_info[] = "HDEF-CLONE_INFO_FILE";  // START and END of the clone block
inline constexpr char transfer_file[] = "TRANSFER_FILE";      // its first line
inline constexpr char pair[] = "PRIM_MIR_INFO";               // START, NEXT behind a record, END
inline constexpr char is_tgt[] = "HDEF-is_tgt";               // added by the framework
inline constexpr char restore[] = "HDEF-restore";             // added by the framework
}  // namespace key
namespace marker {
inline constexpr char start[] = "START";
inline constexpr char next[] = "NEXT";
inline constexpr char end[] = "END";
}  // namespace marker

// A conversion table that is closed at the end of its scope.
class ConversionTable {
  public:
    ConversionTable() = default;
    ~ConversionTable() { convert_close(table_); }
    ConversionTable(const ConversionTable &) = delete;
    ConversionTable &operator=(const ConversionTable &) = delete;

    // Opens it: 0, or 11 after a report (error number 13).
    int32_t open(const char *reporter);
    convert_table *get() const { return table_; }

  private:
    convert_table *table_ = nullptr;
};

// Registers the four owner ids of the first device record.
void build_table_owners(convert_table *table, prim_mir_info *pm);

}  // namespace tf
