/* SPDX-License-Identifier: GPL-2.0 */
/* Whole commands against a fake module. */
#include "commands.h"

#include "dump_file.h"
#include "expect_error.h"
#include "fake_module.h"
#include "report_texts.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using moxctl::Action;
using moxctl::Failure;
namespace fs = std::filesystem;

/** Hands out what the test keeps. */
template <typename Base, typename Fake>
class Lent : public Base {
public:
    explicit Lent(Fake& fake) : fake_(fake) {}

protected:
    Fake& fake_;
};

class LentNetlink : public Lent<moxctl::NetlinkSocket, FakeNetlink> {
public:
    using Lent::Lent;
    std::uint32_t port() const override { return fake_.port(); }
    void send(std::span<const std::uint8_t> datagram) override { fake_.send(datagram); }
    Bytes receive(std::chrono::milliseconds time) override { return fake_.receive(time); }
};

class LentLog : public Lent<moxctl::KernelLog, FakeLog> {
public:
    using Lent::Lent;
    Read read(std::string& raw) override { return fake_.read(raw); }
    void wait() override { fake_.wait(); }
    void interrupt() override { fake_.interrupt(); }
};

std::string contents(const fs::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class Commands : public testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/moxctl-test.XXXXXX";
        ASSERT_TRUE(mkdtemp(name));
        root = name;
        fs::create_directory(root / "tmp");
        options.timeout = 0.05;
    }
    void TearDown() override { fs::remove_all(root); }

    moxctl::Status run()
    {
        moxctl::World world{
            .open_netlink = [this] { return std::make_unique<LentNetlink>(netlink); },
            .open_kernel_log = [this]() -> std::unique_ptr<moxctl::KernelLog> {
                if (log_error)
                    throw Failure(moxctl::kernel_log_error(log_error));
                return std::make_unique<LentLog>(log);
            },
            .working_directory = [this] { return directory; },
            .root = root.string(),
            .print = [this](const std::string& text) { printed += text; },
            .complain = [this](const std::string& line) { complaints += line + "\n"; },
        };
        return moxctl::run_command(options, world);
    }

    /** The module prints this when asked, behind its opening line and with a foreign line in front of every call. */
    void will_print(const std::string& text)
    {
        netlink.on_request = [this, text](const Bytes&) {
            print("Deal message from 4711, moxctl.\n");
            for (const std::string& call : printk_calls(text)) {
                print("port1: link up\n", 6);
                print(call);
            }
        };
    }
    void print(const std::string& call, unsigned priority = 4) { log.log(kmsg_record(sequence++, call, priority)); }

    /** The module writes this into the dump file when asked, as it does: mode 0. */
    void will_write(const std::string& text, const std::string& vsd = "0")
    {
        netlink.on_request = [this, text, vsd](const Bytes&) {
            fs::path path = root / "tmp/vsd" / vsd / "ef/af_packet/afpacketdump";
            EXPECT_TRUE(fs::is_directory(path.parent_path())) << "the module does not make it";
            EXPECT_FALSE(fs::exists(path)) << "an old dump could be taken for the new one";
            std::ofstream(path) << text;
            fs::permissions(path, fs::perms::none);
        };
    }

    FakeNetlink netlink;
    FakeLog log;
    unsigned long sequence = 1000;
    int log_error = 0;
    std::string directory = "/root";
    fs::path root;
    moxctl::Options options;
    std::string printed, complaints;
};

TEST_F(Commands, look_up_and_request_to_the_byte)
{
    options.action = Action::switches;
    options.switches = {20};
    options.is_open = true;
    EXPECT_EQ(run(), moxctl::status_ok);
    ASSERT_EQ(netlink.datagrams.size(), 2u);

    Bytes look_up;
    put<std::uint32_t>(look_up, 36);
    for (std::uint16_t word : {16, 1})
        put(look_up, word);
    put<std::uint32_t>(look_up, 1);
    put<std::uint32_t>(look_up, 4711);
    for (std::uint8_t byte : {3, 1, 0, 0, 16, 0, 2, 0})
        look_up.push_back(byte);
    for (char byte : {'P', 'A', 'C', 'K', 'E', 'T', '_', 'G', 'E', 'N', 'L', '\0'})
        look_up.push_back(static_cast<std::uint8_t>(byte));
    EXPECT_EQ(netlink.datagrams[0], look_up);

    Bytes request;
    put<std::uint32_t>(request, 36);
    put<std::uint16_t>(request, 0x1b);
    put<std::uint16_t>(request, 5); // request, acknowledge
    put<std::uint32_t>(request, 2);
    put<std::uint32_t>(request, 4711);
    for (std::uint8_t byte : {0, 1, 0, 0, 16, 0, 1, 0, 14, 0, 0, 0, 20, 0, 0, 0, 1, 0, 0, 0})
        request.push_back(byte);
    EXPECT_EQ(netlink.datagrams[1], request);
    EXPECT_EQ(printed + complaints, "");
}

TEST_F(Commands, switches__are_sent_in_order_each_with_its_acknowledgement)
{
    options.action = Action::switches;
    options.switches = {0, 9, 18};
    netlink.foreign_messages = true;
    EXPECT_EQ(run(), moxctl::status_ok);
    ASSERT_EQ(netlink.payloads.size(), 3u);
    EXPECT_EQ(netlink.payloads[2], (Bytes{14, 0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Commands, a_filter_is_sent)
{
    options.action = Action::filter;
    EXPECT_EQ(run(), moxctl::status_ok);
    ASSERT_EQ(netlink.payloads.size(), 1u);
    EXPECT_EQ(netlink.payloads[0].size(), 76u);
}

TEST_F(Commands, show__prints_just_the_report)
{
    options.action = Action::show_rules;
    will_print(all_reports());
    print("before\n");
    EXPECT_EQ(run(), moxctl::status_ok) << complaints;
    EXPECT_EQ(printed, all_reports());
    EXPECT_EQ(complaints, "");
    EXPECT_EQ(netlink.payloads, std::vector<Bytes>({{8, 0, 0, 0}}));
}

TEST_F(Commands, show__every_kind)
{
    struct {
        Action action;
        std::uint32_t location;
        std::string text;
    } const cases[] = {
        {Action::show_rules, 2, lev2_report()},
        {Action::show_queues, 0, queues_report()},
        {Action::show_memory, 0, memory_report()},
        {Action::show_thread, 0, thread_report()},
        {Action::show_process, 0, "show process arpwatch regular:\n" + arpwatch_socket()},
    };
    for (const auto& each : cases) {
        options.action = each.action;
        options.location = each.location;
        options.process = "arpwatch";
        printed.clear();
        will_print(each.text);
        EXPECT_EQ(run(), moxctl::status_ok) << complaints;
        EXPECT_EQ(printed, each.text);
    }
}

TEST_F(Commands, show__as_json)
{
    options.action = Action::show_memory;
    options.json = true;
    will_print(memory_report());
    EXPECT_EQ(run(), moxctl::status_ok);
    EXPECT_EQ(nlohmann::json::parse(printed)["memory"]["skbs"]["alloc"], 50);
}

TEST_F(Commands, show__a_terminal_gets_no_control_characters)
{
    options.action = Action::show_process;
    std::string text = arpwatch_socket();
    text.replace(text.find("arpwatch"), 8, "a\x1b[2J");
    will_print(text);
    EXPECT_EQ(run(), moxctl::status_ok);
    EXPECT_NE(printed.find("process:       a\\x1b[2J\n"), std::string::npos) << printed;
}

TEST_F(Commands, show__a_report_with_holes_is_printed_and_called_incomplete)
{
    options.action = Action::show_rules;
    options.location = 2;
    netlink.on_request = [this](const Bytes&) {
        print("Deal message from 4711, moxctl.\n");
        for (const std::string& call : printk_calls(queue_lines("PACKET_LEV2_LOC") + arpwatch_socket()))
            print(call);
        log.overwrite();
        sequence += 12;
        print("filter regular list cnt: 0\n");
    };
    EXPECT_EQ(run(), moxctl::status_incomplete);
    EXPECT_NE(complaints.find("overwrote 12 of its lines"), std::string::npos) << complaints;
    EXPECT_NE(complaints.find("log_buf_len"), std::string::npos) << complaints;
    EXPECT_NE(printed.find("arpwatch"), std::string::npos);

    options.json = true;
    printed.clear();
    EXPECT_EQ(run(), moxctl::status_incomplete);
    EXPECT_EQ(nlohmann::json::parse(printed)["complete"], false);
}

TEST_F(Commands, show__a_truncated_report_is_called_incomplete)
{
    options.action = Action::show_rules;
    will_print(lev2_report());
    EXPECT_EQ(run(), moxctl::status_incomplete);
    EXPECT_NE(complaints.find("1 locations instead of 8"), std::string::npos) << complaints;
}

TEST_F(Commands, show__many_problems_are_cut_short)
{
    options.action = Action::show_process;
    std::string text;
    for (int i = 0; i < 30; ++i)
        text += "process:       x\n";
    will_print(text);
    EXPECT_EQ(run(), moxctl::status_incomplete);
    EXPECT_NE(complaints.find("... and 20 more"), std::string::npos) << complaints;
}

TEST_F(Commands, show__a_log_that_overwrote_everything)
{
    options.action = Action::show_rules;
    netlink.on_request = [this](const Bytes&) {
        log.overwrite();
        print("something much later\n");
    };
    expect_error<Failure>([this] { run(); }, {"overwrote", "log_buf_len", "moxctl tech"});
}

TEST_F(Commands, show__a_log_without_the_modules_lines)
{
    options.action = Action::show_rules;
    expect_error<Failure>([this] { run(); }, {"no line of it", "mox_printk"});
}

TEST_F(Commands, show__without_the_right_to_read_the_log_nothing_is_asked)
{
    options.action = Action::show_rules;
    log_error = EPERM;
    expect_error<Failure>([this] { run(); }, {"/dev/kmsg", "dmesg_restrict", "root"});
    EXPECT_TRUE(netlink.datagrams.empty());
}

TEST_F(Commands, show__a_log_that_breaks)
{
    options.action = Action::show_rules;
    log.fail(EIO);
    expect_error<Failure>([this] { run(); }, {"/dev/kmsg", "Input/output error"});
}

TEST_F(Commands, the_note_is_said)
{
    options.action = Action::filter;
    options.note = "mind";
    run();
    EXPECT_EQ(complaints, "mind\n");
}

TEST_F(Commands, no_family)
{
    netlink.family_error = ENOENT;
    for (Action action : {Action::show_rules, Action::filter, Action::tech}) {
        options.action = action;
        expect_error<Failure>([this] { run(); }, {"PACKET_GENL", "mox_ef_socket.ko", "initial network namespace"});
    }
    netlink.family_error = EPERM;
    expect_error<Failure>([this] { run(); }, {"PACKET_GENL", "Operation not permitted"});
}

TEST_F(Commands, a_family_without_an_id)
{
    options.action = Action::filter;
    netlink.family_answer = {1, 2, 0, 0, 5, 0, 1, 0, 9, 0, 0, 0};
    expect_error<Failure>([this] { run(); }, {"no id"});
    netlink.family_answer = {1, 2, 0, 0};
    expect_error<Failure>([this] { run(); }, {"no id"});
    netlink.family_answer = {1, 2};
    expect_error<Failure>([this] { run(); }, {"no id"});
}

TEST_F(Commands, a_refused_request)
{
    options.action = Action::filter;
    netlink.request_error = EPERM;
    expect_error<Failure>([this] { run(); }, {"refused", "Operation not permitted"});
    netlink.request_error = EOPNOTSUPP;
    expect_error<Failure>([this] { run(); }, {"refused", "own mox_ef_socket.ko"});
    netlink.request_error = ENOENT;
    expect_error<Failure>([this] { run(); }, {"no generic netlink family"});
}

TEST_F(Commands, no_acknowledgement_in_time)
{
    options.action = Action::filter;
    netlink.acknowledges = false;
    try {
        run();
        ADD_FAILURE() << "it ended";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), moxctl::status_timeout);
    }
}

TEST_F(Commands, broken_messages_do_no_harm)
{
    options.action = Action::filter;
    for (std::size_t length = 1; length < 20; ++length)
        netlink.queue(Bytes(length, 0xff));
    netlink.queue(netlink_message(2, 0, 1, 0, {}));
    EXPECT_EQ(run(), moxctl::status_ok);
}

TEST_F(Commands, tech__prints_the_file)
{
    options.action = Action::tech;
    will_write(dump_file_text());
    EXPECT_EQ(run(), moxctl::status_ok) << complaints;
    EXPECT_EQ(printed, dump_file_text());
    EXPECT_EQ(complaints, "");
}

TEST_F(Commands, tech__removes_an_old_file_and_saves_the_new_one)
{
    options.action = Action::tech;
    options.output = root / "saved";
    will_write(dump_file_text());
    fs::create_directories(root / "tmp/vsd/0/ef/af_packet");
    std::ofstream(root / "tmp/vsd/0/ef/af_packet/afpacketdump") << "old";
    EXPECT_EQ(run(), moxctl::status_ok) << complaints;
    EXPECT_EQ(printed, "");
    EXPECT_EQ(contents(options.output), dump_file_text());
}

TEST_F(Commands, tech__of_a_virtual_switch_device)
{
    options.action = Action::tech;
    directory = "/data/var/run/vsd/5/here";
    will_write(dump_file_text(), "5");
    EXPECT_EQ(run(), moxctl::status_ok) << complaints;
    EXPECT_EQ(printed, dump_file_text());
}

TEST_F(Commands, tech__a_dump_with_dropped_lines_is_saved_and_called_incomplete)
{
    options.action = Action::tech;
    std::string text = dump_file_text();
    std::size_t at = text.find("sk refcnt");
    text.erase(at, text.find('\n', at) + 1 - at);
    will_write(text);
    EXPECT_EQ(run(), moxctl::status_incomplete);
    EXPECT_EQ(printed, text);
    EXPECT_NE(complaints.find("the dump is incomplete: a socket of process \"arpwatch\""), std::string::npos)
        << complaints;
    EXPECT_NE(complaints.find("moxctl show rules LOCATION"), std::string::npos) << complaints;
}

TEST_F(Commands, tech__no_file)
{
    options.action = Action::tech;
    expect_error<Failure>([this] { run(); }, {"wrote no file", "/tmp/vsd/0//ef/af_packet/afpacketdump", "debug on"});
}

TEST_F(Commands, tech__an_empty_file)
{
    options.action = Action::tech;
    will_write("");
    expect_error<Failure>([this] { run(); }, {"wrote nothing", "memory"});
}

TEST_F(Commands, tech__no_answer_in_time)
{
    options.action = Action::tech;
    netlink.answers_tech = false;
    try {
        run();
        ADD_FAILURE() << "it ended";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), moxctl::status_timeout);
        EXPECT_NE(std::string(failure.what()).find("within 50 ms"), std::string::npos) << failure.what();
    }
}

TEST_F(Commands, tech__an_answer_that_comes_late)
{
    options.action = Action::tech;
    options.timeout = 5;
    netlink.answers_tech = false;
    will_write(dump_file_text());
    auto write = netlink.on_request;
    bool acknowledged = false;
    netlink.on_request = [&](const Bytes& payload) {
        write(payload);
        // Behind the acknowledgement, in a datagram of its own.
        netlink.acknowledges = false;
        netlink.queue(FakeNetlink::acknowledgement(2, 0));
        netlink.queue(netlink_message(FakeNetlink::family, 0, 0, 4711, {0, 1, 0, 0, 4, 0, 1, 0}));
        acknowledged = true;
    };
    EXPECT_EQ(run(), moxctl::status_ok) << complaints;
    EXPECT_TRUE(acknowledged);
}

TEST_F(Commands, tech__directories_in_the_way)
{
    options.action = Action::tech;
    std::ofstream(root / "tmp/vsd") << "a file";
    expect_error<Failure>([this] { run(); }, {"tmp/vsd is no directory", "remove it"});
    EXPECT_TRUE(netlink.payloads.empty()) << "asked although there is no place for the file";
    fs::remove(root / "tmp/vsd");
    fs::create_directory(root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", root / "tmp/vsd");
    expect_error<Failure>([this] { run(); }, {"tmp/vsd is no directory"});
    EXPECT_TRUE(fs::is_empty(root / "elsewhere"));
}

TEST_F(Commands, tech__output_that_cannot_be_written)
{
    options.action = Action::tech;
    options.output = root / "no/such/directory";
    will_write(dump_file_text());
    expect_error<Failure>([this] { run(); }, {"cannot write", "no/such/directory", "No such file"});
    options.output = "/dev/full";
    will_write(dump_file_text());
    expect_error<Failure>([this] { run(); }, {"cannot write /dev/full", "No space"});
}

TEST(ctl_dump_file, vsd_of_a_directory__as_the_module_counts)
{
    struct {
        const char* directory;
        std::uint32_t vsd;
    } const cases[] = {
        {"/", 0},
        {"", 0},
        {"/root", 0},
        {"/data/var/run/vsd", 0},
        {"/data/var/run/vsd/", 0},
        {"/data/var/run/vsd/5", 5},
        {"/data/var/run/vsd/5/", 5},
        {"/data/var/run/vsd/12/deep/down", 12},
        {"/data/var/run/vsd/7x", 7},
        {"/data/var/run/vsd/x7", 0},
        {"/data/var/run/vsd/-1", 0},
        {"/data/var/run/vsd/2147483647", 2147483647},
        {"/data/var/run/vsd/2147483648", 0},
        {"/data/var/run/vsd/4294967299", 3},
        {"/x/data/var/run/vsd/5", 0},
    };
    for (const auto& each : cases)
        EXPECT_EQ(moxctl::vsd_of(each.directory), each.vsd) << each.directory;
}

TEST(ctl_dump_file, path_has_the_double_slash)
{
    EXPECT_EQ(moxctl::DumpFile(0).path(), "/tmp/vsd/0//ef/af_packet/afpacketdump");
    EXPECT_EQ(moxctl::DumpFile(12, "/x").path(), "/x/tmp/vsd/12//ef/af_packet/afpacketdump");
}

TEST(ctl_dump_file, working_directory)
{
    EXPECT_EQ(moxctl::working_directory(), fs::current_path().string());
}

} // namespace
