// SPDX-License-Identifier: GPL-2.0-only
// The operators' program against the module: what it prints is what the module printed, and what it switches is switched.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fixture.h"
#include "support/module.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;

struct Ran {
	int status;
	std::string out, err;
};

std::string contents(const std::string &path)
{
	std::ostringstream text;
	text << std::ifstream(path).rdbuf();
	return text.str();
}

/// Runs a shell line; standard output and standard error come back apart.
Ran run(const std::string &line)
{
	int status = std::system(("{ " + line + "; } >/tmp/moxctl.out 2>/tmp/moxctl.err").c_str());
	return { WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents("/tmp/moxctl.out"),
		 contents("/tmp/moxctl.err") };
}

bool holds(const std::string &text, const std::string &part)
{
	return text.find(part) != std::string::npos;
}

/// Everything that the module printed behind the line that opens a request.
std::string printed_by_the_module()
{
	std::string text;
	bool inside = false;
	for (const std::string &line : lab::printk_lines()) {
		if (inside)
			text += line;
		else
			inside = line.starts_with("Deal message from ");
	}
	return text;
}

class Moxctl : public VmTest {
protected:
	void TearDown() override
	{
		run("moxctl debug off all; moxctl filter off; rm -rf /tmp/vsd");
		VmTest::TearDown();
	}

	/// Asks for a report, and expects it to be what the module printed, to the byte.
	static std::string report(const std::string &words)
	{
		lab::clear_printk();
		// The report of one process comes through the log alone.
		Ran ran = run("moxctl show " + words + (holds(words, "process") ? "" : " --log"));
		EXPECT_EQ(ran.status, 0) << ran.err;
		EXPECT_EQ(ran.err, "");
		EXPECT_EQ(ran.out, printed_by_the_module()) << words;
		return ran.out;
	}
};

/// Keeps a line of its own coming into the kernel log, as other parts of a system do.
class Chatter {
public:
	explicit Chatter(std::string line)
		: thread_([this, line] {
			  int fd = ::open("/dev/kmsg", O_WRONLY | O_CLOEXEC);
			  while (!stop_) {
				  EXPECT_EQ(::write(fd, line.data(), line.size()),
					    static_cast<ssize_t>(line.size()));
				  std::this_thread::sleep_for(std::chrono::microseconds(200));
			  }
			  ::close(fd);
		  })
	{
	}
	~Chatter()
	{
		stop_ = true;
		thread_.join();
	}

private:
	std::atomic<bool> stop_{ false };
	std::thread thread_;
};

TEST_F(Moxctl, every_report_is_what_the_module_printed)
{
	Socket arp = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	ASSERT_EQ(arp.add(flag(PACKET_IPv4_MCAST_TRAFFIC)), 0);
	ASSERT_EQ(arp.add(u32s(PACKET_SRC_INTF_EQUAL, { 1, 4094 })), 0);
	Socket everything = capture(PACKET_WLAN_LOC, PACKET_FETCH, all());
	std::string pid = std::to_string(::getpid());
	for (const std::string &words :
	     { std::string("rules"), std::string("rules local"), std::string("rules lev2"),
	       std::string("rules wlan"), std::string("queues"), std::string("memory"),
	       std::string("thread"), "process " + pid, std::string("process nobody"),
	       std::string("process 1") })
		report(words);

	std::string text = report("rules lev2");
	for (const char *part :
	     { "location: PACKET_LEV2_LOC\n", "\nregular data:  0806  \n",
	       "\n               4094  \n", "PACKET TREATMENT:   PACKET_COPY\n" })
		EXPECT_TRUE(holds(text, part)) << part << text;
	EXPECT_TRUE(holds(text, "pid:           " + pid + "\n"));
	EXPECT_FALSE(holds(text, "PACKET_FETCH"));
	EXPECT_TRUE(holds(report("process " + pid), "PACKET_FETCH"));
	EXPECT_FALSE(holds(report("process nobody"), "dump sock"));
}

TEST_F(Moxctl, a_report_keeps_apart_from_other_lines)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	Chatter kernel_like("<4>moxctl-test: something else\n");
	Chatter report_like("<6>sk refcnt:              9\n");
	ASSERT_EQ(run("moxctl debug on all").status, 0);
	for (int i = 0; i < 5; ++i) {
		Ran ran = run("moxctl show rules --log");
		EXPECT_EQ(ran.status, 0) << ran.err;
		EXPECT_FALSE(holds(ran.out, "something else"));
		EXPECT_FALSE(holds(ran.out, "refcnt:              9"));
		EXPECT_FALSE(holds(ran.out, "MOX-PACKET(")) << "debug lines are no report";
	}
}

TEST_F(Moxctl, json)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	for (const char *words :
	     { "rules", "rules lev2", "queues", "memory", "thread", "process 1" }) {
		Ran ran = run(std::string("moxctl show ") + words + " --json");
		EXPECT_EQ(ran.status, 0) << ran.err;
		EXPECT_TRUE(holds(ran.out, "\"complete\": true")) << words;
	}
	std::string rules = run("moxctl show rules lev2 --json").out;
	EXPECT_TRUE(holds(rules, "\"pid\": " + std::to_string(::getpid()))) << rules;
	EXPECT_TRUE(holds(rules, "\"0806\"")) << rules;
}

size_t count_of(const std::string &text, const std::string &part)
{
	size_t found = 0;
	for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
		++found;
	return found;
}

TEST_F(Moxctl, a_report_longer_than_the_logs_buffer)
{
	// A log of 512 KiB (CONFIG_LOG_BUF_SHIFT=19) holds no more than 16384 records; older kernels' hold fewer. Little
	// more is printed here, so that the reader need not be quick on a busy host.
	constexpr size_t many = 450, records_of_the_log = 16384;
	rlimit limit{ 2048, 2048 };
	ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
	std::vector<Socket> sockets;
	for (size_t i = 0; i < many; ++i)
		sockets.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY,
					  ethertype(static_cast<uint16_t>(0x1000 + i))));
	// The console would take most of the time.
	Ran ran = run("dmesg -n 1; moxctl show rules lev2 --log; s=$?; dmesg -n 5; exit $s");
	EXPECT_EQ(ran.status, 0) << ran.err;
	EXPECT_EQ(count_of(ran.out, "dump sock"), many);
	// Each line is a record, and a label is one more.
	EXPECT_GT(count_of(ran.out, "\n") + count_of(ran.out, "regular type:") +
			  count_of(ran.out, "regular data:"),
		  records_of_the_log)
		<< "the log would have held it all: the test shows nothing";
}

TEST_F(Moxctl, debug_switches)
{
	struct {
		const char *words;
		std::vector<int> set;
	} const cases[] = {
		{ "on", { 0 } },
		{ "on deliver-lev2", { 2 } },
		{ "on receive-lev2 receive-wlan", { 11, 17 } },
		{ "on deliver", { 1, 2, 3, 4, 5, 6, 7, 8 } },
		{ "on receive", { 10, 11, 12, 13, 14, 15, 16, 17 } },
		{ "on all", { 0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16, 17 } },
	};
	for (const auto &each : cases) {
		ASSERT_EQ(run("moxctl debug off all").status, 0);
		Ran ran = run(std::string("moxctl debug ") + each.words);
		EXPECT_EQ(ran.status, 0) << ran.err;
		std::vector<int> set;
		for (int i = 0; i < 19; ++i)
			if (lab::peek8("mox_packet_debug", i))
				set.push_back(i);
		EXPECT_EQ(set, each.set) << each.words;
	}
}

TEST_F(Moxctl, hooks)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_TRUE(lab::registered(Hook::Lev2));
	EXPECT_EQ(run("moxctl hook off lev2").status, 0);
	EXPECT_FALSE(lab::registered(Hook::Lev2));
	EXPECT_EQ(run("moxctl hook on lev2").status, 0);
	EXPECT_TRUE(lab::registered(Hook::Lev2));
	put(Hook::Lev2, plain());
	EXPECT_TRUE(socket.receive());
	EXPECT_EQ(run("moxctl hook off all").status, 0);
	EXPECT_EQ(lab::registrations(), 0u);
	EXPECT_EQ(run("moxctl hook on all").status, 0);
	EXPECT_TRUE(lab::registered(Hook::Lev2));
	EXPECT_FALSE(lab::registered(Hook::Ipv4)) << "no rules there";
}

TEST_F(Moxctl, filter)
{
	auto word = [](uint32_t offset) { return lab::peek32("g_pktd_kdbg_filter", offset); };
	Ran ran = run(
		"moxctl filter set --vlan 100 --src-mac 02:00:00:00:00:01 --src-if 7 --dst-ip 10.0.0.17");
	EXPECT_EQ(ran.status, 0) << ran.err;
	EXPECT_EQ(lab::peek8("g_pktd_kdbg_filter"), 1);
	EXPECT_EQ(word(4), 0x2u | 0x4u | 0x10u | 0x80u);
	EXPECT_EQ(word(8), htonl(100));
	EXPECT_EQ(lab::peek8("g_pktd_kdbg_filter", 12), 2);
	EXPECT_EQ(lab::peek8("g_pktd_kdbg_filter", 17), 1);
	EXPECT_EQ(word(24), 7u);
	EXPECT_EQ(word(36), htonl(0x0a000011));

	EXPECT_EQ(run("moxctl filter set --dst-ip fe80::17").status, 0);
	EXPECT_EQ(word(4), 0x200u);
	EXPECT_EQ(word(8), 0u) << "replaced as a whole";
	EXPECT_EQ(word(56), htonl(0xfe800000));
	EXPECT_EQ(word(68), htonl(0x17));

	EXPECT_EQ(run("moxctl filter off").status, 0);
	EXPECT_EQ(lab::peek8("g_pktd_kdbg_filter"), 0);
	EXPECT_EQ(word(4), 0u);
}

TEST_F(Moxctl, tech)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	Ran ran = run("moxctl tech");
	EXPECT_EQ(ran.status, 0) << ran.err;
	EXPECT_EQ(ran.out, contents("/tmp/vsd/0/ef/af_packet/afpacketdump"));
	EXPECT_TRUE(ran.out.starts_with(
		"**************** AF-PACKET DUMP REGULAR START ****************\n"))
		<< ran.out;
	EXPECT_TRUE(
		ran.out.ends_with("**************** AF-PACKET DUMP MEM END ****************\n\n"))
		<< ran.out;
	EXPECT_TRUE(holds(ran.out, "pid:           " + std::to_string(::getpid()) + "\n"));

	EXPECT_EQ(
		run("mkdir -p /data/var/run/vsd/5/x && cd /data/var/run/vsd/5/x && moxctl tech --output /tmp/saved")
			.status,
		0);
	EXPECT_EQ(contents("/tmp/saved"), contents("/tmp/vsd/5/ef/af_packet/afpacketdump"));
	EXPECT_TRUE(holds(contents("/tmp/saved"), "AF-PACKET DUMP MEM END"));
	run("rm -rf /tmp/saved /data/var/run/vsd");
}

TEST_F(Moxctl, tech__as_a_user_whose_file_the_module_makes_without_rights)
{
	ASSERT_EQ(run("mkdir -p /tmp/vsd && chmod 777 /tmp/vsd").status, 0);
	pid_t child = ::fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		bool changed = ::chdir("/") == 0 && ::setgid(4711) == 0 && ::setuid(4711) == 0;
		_exit(changed ? WEXITSTATUS(std::system("moxctl tech >/dev/null 2>&1")) : 99);
	}
	int status = 0;
	ASSERT_EQ(::waitpid(child, &status, 0), child);
	EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Moxctl, tech__a_dump_that_the_module_had_to_cut_is_called_incomplete)
{
	rlimit limit{ 2048, 2048 };
	ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
	std::vector<Socket> sockets;
	for (int i = 0; i < 300; ++i)
		sockets.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY, all()));
	Ran ran = run("moxctl tech");
	EXPECT_EQ(ran.status, 3);
	EXPECT_TRUE(holds(ran.err, "the dump is incomplete")) << ran.err;
	EXPECT_TRUE(holds(ran.out, "AF-PACKET DUMP MEM END"));
}

TEST_F(Moxctl, without_the_right_to_read_the_log_nothing_is_asked)
{
	ASSERT_EQ(run("echo 1 >/proc/sys/kernel/dmesg_restrict").status, 0);
	lab::clear_printk();
	pid_t child = ::fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		bool changed = ::setgid(4711) == 0 && ::setuid(4711) == 0;
		int status =
			changed ? std::system(
					  "moxctl show rules --log 2>&1 | grep -q 'kernel.dmesg_restrict=0'")
				: -1;
		_exit(WEXITSTATUS(status));
	}
	int status = 0;
	ASSERT_EQ(::waitpid(child, &status, 0), child);
	EXPECT_EQ(WEXITSTATUS(status), 0);
	EXPECT_TRUE(lab::printk_lines().empty());
	ASSERT_EQ(run("echo 0 >/proc/sys/kernel/dmesg_restrict").status, 0);
}

TEST_F(Moxctl, another_network_namespace)
{
	std::thread([] {
		ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
		Ran ran = run("moxctl show rules");
		EXPECT_EQ(ran.status, 1);
		EXPECT_TRUE(holds(ran.err, "initial network namespace")) << ran.err;
	}).join();
}

TEST_F(Moxctl, without_the_module)
{
	compare_records_ = false;
	ASSERT_EQ(unload_module("mox_ef_socket"), 0);
	for (const char *words :
	     { "show rules", "debug on", "hook off all", "filter off", "tech" }) {
		Ran ran = run(std::string("moxctl ") + words);
		EXPECT_EQ(ran.status, 1) << words;
		EXPECT_TRUE(holds(ran.err, "is mox_ef_socket.ko loaded")) << ran.err;
	}
	ASSERT_EQ(load_module("mox_ef_socket"), 0);
	EXPECT_EQ(run("moxctl show thread").status, 0);
}

} // namespace
