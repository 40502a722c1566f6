// SPDX-License-Identifier: GPL-2.0-only
// The reports in the log, to the byte, on known sockets.
#include "control.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "scene.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;

using Report = ControlTest;

TEST_F(Report, a_socket_word_by_word)
{
	Socket socket = capture(PACKET_IPv6_LOC, PACKET_COPY,
				u8s(PACKET_ICMPV6_TYPE_EQUAL, { 133, 135 }));
	const RuleText types = text_of(u8s(PACKET_ICMPV6_TYPE_EQUAL, { 133, 135 }));
	EXPECT_EQ(answer(MOX_MSG_SHOW_FIRST + 3),
		  joined(location_pieces(
			  PACKET_IPv6_LOC, { own_socket(PACKET_IPv6_LOC, PACKET_COPY, { types }) },
			  { { PACKET_ICMPV6_TYPE_EQUAL, "133  ", { own_copy(PACKET_COPY) } },
			    { PACKET_ICMPV6_TYPE_EQUAL, "135  ", { own_copy(PACKET_COPY) } } })));
}

TEST_F(Report, several_sockets_that_share_keys)
{
	LayerTwoScene scene;
	EXPECT_EQ(answer(1),
		  joined(location_pieces(PACKET_LEV2_LOC, scene.sockets(), scene.entries())));
	scene.trap.close();
	auto sockets = scene.sockets();
	auto entries = scene.entries();
	sockets.erase(sockets.begin());
	entries.pop_back();
	EXPECT_EQ(answer(1), joined(location_pieces(PACKET_LEV2_LOC, sockets, entries)));
}

TEST_F(Report, each_line_is_one_call_of_the_logging_function)
{
	LayerTwoScene scene;
	said();
	ask(1);
	Pieces calls = lab::printk_lines();
	ASSERT_FALSE(calls.empty());
	calls.erase(calls.begin());
	EXPECT_EQ(calls, location_pieces(PACKET_LEV2_LOC, scene.sockets(), scene.entries()));
}

TEST_F(Report, more_sockets_than_the_module_prints_in_one_go)
{
	// It lets go of the library now and then: with nothing changing meanwhile that must not show.
	std::vector<Socket> sockets;
	std::vector<SocketText> texts;
	std::vector<EntryText> entries;
	for (uint16_t i = 0; i < 45; ++i) {
		sockets.push_back(
			capture(PACKET_IPv4_LOC, PACKET_COPY,
				u8s(PACKET_IPv4_PROT_EQUAL, { uint8_t(i), uint8_t(i + 1) })));
		RuleText rule{ PACKET_IPv4_PROT_EQUAL,
			       { std::to_string(i) + "  ", std::to_string(i + 1) + "  " } };
		texts.push_back(own_socket(PACKET_IPv4_LOC, PACKET_COPY, { rule }));
		if (entries.empty())
			entries.push_back({ rule.type, rule.data[0], {} });
		entries.back().copies.push_back(own_copy(PACKET_COPY));
		entries.push_back({ rule.type, rule.data[1], { own_copy(PACKET_COPY) } });
	}
	EXPECT_EQ(answer(2), joined(location_pieces(PACKET_IPv4_LOC, texts, entries)));
	std::string by_pid = "show process " + std::to_string(::getpid()) + " regular:\n";
	for (const SocketText &text : texts)
		by_pid += joined(text.pieces());
	EXPECT_EQ(answer(MOX_MSG_SHOW_PID, words({ uint32_t(::getpid()) })), by_pid);
}

TEST_F(Report, every_location_and_all_of_them)
{
	EveryLocationScene scene;
	std::string everything;
	for (unsigned location = 1; location <= 8; ++location) {
		std::string report = joined(location_pieces(location, scene.sockets_at(location),
							    scene.entries_at(location)));
		EXPECT_EQ(answer(uint16_t(location - 1)), report) << location;
		everything += report + "\n";
	}
	EXPECT_EQ(answer(MOX_MSG_SHOW_ALL), everything);
}

TEST_F(Report, every_type_of_rule_with_its_data)
{
	const Rule rules[] = {
		rule(PACKET_PACKET_CODE_EQUAL, { Bytes{ 5, 9 }, Bytes{ 255, 0 } }),
		rule(PACKET_DEST_MAC_EQUAL, { Bytes{ 1, 0x80, 0xc2, 0, 0, 0x0e } }),
		rule(PACKET_SRC_MAC_EQUAL, { Bytes{ 2, 0, 0, 0, 0, 0xab } }),
		be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 3 }),
		be16s(PACKET_SNAP_ETH_TYPE_EQUAL, { 0x809b }),
		u8s(PACKET_IPv4_PROT_EQUAL, { 6, 255 }),
		u8s(PACKET_IPv6_PROT_EQUAL, { 58 }),
		be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 53 }),
		be16s(PACKET_IPv4_SRC_PORT_EQUAL, { 65534 }),
		be16s(PACKET_IPv6_DEST_PORT_EQUAL, { 546 }),
		u32s(PACKET_SRC_INTF_EQUAL, { 7, 0xffffffff }),
		u8s(PACKET_ICMPV6_TYPE_EQUAL, { 135 }),
		flag(PACKET_IPv4_MCAST_TRAFFIC),
		flag(PACKET_IPv6_MCAST_TRAFFIC),
		u8s(PACKET_EAPOL_TYPE_EQUAL, { 3 }),
		u8s(PACKET_EAPOL_TYPE_WPS, { 200 }),
		u32s(PACKET_PID_T, { 0x1267, 0xffffffff }),
		flag(PACKET_WLAN_MGNT),
		be16s(PACKET_ARP_TYPE, { 2 }),
	};
	Socket socket;
	SocketText text = own_socket(PACKET_RESV_LOC, PACKET_COPY_LOCAL, {});
	for (const Rule &rule : rules) {
		ASSERT_EQ(socket.add(rule), 0) << rule.type;
		text.rules.push_back(text_of(rule));
	}
	ASSERT_EQ(socket.treatment(PACKET_COPY_LOCAL), 0);
	ASSERT_EQ(socket.location(PACKET_RESV_LOC), 0);
	std::vector<RuleText> rest(text.rules.begin() + 1, text.rules.end());
	EXPECT_EQ(answer(6),
		  joined(location_pieces(PACKET_RESV_LOC, { text },
					 { { PACKET_PACKET_CODE_EQUAL,
					     "code: 5, subcode: 9  ",
					     { own_copy(PACKET_COPY_LOCAL, rest) } },
					   { PACKET_PACKET_CODE_EQUAL,
					     "code: 255, subcode: 0  ",
					     { own_copy(PACKET_COPY_LOCAL, rest) } } })));
}

TEST_F(Report, counters_follow_the_traffic)
{
	LayerTwoScene scene;
	auto sockets = scene.sockets();
	for (int i = 0; i < 5; ++i)
		put(Hook::Lev2, plain());
	sockets[0].counters[contract::kRecvPackets] = 5;
	sockets[0].to_receive = 5;
	EXPECT_EQ(answer(1), joined(location_pieces(PACKET_LEV2_LOC, sockets, scene.entries())));
	EXPECT_EQ(scene.trap.drain(), 5u);
	sockets[0].to_receive = 0;
	EXPECT_EQ(answer(1), joined(location_pieces(PACKET_LEV2_LOC, sockets, scene.entries())));
	scene.trap.stats();
	sockets[0].counters[contract::kRecvPackets] = 0;
	EXPECT_EQ(answer(1), joined(location_pieces(PACKET_LEV2_LOC, sockets, scene.entries())));
	// A buffer that is too small for a second frame.
	int little = 0;
	ASSERT_EQ(::setsockopt(scene.trap.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	lab::inject_many(Hook::Lev2, plain(0x88b5, 1500), 20, 0);
	ASSERT_TRUE(lab::settle());
	uint32_t kept = uint32_t(scene.trap.drain());
	ASSERT_LT(kept, 20u);
	sockets[0].counters[contract::kRecvPackets] = kept;
	sockets[0].counters[contract::kRcvbufFullDrops] = 20 - kept;
	EXPECT_EQ(answer(1), joined(location_pieces(PACKET_LEV2_LOC, sockets, scene.entries())));
}

TEST_F(Report, queues_of_every_cpu_that_is_present)
{
	// A machine that lost CPUs would also skip what needs several.
	utsname kernel;
	ASSERT_EQ(::uname(&kernel), 0);
	ASSERT_EQ(present_cpus(), std::strstr(kernel.version, "SMP") ? 4 : 1);
	Pieces wanted;
	for (unsigned location = 1; location <= 8; ++location)
		append(wanted, queue_pieces(location));
	EXPECT_EQ(answer(MOX_MSG_SHOW_QUEUES), joined(wanted));
}

TEST_F(Report, a_cpu_that_is_present_and_offline_is_listed)
{
	if (present_cpus() != 4)
		GTEST_SKIP() << "this machine has no CPU 3";
	std::ifstream in("/sys/devices/system/cpu/online");
	std::string online;
	in >> online;
	if (online == "0-3" && ::access("/sys/devices/system/cpu/cpu3/online", W_OK))
		GTEST_SKIP()
			<< "every CPU is online, and this kernel takes none offline (boot it with maxcpus=3)";
	std::ofstream("/sys/devices/system/cpu/cpu3/online") << "0" << std::flush;
	EXPECT_EQ(answer(MOX_MSG_SHOW_QUEUES)
			  .find("location: PACKET_LOCAL_LOC\ncpu 0 efbuff cnt:      0\n"
				"cpu 1 efbuff cnt:      0\ncpu 2 efbuff cnt:      0\n"
				"cpu 3 efbuff cnt:      0\n\n"),
		  0u);
	std::ofstream("/sys/devices/system/cpu/cpu3/online") << "1" << std::flush;
}

TEST_F(Report, a_queue_that_fills)
{
	VM_NEEDS_TWO_CPUS("there the copy thread mostly runs before the process that asks");
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	std::atomic<bool> stop{ false };
	std::thread sender([&] {
		while (!stop)
			lab::flood(Hook::Lev2, plain(), 300, 2);
	});
	const std::string count = "cpu " + std::to_string(cpu_for(2)) + " efbuff cnt:      ";
	bool filled = false;
	std::string wrong;
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
	while (!filled && std::chrono::steady_clock::now() < end) {
		std::string text = answer(MOX_MSG_SHOW_QUEUES);
		size_t at = text.find("location: PACKET_LEV2_LOC\n"), cpu = text.find(count, at);
		filled = text.compare(cpu, count.size() + 1, count + "0") != 0;
		// Of all the other queues none holds anything, ever.
		size_t line = text.find('\n', cpu);
		if (filled)
			text.replace(cpu, line - cpu, count + "0");
		Pieces wanted;
		for (unsigned location = 1; location <= 8; ++location)
			append(wanted, queue_pieces(location));
		if (text != joined(wanted))
			wrong = text;
		socket.drain();
	}
	stop = true;
	sender.join();
	EXPECT_EQ(wrong, "");
	EXPECT_TRUE(filled) << "300 frames at once never found any of them in the queue";
	EXPECT_TRUE(lab::settle());
}

TEST_F(Report, memory_counts_keys_copies_and_items)
{
	auto before = RuleRecords::read();
	EXPECT_EQ(answer(MOX_MSG_SHOW_MEMORY), joined(memory_pieces()));
	{
		LayerTwoScene scene;
		put(Hook::Lev2, plain());
		std::string text = answer(MOX_MSG_SHOW_MEMORY);
		EXPECT_EQ(text, joined(memory_pieces()));
		auto has = [&](const std::string &label, uint32_t value) {
			EXPECT_NE(text.find(label + std::to_string(value) + "\n"),
				  std::string::npos)
				<< label << value << " in\n"
				<< text;
		};
		has("FILTER LIST:  ", before.data[contract::kLiveEntries] + scene.kKeys);
		has("REGULAR:      ", before.data[contract::kLiveCopies] + scene.kCopies);
		// Two sockets' items; the copies leave out their keys, and the fetching one has one copy.
		has("ETH PRO:      ", before.items[PACKET_ETH_PROT_EQUAL] + 2);
		has("SRC INTF:     ", before.items[PACKET_SRC_INTF_EQUAL] + 2);
		has("PID TYPE:     ", before.items[PACKET_PID_T] + 2);
		has("PACKET ALL:   ", before.items[PACKET_ALL] + 2);
	}
	EXPECT_EQ(answer(MOX_MSG_SHOW_MEMORY), joined(memory_pieces()));
}

TEST_F(Report, the_copy_threads_wake_ups)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	uint32_t before = lab::peek32("g_packet_thread_debug", 0);
	put(Hook::Lev2, plain());
	EXPECT_EQ(lab::peek32("g_packet_thread_debug", 0), before + 1);
	EXPECT_EQ(answer(MOX_MSG_SHOW_THREAD), joined(thread_pieces()));
}

/// A process of another name with one socket in two locations, until it is asked to end.
class OtherProcess {
public:
	explicit OtherProcess(const char *name)
	{
		int up[2], down[2];
		EXPECT_EQ(::pipe(up) | ::pipe(down), 0);
		pid_ = ::fork();
		if (pid_ == 0) {
			::prctl(PR_SET_NAME, name);
			Socket first = capture(PACKET_LEV2_LOC, PACKET_COPY, all()),
			       second = capture(PACKET_WLAN_LOC, PACKET_COPY, all());
			char byte = 0;
			::close(down[1]);
			(void)!::write(up[1], &byte, 1);
			(void)!::read(down[0], &byte, 1);
			first.close();
			second.close();
			::_exit(0);
		}
		::close(down[0]);
		::close(up[1]);
		char byte;
		EXPECT_EQ(::read(up[0], &byte, 1), 1);
		::close(up[0]);
		down_ = down[1];
	}
	~OtherProcess()
	{
		::close(down_);
		int status = 0;
		EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
	}
	pid_t pid() const { return pid_; }

private:
	pid_t pid_;
	int down_;
};

class ProcessReport : public ControlTest {
protected:
	static Bytes name_body(const std::string &name)
	{
		return Bytes(name.c_str(), name.c_str() + name.size() + 1);
	}
	/// The report on the sockets of all locations.
	static std::string of(const std::string &head, const std::vector<SocketText> &sockets)
	{
		std::string text = "show process " + head + " regular:\n";
		for (const SocketText &socket : sockets)
			text += joined(socket.pieces());
		return text;
	}
	static std::vector<SocketText> sockets_of(const OtherProcess &other, const char *name)
	{
		return {
			{ name, other.pid(), PACKET_LEV2_LOC, PACKET_COPY, { { PACKET_ALL, {} } } },
			{ name, other.pid(), PACKET_WLAN_LOC, PACKET_COPY, { { PACKET_ALL, {} } } }
		};
	}
};

TEST_F(ProcessReport, by_name_and_by_pid)
{
	LayerTwoScene scene;
	OtherProcess other("elsewhere"), third("elsewher");
	Socket local = capture(PACKET_LOCAL_LOC, PACKET_COPY, all());
	// Location by location, and there in the order of the treatments.
	std::vector<SocketText> own{ own_socket(PACKET_LOCAL_LOC, PACKET_COPY,
						{ { PACKET_ALL, {} } }) };
	for (const SocketText &socket : scene.sockets())
		own.push_back(socket);
	const std::string pid = std::to_string(::getpid()), other_pid = std::to_string(other.pid());
	EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, name_body("vm_control")), of("vm_control", own));
	EXPECT_EQ(answer(MOX_MSG_SHOW_PID, words({ uint32_t(::getpid()) })), of(pid, own));
	EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, name_body("elsewhere")),
		  of("elsewhere", sockets_of(other, "elsewhere")));
	EXPECT_EQ(answer(MOX_MSG_SHOW_PID, words({ uint32_t(other.pid()) })),
		  of(other_pid, sockets_of(other, "elsewhere")));
	EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, name_body("elsewher")),
		  of("elsewher", sockets_of(third, "elsewher")));
	for (const char *name :
	     { "", "vm_contro", "vm_controls", "VM_CONTROL", "elsewhere2", " elsewhere" })
		EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, name_body(name)), of(name, {}))
			<< "names are compared whole";
	EXPECT_EQ(answer(MOX_MSG_SHOW_PID, words({ 999999 })), of("999999", {}));
}

TEST_F(ProcessReport, a_name_of_fifteen_letters_and_one_that_goes_on)
{
	const char *name = "fifteen-letters";
	OtherProcess other(name);
	EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, name_body(name)), of(name, sockets_of(other, name)));
	EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, name_body("fifteen-letters-and-more")),
		  of("fifteen-letters-and-more", {}))
		<< "names are compared whole, however long";
	EXPECT_EQ(answer(MOX_MSG_SHOW_NAME, Bytes(name, name + 15)),
		  of(name, sockets_of(other, name)))
		<< "the message ends before a NUL";
}

TEST_F(ProcessReport, pids_that_no_process_has)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (int32_t pid : { 0, -1, INT32_MIN }) {
		const std::string head = "show process " + std::to_string(pid) + " regular:\n";
		EXPECT_EQ(answer(MOX_MSG_SHOW_PID, words({ uint32_t(pid) })), head);
		debug(true);
		std::string lines;
		for (int location = 1; location <= 8; ++location)
			lines += tagged("MOX-PACKET-SHOW-REGULAR-SPEC: pid is <= 0!\n");
		EXPECT_EQ(printed(request(MOX_MSG_SHOW_PID, words({ uint32_t(pid) }))),
			  tagged("Deal message, length:8.\n") +
				  tagged("MSG TYPE 12, client " + std::to_string(client_.port()) +
					 "\n") +
				  asked_by(client_.port()) + head + lines);
		debug(false);
	}
}

} // namespace
