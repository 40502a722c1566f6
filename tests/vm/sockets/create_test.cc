// SPDX-License-Identifier: GPL-2.0-only
// socket(2) and close(2): which sockets exist, what rule a protocol gives them, what a release leaves.
#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>

#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;
using Create = VmTest;

TEST_F(Create, raw_and_dgram_are_the_types_there_are)
{
	EXPECT_EQ(Socket(SOCK_RAW).error(), 0);
	EXPECT_EQ(Socket(SOCK_DGRAM).error(), 0);
}

TEST_F(Create, every_other_type_is_refused_SOCK_PACKET_included)
{
	for (int type : { int(SOCK_STREAM), int(SOCK_RDM), int(SOCK_SEQPACKET), int(SOCK_DCCP),
			  int(SOCK_PACKET) })
		EXPECT_EQ(Socket(type).error(), ESOCKTNOSUPPORT) << "type " << type;
}

TEST_F(Create, debug_lines_of_create_and_of_a_refused_type)
{
	pin(2);
	DebugOn debug;
	Socket good(SOCK_RAW);
	EXPECT_TRUE(HasLine(lab::printk_lines(), "PACKET-CREATE", 2));
	EXPECT_TRUE(HasNoLine(lab::printk_lines(),
			      "SOCK TYPE is not SOCK_DGRAM, SOCK_RAW or SOCK_PACKET"));
	Socket bad(SOCK_STREAM);
	EXPECT_TRUE(HasLine(lab::printk_lines(),
			    "SOCK TYPE is not SOCK_DGRAM, SOCK_RAW or SOCK_PACKET", 2));
	pin(-1);
}

TEST_F(Create, nothing_is_printed_with_the_switch_off)
{
	lab::clear_printk();
	{
		Socket good(SOCK_RAW, htons(0x0806));
		Socket bad(SOCK_STREAM);
		good.bind(0);
		good.location(5);
	}
	EXPECT_TRUE(lab::printk_lines().empty());
}

TEST_F(Create, needs_no_privilege)
{
	pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		if (setgid(65534) || setuid(65534))
			_exit(3);
		Socket socket(SOCK_RAW);
		_exit(socket.error() == 0 && socket.location(PACKET_LEV2_LOC) == 0 ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
}

TEST_F(Create, without_a_protocol_there_is_no_rule_data)
{
	Socket socket(SOCK_RAW, 0);
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL]);
	EXPECT_EQ(now.items[PACKET_ETH_PROT_EQUAL], records_.items[PACKET_ETH_PROT_EQUAL]);
	EXPECT_EQ(lab::registrations(), 0u);
}

TEST_F(Create, a_protocol_is_one_ethertype_rule_kept_in_network_order)
{
	Socket socket(SOCK_RAW, htons(0x0806));
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL] + 1);
	EXPECT_EQ(now.items[PACKET_ETH_PROT_EQUAL], records_.items[PACKET_ETH_PROT_EQUAL] + 1);

	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	put(lab::Hook::Lev2, frames::arp(1));
	EXPECT_TRUE(socket.receive()) << "the ARP frame";
	put(lab::Hook::Lev2, frames::plain(0x0608));
	EXPECT_FALSE(socket.receive_now()) << "the swapped EtherType";
}

TEST_F(Create, only_the_low_16_bits_of_the_protocol_count)
{
	// The protocol of socket(2) is an int; the family keeps a half-word of it.
	Socket socket(SOCK_RAW, 0);
	socket.close();
	int fd = ::socket(MOX_PACKET_FAMILY, SOCK_RAW, int(0x30000 | htons(0x0806)));
	ASSERT_GE(fd, 0);
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL] + 1);
	::close(fd);
	fd = ::socket(MOX_PACKET_FAMILY, SOCK_RAW, 0x40000);
	ASSERT_GE(fd, 0);
	now = RuleRecords::read();
	EXPECT_EQ(now.data[PACKET_ETH_PROT_EQUAL], records_.data[PACKET_ETH_PROT_EQUAL]);
	::close(fd);
}

TEST_F(Create, a_protocol_alone_captures_nowhere)
{
	// The socket counts as running, but no location has its rule until PACKET_LOCATION.
	Socket socket(SOCK_RAW, htons(0x0806));
	EXPECT_EQ(lab::registrations(), 0u);
}

TEST_F(Create, the_kernels_socket_count_follows)
{
	long before = sockets_in_use();
	ASSERT_GE(before, 0) << "no PACKET row in /proc/net/protocols";
	{
		Socket one, two(SOCK_DGRAM), three(SOCK_RAW, htons(0x0800));
		EXPECT_EQ(sockets_in_use(), before + 3);
		Socket refused(SOCK_STREAM);
		EXPECT_EQ(sockets_in_use(), before + 3);
	}
	EXPECT_EQ(sockets_in_use(), before);
}

TEST_F(Create, operations_that_the_family_has_not)
{
	Socket socket;
	sockaddr_ll address{};
	address.sll_family = AF_PACKET;
	EXPECT_EQ(::connect(socket.fd(), reinterpret_cast<sockaddr *>(&address), sizeof address),
		  -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
	EXPECT_EQ(::listen(socket.fd(), 1), -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
	EXPECT_EQ(::accept(socket.fd(), nullptr, nullptr), -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
	EXPECT_EQ(::shutdown(socket.fd(), SHUT_RDWR), -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
	int pair[2];
	EXPECT_EQ(::socketpair(MOX_PACKET_FAMILY, SOCK_RAW, 0, pair), -1);
	EXPECT_EQ(errno, EOPNOTSUPP);
}

TEST_F(Create, release_prints_it_and_frees_the_rule)
{
	pin(1);
	Socket socket(SOCK_RAW, htons(0x0806));
	ASSERT_EQ(socket.add(u8s(PACKET_IPv4_PROT_EQUAL, { 1, 6, 17 })), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	ASSERT_EQ(lab::registrations(), 1u);
	{
		DebugOn debug;
		socket.close();
		EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-RELEASE", 1));
	}
	EXPECT_EQ(lab::registrations(), 0u);
	pin(-1);
	// The record counters are compared by the fixture.
}

TEST_F(Create, release_counts_the_buffers_it_throws_away)
{
	uint32_t before = lab::peek32("g_free_skb_num");
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (int i = 0; i < 3; ++i)
		put(lab::Hook::Lev2, frames::plain());
	socket.close();
	EXPECT_EQ(lab::peek32("g_free_skb_num"), before + 3);
}

TEST_F(Create, reading_counts_the_buffer_too)
{
	uint32_t before = lab::peek32("g_free_skb_num");
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	put(lab::Hook::Lev2, frames::plain());
	ASSERT_TRUE(socket.receive());
	EXPECT_EQ(lab::peek32("g_free_skb_num"), before + 1);
}

TEST_F(Create, five_hundred_sockets_come_and_go)
{
	{
		std::vector<Socket> sockets;
		for (int i = 0; i < 500; ++i) {
			sockets.emplace_back(i % 2 ? SOCK_RAW : SOCK_DGRAM,
					     htons(uint16_t(0x9000 + i % 7)));
			ASSERT_EQ(sockets.back().error(), 0) << i;
			ASSERT_EQ(sockets.back().treatment(1 + i % 5), 0);
			ASSERT_EQ(sockets.back().location(i % 2 ? PACKET_LEV2_LOC
								: PACKET_IPv4_LOC),
				  0);
		}
		EXPECT_EQ(lab::registrations(), 2u);
		// Out of order: the lists are cut in the middle, at the head and at the tail.
		for (size_t i = 0; i < sockets.size(); i += 3)
			sockets[i].close();
	}
	EXPECT_EQ(lab::registrations(), 0u);
}

TEST_F(Create, concurrent_create_and_close_on_four_cpus)
{
	std::vector<std::thread> threads;
	for (int cpu = 0; cpu < 4; ++cpu)
		threads.emplace_back([cpu] {
			pin(cpu);
			for (int i = 0; i < 150; ++i) {
				Socket socket(SOCK_RAW, htons(uint16_t(0x9100 + cpu)));
				EXPECT_EQ(socket.error(), 0);
				EXPECT_EQ(socket.location(PACKET_LEV2_LOC), 0);
			}
		});
	for (std::thread &thread : threads)
		thread.join();
	// The record counters are plain words and may drift when four CPUs change them at once.
	compare_records_ = false;
}

} // namespace
