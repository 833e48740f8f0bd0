#include "lab/tessera/clone_information.h"

#include <sstream>

namespace tessera {
namespace {

CloneInformation example() {
    CloneInformation information;
    information.group = "datadg";
    information.group_id = "1700000000.12.client1";
    information.host = "client1";
    information.plex = "DEFAULT";
    information.disks = {{"d1", "/dev/qz/rdmp/p0"}, {"d2", "/dev/qz/rdmp/p1"}};
    information.volumes = {{"vol1", 1048576, 67108864, "ext4", {"d1"}},
                           {"vol2", 1048576, 335544320, "", {"d2", "d1"}}};
    return information;
}

std::string refusal(const std::string &text) {
    try {
        parse_clone_information(text);
    } catch (const CloneInformationError &error) {
        return error.what();
    }
    return "";
}

std::string replaced(std::string text, const std::string &old, const std::string &by) {
    text.replace(text.find(old), old.size(), by);
    return text;
}

TEST(CloneInformation, is_written_as_lines_of_words) {
    const std::string text = to_text(example());
    EXPECT_EQ(text.substr(0, text.find("end ")),
              "tessera-clone-information 1\n"
              "group datadg 1700000000.12.client1\n"
              "host client1\n"
              "plex DEFAULT\n"
              "disk d1 /dev/qz/rdmp/p0\n"
              "disk d2 /dev/qz/rdmp/p1\n"
              "volume vol1 1048576 67108864 ext4 d1\n"
              "volume vol2 1048576 335544320 - d2 d1\n");
}

TEST(CloneInformation, that_was_written_is_read_back_whole) {
    const CloneInformation back = parse_clone_information(to_text(example()));
    EXPECT_EQ(to_text(back), to_text(example()));
    ASSERT_NE(back.disk_at("/dev/qz/rdmp/p1"), nullptr);
    EXPECT_EQ(back.disk_at("/dev/qz/rdmp/p1")->id, "d2");
    EXPECT_EQ(back.disk_at("/dev/qz/rdmp"), nullptr);
    ASSERT_NE(back.volume("vol2"), nullptr);
    EXPECT_EQ(back.volume("vol2")->length, 335544320U);
    EXPECT_EQ(back.volume("vol2")->type, "");
    EXPECT_EQ(back.volume("vol2")->disks, (std::vector<std::string>{"d2", "d1"}));
    EXPECT_EQ(back.volume("vol"), nullptr);
}

// The lines travel inside a checkpoint's block, where these mean something else.
TEST(CloneInformation, has_no_line_that_its_carrier_would_take_for_its_own) {
    CloneInformation information = example();
    information.group = "TRANSFER_FILE=/etc/passwd";
    information.host = "HDEF-CLONE_INFO_FILE=END";
    information.volumes[0].name = "PRIM_MIR_INFO=NEXT";
    information.disks[0].id = "TRANSFER_FILE=x";
    const std::string text = to_text(information);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_NE(line.compare(0, 14, "TRANSFER_FILE="), 0) << line;
        EXPECT_NE(line, "HDEF-CLONE_INFO_FILE=END");
        EXPECT_FALSE(line.empty());
    }
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(parse_clone_information(text).host, "HDEF-CLONE_INFO_FILE=END");
}

TEST(CloneInformation, refuses_to_write_what_the_format_cannot_carry) {
    for (const char *word : {"", "two words", "tab\there", "new\nline", "end\r"}) {
        CloneInformation information = example();
        information.disks[1].path = word;
        EXPECT_THROW(to_text(information), CloneInformationError) << word;
        information = example();
        information.plex = word;
        EXPECT_THROW(to_text(information), CloneInformationError) << word;
    }
}

TEST(CloneInformation, that_is_empty_is_refused) {
    EXPECT_EQ(refusal(""), "it is empty");
}

TEST(CloneInformation, of_another_kind_is_refused) {
    EXPECT_EQ(refusal("disk one\ndisk two\n"), "it is no clone information");
    EXPECT_EQ(refusal("\n"), "it is no clone information");
}

TEST(CloneInformation, of_a_later_version_is_refused) {
    const std::string body = "tessera-clone-information 2\n";
    EXPECT_EQ(refusal(sealed(body)),
              "'tessera-clone-information 2' is a version that this tool does not know");
}

TEST(CloneInformation, that_was_cut_anywhere_is_refused) {
    const std::string text = to_text(example());
    for (size_t length = 0; length < text.size(); ++length) {
        EXPECT_NE(refusal(text.substr(0, length)), "") << length;
    }
}

TEST(CloneInformation, in_which_any_byte_differs_is_refused) {
    const std::string text = to_text(example());
    for (size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = other[i] == '7' ? '8' : '7';
        EXPECT_NE(refusal(other), "") << i;
    }
}

TEST(CloneInformation, with_something_behind_its_end_is_refused) {
    EXPECT_EQ(refusal(to_text(example()) + "disk d3 /dev/qz/rdmp/p2\n"), "it is damaged");
}

TEST(CloneInformation, with_a_line_of_another_form_is_refused) {
    const std::string text = to_text(example());
    const std::string body = text.substr(0, text.rfind("end "));
    for (const char *line :
         {"disk d1\n", "disk d1 /dev/a b\n", "volume v 1 2 ext4\n", "volume v x 2 ext4 d1\n",
          "volume v 1 -2 ext4 d1\n", "group datadg\n", "plexes 2\n", "\n"}) {
        EXPECT_NE(refusal(sealed(body + line)), "") << line;
    }
    EXPECT_EQ(refusal(sealed(body)), "");
}

TEST(CloneInformation, without_group_host_or_disks_is_refused) {
    const std::string text = to_text(example());
    const std::string body = text.substr(0, text.rfind("end "));
    EXPECT_EQ(refusal(sealed(replaced(body, "group datadg 1700000000.12.client1\n", ""))),
              "it is not complete");
    EXPECT_EQ(refusal(sealed(replaced(body, "host client1\n", ""))), "it is not complete");
    EXPECT_EQ(refusal(sealed(replaced(replaced(body, "disk d1 /dev/qz/rdmp/p0\n", ""),
                                      "disk d2 /dev/qz/rdmp/p1\n", ""))),
              "it is not complete");
}

}  // namespace
}  // namespace tessera
