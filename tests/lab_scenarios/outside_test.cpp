// Whatever is done in a world, nothing changes on the machine: a whole scenario runs under a root
// that keeps what is written apart, and what was kept is looked at.
#include <fstream>
#include <regex>

#include "tests/lab_host/lab.h"

namespace test {
namespace {

constexpr int no_layer = 77;

struct Outside : testing::Test {
    void SetUp() override { SKIP_WITHOUT_ROOT(); }

    // What a script of bash prints, and then a line for everything that it changed on the machine.
    Outcome run(const std::string &script) {
        std::ofstream(scratch / "script") << "set -e\n" << script;
        return shell(TF_SOURCE_DIR "/tests/lab_scenarios/outside.sh 'bash " + (scratch / "script") +
                     "'");
    }

    Scratch scratch;
};

// Two hosts, two file systems, a snapshot by hand and one around a command, files everywhere.
constexpr char scenario[] = R"(
tflab run --scenario two_arrays --host client1 --host backup1 -- bash -ec '
on() { tflab exec client1 -- "$@"; }
fim() { tflab exec --env LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so client1 -- fimctl -q "$@"; }
on mkfs.ext4 -q /dev/qz/dmp/p1
on mkfs.xfs -q /dev/qz/dmp/p2
on mkdir /data1 /data2
on mount /dev/qz/dmp/p1 /data1
on mount /dev/qz/dmp/p2 /data2
for host in client1 backup1; do
    tflab exec $host -- sh -ec "
        for folder in /etc /usr /usr/bin /var /var/lib /dev /run /tmp /home /root /opt /srv /; do
            echo mine >\$folder/written-in-a-world
        done
        echo mine >>/etc/passwd
        rm /usr/bin/yes
        chmod 700 /usr/share
        mkdir /mnt/folder && mount -t tmpfs none /mnt/folder"
done
on cp /etc/passwd /data1
on cp /etc/passwd /data2
fim run /data1 /data2 -- sh -ec "cmp \"\$1/passwd\" /etc/passwd; cmp \"\$2/passwd\" /etc/passwd" x {} {}
fim freeze /data1
copy=$(fim mount 2)
on cmp "$copy/passwd" /etc/passwd
on sh -c "echo changed >$copy/passwd"
fim release 2
on umount /data1
echo done'
)";

TEST_F(Outside, nothing_is_changed_by_a_whole_scenario_needs_root) {
    const Outcome outcome = run(scenario);
    if (outcome.status == no_layer) GTEST_SKIP() << "no layer over this machine's root";
    EXPECT_EQ(outcome.status, 0);
    // A program that was not built yet is none of this test's business.
    const std::regex missing("tflab: [^\n]* is not built; hosts do without it\n");
    EXPECT_EQ(std::regex_replace(outcome.output, missing, ""), "2\ndone\n");
}

TEST_F(Outside, every_change_would_be_seen_needs_root) {
    const Outcome outcome =
        run("echo x >/var/written; echo x >>/etc/passwd; rm /etc/hostname; mkdir /run/made;"
            " echo x >/dev/made; chmod 700 /usr/share; mount -t tmpfs left /srv; exit 3");
    if (outcome.status == no_layer) GTEST_SKIP() << "no layer over this machine's root";
    EXPECT_EQ(outcome.status, 3);
    for (const char *expected :
         {"changed: /var/written\n", "changed: /etc/passwd\n", "changed: /etc/hostname\n",
          "/run/made d", "/dev/made -", "changed: /usr/share\n", "left /srv tmpfs"}) {
        EXPECT_NE(outcome.output.find(expected), std::string::npos) << expected << outcome.output;
    }
}

}  // namespace
}  // namespace test
