#include "lab/tessera/clone_options.h"

#include <sstream>

namespace tessera {
namespace {

// The options of a command line as a shell would cut it.
CloneOptions parsed(const std::string &line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) words.push_back(word);
    return parse_clone_options(words);
}

std::string refusal(const std::string &line) {
    try {
        parsed(line);
    } catch (const UsageError &error) {
        return error.what();
    }
    return "";
}

TEST(CloneOptions, list_the_devices_of_a_group) {
    const CloneOptions options = parsed("-g datadg -f /tmp/EMCTF1 -p DEFAULT");
    EXPECT_EQ(options.form, CloneForm::list);
    EXPECT_EQ(options.group, "datadg");
    EXPECT_TRUE(options.volumes.empty());
    EXPECT_EQ(options.output, "/tmp/EMCTF1");
    EXPECT_EQ(options.plex, "DEFAULT");
}

TEST(CloneOptions, list_the_devices_of_a_volume) {
    const CloneOptions options = parsed("-g datadg -n vol1 -f /tmp/EMCTF1 -p data");
    EXPECT_EQ(options.form, CloneForm::list);
    EXPECT_EQ(options.volumes, std::vector<std::string>{"vol1"});
    EXPECT_EQ(refusal("-g datadg -n vol1,vol2 -f /tmp/EMCTF1 -p data"), "-n names one volume here");
}

TEST(CloneOptions, ask_for_the_clone_information) {
    const CloneOptions options = parsed(
        "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p0,/dev/sdq:/dev/qz/rdmp/p1,/dev/sdr"
        " -i /tmp/EMCTX1 -p DEFAULT");
    EXPECT_EQ(options.form, CloneForm::describe);
    EXPECT_EQ(options.volumes, (std::vector<std::string>{"vol2", "vol1"}));
    ASSERT_EQ(options.devices.size(), 2U);
    EXPECT_EQ(options.devices[1].primary, "/dev/qz/rdmp/p1");
    EXPECT_EQ(options.devices[1].bcv, "/dev/sdr");
    EXPECT_EQ(options.information, "/tmp/EMCTX1");
}

TEST(CloneOptions, ask_for_a_copy_with_and_without_the_information) {
    EXPECT_EQ(parsed("-g datadg -n vol1 -d /dev/a,/dev/b -p DEFAULT").form, CloneForm::clone_here);
    const CloneOptions options =
        parsed("-g datadg -n vol1 -d /dev/a,/dev/b -i /tmp/EMCTX1 -r client1");
    EXPECT_EQ(options.form, CloneForm::clone_described);
    EXPECT_EQ(options.host, "client1");
}

TEST(CloneOptions, ask_to_clean_up_one_volume) {
    const CloneOptions options = parsed("-g datadg -n vol1 -c client1_datadg_clone");
    EXPECT_EQ(options.form, CloneForm::clean_up);
    EXPECT_EQ(options.clone, "client1_datadg_clone");
    EXPECT_EQ(refusal("-g datadg -n vol1,vol2 -c c_clone"), "-n names one volume here");
}

TEST(CloneOptions, may_stand_in_any_order) {
    EXPECT_EQ(parsed("-c x_clone -n vol1 -g datadg").form, CloneForm::clean_up);
}

TEST(CloneOptions, that_are_unknown_doubled_or_without_value_are_refused) {
    EXPECT_EQ(refusal("-g datadg -x y"), "unknown option '-x'");
    EXPECT_EQ(refusal("datadg -n vol1"), "unknown option 'datadg'");
    EXPECT_EQ(refusal("-gdatadg -n vol1"), "unknown option '-gdatadg'");
    EXPECT_EQ(refusal("--group datadg"), "unknown option '--group'");
    EXPECT_EQ(refusal("-g datadg -f /tmp/a -p"), "-p has no value");
    EXPECT_EQ(refusal("-g datadg -g logdg -f /tmp/a -p DEFAULT"), "-g is given twice");
    EXPECT_THROW(parse_clone_options({"-g", ""}), UsageError);
}

TEST(CloneOptions, that_are_no_form_together_are_refused) {
    EXPECT_EQ(refusal(""), "no options");
    for (const char *line :
         {"-g datadg", "-f /tmp/a -p DEFAULT", "-g datadg -f /tmp/a", "-g datadg -c x_clone",
          "-g datadg -n vol1 -d /dev/a,/dev/b", "-g datadg -d /dev/a,/dev/b -p DEFAULT",
          "-g datadg -n vol1 -d /dev/a,/dev/b -r client1",
          "-g datadg -n vol1 -d /dev/a,/dev/b -i /tmp/a -r client1 -p DEFAULT",
          "-g datadg -n vol1 -c x_clone -p DEFAULT"}) {
        EXPECT_EQ(refusal(line), "these options do not belong together") << line;
    }
}

TEST(CloneOptions, with_a_list_that_is_none_are_refused) {
    for (const char *list : {"/dev/a", "/dev/a,", ",/dev/b", "/dev/a,/dev/b,/dev/c",
                             "/dev/a,/dev/b:", ":/dev/a,/dev/b", "/dev/a,/dev/b::/dev/c,/dev/d"}) {
        EXPECT_NE(refusal(std::string("-g datadg -n vol1 -p DEFAULT -d ") + list), "") << list;
    }
    for (const char *list : {",", "vol1,", ",vol1", "vol1,,vol2"}) {
        EXPECT_NE(refusal(std::string("-g datadg -d /dev/a,/dev/b -p DEFAULT -n ") + list), "")
            << list;
    }
}

TEST(CloneGroupName, has_25_characters_of_host_and_group) {
    EXPECT_EQ(clone_group_name("", "datadg"), "datadg_clone");
    EXPECT_EQ(clone_group_name("client1", "datadg"), "client1_datadg_clone");
    EXPECT_EQ(clone_group_name("backuphost01", "datadg_production_2024"),
              "backuphost01_datadg_produ_clone");
    EXPECT_EQ(clone_group_name("", "abcdefghijklmnopqrstuvwxyz"),
              "abcdefghijklmnopqrstuvwxy_clone");
}

}  // namespace
}  // namespace tessera
