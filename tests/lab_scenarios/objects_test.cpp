// File systems of two kinds on two arrays and a block device, in one snapshot. The copies are read
// on the primary host, or on the backup host, which knows nothing but the texts.
#include <functional>

#include "tests/lab_scenarios/scenario.h"

namespace test {
namespace {

struct Object {
    Source source;            // a block device has neither type nor folder
    std::string frozen;       // what the freeze is given
    std::string here, there;  // the mirror on the primary and on the backup host
    std::string symid, primary, bcv;
};

const Object objects[] = {
    {{"ext4", "/dev/qz/dmp/p1", "/data1", "/copy1"},
     "/data1",
     "/dev/sdq",
     "/dev/rdsk/c2t0d1",
     "000184500123",
     "00A1",
     "01A1"},
    {{"xfs", "/dev/qz/dmp/p2", "/data2", "/copy2"},
     "/data2",
     "/dev/sdr",
     "/dev/rdsk/c2t0d2",
     "000184500123",
     "00A2",
     "01A2"},
    {{"ext4", "/dev/qz/dmp/p3", "/data3", "/copy3"},
     "/data3",
     "/dev/sds",
     "/dev/rdsk/c3t0d1",
     "000184500777",
     "00B1",
     "01B1"},
    {{"", "/dev/qz/dmp/p4", "", "/copy4"},
     "/dev/qz/dmp/p4",
     "/dev/sdt",
     "/dev/rdsk/c3t0d2",
     "000184500777",
     "00B2",
     "01B2"},
};

class ObjectsOnTwoArrays : public Scenario {
  protected:
    ObjectsOnTwoArrays() : Scenario("two_arrays", {"client1", "backup1"}) {}

    // The steps of every object in turn; each is made from the object's number.
    using Steps = std::function<Words(const std::string &number)>;
    static Words each(const Steps &steps);
    static bool is_device(const Object &object) { return object.source.folder.empty(); }
    std::string sum_of(const Object &object) {
        return is_device(object) ? sum_of_device(object.source.device) : sums(object.source.folder);
    }
    static void add(Words *steps, const Words &more) {
        steps->insert(steps->end(), more.begin(), more.end());
    }

    void make_sources();
    void take();
    void change_sources();
    void expect_copies(const std::string Object::*mirror);
    void expect_copies_are_gone(const std::string Object::*mirror);
    void expect_released();

    Words before_, after_;
};

Words ObjectsOnTwoArrays::each(const Steps &steps) {
    Words all;
    for (size_t i = 0; i < std::size(objects); ++i) {
        add(&all, {"object", std::to_string(i)});
        add(&all, steps(std::to_string(i)));
    }
    return all;
}

Words checkpoint(const std::string &number) {
    return {"ckpt", "/exchange/text" + number};
}
Words bring_up(const std::string &text) {
    return {"rebuild", "/exchange/" + text, "volumes"};
}
Words thaw(const std::string &text) {
    return {"rebuild", "/exchange/" + text, "thaw"};
}
Words thaw_commit(const std::string &) {
    return {"thaw_commit"};
}

void ObjectsOnTwoArrays::make_sources() {
    for (const Object &one : objects) {
        if (is_device(one)) {
            host("yes block | dd of=" + one.source.device +
                 " bs=64k count=100 iflag=fullblock conv=fsync status=none");
        } else {
            make(one.source);
        }
    }
    host("chown 11:12 /dev/qz/rdmp/p4 && chown 13:14 /dev/qz/dmp/p4");
    for (const Object &one : objects) before_.push_back(sum_of(one));
}

void ObjectsOnTwoArrays::take() {
    Words steps;
    for (size_t i = 0; i < std::size(objects); ++i) {
        add(&steps, {"object", std::to_string(i), "freeze", "-", objects[i].frozen,
                     objects[i].source.copy});
    }
    add(&steps, {"ctl", "4", "run", "for f in 1 2 3; do fsfreeze -f /data$f; done", "commit", "run",
                 "for f in 1 2 3; do fsfreeze -u /data$f; done"});
    add(&steps, each(checkpoint));
    const Phase taken = phase(steps);
    expect_all_succeed(taken);
    EXPECT_TRUE(taken.at("ctl").logged("Total BCVs to resync at start : 4"));
    EXPECT_TRUE(taken.at("commit").logged("Total BCVs to split : 4"));
    for (const Object &one : objects) EXPECT_EQ(pair_state(one.primary, one.bcv, one.symid), 5);
    EXPECT_EQ(host("ls /usr/quill/tessera/online_util/db_cntl"),
              "__LOCKFILE_0001845001230000\n__LOCKFILE_0001845007770000\n");
}

void ObjectsOnTwoArrays::change_sources() {
    for (const Object &one : objects) {
        if (is_device(one)) {
            host("yes later | dd of=" + one.source.device +
                 " bs=64k count=30 seek=7 iflag=fullblock conv=fsync status=none");
        } else {
            change(one.source.folder);
        }
        after_.push_back(sum_of(one));
    }
    for (size_t i = 0; i < std::size(objects); ++i) EXPECT_NE(after_[i], before_[i]);
}

// The copies are up on the host that on() named.
void ObjectsOnTwoArrays::expect_copies(const std::string Object::*mirror) {
    for (size_t i = 0; i < std::size(objects); ++i) {
        const Object &one = objects[i];
        if (is_device(one)) {
            EXPECT_EQ(sum_of_device(one.*mirror), before_[i]) << one.*mirror;
            EXPECT_EQ(host("stat -c %u:%g " + one.*mirror), "13:14\n");
            continue;
        }
        EXPECT_EQ(sums(one.source.copy), before_[i]) << one.source.copy;
        EXPECT_EQ(host("grep ' " + one.source.copy + " ' /proc/self/mounts | cut -d' ' -f1,3"),
                  one.*mirror + " " + one.source.type + "\n");
    }
}

void ObjectsOnTwoArrays::expect_copies_are_gone(const std::string Object::*mirror) {
    EXPECT_EQ(host("ls -A /tmp; grep /copy /proc/self/mounts; true"), "");
    for (const Object &one : objects) {
        if (!is_device(one)) expect_sound(one.source.type, one.*mirror);
    }
}

void ObjectsOnTwoArrays::expect_released() {
    array("clock advance 60");
    for (const Object &one : objects) EXPECT_EQ(pair_state(one.primary, one.bcv, one.symid), 2);
    EXPECT_EQ(counter_files(), "");
    for (size_t i = 0; i < std::size(objects); ++i) EXPECT_EQ(sum_of(objects[i]), after_[i]);
    for (const Object &one : objects) {
        if (is_device(one)) continue;
        host("umount " + one.source.folder);
        expect_sound(one.source.type, one.source.device);
    }
}

TEST_F(ObjectsOnTwoArrays, are_one_snapshot_that_is_read_on_the_primary_host_needs_root) {
    make_sources();
    take();
    change_sources();
    Words up = each([](auto &n) { return bring_up("text" + n); });
    add(&up, each([](auto &n) { return Words{"ckpt", "/exchange/mounted" + n}; }));
    const Phase brought_up = phase(up);
    expect_all_succeed(brought_up);
    for (size_t i = 0; i < std::size(objects); ++i) {
        EXPECT_EQ(brought_up.at("volumes", i).volpath, objects[i].here);
        EXPECT_EQ(brought_up.at("volumes", i).nvols, 0);
    }
    expect_copies(&Object::here);
    Words down = each([](auto &n) { return thaw("mounted" + n); });
    add(&down,
        {"run", "touch /exchange/down; until [ -e /exchange/checked ]; do sleep 0.01; done"});
    add(&down, each(thaw_commit));
    const Running release = begin_phase(down);
    wait_for_file("down");
    expect_copies_are_gone(&Object::here);
    make_file("checked");
    const Phase released = end_phase(release);
    expect_all_succeed(released);
    EXPECT_EQ(released.at("thaw_commit", 0).log, Words());
    EXPECT_TRUE(released.at("thaw_commit", 3).logged("Total BCVs to resync : 4"));
    expect_released();
}

// The backup host has another name for every mirror, a mount table and a /dev of its own, and no
// lock.
TEST_F(ObjectsOnTwoArrays, are_one_snapshot_that_is_read_on_the_backup_host_needs_root) {
    make_sources();
    take();
    change_sources();
    host("cd /exchange && for n in 0 1 2 3; do sed '1i HDEF-is_tgt=1' text$n >there$n; done");
    on("backup1");
    host("mkdir /copy1 /copy2 /copy3");
    EXPECT_EQ(host("ls /dev/qz 2>/dev/null; true"), "");
    Words up = each([](auto &n) { return bring_up("there" + n); });
    add(&up, each([](auto &n) { return Words{"ckpt", "/exchange/mounted" + n}; }));
    const Phase brought_up = phase(up);
    expect_all_succeed(brought_up);
    for (size_t i = 0; i < std::size(objects); ++i) {
        EXPECT_EQ(brought_up.at("volumes", i).volpath, objects[i].there);
        EXPECT_FALSE(brought_up.at("rebuild", i).logged_part("Executing command"));
    }
    expect_copies(&Object::there);
    EXPECT_EQ(counter_files(), "");
    host("cd /exchange && sed -i '1i HDEF-is_tgt=1' mounted[0-3]");
    expect_all_succeed(phase(each([](auto &n) { return thaw("mounted" + n); })));
    expect_copies_are_gone(&Object::there);
    for (const Object &one : objects) EXPECT_EQ(pair_state(one.primary, one.bcv, one.symid), 5);
    on("client1");
    Words down = each([](auto &n) { return thaw("text" + n); });
    add(&down, each(thaw_commit));
    expect_all_succeed(phase(down));
    expect_released();
}

}  // namespace
}  // namespace test
