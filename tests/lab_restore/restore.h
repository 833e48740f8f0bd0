// What the tests of fimctl restore share: real disk groups, how they are destroyed, and how they
// have to look afterwards.
#pragma once

#include <nlohmann/json.hpp>

#include "tests/lab_volumes/volumes.h"

namespace test {

using Json = nlohmann::json;

inline const Object vol4 = {"datadg", "vol4", "ext4", "p2"};

struct Restore : VolumesOnTwoHosts {
    // What a command of fimctl said on both streams; its status has to be the expected one.
    std::string fim(const std::string &arguments, int expected = 0) {
        int status = -1;
        const std::string output = host("fimctl " + arguments, &status);
        EXPECT_EQ(status, expected) << "fimctl " << arguments << "\n" << output;
        return output;
    }
    void expect_said(const std::string &output, const std::string &part) {
        EXPECT_NE(output.find(part), std::string::npos) << "not said: " << part << "\n" << output;
    }
    void freeze_all(const Objects &objects) {
        ask_for_import();
        std::string line = "-q freeze --config alternate_backup_client=backup1";
        for (const Object &object : objects) line += " " + object.data();
        EXPECT_EQ(fim(line), "1\n");
        expect_pairs(objects, 5);
    }
    // Takes everything from the original that a user can take.
    void destroy(const Object &object) {
        host("umount " + object.data() + " && mkfs." + object.type +
             (object.type == "xfs" ? " -f" : " -F") + " -q " + object.block() + " && mount " +
             object.block() + " " + object.data() + " && echo gone >" + object.data() +
             "/instead && sync");
    }
    std::string state() {
        const Json shown = Json::parse(fim("show 1 --json 2>/dev/null"), nullptr, false);
        return shown.value("state", "");
    }
    std::string code() {
        const Json plan =
            Json::parse(fim("restore 1 --plan-only --json 2>/dev/null"), nullptr, false);
        return plan.value("code", "");
    }
    std::string all_mounts(const Objects &objects) {
        std::string text;
        for (const Object &object : objects) {
            text += object.block() + " " + object.data() + " " + object.type + "\n";
        }
        return text;
    }
    // Restored, mounted as before, and sound.
    void expect_restored(const Objects &objects) {
        EXPECT_EQ(mounts(), all_mounts(objects));
        for (const Object &object : objects) {
            expect_unchanged(object, object.data());
            host("test ! -e " + object.data() + "/instead && umount " + object.data());
            expect_sound(object, object.block());
            host("mount " + object.block() + " " + object.data());
        }
        expect_pairs(objects, 8);
        EXPECT_EQ(state(), "restored");
        EXPECT_EQ(fim("list"), "no snapshots\n");
        expect_nothing_left();
    }
    void expect_nothing_left() {
        EXPECT_EQ(counter_files() + host("ls -A /tmp /var/lib/fimctl/tmp"),
                  "/tmp:\n\n/var/lib/fimctl/tmp:\n");
        array("check");
    }
    // Everything is as the originals were before: changed, mounted, their copies kept.
    void expect_untouched(const Objects &objects) {
        EXPECT_EQ(mounts(), all_mounts(objects));
        for (const Object &object : objects) {
            EXPECT_EQ(host("cat " + object.data() + "/instead"), "gone\n");
        }
        expect_pairs(objects, 5);
        EXPECT_EQ(state(), "frozen");
        // The primaries' disks are in use, not the mirrors'.
        EXPECT_EQ(foreign_uses(), "");
    }
    std::string foreign_uses() {
        std::string line = "command -v fuser >/dev/null || exit; ";
        for (const char *disk : {"sdq", "sdr", "sds", "sdt"}) {
            line += std::string("fuser -s /dev/") + disk + " 2>/dev/null && echo " + disk + "; ";
        }
        return host(line + "true");
    }
    // A program does something before or after its work, once. It keeps its name: some are several.
    void wrap(const std::string &program, const std::string &pattern, const std::string &before,
              const std::string &after) {
        const std::string real = "/usr/real" + program;
        host("mkdir -p $(dirname " + real + ") && mv " + program + " " + real + " && cat >" +
             program + " <<'EOT'\n#!/bin/sh\ncase \"$*\" in " + pattern +
             ")\n    if mkdir /run/wrapped 2>/dev/null; then\n        " +
             (before.empty() ? ":" : before) + "\n        " + real +
             " \"$@\"; status=$?\n        " + (after.empty() ? ":" : after) +
             "\n        exit $status\n    fi ;;\nesac\nexec " + real + " \"$@\"\nEOT\n" +
             "chmod 755 " + program + " && rm -rf /run/wrapped");
    }
};

}  // namespace test
