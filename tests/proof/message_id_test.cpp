// The identifier of a message is found by its text, since that is all that leaves the method.
#include "proof/kit/faulted_run.h"

namespace proof {
namespace {

TEST(MessageId, is_that_of_the_format_which_made_the_text) {
    EXPECT_EQ(
        message_id("find_bcv_pair: SymAPI call to SymPdevShow on device /dev/qz/rdmp/p0 failed "
                   "with code 114 (told to)"),
        "QfMEtf1170N");
    EXPECT_EQ(
        message_id("TimeFinder_freeze_commit: SymAPI call to SymExit failed with code 114 (x)"),
        "QfMEtf1380N");
    EXPECT_EQ(message_id("emc_tf_wait_for_split: Cannot split device /dev/qz/rdmp/p0: state: 2"),
              "QfMEtf1251N");
    EXPECT_EQ(message_id("TimeFinder_freeze: Cannot stat() file /data: No such file or directory"),
              "QfMCmn0030N");
}

TEST(MessageId, of_a_text_that_says_little_itself_is_the_last_choice) {
    EXPECT_EQ(message_id("TimeFinder_ckpt: convert_add_ent: bad name"), "QfMCmn0062N");
    EXPECT_EQ(message_id("dg_insert: Memory allocation failure at line 319"), "QfMCmn0020N");
}

TEST(MessageId, knows_a_newline_as_the_report_writes_it) {
    EXPECT_EQ(message_id("emc_tf__SymLink: Unsupported SYMAPI Version 4.1\\n"), "QfMEtf1000N");
}

TEST(MessageId, of_no_text_is_a_dash_and_of_a_foreign_one_a_question_mark) {
    EXPECT_EQ(message_id(""), "-");
    EXPECT_EQ(message_id("garbage"), "?");
}

}  // namespace
}  // namespace proof
