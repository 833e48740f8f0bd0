#include <malloc.h>

#include <map>

#include "tests/symapi/symapi_fixture.h"

namespace test {
namespace {

class Loader : public Symapi {
  protected:
    // Rows of the table by name.
    static std::map<std::string, const SymapiSymbol *> rows() {
        std::map<std::string, const SymapiSymbol *> found;
        for (const SymapiSymbol *row = emc_tf_symapi_symbols; row->name != nullptr; ++row) {
            found[row->name] = row;
        }
        return found;
    }
    static void *slot(const SymapiSymbol &row) {
        void *value = nullptr;
        memcpy(&value, row.slot, sizeof value);
        return value;
    }
    static std::string filled() {
        std::string text;
        for (const auto &[name, row] : rows()) text += slot(*row) != nullptr ? name + " " : "";
        return text;
    }
};

constexpr char group_1[] =
    "SymApiPatch SymApiVersion SymDevBcvControl SymDevShow SymDgBcvControl SymErrorSymbol SymExit "
    "SymFree SymInitV SymPdevShow SymPerror SymSync ";
constexpr char group_2[] =
    "SymApiPatch SymApiVersion SymBcvPdevList SymCommit SymDevBcvControl SymDevListBcvControl "
    "SymDevShow SymDevSync SymDgBcvControl SymDiscover SymErrorSymbol SymExit SymFree SymInitV "
    "SymInquiry SymLdevBcvControl SymList SymPdevList SymPdevShow SymPdevSync SymPerror SymPing "
    "SymPrefsSet SymStat SymSync ";
constexpr char group_3[] =
    "SymMapLvList SymMapLvShow SymMapPatch SymMapVersion SymMapVgList SymMapVgShow ";

TEST_F(Loader, the_table_is_in_ascending_order_and_every_row_has_a_slot_of_its_own) {
    std::string last;
    std::map<const void *, int> slots;
    int count = 0;
    for (const SymapiSymbol *row = emc_tf_symapi_symbols; row->name != nullptr; ++row, ++count) {
        EXPECT_LT(last, row->name);
        last = row->name;
        ++slots[row->slot];
    }
    EXPECT_EQ(count, 36);
    EXPECT_EQ(slots.size(), 36U);
    EXPECT_EQ(emc_tf_symapi_symbols[36].mask, 0U);
    EXPECT_EQ(emc_tf_symapi_symbols[36].slot, nullptr);
}

TEST_F(Loader, the_masks_of_the_table_are_those_of_the_library) {
    std::map<uint32_t, std::string> names;
    for (const auto &[name, row] : rows()) names[row->mask] += name + " ";
    EXPECT_EQ(names[3],
              "SymApiPatch SymApiVersion SymDevBcvControl SymDevShow SymDgBcvControl SymDgShow "
              "SymErrorSymbol SymExit SymFree SymInitV SymPdevShow SymPerror SymSync ");
    EXPECT_EQ(names[2],
              "SymBcvPdevList SymCommit SymDevListBcvControl SymDevSync SymDiscover SymInquiry "
              "SymLdevBcvControl SymList SymPdevList SymPdevSync SymPing SymPrefsSet SymStat ");
    EXPECT_EQ(names[4], group_3);
    EXPECT_EQ(names[0], "SymDskStat SymFillInHyper SymGetEnvInfo SymGetScsiChar ");
}

TEST_F(Loader, a_library_that_is_not_there_is_4_without_a_message) {
    EXPECT_EQ(emc_tf_openSymapiLibrary("/nowhere/libsymapi.so"), 4);
    EXPECT_EQ(emc_tf_symapi_base_h, nullptr);
    expect_no_failure();
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Loader, opening_fills_no_slot) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    EXPECT_NE(emc_tf_symapi_base_h, nullptr);
    EXPECT_EQ(filled(), "");
}

TEST_F(Loader, a_library_without_SymDgShow_loads_and_resolution_is_13) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(2), 13);
    EXPECT_EQ(whole_log(), "NULL location at index 9, symbol='SymDgShow' mask=3\n");
    EXPECT_EQ(emc_tf_SymDgShow(1, "DG", nullptr), 14);
    EXPECT_EQ(emc_tf_SymPdevShow(1, "/dev/x", nullptr), 102);
    expect_no_failure();
}

TEST_F(Loader, a_missing_function_is_logged_at_level_2_only) {
    set_level(1);
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(2), 13);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Loader, resolution_of_group_2_leaves_the_host_mapping_calls_empty) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_resolveSymapiSymbols(2);
    EXPECT_EQ(p_emc_tf_SymMapLvList, nullptr);
    EXPECT_EQ(p_emc_tf_SymMapLvShow, nullptr);
    EXPECT_EQ(p_emc_tf_SymMapPatch, nullptr);
    EXPECT_EQ(p_emc_tf_SymMapVersion, nullptr);
    EXPECT_EQ(p_emc_tf_SymMapVgList, nullptr);
    EXPECT_EQ(p_emc_tf_SymMapVgShow, nullptr);
    EXPECT_EQ(filled(), group_2);
}

TEST_F(Loader, resolution_of_group_1_fills_only_its_rows) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(1), 13);
    EXPECT_EQ(filled(), group_1);
}

TEST_F(Loader, resolution_without_a_missing_function_is_0) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(4), 0);
    EXPECT_EQ(filled(), group_3);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Loader, resolution_of_two_groups_fills_every_row_that_is_in_one_of_them) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(5), 13);
    for (const auto &[name, row] : rows()) {
        const bool wanted = (row->mask & 5) != 0 && name != "SymDgShow";
        EXPECT_EQ(slot(*row) != nullptr, wanted) << name;
    }
}

TEST_F(Loader, the_four_functions_without_a_group_are_never_loaded) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_resolveSymapiSymbols(0xffffffff);
    EXPECT_EQ(p_emc_tf_SymDskStat, nullptr);
    EXPECT_EQ(p_emc_tf_SymFillInHyper, nullptr);
    EXPECT_EQ(p_emc_tf_SymGetEnvInfo, nullptr);
    EXPECT_EQ(p_emc_tf_SymGetScsiChar, nullptr);
}

TEST_F(Loader, a_row_outside_the_groups_keeps_what_its_slot_held) {
    const auto held = [] {};
    p_emc_tf_SymMapPatch = held;
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_resolveSymapiSymbols(2);
    EXPECT_EQ(p_emc_tf_SymMapPatch, static_cast<void (*)()>(held));
}

TEST_F(Loader, a_function_that_the_library_lacks_loses_what_its_slot_held) {
    p_emc_tf_SymDgShow = [](int32_t, const char *, void *) { return 1; };
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_resolveSymapiSymbols(2);
    EXPECT_EQ(emc_tf_SymDgShow(1, "DG", nullptr), 14);
}

TEST_F(Loader, after_a_close_every_wrapper_falls_back_and_the_handle_keeps_its_value) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_resolveSymapiSymbols(2);
    void *const handle = emc_tf_symapi_base_h;
    EXPECT_EQ(emc_tf_SymPdevShow(1, "/dev/x", nullptr), 102);
    emc_tf_closeSymapiLibrary();
    EXPECT_EQ(emc_tf_symapi_base_h, handle);
    EXPECT_EQ(emc_tf_SymPdevShow(1, "/dev/x", nullptr), 14);
    EXPECT_EQ(std::string(emc_tf_SymPerror(1, 2)), "unknown");
    EXPECT_EQ(filled(), "");
    EXPECT_FALSE(is_loaded(fake_library_path));
}

TEST_F(Loader, a_close_empties_every_slot_whatever_its_group) {
    p_emc_tf_SymDskStat = [] {};
    p_emc_tf_SymMapPatch = [] {};
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_closeSymapiLibrary();
    EXPECT_EQ(filled(), "");
}

TEST_F(Loader, a_closed_library_is_neither_searched_nor_closed_again) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_closeSymapiLibrary();
    emc_tf_closeSymapiLibrary();
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(2), 13);
    EXPECT_EQ(filled(), "");
}

TEST_F(Loader, a_library_can_be_opened_again_after_a_close) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
        emc_tf_resolveSymapiSymbols(2);
        EXPECT_EQ(filled(), group_2);
        emc_tf_closeSymapiLibrary();
        EXPECT_FALSE(is_loaded(fake_library_path));
    }
}

TEST_F(Loader, without_a_library_the_host_process_is_not_searched) {
    void *const global = dlopen(fake_library_path, RTLD_LAZY | RTLD_GLOBAL);
    ASSERT_NE(dlsym(global, "SymExit"), nullptr);
    EXPECT_EQ(emc_tf_openSymapiLibrary("/nowhere/libsymapi.so"), 4);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(2), 13);
    EXPECT_EQ(filled(), "");
    dlclose(global);
}

TEST_F(Loader, behind_a_library_that_was_closed_the_host_process_is_not_searched_either) {
    EXPECT_EQ(emc_tf_openSymapiLibrary(fake_library_path), 0);
    emc_tf_closeSymapiLibrary();
    void *const global = dlopen(fake_library_path, RTLD_LAZY | RTLD_GLOBAL);
    ASSERT_NE(dlsym(global, "SymExit"), nullptr);
    EXPECT_EQ(emc_tf_openSymapiLibrary("/nowhere/libsymapi.so"), 4);
    EXPECT_EQ(emc_tf_resolveSymapiSymbols(2), 13);
    EXPECT_EQ(filled(), "");
    dlclose(global);
}

// One life of the method's library, with everything that it keeps for its lifetime.
void load_and_unload() {
    void *const method = dlopen(TF_BINARY_DIR "/lib/reloaded_method.so", RTLD_NOW);
    ASSERT_NE(method, nullptr) << dlerror();
    const auto open = reinterpret_cast<int32_t (*)(const char *)>(dlsym(method, "reloaded_open"));
    const auto freeze =
        reinterpret_cast<int32_t (*)(const char *)>(dlsym(method, "reloaded_freeze"));
    EXPECT_EQ(open(fake_library_path), 0);
    for (const char *group : {"A", "B", "A"}) EXPECT_EQ(freeze(group), 0);
    dlclose(method);
}

TEST_F(Loader, unloading_the_method_closes_the_library_and_frees_every_record) {
    load_and_unload();
    EXPECT_FALSE(is_loaded(fake_library_path));
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 50; ++i) load_and_unload();
    EXPECT_LT(mallinfo2().uordblks, before + 10000);
}

}  // namespace
}  // namespace test
