#include <cstring>

#include "tests/symapi/symapi_fixture.h"

namespace test {
namespace {

class Wrappers : public Symapi {};

char text_a[] = "a", text_b[] = "b", text_c[] = "c";
int32_t handle_out;
SymInitOptions options;
SymDevice device;
uint32_t number;
const char *text_out;
void *block;
const char *names[] = {text_a, nullptr}, *bcvs[] = {text_b, nullptr};

TEST_F(Wrappers, all_answer_14_or_unknown_without_a_library_and_say_nothing) {
    EXPECT_EQ(emc_tf_SymInitV(text_a, 1, &handle_out, &options, 2), 14);
    EXPECT_EQ(emc_tf_SymExit(1, 2), 14);
    EXPECT_EQ(emc_tf_SymDiscover(1, 2), 14);
    EXPECT_EQ(emc_tf_SymApiVersion(&number, &text_out), 14);
    EXPECT_EQ(emc_tf_SymApiPatch(&text_out), 14);
    EXPECT_EQ(std::string(emc_tf_SymPerror(1, 2)), "unknown");
    EXPECT_EQ(std::string(emc_tf_SymErrorSymbol(2)), "unknown");
    EXPECT_EQ(emc_tf_SymPrefsSet(1, 2, 3), 14);
    EXPECT_EQ(emc_tf_SymPdevShow(1, text_a, &device), 14);
    EXPECT_EQ(emc_tf_SymDevShow(1, text_a, text_b, &device), 14);
    EXPECT_EQ(emc_tf_SymDevSync(1, text_a, text_b, 2, 3), 14);
    EXPECT_EQ(emc_tf_SymPdevSync(1, text_a, 2), 14);
    EXPECT_EQ(emc_tf_SymLdevBcvControl(1, text_a, text_b, 2, 3), 14);
    EXPECT_EQ(emc_tf_SymDevBcvControl(1, text_a, text_b, text_c, 2, 3), 14);
    EXPECT_EQ(emc_tf_SymDevListBcvControl(1, text_a, 1, names, bcvs, 2, 3, 4), 14);
    EXPECT_EQ(emc_tf_SymDgBcvControl(1, text_a, 2, 3), 14);
    EXPECT_EQ(emc_tf_SymDgShow(1, text_a, &block), 14);
    EXPECT_EQ(emc_tf_SymSync(1, 2), 14);
    EXPECT_EQ(emc_tf_SymFree(&block), 14);
    EXPECT_EQ(emc_tf_SymList(1, &block), 14);
    EXPECT_EQ(emc_tf_SymPdevList(1, &block), 14);
    EXPECT_EQ(emc_tf_SymBcvPdevList(1, &block), 14);
    expect_no_failure();
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Wrappers, the_session_calls_pass_their_arguments_on_and_return_the_result) {
    p_emc_tf_SymInitV = [](const char *a, int b, int32_t *c, SymInitOptions *d, uint32_t e) {
        return a == text_a && b == 2 && c == &handle_out && d == &options && e == 3 ? 201 : 0;
    };
    EXPECT_EQ(emc_tf_SymInitV(text_a, 2, &handle_out, &options, 3), 201);
    p_emc_tf_SymExit = [](int32_t a, int b) { return a == 1 && b == 2 ? 202 : 0; };
    EXPECT_EQ(emc_tf_SymExit(1, 2), 202);
    p_emc_tf_SymDiscover = [](int32_t a, int b) { return a == 1 && b == 2 ? 203 : 0; };
    EXPECT_EQ(emc_tf_SymDiscover(1, 2), 203);
    p_emc_tf_SymApiVersion = [](uint32_t *a, const char **b) {
        return a == &number && b == &text_out ? 204 : 0;
    };
    EXPECT_EQ(emc_tf_SymApiVersion(&number, &text_out), 204);
    p_emc_tf_SymApiPatch = [](const char **a) { return a == &text_out ? 205 : 0; };
    EXPECT_EQ(emc_tf_SymApiPatch(&text_out), 205);
    p_emc_tf_SymPerror = [](int32_t a, int b) -> const char * {
        return a == 1 && b == 2 ? text_a : nullptr;
    };
    EXPECT_EQ(emc_tf_SymPerror(1, 2), text_a);
    p_emc_tf_SymErrorSymbol = [](int a) -> const char * { return a == 2 ? text_b : nullptr; };
    EXPECT_EQ(emc_tf_SymErrorSymbol(2), text_b);
    p_emc_tf_SymPrefsSet = [](int32_t a, int b, int c) {
        return a == 1 && b == 2 && c == 3 ? 206 : 0;
    };
    EXPECT_EQ(emc_tf_SymPrefsSet(1, 2, 3), 206);
}

TEST_F(Wrappers, the_show_and_sync_calls_pass_their_arguments_on_and_return_the_result) {
    p_emc_tf_SymPdevShow = [](int32_t a, const char *b, SymDevice *c) {
        return a == 1 && b == text_a && c == &device ? 211 : 0;
    };
    EXPECT_EQ(emc_tf_SymPdevShow(1, text_a, &device), 211);
    p_emc_tf_SymDevShow = [](int32_t a, const char *b, const char *c, SymDevice *d) {
        return a == 1 && b == text_a && c == text_b && d == &device ? 212 : 0;
    };
    EXPECT_EQ(emc_tf_SymDevShow(1, text_a, text_b, &device), 212);
    p_emc_tf_SymDevSync = [](int32_t a, const char *b, const char *c, int d, int e) {
        return a == 1 && b == text_a && c == text_b && d == 2 && e == 3 ? 213 : 0;
    };
    EXPECT_EQ(emc_tf_SymDevSync(1, text_a, text_b, 2, 3), 213);
    p_emc_tf_SymPdevSync = [](int32_t a, const char *b, int c) {
        return a == 1 && b == text_a && c == 2 ? 214 : 0;
    };
    EXPECT_EQ(emc_tf_SymPdevSync(1, text_a, 2), 214);
    p_emc_tf_SymDgShow = [](int32_t a, const char *b, void *c) {
        return a == 1 && b == text_a && c == &block ? 215 : 0;
    };
    EXPECT_EQ(emc_tf_SymDgShow(1, text_a, &block), 215);
    p_emc_tf_SymSync = [](int32_t a, int b) { return a == 1 && b == 2 ? 216 : 0; };
    EXPECT_EQ(emc_tf_SymSync(1, 2), 216);
}

// A record in which every text fills its field without an end, and every count is the same.
SymDevice record_without_ends(int32_t count) {
    SymDevice lie;
    memset(&lie, 'x', sizeof lie);
    lie.bcv_count = lie.port_count = count;
    return lie;
}

SymDevice shown;

void expect_bounded(const SymDevice &d) {
    EXPECT_EQ(std::string(d.vendor_id), std::string(15, 'x'));
    EXPECT_EQ(std::string(d.product_id), std::string(31, 'x'));
    EXPECT_EQ(std::string(d.product_rev), std::string(15, 'x'));
    EXPECT_EQ(std::string(d.symid), std::string(12, 'x'));
    EXPECT_EQ(std::string(d.device_serial_id), std::string(15, 'x'));
    EXPECT_EQ(std::string(d.sym_devname), std::string(15, 'x'));
    EXPECT_EQ(std::string(d.pdevname), std::string(47, 'x'));
    EXPECT_EQ(std::string(d.dgname), std::string(63, 'x'));
    EXPECT_EQ(std::string(d.ldevname), std::string(63, 'x'));
    for (const SymBcvInfo &entry : d.bcvs) {
        EXPECT_EQ(std::string(entry.dev_serial_id), std::string(12, 'x'));
        EXPECT_EQ(std::string(entry.dev_sym_devname), std::string(15, 'x'));
        EXPECT_EQ(std::string(entry.dev_dgname), std::string(63, 'x'));
        EXPECT_EQ(std::string(entry.bcvdev_serial_id), std::string(12, 'x'));
        EXPECT_EQ(std::string(entry.bcvdev_sym_devname), std::string(15, 'x'));
        EXPECT_EQ(std::string(entry.bcvdev_dgname), std::string(63, 'x'));
    }
    for (const auto &port : d.ports) EXPECT_EQ(std::string(port), std::string(47, 'x'));
}

TEST_F(Wrappers, a_text_without_an_end_gets_one) {
    p_emc_tf_SymPdevShow = [](int32_t, const char *, SymDevice *c) {
        *c = record_without_ends(3);
        return 0;
    };
    p_emc_tf_SymDevShow = [](int32_t, const char *, const char *, SymDevice *d) {
        *d = record_without_ends(3);
        return 0;
    };
    EXPECT_EQ(emc_tf_SymPdevShow(1, text_a, &shown), 0);
    expect_bounded(shown);
    EXPECT_EQ(shown.bcv_count, 3);
    EXPECT_EQ(shown.port_count, 3);
    shown = {};
    EXPECT_EQ(emc_tf_SymDevShow(1, text_a, text_b, &shown), 0);
    expect_bounded(shown);
    EXPECT_EQ(shown.bcv_count, 3);
    EXPECT_EQ(shown.port_count, 3);
}

TEST_F(Wrappers, counts_beyond_their_lists_are_cut) {
    p_emc_tf_SymPdevShow = [](int32_t, const char *, SymDevice *c) {
        *c = record_without_ends(17);
        return 0;
    };
    p_emc_tf_SymDevShow = [](int32_t, const char *, const char *, SymDevice *d) {
        *d = record_without_ends(-1);
        return 0;
    };
    EXPECT_EQ(emc_tf_SymPdevShow(1, text_a, &shown), 0);
    EXPECT_EQ(shown.bcv_count, SYM_MAX_BCVS);
    EXPECT_EQ(shown.port_count, SYM_MAX_PORTS);
    EXPECT_EQ(emc_tf_SymDevShow(1, text_a, text_b, &shown), 0);
    EXPECT_EQ(shown.bcv_count, 0);
    EXPECT_EQ(shown.port_count, 0);
}

TEST_F(Wrappers, the_record_of_a_show_that_failed_is_left_alone) {
    p_emc_tf_SymPdevShow = [](int32_t, const char *, SymDevice *) { return 28; };
    p_emc_tf_SymDevShow = [](int32_t, const char *, const char *, SymDevice *) { return 28; };
    shown = record_without_ends(17);
    EXPECT_EQ(emc_tf_SymPdevShow(1, text_a, &shown), 28);
    EXPECT_EQ(emc_tf_SymDevShow(1, text_a, text_b, &shown), 28);
    EXPECT_EQ(shown.bcv_count, 17);
    EXPECT_EQ(shown.symid[12], 'x');
}

TEST_F(Wrappers, a_show_into_no_record_returns_the_result_alone) {
    p_emc_tf_SymPdevShow = [](int32_t, const char *, SymDevice *d) { return d == nullptr ? 0 : 1; };
    p_emc_tf_SymDevShow = [](int32_t, const char *, const char *, SymDevice *d) {
        return d == nullptr ? 0 : 1;
    };
    EXPECT_EQ(emc_tf_SymPdevShow(1, text_a, nullptr), 0);
    EXPECT_EQ(emc_tf_SymDevShow(1, text_a, text_b, nullptr), 0);
}

TEST_F(Wrappers, the_control_calls_pass_their_arguments_on_and_return_the_result) {
    p_emc_tf_SymLdevBcvControl = [](int32_t a, const char *b, const char *c, int d, int e) {
        return a == 1 && b == text_a && c == text_b && d == 2 && e == 3 ? 221 : 0;
    };
    EXPECT_EQ(emc_tf_SymLdevBcvControl(1, text_a, text_b, 2, 3), 221);
    p_emc_tf_SymDevBcvControl = [](int32_t a, const char *b, const char *c, const char *d, int e,
                                   int f) {
        return a == 1 && b == text_a && c == text_b && d == text_c && e == 2 && f == 3 ? 222 : 0;
    };
    EXPECT_EQ(emc_tf_SymDevBcvControl(1, text_a, text_b, text_c, 2, 3), 222);
    p_emc_tf_SymDevListBcvControl = [](int32_t a, const char *b, int c, const char *const *d,
                                       const char *const *e, int f, int g, int h) {
        return a == 1 && b == text_a && c == 1 && d == names && e == bcvs && f == 2 && g == 3 &&
                       h == 4
                   ? 223
                   : 0;
    };
    EXPECT_EQ(emc_tf_SymDevListBcvControl(1, text_a, 1, names, bcvs, 2, 3, 4), 223);
    p_emc_tf_SymDgBcvControl = [](int32_t a, const char *b, int c, int d) {
        return a == 1 && b == text_a && c == 2 && d == 3 ? 224 : 0;
    };
    EXPECT_EQ(emc_tf_SymDgBcvControl(1, text_a, 2, 3), 224);
}

TEST_F(Wrappers, the_list_calls_pass_their_arguments_on_and_return_the_result) {
    p_emc_tf_SymFree = [](void *a) { return a == &block ? 231 : 0; };
    EXPECT_EQ(emc_tf_SymFree(&block), 231);
    p_emc_tf_SymList = [](int32_t a, void **b) { return a == 1 && b == &block ? 232 : 0; };
    EXPECT_EQ(emc_tf_SymList(1, &block), 232);
    p_emc_tf_SymPdevList = [](int32_t a, void **b) { return a == 1 && b == &block ? 233 : 0; };
    EXPECT_EQ(emc_tf_SymPdevList(1, &block), 233);
    p_emc_tf_SymBcvPdevList = [](int32_t a, void **b) { return a == 1 && b == &block ? 234 : 0; };
    EXPECT_EQ(emc_tf_SymBcvPdevList(1, &block), 234);
}

}  // namespace
}  // namespace test
