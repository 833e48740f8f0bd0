// The daemon's sockets against whatever comes in, without root: the devices are regular files.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "lab/array/media/files.h"
#include "lab/array/model/codes.h"
#include "lab/array/transport/wire.h"
#include "tests/lab_array/array_daemon.h"
#include "tests/support/private_root.h"

namespace {

using nlohmann::json;
using test::ArrayDaemon;
namespace code = lab::code;

constexpr char folder[] = "/tmp/files";
constexpr char control_socket[] = "/tmp/control.sock";

class FileArray : public testing::Test {
  protected:
    void SetUp() override {
        test::make_folders(folder);
        daemon = std::make_unique<ArrayDaemon>(folder, "files");
        ASSERT_TRUE(daemon->running());
        daemon->build_small_array();
    }
    void TearDown() override {
        daemon.reset();
        std::filesystem::remove_all(folder);
    }
    json control(const char *primary, const char *bcv, int action) {
        return daemon->ask({{"command", "control"},
                            {"symid", ArrayDaemon::symid},
                            {"action", action},
                            {"pairs", json::array({json::array({primary, bcv})})}});
    }
    int refusal(const json &request) {
        try {
            daemon->ask(request);
        } catch (const lab::CommandRefused &refused) {
            return refused.number;
        }
        return 0;
    }
    // The code that the daemon answers to a raw request, or -1 when it hangs up.
    static int raw(const lab::RequestHead &head, const std::string &payload) {
        const lab::Fd fd(lab::connect_to(lab::host_socket));
        lab::send_all(fd.get(), &head, sizeof head);
        lab::send_all(fd.get(), payload.data(), payload.size());
        lab::ReplyHead reply;
        return lab::receive_all(fd.get(), &reply, sizeof reply) ? reply.code : -1;
    }
    bool alive() { return daemon->ask({{"command", "clock"}}).at("ok"); }

    std::unique_ptr<ArrayDaemon> daemon;
};

class DaemonSockets : public FileArray {};

TEST_F(DaemonSockets, a_request_of_another_library_is_turned_away) {
    lab::RequestHead head = {};
    head.magic = lab::wire_magic + 1;
    EXPECT_EQ(raw(head, ""), -1);
    EXPECT_TRUE(alive());
}

TEST_F(DaemonSockets, a_payload_over_the_limit_is_turned_away) {
    lab::RequestHead head = {};
    head.magic = lab::wire_magic;
    head.size = lab::max_payload + 1;
    EXPECT_EQ(raw(head, ""), -1);
    EXPECT_TRUE(alive());
}

TEST_F(DaemonSockets, an_unknown_function_or_a_missing_text_is_a_bad_request) {
    lab::RequestHead head = {};
    head.magic = lab::wire_magic;
    head.function = lab::function_count;
    EXPECT_EQ(raw(head, ""), code::bad_request);
    head.function = 0xffffffff;
    EXPECT_EQ(raw(head, ""), code::bad_request);
    head.function = lab::function_SymDevShow;
    head.size = 5;
    EXPECT_EQ(raw(head, std::string("0001\0", 5)), code::bad_request);
}

TEST_F(DaemonSockets, a_text_without_its_nul_ends_with_the_payload) {
    lab::RequestHead head = {};
    head.magic = lab::wire_magic;
    head.function = lab::function_SymPdevShow;
    head.session = 4711;
    head.size = 8;
    EXPECT_EQ(raw(head, "/dev/sdq"), code::session_unknown);
}

// The daemon reads pieces of 64 KiB, and takes a shorter one for all that is there.
TEST_F(DaemonSockets, a_request_of_one_or_two_whole_pieces_is_answered) {
    for (const size_t whole : {65535U, 65536U, 65537U, 131072U}) {
        lab::RequestHead head = {};
        head.magic = lab::wire_magic;
        head.function = lab::function_SymPdevShow;
        head.session = 4711;
        head.size = static_cast<uint32_t>(whole - sizeof head);
        EXPECT_EQ(raw(head, std::string(head.size, 'x')), code::session_unknown) << whole;
    }
}

TEST_F(DaemonSockets, a_request_that_comes_byte_by_byte_is_answered) {
    lab::RequestHead head = {};
    head.magic = lab::wire_magic;
    head.function = lab::function_SymPdevShow;
    head.session = 4711;
    head.size = 8;
    std::string request(reinterpret_cast<const char *>(&head), sizeof head);
    request += "/dev/sdq";
    const lab::Fd fd(lab::connect_to(lab::host_socket));
    for (const char &byte : request) EXPECT_TRUE(lab::send_all(fd.get(), &byte, 1));
    lab::ReplyHead reply = {};
    EXPECT_TRUE(lab::receive_all(fd.get(), &reply, sizeof reply));
    EXPECT_EQ(reply.code, code::session_unknown);
}

TEST_F(DaemonSockets, half_a_request_is_forgotten_with_its_connection) {
    {
        const lab::Fd fd(lab::connect_to(lab::host_socket));
        EXPECT_TRUE(lab::send_all(fd.get(), "TF", 2));
    }
    EXPECT_TRUE(alive());
}

TEST_F(DaemonSockets, an_administrators_line_that_is_no_json_is_answered) {
    const lab::Fd fd(lab::connect_to(control_socket));
    for (const std::string line : {"rubbish\n", "[1,2]\n", "{}\n", "{\"command\": 3}\n",
                                   "{\"command\": \"pair\"}\n", "\n", "\xff\xfe\n"}) {
        ASSERT_TRUE(lab::send_all(fd.get(), line.data(), line.size()));
        std::string answer;
        char byte = 0;
        while (lab::receive_all(fd.get(), &byte, 1) && byte != '\n') answer += byte;
        EXPECT_FALSE(json::parse(answer).at("ok").get<bool>()) << line;
    }
    EXPECT_TRUE(alive());
}

TEST_F(DaemonSockets, a_host_that_is_removed_is_no_longer_listened_to_and_can_come_again) {
    daemon->ask({{"command", "host remove"}, {"name", "client1"}});
    EXPECT_TRUE(test::soon([] { return lab::Fd(lab::connect_to(lab::host_socket)).get() < 0; }));
    daemon->ask({{"command", "host add"},
                 {"name", "client1"},
                 {"socket", lab::host_socket},
                 {"dev", "/tmp/dev"}});
    EXPECT_GE(lab::Fd(lab::connect_to(lab::host_socket)).get(), 0);
    EXPECT_TRUE(test::exists("/tmp/dev/sdq"));
}

TEST_F(DaemonSockets, a_host_whose_socket_cannot_be_made_is_not_added) {
    const json host = {{"command", "host add"},
                       {"name", "client2"},
                       {"socket", "/tmp/" + std::string(200, 'x')},
                       {"dev", "/tmp/dev2"}};
    EXPECT_EQ(refusal(host), code::bad_argument);
    EXPECT_EQ(daemon->ask({{"command", "show"}}).at("hosts").size(), 1u);
}

TEST_F(DaemonSockets, a_mask_of_a_host_that_comes_later_is_made_when_it_comes) {
    daemon->ask({{"command", "mask"},
                 {"symid", ArrayDaemon::symid},
                 {"name", "00A1"},
                 {"host", "later"},
                 {"paths", {"/dev/emcpowerz"}}});
    daemon->ask({{"command", "host add"},
                 {"name", "later"},
                 {"socket", "/tmp/later.sock"},
                 {"dev", "/tmp/dev/later"}});
    EXPECT_TRUE(test::exists("/tmp/dev/later/emcpowerz"));
    std::filesystem::remove("/tmp/later.sock");
}

class FileMedia : public FileArray {
  protected:
    static void put(const std::string &path, const std::string &text) {
        const lab::Fd fd = lab::open_file(ArrayDaemon::node(path));
        EXPECT_EQ(pwrite(fd.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    static std::string get(const std::string &path) {
        return std::string(test::read_file(ArrayDaemon::node(path)).c_str());
    }
};

TEST_F(FileMedia, says_that_it_copies_and_that_a_split_is_no_single_instant) {
    const json shown = daemon->ask({{"command", "show"}});
    EXPECT_EQ(shown.at("media"), "files");
    EXPECT_NE(shown.at("limits").get<std::string>().find("is not one instant"), std::string::npos);
}

TEST_F(FileMedia, splits_and_restores_like_block_devices) {
    put("/dev/qz/dmp/p0", "one");
    control("00A1", "01A1", 3);
    EXPECT_EQ(get("/dev/sdq"), "");  // no capacity while it is joined
    put("/dev/qz/dmp/p0", "two");
    control("00A1", "01A1", 2);
    EXPECT_EQ(get("/dev/sdq"), "two");
    EXPECT_EQ(std::filesystem::file_size("/tmp/dev/sdq"), ArrayDaemon::size);
    put("/dev/qz/dmp/p0", "six");
    control("00A1", "01A1", 5);
    EXPECT_EQ(get("/dev/qz/dmp/p0"), "two");
    EXPECT_TRUE(daemon->ask({{"command", "check"}}).at("broken").empty());
}

TEST_F(FileMedia, counts_changed_tracks) {
    control("00A1", "01A1", 1);
    control("00A1", "01A1", 2);
    put("/dev/qz/dmp/p0", "x");
    control("00A1", "01A1", 3);
    EXPECT_EQ(daemon->ask({{"command", "show"}}).at("arrays")[0].at("pairs")[0].at("tracks"), 1);
}

TEST_F(FileMedia, a_locked_file_is_a_held_device) {
    const lab::Fd bcv = lab::open_file(ArrayDaemon::node("/dev/sdq"));
    ASSERT_EQ(flock(bcv.get(), LOCK_SH), 0);
    const json request = {{"command", "control"},
                          {"symid", ArrayDaemon::symid},
                          {"action", 3},
                          {"pairs", json::array({json::array({"00A1", "01A1"})})}};
    EXPECT_EQ(refusal(request), code::bcv_held);
    ASSERT_EQ(flock(bcv.get(), LOCK_UN), 0);
    EXPECT_EQ(refusal(request), 0);
}

TEST_F(FileMedia, a_path_that_is_down_leads_nowhere) {
    daemon->ask({{"command", "path"}, {"host", "client1"}, {"path", "/dev/sdc"}, {"down", true}});
    EXPECT_EQ(access(ArrayDaemon::node("/dev/sdc").c_str(), R_OK), -1);
    daemon->ask({{"command", "path"}, {"host", "client1"}, {"path", "/dev/sdc"}, {"down", false}});
    EXPECT_EQ(access(ArrayDaemon::node("/dev/sdc").c_str(), R_OK), 0);
}

TEST_F(FileMedia, a_daemon_started_again_keeps_copies_and_states) {
    put("/dev/qz/dmp/p0", "one");
    control("00A1", "01A1", 3);
    control("00A1", "01A1", 2);
    control("00A2", "01A2", 3);
    daemon->kill();
    daemon->start();
    EXPECT_EQ(get("/dev/sdq"), "one");
    EXPECT_EQ(get("/dev/sdr"), "");
    EXPECT_TRUE(daemon->ask({{"command", "check"}}).at("broken").empty());
    control("00A2", "01A2", 2);
}

// ---- tfarray ----

class TheCommand : public FileArray {
  protected:
    // Runs tfarray; `output` gets both of its streams.
    int run(const std::string &arguments) {
        const std::string out = "/tmp/output";
        const int status = system((std::string(TF_BINARY_DIR "/bin/tfarray --socket ") +
                                   control_socket + " " + arguments + " >" + out + " 2>&1")
                                      .c_str());
        output = test::read_file(out);
        std::filesystem::remove(out);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool says(const std::string &text) const { return output.find(text) != std::string::npos; }
    std::string output;
};

TEST_F(TheCommand, builds_an_array_step_by_step) {
    const char *const lines[] = {
        "array create 000000000001 --size 1G",
        "device create 000000000001 0001 --size 4M",
        "device create 000000000001 0002 --size 4M --bcv",
        "pair 000000000001 0001 0002 --synchronised",
        "label 000000000001 0002 TSR-BCV",
        "group add 000000000001 g 0001",
        "group add 000000000001 g 0002 --label TSR-BCV-2",
        "host add client9 --socket /tmp/client9.sock --dev /tmp/dev/client9",
        "mask 000000000001 0001 client9 /dev/emcpowera /dev/alias --port /dev/sda --port /dev/sdb",
        "path down client9 /dev/sda",
        "path up client9 /dev/sda",
        "rate 100",
        "version 0x04020099 --patch 7",
        "split-time 0",
        "background-time 1.5",
        "split 000000000001 0001 0002",
        "clock advance 2",
        "establish --full 000000000001 0001 0002",
        "clock stop",
        "clock run",
        "clock show",
        "fault add SymPdevShow --at 3 --device 0001 --for-good --after --code 5",
        "fault clear 1",
        "fault clear",
        "check",
        "unmask 000000000001 0001 client9",
        "host remove client9",
    };
    for (const char *line : lines) EXPECT_EQ(run(line), 0) << line << "\n" << output;
    const json settings = daemon->ask({{"command", "show"}}).at("settings");
    EXPECT_EQ(settings.at("version"), 0x04020099);
    EXPECT_EQ(settings.at("patch"), "7");
    EXPECT_EQ(settings.at("rate"), 100);
    EXPECT_EQ(settings.at("background_seconds"), 1.5);
    std::filesystem::remove("/tmp/client9.sock");
}

TEST_F(TheCommand, show_is_a_table_or_json) {
    ASSERT_EQ(run("show"), 0);
    EXPECT_TRUE(says("Array 000184500123\n")) << output;
    EXPECT_TRUE(says("  DEVICE  KIND      SIZE   GROUP  LABEL")) << output;
    EXPECT_TRUE(says("  01A1    BCV       4 MiB  dg     TSR-BCV")) << output;
    EXPECT_TRUE(says("client1: /dev/emcpowera /dev/sdc (port) /dev/sdd (port)")) << output;
    EXPECT_TRUE(says("  00A1      01A1  split  never\n")) << output;
    ASSERT_EQ(run("show --json"), 0);
    EXPECT_EQ(json::parse(output).at("arrays")[0].at("symid"), "000184500123");
}

TEST_F(TheCommand, build_makes_what_a_scenario_describes) {
    test::write_file("/tmp/scenario.toml",
                     "[[array]]\nsymid = \"000000000001\"\n[[array.device]]\nname = \"0001\"\n"
                     "size = \"4M\"\nbcv = [{ name = \"0002\", state = \"synchronised\" }]\n");
    EXPECT_EQ(run("build /tmp/scenario.toml"), 0) << output;
    const json array = daemon->ask({{"command", "show"}}).at("arrays")[0];
    EXPECT_EQ(array.at("symid"), "000000000001");
    EXPECT_EQ(array.at("pairs")[0].at("state"), 2);
    EXPECT_EQ(run("build /tmp/scenario.toml"), 1);
    EXPECT_TRUE(says("array 000000000001 exists already")) << output;
    std::filesystem::remove("/tmp/scenario.toml");
}

TEST_F(TheCommand, the_scenarios_of_the_lab_can_be_built) {
    daemon->kill();
    for (const char *end : {"", "-wal", "-shm"}) {
        std::filesystem::remove(std::string("/tmp/state.db") + end);
    }
    daemon->start();
    ASSERT_EQ(run("build " TF_SOURCE_DIR "/lab/scenarios/basic.toml"), 0) << output;
    EXPECT_EQ(daemon->ask({{"command", "show"}}).at("arrays")[0].at("devices").size(), 16u);
    EXPECT_EQ(run("check"), 0) << output;
}

TEST_F(TheCommand, exit_codes_tell_refused_from_wrong_usage_from_no_array) {
    EXPECT_EQ(run("split 000184500123 00A1 01A1"), 1);
    EXPECT_TRUE(says("The pair is split already (304)")) << output;
    EXPECT_EQ(run("nonsense"), 2);
    EXPECT_EQ(run(""), 2);
    EXPECT_EQ(run("split 000184500123 00A1"), 2);  // half a pair
    EXPECT_EQ(run("version 0x5x"), 2);
    EXPECT_EQ(run("rate -- -1"), 2);
    EXPECT_EQ(run("build /nonexistent.toml"), 2);
    EXPECT_EQ(run("--help"), 0);
    daemon->kill();
    EXPECT_EQ(run("show"), 3);
    EXPECT_TRUE(says("no array answers at /tmp/control.sock")) << output;
}

}  // namespace
