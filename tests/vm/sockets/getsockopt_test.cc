// SPDX-License-Identifier: GPL-2.0-only
// getsockopt: the statistics that clear what they read, two options that always read 0, and odd lengths.
#include <cerrno>
#include <cstring>

#include "contract/sockets.h"
#include "support/fixture.h"

namespace {

using namespace vm;
using Getsockopt = VmTest;

/// getsockopt into 16 bytes of 0xAA with the length given; 0 or the errno, the length reported in `length`.
int get(Socket &socket, int option, uint8_t (&reply)[16], socklen_t &length,
	int level = MOX_SOL_PACKET)
{
	std::memset(reply, 0xaa, sizeof reply);
	return ::getsockopt(socket.fd(), level, option, reply, &length) ? errno : 0;
}

uint32_t word(const uint8_t *bytes)
{
	uint32_t value;
	std::memcpy(&value, bytes, 4);
	return value;
}

TEST_F(Getsockopt, a_foreign_level_is_no_protocol_option)
{
	Socket socket;
	uint8_t reply[16];
	for (int level : { 0 /* SOL_IP */, 262, 264 }) {
		socklen_t length = 8;
		EXPECT_EQ(get(socket, MOX_PACKET_STATISTICS, reply, length, level), ENOPROTOOPT)
			<< level;
	}
}

TEST_F(Getsockopt, the_level_is_looked_at_before_the_length)
{
	Socket socket;
	uint8_t reply[16];
	EXPECT_EQ(::getsockopt(socket.fd(), 0, MOX_PACKET_STATISTICS, reply,
			       reinterpret_cast<socklen_t *>(8)),
		  -1);
	EXPECT_EQ(errno, ENOPROTOOPT);
}

TEST_F(Getsockopt, only_6_8_and_9_can_be_read)
{
	Socket socket;
	uint8_t reply[16];
	for (int option = -1; option <= 30; ++option) {
		socklen_t length = 8;
		EXPECT_EQ(get(socket, option, reply, length), contract::get_option_error(option))
			<< option;
	}
}

TEST_F(Getsockopt, a_negative_length_is_invalid_for_every_option)
{
	Socket socket;
	uint8_t reply[16];
	for (int option : { 6, 8, 9, 15 }) {
		socklen_t length = socklen_t(-1);
		EXPECT_EQ(get(socket, option, reply, length), EINVAL) << option;
	}
}

TEST_F(Getsockopt, a_length_or_buffer_out_of_reach_is_a_fault)
{
	Socket socket;
	uint8_t reply[16];
	EXPECT_EQ(::getsockopt(socket.fd(), MOX_SOL_PACKET, 6, reply,
			       reinterpret_cast<socklen_t *>(8)),
		  -1);
	EXPECT_EQ(errno, EFAULT);
	for (int option : { 6, 8, 9 }) {
		socklen_t length = 8;
		EXPECT_EQ(::getsockopt(socket.fd(), MOX_SOL_PACKET, option,
				       reinterpret_cast<void *>(8), &length),
			  -1)
			<< option;
		EXPECT_EQ(errno, EFAULT) << option;
	}
}

TEST_F(Getsockopt, lengths_are_capped_and_short_ones_cut_the_reply)
{
	struct Row {
		int option;
		socklen_t given, wanted;
	};
	Socket socket;
	for (Row row : { Row{ 6, 0, 0 },
			 { 6, 1, 1 },
			 { 6, 4, 4 },
			 { 6, 7, 7 },
			 { 6, 8, 8 },
			 { 6, 9, 8 },
			 { 6, 0x7fffffff, 8 },
			 { 8, 0, 0 },
			 { 8, 1, 1 },
			 { 8, 3, 3 },
			 { 8, 4, 4 },
			 { 8, 5, 4 },
			 { 8, 4096, 4 },
			 { 9, 0, 0 },
			 { 9, 2, 2 },
			 { 9, 4, 4 },
			 { 9, 16, 4 } }) {
		uint8_t reply[16];
		socklen_t length = row.given;
		ASSERT_EQ(get(socket, row.option, reply, length), 0)
			<< row.option << " " << row.given;
		EXPECT_EQ(length, row.wanted) << row.option << " " << row.given;
		for (socklen_t i = 0; i < sizeof reply; ++i)
			EXPECT_EQ(reply[i], i < row.wanted ? 0 : 0xaa)
				<< row.option << " " << row.given << " byte " << i;
	}
}

TEST_F(Getsockopt, auxdata_and_origdev_read_zero_whatever_was_set)
{
	Socket socket;
	for (int option : { 8, 9 })
		EXPECT_EQ(socket.option(option, 1), EINVAL);
	for (int option : { 8, 9 }) {
		uint8_t reply[16];
		socklen_t length = 4;
		ASSERT_EQ(get(socket, option, reply, length), 0);
		EXPECT_EQ(word(reply), 0u);
	}
}

TEST_F(Getsockopt, statistics_are_cleared_by_the_reading)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (int i = 0; i < 3; ++i)
		put(lab::Hook::Lev2, frames::plain());
	mox_packet_stats first = socket.stats();
	EXPECT_EQ(first.packets, 3u);
	EXPECT_EQ(first.drops, 0u);
	put(lab::Hook::Lev2, frames::plain());
	mox_packet_stats second = socket.stats();
	EXPECT_EQ(second.packets, 1u) << "only what came in between";
	mox_packet_stats third = socket.stats();
	EXPECT_EQ(third.packets, 0u);
	EXPECT_EQ(socket.drain(), 4u);
}

TEST_F(Getsockopt, even_a_reading_of_no_byte_clears)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	put(lab::Hook::Lev2, frames::plain());
	uint8_t reply[16];
	socklen_t length = 0;
	ASSERT_EQ(get(socket, 6, reply, length), 0);
	EXPECT_EQ(socket.stats().packets, 0u);
}

TEST_F(Getsockopt, a_faulting_reading_has_cleared_too)
{
	// The counters are taken and cleared before the reply is copied out.
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	put(lab::Hook::Lev2, frames::plain());
	socklen_t length = 8;
	ASSERT_EQ(::getsockopt(socket.fd(), MOX_SOL_PACKET, 6, reinterpret_cast<void *>(8),
			       &length),
		  -1);
	EXPECT_EQ(socket.stats().packets, 0u);
}

TEST_F(Getsockopt, packets_counts_the_drops_too)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	int little = 1;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	const int kFrames = 200;
	for (int i = 0; i < kFrames; ++i)
		lab::inject(lab::Hook::Lev2, frames::plain(0x88b5, 600));
	ASSERT_TRUE(lab::settle());
	mox_packet_stats stats = socket.stats();
	size_t received = socket.drain();
	EXPECT_EQ(stats.packets, uint32_t(kFrames));
	EXPECT_GT(stats.drops, 0u);
	EXPECT_EQ(stats.packets - stats.drops, received);
}

TEST_F(Getsockopt, reading_another_option_clears_nothing)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	put(lab::Hook::Lev2, frames::plain());
	uint8_t reply[16];
	socklen_t length = 4;
	ASSERT_EQ(get(socket, 8, reply, length), 0);
	EXPECT_EQ(socket.stats().packets, 1u);
}

} // namespace
