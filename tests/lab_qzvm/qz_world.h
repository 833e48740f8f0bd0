// Scripts that run in a world with two hosts, for what the volume manager does to real devices.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/lab_host/lab.h"

namespace test {

class QzWorld : public testing::Test {
  protected:
    void SetUp() override { SKIP_WITHOUT_ROOT(); }

    // Runs the script in a world: client1 sees the disks p0, p1 (raw twins below rdmp) and their
    // mirrors sdq, sdr; backup1 sees the mirrors as c2t0d1, c2t0d2. The mirrors are split. It
    // finds:
    //   on COMMAND..., backup COMMAND...   run a command in client1, in backup1
    //   refused COMMAND...   runs it; prints what it says on standard error; fails when it succeeds
    //   group                makes datadg of p0 and p1 with a started, mounted ext4 "vol1" on
    //   /data,
    //                        and a started volume "vol2" on p1
    //   joined, parted        establish both pairs; split them with /data stopped, as a backup does
    //   on_backup            defines the mirrors on backup1 and puts them online
    //   regions              what the primaries and the mirrors carry, without ids, for comparison
    Outcome in_world(const std::string &script) {
        std::ofstream(scratch / "script") << functions << script;
        return shell("tflab run --scenario small --host client1 --host backup1 -- bash " +
                     (scratch / "script"));
    }
    // The same for a script that must end with status 0: what it printed.
    std::string printed(const std::string &script) {
        const Outcome outcome = in_world("set -e\n" + script);
        EXPECT_EQ(outcome.status, 0) << outcome.output;
        return outcome.output;
    }

    Scratch scratch;

  private:
    static constexpr char functions[] = R"(
on() { tflab exec client1 -- "$@"; }
backup() { tflab exec backup1 -- "$@"; }
refused() {
    if "$@" 2>/run/said >/dev/null; then echo "succeeded: $*"; return 1; fi
    cat /run/said
}
group() {
    on qzdg init datadg p0 p1
    on qzvol -g datadg make vol1 40M --disk p0 --fstype ext4
    on qzvol -g datadg make vol2 40M --disk p1
    on qzvol -g datadg startall
    on mkfs.ext4 -q /dev/qz/dsk/datadg/vol1
    on mkdir -p /data
    on mount /dev/qz/dsk/datadg/vol1 /data
}
pairs() {
    tfarray "$1" 000184500123 00A1 01A1 00A2 01A2 >/dev/null && tfarray clock advance 100 >/dev/null
}
joined() { pairs establish; }
parted() {
    on fsfreeze -f /data
    pairs split
    on fsfreeze -u /data
}
on_backup() {
    for disk in c2t0d1 c2t0d2; do backup qzdisk define $disk; backup qzdisk online $disk; done
}
regions() {
    for disk in qz/dmp/p0 qz/dmp/p1 sdq sdr; do
        echo $disk $(on head -c 4096 /dev/$disk | tr -d '\0' | head -2 | tail -1)
    done | sed -E 's/ [0-9a-f]{16} / /'
}
for i in 1 2; do tfarray mask 000184500123 01A$i backup1 /dev/rdsk/c2t0d$i; done
)";
};

}  // namespace test
