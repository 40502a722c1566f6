// SPDX-License-Identifier: GPL-2.0-only
// Every allocation that a socket call makes fails once: the call answers, nothing is left behind, the module lives on.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include "support/failnth.h"
#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;

class AllocFailure : public VmTest {
protected:
	void SetUp() override
	{
		if (!can_inject_failures())
			GTEST_SKIP() << "this kernel injects no failures; the checked one does";
		VmTest::SetUp();
		lab::poke8("mox_packet_debug", 0, 1);
		lab::clear_printk();
	}
	void TearDown() override
	{
		if (IsSkipped())
			return;
		lab::poke8("mox_packet_debug", 0, 0);
		VmTest::TearDown();
	}
	static uint32_t failures(const char *stats) { return lab::peek32(stats, 22 * 4); }
	/// The live counters must be as they were at the beginning of the test.
	void nothing_left(const char *what)
	{
		RuleRecords now = RuleRecords::read();
		for (int i = 0; i < 22; ++i) {
			ASSERT_EQ(now.data[i], records_.data[i]) << what << ": data counter " << i;
			ASSERT_EQ(now.items[i], records_.items[i])
				<< what << ": item counter " << i;
		}
		ASSERT_EQ(now.buffers_alloc, now.buffers_free) << what;
		ASSERT_EQ(lab::registrations(), 0u) << what;
	}
};

TEST_F(AllocFailure, create_with_a_protocol)
{
	std::set<int> errors;
	uint32_t data = failures("g_regular_data_stats"), items = failures("g_regular_item_stats");
	int injected = with_each_failure(
		[&] {
			Socket socket(SOCK_RAW, htons(0x0806));
			errors.insert(socket.error());
		},
		[&](bool) { nothing_left("create"); });
	EXPECT_GT(injected, 4);
	for (int error : errors)
		EXPECT_TRUE(error == 0 || error == ENOMEM || error == ENOBUFS || error == ENFILE)
			<< strerror(error);
	EXPECT_TRUE(errors.count(ENOMEM)) << "no rule datum";
	EXPECT_TRUE(errors.count(ENOBUFS)) << "no socket";
	EXPECT_EQ(failures("g_regular_data_stats"), data + 1);
	EXPECT_EQ(failures("g_regular_item_stats"), items + 1);
	auto lines = lab::printk_lines();
	EXPECT_TRUE(HasLine(lines, "Can not alloc sock"));
	EXPECT_TRUE(HasLine(lines, "Failed to kmalloc buf.")) << "the path buffer";
	EXPECT_TRUE(HasLine(lines, "MOX-PACKET-ALLOC-INIT-DATA: alloc failed!"));
	EXPECT_TRUE(HasLine(lines, "MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!"));
	EXPECT_TRUE(HasLine(lines, "MOX-PACKET-ADD-DATA-TO-REGULAR: alloc item failed"));
}

TEST_F(AllocFailure, the_path_buffer_is_missed_at_emergency_level_and_counts_as_vsd_0)
{
	bool created_without_buffer = false;
	int error = 0;
	lab::clear_printk();
	with_each_failure([&] { error = Socket(SOCK_RAW, 0).error(); },
			  [&](bool) {
				  for (const std::string &line : lab::printk_lines())
					  if (line == "\1"
						      "0Failed to kmalloc buf.\n")
						  created_without_buffer |= error == 0;
				  lab::clear_printk();
			  });
	EXPECT_TRUE(created_without_buffer);
}

TEST_F(AllocFailure, bind_of_a_running_socket_with_a_new_protocol)
{
	std::set<int> errors;
	uint16_t protocol = 0x9000;
	int injected = 0;
	// A fresh socket for each run: a bind that half succeeded leaves its protocol behind, as it should.
	FailNth injector;
	for (unsigned nth = 1; nth < 100; ++nth) {
		Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
		injector.arm(nth);
		int error = socket.bind(lab::kPortA, htons(++protocol));
		bool hit = injector.disarm() == 0;
		errors.insert(error);
		if (!hit)
			break;
		++injected;
		EXPECT_EQ(lab::registered(Hook::Lev2), error == 0 || error == EFAULT)
			<< "a failed datum leaves the socket out";
		EXPECT_EQ(socket.bind(lab::kPortA, htons(protocol)), 0);
		EXPECT_TRUE(lab::registered(Hook::Lev2)) << "and the next bind brings it back";
		socket.close();
		nothing_left("bind");
	}
	EXPECT_GT(injected, 3);
	for (int error : errors)
		EXPECT_TRUE(error == 0 || error == ENOMEM || error == EFAULT) << strerror(error);
	EXPECT_TRUE(errors.count(ENOMEM));
	auto lines = lab::printk_lines();
	EXPECT_TRUE(HasLine(lines, "MOX-PACKET-DO-BIND: Alloc data failed"));
	EXPECT_TRUE(HasLine(lines, "Failed to kmalloc buf."));
}

TEST_F(AllocFailure, adding_and_deleting_rules_of_a_running_socket)
{
	std::set<int> errors;
	uint32_t data = failures("g_regular_data_stats"), items = failures("g_regular_item_stats");
	const Rule values = be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 67, 68, 69 });
	FailNth injector;
	int injected = 0;
	for (int option : { MOX_PACKET_ADD_RULE, MOX_PACKET_DEL_RULE })
		for (unsigned nth = 1; nth < 200; ++nth) {
			Socket socket;
			ASSERT_EQ(socket.add(be16s(PACKET_ETH_PROT_EQUAL, { 0x0800, 0x0806 })), 0);
			if (option == MOX_PACKET_DEL_RULE) {
				ASSERT_EQ(socket.add(values), 0);
			}
			ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
			ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
			Bytes record = values.record();
			injector.arm(nth);
			int error = socket.option_raw(MOX_SOL_PACKET, option, record.data(),
						      record.size());
			bool hit = injector.disarm() == 0;
			errors.insert(error);
			if (!hit) {
				EXPECT_EQ(error, 0);
				break;
			}
			++injected;
			// In for a half-indexed rule too, out after ENOMEM in the middle; whatever it is, the frame does no harm and
			// the next rule change brings the socket back.
			if (lab::registered(Hook::Lev2))
				put(Hook::Lev2, ipv4(17, udp(1, 67)));
			EXPECT_EQ(socket.add(ethertype(0x0800)), 0);
			EXPECT_TRUE(lab::registered(Hook::Lev2));
			put(Hook::Lev2, arp(1));
			socket.close();
			nothing_left(option == MOX_PACKET_ADD_RULE ? "add" : "delete");
		}
	EXPECT_GT(injected, 20);
	for (int error : errors)
		EXPECT_TRUE(error == 0 || error == ENOMEM || error == EFAULT) << strerror(error);
	EXPECT_TRUE(errors.count(ENOMEM));
	EXPECT_EQ(errors.count(EFAULT) != 0, user_copies_can_fail()) << "the copy from user space";
	EXPECT_GT(failures("g_regular_data_stats"), data);
	EXPECT_GT(failures("g_regular_item_stats"), items);
	auto lines = lab::printk_lines();
	for (const char *text :
	     { "PACKET-SETSOCKOPT: ENOMEM", "MOX-PACKET-DEAL-REGULAR-DATA: Alloc data failed",
	       "MOX-PACKET-ALLOC-INIT-DATA: alloc failed!",
	       "MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!",
	       "PKT-ALLOC-FILTER-LIST-DATA: alloc failed!", "PKT-ALLOC-REGULAR-DATA: alloc failed!",
	       "PKT-ADD-REGULAR-TO-FILTER-LIST: add fail, continue!",
	       "PKT-ADD-REGULAR-TO-MATCH-LIST: alloc regular failed",
	       "PKT-ADD-REGULAR-TO-MATCH-LIST: alloc item failed",
	       "PKT-ADD-REGULAR-TO-MATCH-LIST: alloc data fail" })
		EXPECT_TRUE(HasLine(lines, text));
	if (user_copies_can_fail()) {
		EXPECT_TRUE(HasLine(lines, "PACKET-SETSOCKOPT: copy from user failed"));
	}
}

TEST_F(AllocFailure, packet_all)
{
	FailNth injector;
	std::set<int> errors;
	for (unsigned nth = 1; nth < 100; ++nth) {
		Socket socket;
		ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
		ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
		Bytes record = all().record();
		injector.arm(nth);
		int error = socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, record.data(),
					      record.size());
		bool hit = injector.disarm() == 0;
		errors.insert(error);
		if (!hit)
			break;
		EXPECT_EQ(socket.add(all()), 0);
		put(Hook::Lev2, plain());
		EXPECT_EQ(socket.drain(), 1u);
		socket.close();
		nothing_left("PACKET_ALL");
	}
	EXPECT_TRUE(errors.count(ENOMEM));
	EXPECT_TRUE(HasLine(lab::printk_lines(),
			    "MOX-PACKET-DEAL-PACKET-ALL-REGULAR: alloc item failed"));
}

TEST_F(AllocFailure, moving_between_locations)
{
	// Indexing never fails the call: a key or a copy less is all that is missing.
	FailNth injector;
	int injected = 0;
	for (unsigned nth = 1; nth < 200; ++nth) {
		Socket socket;
		ASSERT_EQ(socket.add(be16s(PACKET_ETH_PROT_EQUAL, { 0x0800, 0x0806 })), 0);
		ASSERT_EQ(socket.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA, lab::kPortB })), 0);
		ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
		uint32_t location = PACKET_LEV2_LOC;
		injector.arm(nth);
		int error = socket.location(location);
		bool hit = injector.disarm() == 0;
		if (!hit)
			break;
		++injected;
		EXPECT_TRUE(error == 0 || error == EFAULT) << strerror(error);
		EXPECT_EQ(lab::registered(Hook::Lev2), error == 0);
		EXPECT_EQ(socket.location(0), 0);
		EXPECT_EQ(socket.location(location), 0);
		EXPECT_EQ(put(Hook::Lev2, arp(1)), lab::kTaken)
			<< "whole again after the next change";
		EXPECT_EQ(socket.drain(), 1u);
		socket.close();
		nothing_left("location");
	}
	EXPECT_GT(injected, user_copies_can_fail() ? 10 : 5);
}

TEST_F(AllocFailure, recvmsg_and_getsockopt)
{
	if (!user_copies_can_fail())
		GTEST_SKIP()
			<< "this kernel does not make copies to user space fail, and nothing else can";
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(socket.ctrl(true), 0);
	uint32_t freed = lab::peek32("g_free_skb_num");
	uint32_t sent = 0, faults = 0, reply_faults = 0;
	int injected = with_each_failure(
		[&] {
			uint8_t buffer[100];
			mox_packet_stats stats;
			socklen_t length = sizeof stats;
			if (::getsockopt(socket.fd(), MOX_SOL_PACKET, MOX_PACKET_STATISTICS, &stats,
					 &length) &&
			    errno == EFAULT)
				++reply_faults;
			if (::recv(socket.fd(), buffer, sizeof buffer, MSG_DONTWAIT) < 0 &&
			    errno == EFAULT)
				++faults;
		},
		[&](bool) {
			++sent;
			put(Hook::Lev2, plain());
		});
	EXPECT_GT(injected, 0);
	EXPECT_GT(faults, 0u);
	EXPECT_GT(reply_faults, 0u);
	socket.drain();
	EXPECT_EQ(lab::peek32("g_free_skb_num"), freed + sent);
}

class DeliveryFailure : public AllocFailure {
protected:
	static pid_t copy_thread()
	{
		DIR *proc = ::opendir("/proc");
		pid_t found = 0;
		while (dirent *entry = ::readdir(proc)) {
			std::ifstream comm(std::string("/proc/") + entry->d_name + "/comm");
			std::string name;
			if (std::getline(comm, name) && name == "packet-copy")
				found = std::atoi(entry->d_name);
		}
		::closedir(proc);
		return found;
	}
};

TEST_F(DeliveryFailure, without_a_socket_buffer)
{
	pid_t thread = copy_thread();
	ASSERT_GT(thread, 0) << "no kernel thread named packet-copy";
	Socket first = capture(PACKET_LEV2_LOC, PACKET_COPY, all()),
	       second = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	FailNth injector(thread);
	// The frame is allocated once, its head and its data, and each socket gets a clone of it. When the
	// frame cannot be, each socket gets a buffer of its own, which the next allocations suffice for. A
	// leak checker's own records, which it can do without, may be in between.
	int missed = 0;
	for (unsigned nth = 1; nth < 20; ++nth) {
		uint32_t failed = lab::peek32("g_packet_thread_debug", 4);
		lab::Frame frame = plain();
		frame.flags = lab::kTraceMark;
		lab::clear_printk();
		injector.arm(nth);
		EXPECT_EQ(put(Hook::Lev2, frame), lab::kGoOn);
		if (injector.disarm() != 0)
			break;
		uint32_t missing = lab::peek32("g_packet_thread_debug", 4) - failed;
		EXPECT_EQ(bool(HasLine(lab::printk_lines(), "MOX-PACKET-FW: alloc skb failed.")),
			  missing == 1);
		EXPECT_EQ(first.drain() + second.drain(), 2 - missing)
			<< "one socket gets nothing and the walk goes on";
		EXPECT_EQ(first.stats().packets + second.stats().packets, 2 - missing)
			<< "neither received nor dropped";
		missed += missing;
	}
	EXPECT_GE(missed, 2) << "a clone for each of the two sockets";
	first.drain();
	second.drain();
}

TEST_F(DeliveryFailure, a_trap_without_a_buffer_does_not_end_the_walk)
{
	Socket copy = capture(PACKET_LEV2_LOC, PACKET_COPY, all()),
	       trap = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
	FailNth injector(copy_thread());
	injector.arm(1);
	EXPECT_EQ(put(Hook::Lev2, plain()), lab::kTaken);
	ASSERT_EQ(injector.disarm(), 0u);
	EXPECT_EQ(trap.drain(), 0u);
	EXPECT_EQ(copy.drain(), 1u);
}

TEST_F(DeliveryFailure, wlan_delivery_too)
{
	Socket first = capture(PACKET_WLAN_LOC, PACKET_COPY, all()),
	       second = capture(PACKET_WLAN_LOC, PACKET_COPY, all());
	FailNth injector(copy_thread());
	int missed = 0;
	for (unsigned nth = 1; nth < 20; ++nth) {
		uint32_t failed = lab::peek32("g_packet_thread_debug", 4);
		injector.arm(nth);
		put(Hook::WlanIn, wlan80211(true));
		if (injector.disarm() != 0)
			break;
		uint32_t missing = lab::peek32("g_packet_thread_debug", 4) - failed;
		EXPECT_EQ(first.drain() + second.drain(), 2 - missing);
		missed += missing;
	}
	EXPECT_GE(missed, 2) << "a clone for each of the two sockets";
	first.drain();
	second.drain();
}

TEST_F(DeliveryFailure, clones_that_fail_at_random_leave_the_books_balanced)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	size_t received = 0, failed = 0;
	for (int i = 0; i < 300; ++i) {
		bool fails = i % 7 == 3;
		if (fails) {
			lab::fail(lab::Fail::Clone, 1);
			++failed;
		}
		lab::inject(Hook::Lev2, plain(), i % 4);
		if (i % 50 == 49) {
			ASSERT_TRUE(lab::settle());
			received += socket.drain();
		}
	}
	ASSERT_TRUE(lab::settle());
	received += socket.drain();
	EXPECT_EQ(received + failed, 300u);
}

} // namespace
