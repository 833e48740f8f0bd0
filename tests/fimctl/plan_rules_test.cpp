// The rules that a plan applies by itself: the configuration string, the choice of the BCV, and how
// a tool is asked.
#include <gtest/gtest.h>

#include "fimctl/inspect/array_view.h"
#include "fimctl/inspect/method_config.h"

namespace {

TEST(MethodConfig, is_read_as_the_method_reads_it) {
    using fimctl::parse_method_config;
    EXPECT_EQ(parse_method_config("").trouble, "");
    EXPECT_EQ(parse_method_config("sync_at_start=1,plexname=p,alternate_backup_client=b").client,
              "b");
    EXPECT_EQ(parse_method_config("plexname=p").plex, "p");
    EXPECT_EQ(parse_method_config("").plex, "DEFAULT");
    EXPECT_EQ(parse_method_config("sync_at_start=0,sync_at_start=2").sync_at_start, 2);
    EXPECT_EQ(parse_method_config("sync_at_start=").sync_at_start, 0) << "nothing is nought";
    EXPECT_EQ(parse_method_config(" sync_at_start=2").sync_at_start, 0) << "a blank is a letter";
    EXPECT_EQ(parse_method_config("unknown=2").trouble, "");
    EXPECT_EQ(parse_method_config("unknown=2,sync_at_start=1,other=3").unknown,
              (std::vector<std::string>{"unknown", "other"}));
    EXPECT_TRUE(parse_method_config("Sync_at_start=2").unknown.empty());
    EXPECT_EQ(parse_method_config("a=1,,b=2").trouble, "an empty pair");
    EXPECT_EQ(parse_method_config("alone").trouble, "alone: no value");
    EXPECT_EQ(parse_method_config("=5").trouble, "=5: no keyword");
    EXPECT_EQ(parse_method_config("keep_fi=x").trouble, "keep_fi=x: not a number");
    EXPECT_EQ(parse_method_config("a=1,").trouble, "") << "a comma at the end ends nothing";
    EXPECT_EQ(parse_method_config("a=" + std::string(1022, 'x')).trouble, "");
    EXPECT_NE(parse_method_config("a=" + std::string(1023, 'x')).trouble, "");
}

fimctl::BcvView bcv(const std::string &name, long state, bool labelled, bool associated = true) {
    fimctl::BcvView view;
    view.name = name;
    view.state = state;
    view.label = labelled ? "TSR-BCV-07" : "OTHER";
    view.group = view.primary_group = view.own_group = associated ? "dg" : "strangers";
    view.primary = "00A1";
    return view;
}

fimctl::BcvChoice choose(std::vector<fimctl::BcvView> bcvs) {
    fimctl::DeviceView device;
    device.symid = "000184500123";
    device.name = "00A1";
    device.group = "dg";
    device.bcvs = std::move(bcvs);
    return fimctl::choose_bcv(device);
}

TEST(BcvChoice, of_unsynchronised_ones_the_last_labelled_one_is_taken) {
    auto choice = choose({bcv("1", 5, false), bcv("2", 5, true)});
    EXPECT_EQ(choice.index, 1);
    EXPECT_TRUE(choice.establishes);
    EXPECT_EQ(choose({bcv("1", 5, true), bcv("2", 5, false)}).index, 0);
    EXPECT_EQ(choose({bcv("1", 5, true), bcv("2", 5, true)}).index, 1);
    choice = choose({bcv("1", 5, false), bcv("2", 5, false)});
    EXPECT_EQ(choice.index, 0) << "of unlabelled ones the first";
    EXPECT_FALSE(choice.establishes);
}

TEST(BcvChoice, a_synchronised_associated_one_wins_and_needs_no_establish) {
    const auto choice = choose({bcv("1", 5, true), bcv("2", 2, true), bcv("3", 5, true)});
    EXPECT_EQ(choice.index, 1);
    EXPECT_FALSE(choice.establishes);
    EXPECT_EQ(choose({bcv("1", 2, false)}).index, 0) << "without labels any name does";
    EXPECT_EQ(choose({bcv("1", 8, false)}).index, 0) << "restored is as good";
    EXPECT_EQ(choose({bcv("1", 2, false), bcv("2", 5, true)}).index, 1) << "labels are in use";
}

TEST(BcvChoice, a_synchronised_stranger_is_released_and_the_search_goes_on) {
    const auto choice = choose({bcv("1", 2, true, false), bcv("2", 5, true)});
    EXPECT_EQ(choice.released, std::vector<size_t>{0});
    EXPECT_EQ(choice.index, 1);
    EXPECT_TRUE(choice.establishes);
    EXPECT_TRUE(choose({bcv("1", 2, false, false), bcv("2", 5, true)}).released.empty())
        << "an unlabelled one is passed over while labels are in use";
    EXPECT_EQ(choose({bcv("1", 5, true, false)}).index, -1);
}

TEST(BcvChoice, a_bcv_that_cannot_be_read_ends_the_choice) {
    auto unread = bcv("2", 5, true);
    unread.trouble = "code 4 (scripted)";
    EXPECT_EQ(choose({bcv("1", 2, true), unread}).trouble, "BCV 2: code 4 (scripted)");
}

}  // namespace
