// Scenarios: what a TOML file is turned into, and what is an error.
#include <gtest/gtest.h>

#include "lab/array/admin/scenario.h"
#include "lab/array/admin/table.h"

namespace {

using lab::bytes_of;
using lab::commands_of_text;
using lab::ScenarioError;
using nlohmann::json;

std::vector<json> named(const std::vector<json> &commands, const std::string &name) {
    std::vector<json> found;
    for (const json &one : commands) {
        if (one.at("command") == name) found.push_back(one);
    }
    return found;
}

std::string error_of(const std::string &toml) {
    try {
        commands_of_text(toml, "test.toml");
    } catch (const ScenarioError &error) {
        return error.what();
    }
    return "accepted";
}

TEST(Scenario, basic_builds_eight_standard_devices_each_with_a_labelled_bcv) {
    const auto commands = lab::commands_of_file(TF_SOURCE_DIR "/lab/scenarios/basic.toml");
    EXPECT_EQ(named(commands, "array create").size(), 1u);
    const auto devices = named(commands, "device create");
    ASSERT_EQ(devices.size(), 16u);
    for (const json &one : devices) EXPECT_EQ(one.at("size"), uint64_t{64} << 20);
    EXPECT_EQ(named(commands, "pair").size(), 8u);
    for (const json &one : named(commands, "label")) EXPECT_EQ(one.at("label"), "TSR-BCV");
    EXPECT_EQ(named(commands, "label").size(), 8u);
    EXPECT_EQ(named(commands, "group add").size(), 16u);
}

TEST(Scenario, demo_masks_one_device_and_its_bcv_to_client1) {
    const auto commands = lab::commands_of_file(TF_SOURCE_DIR "/lab/scenarios/demo.toml");
    const auto devices = named(commands, "device create");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].at("size"), uint64_t{512} << 20);
    const auto masks = named(commands, "mask");
    ASSERT_EQ(masks.size(), 2u);
    EXPECT_EQ(masks[0].at("paths"), json({"/dev/qz/dmp/p0", "/dev/qz/rdmp/p0"}));
    EXPECT_EQ(masks[1].at("paths"), json({"/dev/sdq"}));
    EXPECT_EQ(masks[1].at("host"), "client1");
}

TEST(Scenario, a_bcv_takes_size_and_group_of_its_standard_device) {
    const auto commands = commands_of_text(R"(
        [[array]]
        symid = "000000000001"
        [[array.device]]
        name = "0001"
        size = "1G"
        group = "g"
        bcv = [{ name = "0002", state = "synchronised" }, { name = "0003", group = "h" }]
    )",
                                           "test.toml");
    const auto groups = named(commands, "group add");
    ASSERT_EQ(groups.size(), 3u);
    EXPECT_EQ(groups[1].at("group"), "g");
    EXPECT_EQ(groups[2].at("group"), "h");
    EXPECT_EQ(named(commands, "device create")[1].at("size"), uint64_t{1} << 30);
    EXPECT_EQ(named(commands, "pair")[0].at("synchronised"), true);
    EXPECT_EQ(named(commands, "pair")[1].at("synchronised"), false);
}

TEST(Scenario, settings_and_faults_become_commands) {
    const auto commands = commands_of_text(R"(
        [settings]
        version = 0x04020099
        patch = "12"
        rate = 0
        split_seconds = 2
        background_seconds = 1.5
        [[fault]]
        function = "SymPdevShow"
        device = "00A1"
        at = 3
        for_good = true
        after = true
        code = 9
        delay_ms = 10
    )",
                                           "test.toml");
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0], json({{"command", "settings"},
                                 {"version", 0x04020099},
                                 {"patch", "12"},
                                 {"rate", 0},
                                 {"split_ms", 2000},
                                 {"background_ms", 1500}}));
    EXPECT_EQ(commands[1].at("at"), 3);
    EXPECT_EQ(commands[1].at("after"), true);
}

TEST(Scenario, errors_name_the_place_and_what_is_wrong) {
    EXPECT_NE(error_of("[[array]]\nsymid = \"1\"\nsmyid = \"2\"\n").find("unknown key \"smyid\""),
              std::string::npos);
    EXPECT_NE(error_of("[[array]]\nsymid = \"1\"\nsmyid = \"2\"\n").find("line 3"),
              std::string::npos);
    EXPECT_NE(error_of("[[array]]\n").find("a text \"symid\" is missing"), std::string::npos);
    EXPECT_NE(error_of("[[array]]\nsymid = 1\n").find("a text \"symid\""), std::string::npos);
    EXPECT_NE(error_of("array = 3\n").find("has to be a list of tables"), std::string::npos);
    EXPECT_NE(error_of("[settings]\nrate = \"fast\"\n").find("\"rate\" has the wrong type"),
              std::string::npos);
    EXPECT_NE(error_of("rubbish").find("test.toml"), std::string::npos);
    EXPECT_THROW(lab::commands_of_file("/nonexistent.toml"), ScenarioError);
}

TEST(Scenario, sizes_are_numbers_with_or_without_a_unit) {
    EXPECT_EQ(bytes_of("4096"), 4096u);
    EXPECT_EQ(bytes_of("512K"), uint64_t{512} << 10);
    EXPECT_EQ(bytes_of("64M"), uint64_t{64} << 20);
    EXPECT_EQ(bytes_of("2G"), uint64_t{2} << 30);
    for (const char *wrong :
         {"", "M", "64MB", "-1", "1.5G", "99999999999999999999", "18014398509481984M"}) {
        EXPECT_THROW(bytes_of(wrong), ScenarioError) << wrong;
    }
}

TEST(ReadableSize, takes_the_largest_unit_that_is_exact) {
    EXPECT_EQ(lab::readable_size(uint64_t{512} << 20), "512 MiB");
    EXPECT_EQ(lab::readable_size(uint64_t{1} << 30), "1 GiB");
    EXPECT_EQ(lab::readable_size(uint64_t{1536} << 20), "1536 MiB");
    EXPECT_EQ(lab::readable_size(4096), "4 KiB");
}

}  // namespace
