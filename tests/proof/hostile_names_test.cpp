// Where the row "hostile names" lets temporary files be made.
#include "proof/hostile_names/judge.h"

namespace hostile {
namespace {

// What is said of one file that was made while TMPDIR was this folder.
std::string judged_with(const std::string &folder, const std::string &file) {
    Setting setting;
    setting.temporary_folder = folder;
    Seen seen;
    seen.status = 0;
    seen.changed = {file};
    return judged(Place(), setting, {"", "x"}, seen, Seen());
}

TEST(TemporaryFiles, are_expected_in_the_folder_by_whatever_way_it_is_named) {
    for (const char *folder : {"/tmp/x", "/tmp/x/", "/tmp//x", "/tmp/y/../x", "/tmp/./x"}) {
        EXPECT_EQ(judged_with(folder, "/tmp/x/EMCTXabcdef"), "") << folder;
    }
    EXPECT_EQ(judged_with("x/../y", "/data/y/QfMSabcdef"), "");
}

TEST(TemporaryFiles, are_expected_where_there_is_no_such_folder) {
    EXPECT_EQ(judged_with("/tmp/x", "/tmp/EMCTFabcdef"), "");
    EXPECT_EQ(judged_with("", "/tmp/EMCTFabcdef"), "");
}

TEST(TemporaryFiles, are_expected_nowhere_else) {
    for (const char *folder :
         {"/tmp/x", "/tmp/y/../x", "/tmp//x", "/tmp/.x", "/tmp/..", "..", ""}) {
        EXPECT_EQ(judged_with(folder, "/proof/EMCTXabcdef"), "touched /proof/EMCTXabcdef")
            << folder;
    }
    EXPECT_EQ(judged_with("x", "/tmp/y/x/QfMSabcdef"), "touched /tmp/y/x/QfMSabcdef");
}

TEST(TemporaryFiles, have_names_of_their_own) {
    EXPECT_EQ(judged_with("/tmp/x", "/tmp/x/abcdef"), "touched /tmp/x/abcdef");
    EXPECT_EQ(judged_with("/tmp/x", "/tmp/x/EMCTXabc"), "touched /tmp/x/EMCTXabc");
}

}  // namespace
}  // namespace hostile
