// The message table, against the texts that the catalogue and operators' scripts know.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "include/timefinder.h"
#include "method/report.h"
#include "tests/support/private_root.h"

namespace {

struct Row {
    std::string id, lookup, format, numbers;
    bool operator==(const Row &) const = default;
};

void PrintTo(const Row &row, std::ostream *out) {
    *out << row.id << " " << row.lookup << " \"" << row.format << "\" " << row.numbers;
}

const std::vector<Row> known_rows = {
    {"QfMCmn0010N", "qlgetmsg", "%s: A required parameter is NULL: %s", "7"},
    {"QfMCmn0020N", "qlgetmsg", "%s: Memory allocation failure at line %d", "1"},
    {"QfMCmn0029N", "qlgetmsg", "%s: Parse error %d in config string: %s", "1, 7"},
    {"QfMCmn0030N", "qlgetmsg_errno", "%s: Cannot stat() file %s: %%s", "3"},
    {"QfMCmn0051N", "qlgetmsg", "%s: convert_open: memory allocation", "13"},
    {"QfMCmn0053N", "qlgetmsg", "%s: %s: disk group has no volumes", "11"},
    {"QfMCmn0056N", "qlgetmsg", "%s: %s: disk group not listed", "11"},
    {"QfMCmn0060N", "qlgetmsg", "%s: Command failed with status=%d: %s", "3"},
    {"QfMCmn0062N", "qlgetmsg", "%s: %s", "1"},
    {"QfMCmn0064N", "qlgetmsg", "%s: Q_fsck(%s, %s) failed with status=%d, exit_status=%d(%s)",
     "3"},
    {"QfMCmn0065N", "qlgetmsg", "%s: Q_mount() failed with status=%d, exit_status=%d(%s)", "3"},
    {"QfMCmn0070N", "qlgetmsg", "%s: Invalid parameter value: %s=%d", "7"},
    {"QfMCmn0080N", "qlgetmsg_errno", "%s: Cannot open mount table: %%s", "4"},
    {"QfMCmn0100N", "qlgetmsg", "%s: Cannot map block device %s to raw device", "3"},
    {"QfMCmn0110N", "qlgetmsg", "%s: Cannot map raw device %s to block device", "3"},
    {"QfMCmn0120N", "qlgetmsg_errno", "%s: Cannot open file %s: %%s", "13"},
    {"QfMCmn0130N", "qlgetmsg", "%s: Device list is too long", "3"},
    {"QfMCmn0131N", "qlgetmsg", "%s: Out of available memory", "3"},
    {"QfMCmn0140N", "qlgetmsg", "%s: Device name exceeds %d characters", "13"},
    {"QfMCmn0150N", "qlgetmsg", "%s: Command line too long: %s", "13"},
    {"QfMCmn0160N", "qlgetmsg", "%s: Cannot find block device for %s", "3"},
    {"QfMCmn0171N", "qlgetmsg", "%s: Cannot determine if device %s is a volume", "3"},
    {"QfMCmn0180N", "qlgetmsg", "%s: Cannot find device for %s", "3"},
    {"QfMCmn0190N", "qlgetmsg", "%s: Cannot find mount point for device %lu", "3"},
    {"QfMCmn0200N", "qlgetmsg", "%s: Cannot get lock on device: %s", "3"},
    {"QfMCmn0210N", "qlgetmsg", "%s: Q_snprintf() failed: %d", "13"},
    {"QfMCmn0220N", "qlgetmsg", "%s: Q_vsnprintf() failed: %d", "13"},
    {"QfMCmn0230N", "qlgetmsg", "%s: stat() returned unknown device type (%d) for %s", "3"},
    {"QfMCmn0240N", "qlgetmsg", "%s: No device information", "7"},
    {"QfMCmn0246N", "qlgetmsg", "%s: No device available for use", "7"},
    {"QfMCmn0250N", "qlgetmsg", "%s: No devices associated with volume %s", "13"},
    {"QfMCmn0252N", "qlgetmsg", "%s: Too many devices : %d (max %d)", "7"},
    {"QfMCmn0253N", "qlgetmsg", "%s: SymAPI call to %s to establish BCV failed with code: %d (%s)",
     "7"},
    {"QfMCmn0254N", "qlgetmsg",
     "%s: Primary disk %s <%s> is visible on alternate backup client. disk group import method can "
     "not be used.",
     "7"},
    {"QfMCmn0255N", "qlgetmsg",
     "%s: only snapshot created with disk group import enabled can be restored", "7"},
    {"QfMCmn0290N", "qlgetmsg", "%s: config parameter exceeds %d characters", "7"},
    {"QfMCmn0320N", "qlgetmsg", "%s: Unable to clean up disk group %s, volume %s", "11"},
    {"QfMCmn0330N", "qlgetmsg", "%s: Unknown snapshot source type: %d", "13"},
    {"QfMCmn0340N", "qlgetmsg", "%s: Device %s is not a primary device", "9"},
    {"QfMCmn0401N", "qlgetmsg", "%s: Unable to open shared library %s: %s", "3"},
    {"QfMEtf1000N", "qlgetmsg", "%s: Unsupported SYMAPI Version %s\n", "3"},
    {"QfMEtf1010N", "qlgetmsg", "%s: Unable to create symdb directory - errno = %d.", "12"},
    {"QfMEtf1020N", "qlgetmsg", "%s: Failed - SymVersion = %d, Error = %d (%s).", "12"},
    {"QfMEtf1030N", "qlgetmsg", "%s: Could not initialize with SymAPI", "3"},
    {"QfMEtf1170N", "qlgetmsg", "%s: SymAPI call to %s on device %s failed with code %d (%s)",
     "3, 8"},
    {"QfMEtf1180N", "qlgetmsg", "%s: Device %s is not a member of a BCV pair", "10"},
    {"QfMEtf1214N", "qlgetmsg", "%s: Cannot find devpath or sn", "13"},
    {"QfMEtf1215N", "qlgetmsg", "%s: Cannot process device", "13"},
    {"QfMEtf1220N", "qlgetmsg",
     "%s: SymAPI call to SymDevBcvControl on device %s failed action %d with code %d (%s)", "12"},
    {"QfMEtf1250N", "qlgetmsg", "%s: Device %s cannot be split at freeze; bcv_pair_state=%ld",
     "11"},
    {"QfMEtf1251N", "qlgetmsg", "%s: Cannot split device %s: state: %d", "13"},
    {"QfMEtf1340N", "qlgetmsg", "%s: Cannot discover devices associated with volume", "3"},
    {"QfMEtf1380N", "qlgetmsg", "%s: SymAPI call to %s failed with code %d (%s)", "3"},
    {"QfMEtf1381N", "qlgetmsg", "%s: device %s not established", "3"},
    {"QfMEtf1410N", "qlgetmsg_errno", "%s: Cannot chown %s to uid=%d, gid=%d: %%s", "3"},
    {"QfMEtf2001N", "qlgetmsg", "%s: Cannot find BCV %s for disk %s in group %s", "10"},
};

std::string lookup_name(const char *lookup) {
    return std::string(lookup) == "plain" ? "qlgetmsg" : "qlgetmsg_errno";
}

std::vector<Row> table_rows() {
    return {
#define TF_MESSAGE(name, id, lookup, numbers, format, ...) \
    Row{id, lookup_name(#lookup), format, numbers},
#include "method/messages.def"
#undef TF_MESSAGE
    };
}

std::vector<std::string> table_names() {
    return {
#define TF_MESSAGE(name, ...) #name,
#include "method/messages.def"
#undef TF_MESSAGE
    };
}

std::string method_sources() {
    std::string all;
    for (const char *folder : {"/method", "/symapi"}) {
        for (const auto &entry :
             std::filesystem::directory_iterator(std::string(TF_SOURCE_DIR) + folder)) {
            if (entry.path().extension() != ".cpp") continue;
            all += test::read_file(entry.path());
        }
    }
    return all;
}

// The name that begins at this place.
std::string word_at(const std::string &text, size_t at) {
    size_t end = at;
    while (end < text.size() &&
           (isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
        ++end;
    return text.substr(at, end - at);
}

TEST(Messages, there_are_56_and_each_has_its_identifier_lookup_format_and_numbers) {
    const std::vector<Row> rows = table_rows();
    ASSERT_EQ(rows.size(), 56U);
    for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i], known_rows[i]);
}

TEST(Messages, every_identifier_is_eleven_characters_of_a_known_family) {
    for (const Row &row : table_rows()) {
        EXPECT_EQ(row.id.size(), 11U) << row.id;
        EXPECT_TRUE(row.id.starts_with("QfMCmn") || row.id.starts_with("QfMEtf")) << row.id;
        EXPECT_EQ(row.id.back(), 'N') << row.id;
    }
}

TEST(Messages, every_message_begins_with_its_reporter) {
    for (const Row &row : table_rows()) EXPECT_EQ(row.format.substr(0, 4), "%s: ") << row.id;
}

TEST(Messages, every_row_is_raised_somewhere) {
    const std::string sources = method_sources();
    for (const std::string &name : table_names()) {
        const std::string use = "msg::" + name;
        bool raised = false;
        for (size_t at = sources.find(use); at != std::string::npos;
             at = sources.find(use, at + 1)) {
            const char next = sources[at + use.size()];
            if (next == ',' || next == ')' || next == ';' || next == ' ') raised = true;
        }
        EXPECT_TRUE(raised) << use << " is raised nowhere";
    }
}

// The identifier and the number are read together: an identifier with a foreign number sends
// whoever reads it to the wrong page.
TEST(Messages, every_site_stores_a_number_of_its_row) {
    const std::map<std::string, std::string> numbers = {
        {"memory", "1"},     {"operation", "3"},   {"mount_table", "4"}, {"parameter", "7"},
        {"pair_query", "8"}, {"not_primary", "9"}, {"no_bcv", "10"},     {"disk_group", "11"},
        {"session", "12"},   {"limit", "13"},
    };
    std::map<std::string, std::string> allowed;
    const std::vector<std::string> names = table_names();
    for (size_t i = 0; i < names.size(); ++i) {
        allowed[names[i]] = ", " + table_rows()[i].numbers + ",";
    }
    const std::string sources = method_sources();
    const std::string start = "ErrorNumber::";
    int sites = 0;
    for (size_t at = sources.find(start); at != std::string::npos; at = sources.find(start, at)) {
        at += start.size();
        const std::string number = word_at(sources, at);
        // "fail(ErrorNumber::x, msg::y" and nothing but blanks, line ends and "tf::" between them.
        size_t name = sources.find_first_not_of(" \n", at + number.size() + 1);
        if (name != std::string::npos && sources.compare(name, 4, "tf::") == 0) name += 4;
        if (name == std::string::npos || sources.compare(name, 5, "msg::") != 0) continue;
        const std::string message = word_at(sources, name + 5);
        ++sites;
        ASSERT_TRUE(numbers.contains(number)) << number;
        EXPECT_NE(allowed[message].find(" " + numbers.at(number) + ","), std::string::npos)
            << message << " is raised with number " << numbers.at(number);
    }
    EXPECT_GT(sites, 100);
}

// The page for operators is made from the same rows; ./tools/messages-page writes it anew.
TEST(Messages, the_page_for_operators_has_a_line_for_every_row) {
    const std::string page = test::read_file(TF_SOURCE_DIR "/docs/messages.md");
    for (const Row &row : table_rows()) {
        std::string format = row.format;
        if (format.ends_with("\n")) format.pop_back();
        const std::string line = "| " + row.id + " | " + row.numbers + " | `" + format + "` |";
        EXPECT_NE(page.find(line), std::string::npos) << line;
    }
}

// The host library's own functions may not look for a missing one.
TEST(MessageBuffersTest, are_the_framework_s_or_some_of_the_method_s) {
    char errmsg[TF_MESSAGE_SIZE], logmsg[TF_MESSAGE_SIZE];
    TimeFinder_init(nullptr, logmsg, errmsg);
    EXPECT_EQ(tf::message_buffers().errmsg, errmsg);
    EXPECT_EQ(tf::message_buffers().logmsg, logmsg);
    TimeFinder_init(nullptr, nullptr, nullptr);
    ASSERT_NE(tf::message_buffers().errmsg, nullptr);
    ASSERT_NE(tf::message_buffers().logmsg, nullptr);
    EXPECT_NE(tf::message_buffers().errmsg, tf::message_buffers().logmsg);
}

}  // namespace
