// Loading the library behind its version gate.
#include "tests/symapi/symapi_fixture.h"

namespace test {
namespace {

class Link : public Symapi {
  protected:
    static int32_t link() { return emc_tf__SymLink(installed_library, 2); }
};

TEST_F(Link, a_library_that_is_not_there_is_reported_with_the_loaders_text) {
    EXPECT_EQ(link(), 11);
    const std::string text =
        "emc_tf__SymLink: Unable to open shared library /usr/symcli/shlib/libsymapi.so: "
        "/usr/symcli/shlib/libsymapi.so: cannot open shared object file: No such file or directory";
    expect_failure(3, text);
    EXPECT_EQ(whole_log(), "Linking file /usr/symcli/shlib/libsymapi.so, 2.\n" + text + "\n");
    EXPECT_EQ(emc_tf_SymVersion, 0);
}

TEST_F(Link, a_release_5_library_is_accepted_and_stays_loaded) {
    install_library();
    EXPECT_EQ(link(), 0);
    expect_no_failure();
    EXPECT_EQ(emc_tf_SymVersion, 0x0500);
    EXPECT_EQ(whole_log(),
              "Linking file /usr/symcli/shlib/libsymapi.so, 2.\n"
              "NULL location at index 9, symbol='SymDgShow' mask=3\n"
              "EMC SYMAPI V5.0.0.7 Patch Level 12\n"
              "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)\n");
    let_go_of_library();
    EXPECT_TRUE(is_loaded(installed_library));
    EXPECT_EQ(emc_tf_SymPdevShow(1, "/dev/x", nullptr), 102);
}

TEST_F(Link, at_level_0_only_the_release_is_logged) {
    install_library();
    set_level(0);
    EXPECT_EQ(link(), 0);
    EXPECT_EQ(whole_log(), "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)\n");
}

TEST_F(Link, at_level_1_no_more_is_logged_than_at_level_0) {
    install_library();
    set_level(1);
    EXPECT_EQ(link(), 0);
    EXPECT_EQ(whole_log(), "emc_tf__SymLink: emc_tf_SymVersion = 500 (>=0x0500)\n");
}

TEST_F(Link, release_4_2_with_sub_level_153_is_rejected_and_unloaded_again) {
    FakeLibrary &library = install_library();
    library.version = 0x04020099;
    library.version_text = "V4.2.153";
    EXPECT_EQ(link(), 11);
    expect_failure(3, "emc_tf__SymLink: Unsupported SYMAPI Version V4.2.153\n");
    EXPECT_TRUE(logged("emc_tf__SymLink: emc_tf_SymVersion = 402 (<0x0500)"));
    EXPECT_EQ(emc_tf_SymVersion, 0x0402) << "the rejected number stays";
    EXPECT_EQ(emc_tf_SymPdevShow(1, "/dev/x", nullptr), 14);
    let_go_of_library();
    EXPECT_FALSE(is_loaded(installed_library));
}

TEST_F(Link, release_4_2_with_sub_level_154_is_accepted) {
    install_library().version = 0x0402009a;
    EXPECT_EQ(link(), 0);
    EXPECT_EQ(emc_tf_SymVersion, 0x0402);
    EXPECT_TRUE(logged("emc_tf__SymLink: emc_tf_SymVersion = 402 (<0x0500)"));
}

TEST_F(Link, release_4_3_with_sub_level_0_is_accepted) {
    install_library().version = 0x04030000;
    EXPECT_EQ(link(), 0);
    EXPECT_EQ(emc_tf_SymVersion, 0x0403);
}

TEST_F(Link, a_release_below_4_2_is_rejected_whatever_its_sub_level) {
    install_library().version = 0x0401ffff;
    EXPECT_EQ(link(), 11);
    EXPECT_EQ(errnum, 3);
}

TEST_F(Link, a_release_with_its_highest_bit_set_counts_as_new) {
    install_library().version = 0xf0000000;
    EXPECT_EQ(link(), 0);
    EXPECT_EQ(emc_tf_SymVersion, 0xf000);
}

TEST_F(Link, a_library_that_cannot_tell_its_version_is_rejected_as_unknown) {
    install_library().version_result = 5;
    EXPECT_EQ(link(), 11);
    expect_failure(3, "emc_tf__SymLink: Unsupported SYMAPI Version unknown\n");
    EXPECT_TRUE(logged("EMC SYMAPI unknown Patch Level 12"));
    EXPECT_TRUE(logged("emc_tf__SymLink: emc_tf_SymVersion = 0 (<0x0500)"));
    EXPECT_EQ(emc_tf_SymVersion, 0);
}

TEST_F(Link, a_library_that_cannot_tell_its_patch_is_accepted) {
    install_library().patch_result = 5;
    EXPECT_EQ(link(), 0);
    EXPECT_TRUE(logged("EMC SYMAPI V5.0.0.7 Patch Level unknown"));
}

TEST_F(Link, a_library_without_SymApiVersion_is_rejected_as_unknown) {
    install_library(library_without_version);
    EXPECT_EQ(link(), 11);
    expect_failure(3, "emc_tf__SymLink: Unsupported SYMAPI Version unknown\n");
    EXPECT_EQ(whole_log(),
              "Linking file /usr/symcli/shlib/libsymapi.so, 2.\n"
              "NULL location at index 1, symbol='SymApiVersion' mask=3\n"
              "NULL location at index 9, symbol='SymDgShow' mask=3\n"
              "EMC SYMAPI unknown Patch Level 12\n"
              "emc_tf__SymLink: emc_tf_SymVersion = 0 (<0x0500)\n"
              "emc_tf__SymLink: Unsupported SYMAPI Version unknown\n\n");
    let_go_of_library();
    EXPECT_FALSE(is_loaded(installed_library));
}

TEST_F(Link, a_library_without_SymApiPatch_is_accepted) {
    install_library(library_without_patch);
    EXPECT_EQ(link(), 0);
    expect_no_failure();
    EXPECT_TRUE(logged("NULL location at index 0, symbol='SymApiPatch' mask=3"));
    EXPECT_TRUE(logged("EMC SYMAPI V5.0.0.7 Patch Level unknown"));
    EXPECT_EQ(emc_tf_SymVersion, 0x0500);
}

TEST_F(Link, the_mask_chooses_the_functions_that_are_looked_up) {
    install_library();
    EXPECT_EQ(emc_tf__SymLink(installed_library, 1), 0);
    EXPECT_TRUE(logged("Linking file /usr/symcli/shlib/libsymapi.so, 1."));
    EXPECT_EQ(emc_tf_SymPdevShow(1, "/dev/x", nullptr), 102);
    EXPECT_EQ(emc_tf_SymPdevSync(1, "/dev/x", 1), 14);
}

}  // namespace
}  // namespace test
