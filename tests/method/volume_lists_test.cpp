#include "method/volume_lists.h"

#include <memory>

#include "tests/support/allocation_faults.h"
#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/system_faults.h"

namespace {

class CloneGroupName : public test::Method {
  protected:
    std::string name_of(const std::string &host, const std::string &group, int32_t with_host) {
        tf::put(object->primary_host, host.c_str());
        tf::put(object->vol_group, group.c_str());
        create_clone_group_name(object.get(), with_host);
        return object->clone_group;
    }
    test::FrozenObject object;
};

TEST_F(CloneGroupName, host_and_group_are_cut_after_25_characters) {
    EXPECT_EQ(name_of("backuphost01", "datadg_production_2024", 1),
              "backuphost01_datadg_produ_clone");
}

TEST_F(CloneGroupName, a_short_name_is_not_cut) {
    EXPECT_EQ(name_of("host", "dg", 1), "host_dg_clone");
}

TEST_F(CloneGroupName, without_the_flag_the_host_is_left_out) {
    EXPECT_EQ(name_of("host", "dg", 0), "dg_clone");
    EXPECT_EQ(name_of("host", std::string(26, 'g'), 0), std::string(25, 'g') + "_clone");
}

TEST_F(CloneGroupName, exactly_25_characters_stay_whole) {
    EXPECT_EQ(name_of("host", std::string(25, 'g'), 0), std::string(25, 'g') + "_clone");
    EXPECT_EQ(name_of("host", std::string(24, 'g'), 0), std::string(24, 'g') + "_clone");
}

TEST_F(CloneGroupName, never_has_more_than_31_characters) {
    EXPECT_EQ(name_of(std::string(1023, 'h'), std::string(1023, 'g'), 1).size(), 31U);
}

TEST_F(CloneGroupName, replaces_an_earlier_name) {
    name_of("host", "long_group_name", 1);
    EXPECT_EQ(name_of("", "a", 0), "a_clone");
}

// A disk group with members entered one after the other: newest first.
class VolumeLists : public test::Method {
  protected:
    VolumeLists() { tf::put(group.dg_name, "datadg"); }
    ~VolumeLists() override {
        while (group.members != nullptr) {
            dg_member *const member = group.members;
            group.members = member->next;
            free(member);
        }
    }
    test::FrozenObject &add_member(const std::string &volume = "") {
        objects.push_back(std::make_unique<test::FrozenObject>());
        tf::put((*objects.back())->vol_name, volume.c_str());
        auto *const member = tf::make_zeroed<dg_member>();
        member->h = objects.back()->get();
        member->next = group.members;
        group.members = member;
        return *objects.back();
    }
    // The text of a list, with the status before it when that is not 0.
    std::string list(int32_t (*form)(const dg_entry *, char **)) {
        tf::HeapOwner<char> text;
        const int32_t result = form(&group, text.out());
        if (result != 0) {
            EXPECT_FALSE(text) << "a failure hands nothing out";
            return "status " + std::to_string(result);
        }
        return text.get();
    }
    std::string volumes() { return list(&get_dg_vols); }
    std::string devices() { return list(&form_device_list); }

    dg_entry group = {};
    std::vector<std::unique_ptr<test::FrozenObject>> objects;
};

TEST_F(VolumeLists, volumes_stand_newest_first) {
    add_member("vola");
    add_member("volb");
    EXPECT_EQ(volumes(), "volb,vola");
}

TEST_F(VolumeLists, one_volume_has_no_comma) {
    add_member("vola");
    EXPECT_EQ(volumes(), "vola");
}

TEST_F(VolumeLists, a_member_without_a_volume_leaves_its_place_empty) {
    add_member("vola");
    add_member("");
    EXPECT_EQ(volumes(), ",vola");
}

TEST_F(VolumeLists, longest_volume_names_are_listed_whole) {
    add_member(std::string(1023, 'a'));
    add_member(std::string(1023, 'b'));
    EXPECT_EQ(volumes(), std::string(1023, 'b') + "," + std::string(1023, 'a'));
}

TEST_F(VolumeLists, a_group_without_members_has_no_volumes) {
    EXPECT_EQ(volumes(), "status 11");
    expect_failure(11, "get_dg_vols: datadg: disk group has no volumes");
}

TEST_F(VolumeLists, no_memory_for_the_volumes_quotes_line_372) {
    add_member("vola");
    test::fail_allocation(1);
    EXPECT_EQ(volumes(), "status 11");
    expect_failure(1, "get_dg_vols: Memory allocation failure at line 372");
}

TEST_F(VolumeLists, volumes_of_a_large_group_are_joined_in_one_pass) {
    for (int i = 0; i < 2000; ++i) add_member("vol" + std::to_string(i));
    const std::string text = volumes();
    EXPECT_TRUE(text.starts_with("vol1999,vol1998,"));
    EXPECT_TRUE(text.ends_with(",vol1,vol0"));
}

TEST_F(VolumeLists, devices_are_pairs_of_primary_and_bcv) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/emcpowera", "/dev/sdq");
    object.add_device("/dev/sdc", "/dev/sdr");
    EXPECT_EQ(devices(), "/dev/emcpowera,/dev/sdq:/dev/sdc,/dev/sdr");
}

TEST_F(VolumeLists, devices_of_the_newest_member_stand_first) {
    add_member().add_device("/dev/sda", "/dev/sdb");
    add_member();
    add_member().add_device("/dev/sdc", "/dev/sdd");
    EXPECT_EQ(devices(), "/dev/sdc,/dev/sdd:/dev/sda,/dev/sdb");
}

TEST_F(VolumeLists, a_newest_member_without_devices_leaves_the_start_to_an_older_one) {
    add_member().add_device("/dev/sda", "/dev/sdb");
    add_member();
    EXPECT_EQ(devices(), "/dev/sda,/dev/sdb");
}

TEST_F(VolumeLists, a_primary_that_two_members_share_is_listed_once) {
    add_member().add_device("/dev/sda", "/dev/sdb");
    add_member().add_device("/dev/sda", "/dev/sdx");
    EXPECT_EQ(devices(), "/dev/sda,/dev/sdx");
}

TEST_F(VolumeLists, a_primary_that_is_part_of_a_listed_path_is_skipped) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sdaa", "/dev/sdx");
    object.add_device("/dev/sda", "/dev/sdy");
    EXPECT_EQ(devices(), "/dev/sdaa,/dev/sdx");
}

TEST_F(VolumeLists, a_primary_that_is_part_of_a_listed_bcv_is_skipped) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdbb");
    object.add_device("/dev/sdb", "/dev/sdy");
    EXPECT_EQ(devices(), "/dev/sda,/dev/sdbb");
}

TEST_F(VolumeLists, a_longer_primary_after_a_shorter_one_is_listed) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdx");
    object.add_device("/dev/sdaa", "/dev/sdy");
    EXPECT_EQ(devices(), "/dev/sda,/dev/sdx:/dev/sdaa,/dev/sdy");
}

// The empty text is part of every list.
TEST_F(VolumeLists, a_further_device_without_a_primary_path_is_skipped) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdx");
    object.add_device("", "/dev/sdy");
    object.add_device("/dev/sdb", "/dev/sdz");
    EXPECT_EQ(devices(), "/dev/sda,/dev/sdx:/dev/sdb,/dev/sdz");
}

TEST_F(VolumeLists, a_first_device_without_a_primary_path_starts_the_list_with_its_bcv) {
    test::FrozenObject &object = add_member();
    object.add_device("", "/dev/sdx");
    object.add_device("", "/dev/sdy");
    object.add_device("/dev/sda", "/dev/sdz");
    EXPECT_EQ(devices(), ",/dev/sdx:/dev/sda,/dev/sdz");
}

TEST_F(VolumeLists, a_group_without_members_has_the_empty_device_list) {
    EXPECT_EQ(devices(), "");
    expect_no_failure();
}

TEST_F(VolumeLists, members_without_devices_have_the_empty_device_list) {
    add_member();
    add_member();
    EXPECT_EQ(devices(), "");
}

TEST_F(VolumeLists, the_first_pair_may_be_of_any_length) {
    const std::string primary(1023, 'p'), bcv(1023, 'b');
    add_member().add_device(primary, bcv);
    EXPECT_EQ(devices(), primary + "," + bcv);
}

TEST_F(VolumeLists, a_further_pair_of_514_characters_is_listed) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdb");
    const std::string primary(256, 'p'), bcv(256, 'b');
    object.add_device(primary, bcv);
    EXPECT_EQ(devices(), "/dev/sda,/dev/sdb:" + primary + "," + bcv);
}

TEST_F(VolumeLists, a_further_pair_of_515_characters_is_too_long) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdb");
    object.add_device(std::string(256, 'p'), std::string(257, 'b'));
    EXPECT_EQ(devices(), "status 11");
    expect_failure(3, "get_device_list: Device list is too long");
}

TEST_F(VolumeLists, a_further_pair_longer_than_the_scratch_buffer_is_too_long) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdb");
    object.add_device(std::string(1023, 'p'), std::string(1023, 'b'));
    EXPECT_EQ(devices(), "status 11");
    expect_failure(3, "get_device_list: Device list is too long");
}

TEST_F(VolumeLists, a_pair_that_cannot_be_formatted_is_too_long) {
    test::FrozenObject &object = add_member();
    object.add_device("/dev/sda", "/dev/sdb");
    object.add_device("/dev/sdc", "/dev/sdd");
    for (const int pair : {1, 2}) {
        errnum = 0;
        const test::SystemFault fault("Q_snprintf", pair, 0);
        EXPECT_EQ(devices(), "status 11") << pair;
        expect_failure(3, "get_device_list: Device list is too long");
    }
}

TEST_F(VolumeLists, a_first_pair_that_would_not_fit_its_buffer_is_too_long) {
    add_member().add_device("/dev/sda", "/dev/sdb");
    const test::SystemFault fault("Q_snprintf", 1, 0, 2051);
    EXPECT_EQ(devices(), "status 11");
    expect_failure(3, "get_device_list: Device list is too long");
}

TEST_F(VolumeLists, no_memory_for_the_device_list_quotes_line_1444) {
    add_member().add_device("/dev/sda", "/dev/sdb");
    test::fail_allocation(1);
    EXPECT_EQ(devices(), "status 11");
    expect_failure(1, "get_device_list: Memory allocation failure at line 1444");
}

TEST_F(VolumeLists, no_memory_for_a_longer_device_list_is_reported) {
    test::FrozenObject &object = add_member();
    object.add_device(std::string(1000, 'p'), std::string(1000, 'b'));
    object.add_device("/dev/sdc", std::string(500, 'c'));
    test::fail_allocation(2);
    EXPECT_EQ(devices(), "status 11");
    expect_failure(3, "get_device_list: Out of available memory");
}

// The buffer of 2051 bytes is doubled while it is not greater than the length to come.
TEST_F(VolumeLists, the_buffer_grows_only_when_the_text_does_not_fit) {
    test::FrozenObject &object = add_member();
    object.add_device(std::string(1000, 'p'), std::string(999, 'b'));  // 2000 characters
    prim_mir_info *const second = object.add_device("/dev/sdc", std::string(40, 'c'));
    EXPECT_EQ(devices().size(), 2050U);
    test::fail_allocation(2);
    EXPECT_EQ(devices().size(), 2050U);
    tf::put(second->bcv_pdevname, std::string(41, 'c').c_str());
    test::fail_allocation(2);
    EXPECT_EQ(devices(), "status 11");
    test::no_more_faults();
    EXPECT_EQ(devices().size(), 2051U);
}

// The longest first pair, and then pairs of 514 characters: the first of them does not fit into
// 2051 bytes, the fourth would end at 4103 and does not fit into 4102.
class TwiceGrownList : public VolumeLists {
  protected:
    TwiceGrownList() {
        test::FrozenObject &object = add_member();
        object.add_device(std::string(1023, 'p'), std::string(1023, 'b'));
        for (const char name : {'A', 'B', 'C', 'D'}) {
            last = object.add_device(std::string(256, name), std::string(256, 'b'));
        }
    }
    // The list with so many characters in the last BCV's path, and the allocations it took.
    std::string devices_with(size_t last_bcv) {
        tf::put(last->bcv_pdevname, std::string(last_bcv, 'b').c_str());
        test::no_more_faults();
        const std::string text = devices();
        allocations = test::allocations_seen();
        return text;
    }
    prim_mir_info *last = nullptr;
    int allocations = 0;
};

TEST_F(TwiceGrownList, is_whole) {
    std::string expected = std::string(1023, 'p') + "," + std::string(1023, 'b');
    for (const char name : {'A', 'B', 'C', 'D'}) {
        expected += ":" + std::string(256, name) + "," + std::string(256, 'b');
    }
    EXPECT_EQ(devices_with(256), expected);
    EXPECT_EQ(expected.size(), 4103U);
    EXPECT_EQ(allocations, 3);
}

TEST_F(TwiceGrownList, grew_the_second_time_only_when_the_text_did_not_fit) {
    EXPECT_EQ(devices_with(254).size(), 4101U);
    EXPECT_EQ(allocations, 2);
    EXPECT_EQ(devices_with(255).size(), 4102U);
    EXPECT_EQ(allocations, 3);
}

TEST_F(TwiceGrownList, without_memory_for_the_second_time_is_none) {
    test::fail_allocation(3);
    EXPECT_EQ(devices(), "status 11");
    expect_failure(3, "get_device_list: Out of available memory");
}

TEST_F(VolumeLists, two_thousand_devices_are_listed_in_order) {
    test::FrozenObject &object = add_member();
    std::string expected;
    prim_mir_info **end = &object->pminfo_list;
    for (int i = 10000; i < 12000; ++i) {
        const std::string primary = "/dev/rdsk/p" + std::to_string(i) + "s2";
        const std::string bcv = "/dev/rdsk/b" + std::to_string(i) + "s2";
        *end = tf::make_zeroed<prim_mir_info>();
        tf::put((*end)->p_dev_raw_device, primary.c_str());
        tf::put((*end)->bcv_pdevname, bcv.c_str());
        end = &(*end)->next;
        expected += (expected.empty() ? "" : ":") + primary + "," + bcv;
    }
    EXPECT_EQ(devices(), expected);
}

TEST_F(VolumeLists, a_list_that_fails_is_none) {
    char before[] = "before";
    char *out = before;
    EXPECT_EQ(get_dg_vols(&group, &out), 11);
    EXPECT_EQ(out, nullptr);
    out = before;
    test::fail_allocation(1);
    EXPECT_EQ(form_device_list(&group, &out), 11);
    EXPECT_EQ(out, nullptr);
}

}  // namespace
