// SPDX-License-Identifier: GPL-2.0-only
// getsockopt, getname and ioctl.
#include "socket_fixture.h"

namespace {

class SockoptGet : public CreatedSocketTest {
protected:
	void TearDown() override
	{
		EXPECT_EQ(lines(), Strings{}) << "reading prints nothing";
		debug(false);
		CreatedSocketTest::TearDown();
	}
	// The call's result; the user's buffer and length are left in value and len.
	int get(int option, int wanted, int level = MOX_SOL_PACKET)
	{
		len.put(0, wanted);
		return mox_packet_getsockopt(&s.socket, level, option,
					     reinterpret_cast<char *>(value.data()),
					     reinterpret_cast<int *>(len.data()));
	}
	void count_everything()
	{
		u32 *counter = &s.po().filter_drops;
		for (u32 i = 0; i < 13; i++)
			counter[i] = i + 1;
	}
	sk_buff *queue(u32 size)
	{
		sk_buff *skb = fake::skb_alloc(size);
		memset(fake::skb_put(skb, size), 0x11, size);
		skb->iif = 7;
		skb->has_dev = false;
		EXPECT_TRUE(fake::deliver(s.sk, skb));
		return skb;
	}

	fake::UserBuf value{ 16, 0xcc }, len{ sizeof(int) };
};

// ---- getsockopt ---------------------------------------------------------------------

TEST_F(SockoptGet, getsockopt__every_option_and_level)
{
	for (int option = 0; option <= 25; option++)
		EXPECT_EQ(get(option, 8), option == 6 || option == 8 || option == 9 ? 0 : -92)
			<< option;
	for (int level : { 0, 1, 262, 264, -1 })
		for (int option : { 6, 8, 9, 15 })
			EXPECT_EQ(get(option, 8, level), -92);
}

TEST_F(SockoptGet, statistics__packets_include_drops)
{
	s.po().filter_drops = 1;
	s.po().rcvbuf_full_drops = 20;
	s.po().trim_fail_drops = 300;
	s.po().recv_packets = 4000;
	EXPECT_EQ(get(6, 8), 0);
	EXPECT_EQ(value.get<u32>(0), 4321u);
	EXPECT_EQ(value.get<u32>(4), 321u);
	EXPECT_EQ(len.get<int>(), 8);
}

TEST_F(SockoptGet, statistics__reading_clears_all_thirteen_counters)
{
	count_everything();
	s.po().vsd = 5;
	EXPECT_EQ(get(6, 8), 0);
	EXPECT_EQ(value.get<u32>(0), 4u + 6u);
	const u32 *counter = &s.po().filter_drops;
	for (u32 i = 0; i < 13; i++)
		EXPECT_EQ(counter[i], 0u) << i;
	EXPECT_EQ(&s.po().send_packets, counter + 12);
	EXPECT_EQ(s.po().vsd, 5u) << "what follows the counters stays";
}

TEST_F(SockoptGet, statistics__second_reading_shows_what_came_in_between)
{
	s.po().recv_packets = 7;
	EXPECT_EQ(get(6, 8), 0);
	s.po().recv_packets += 2;
	s.po().filter_drops += 1;
	EXPECT_EQ(get(6, 8), 0);
	EXPECT_EQ(value.get<u32>(0), 3u);
	EXPECT_EQ(value.get<u32>(4), 1u);
	EXPECT_EQ(get(6, 8), 0);
	EXPECT_EQ(value.get<u32>(0), 0u);
}

TEST_F(SockoptGet, statistics__drops_wrap_as_words_do)
{
	s.po().filter_drops = 0xffffffff;
	s.po().rcvbuf_full_drops = 3;
	s.po().recv_packets = 5;
	EXPECT_EQ(get(6, 8), 0);
	EXPECT_EQ(value.get<u32>(0), 7u);
	EXPECT_EQ(value.get<u32>(4), 2u);
}

TEST_F(SockoptGet, statistics__read_and_cleared_under_the_receive_queues_lock)
{
	LockTrace trace;
	EXPECT_EQ(get(6, 8), 0);
	EXPECT_EQ(trace.steps, (Strings{ "+rcvq", "-rcvq" }));
}

TEST_F(SockoptGet, length__is_capped_and_printed_and_no_byte_more_is_written)
{
	struct {
		int option, wanted, reply_len;
	} const cases[] = {
		{ 6, 0, 0 }, { 6, 1, 1 },          { 6, 3, 3 }, { 6, 7, 7 },   { 6, 8, 8 },
		{ 6, 9, 8 }, { 6, 0x7fffffff, 8 }, { 8, 0, 0 }, { 8, 3, 3 },   { 8, 4, 4 },
		{ 8, 5, 4 }, { 9, 2, 2 },          { 9, 4, 4 }, { 9, 100, 4 },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.option << " with " << c.wanted);
		std::fill(value.bytes.begin(), value.bytes.end(), 0xcc);
		s.po().recv_packets = 0x04030201;
		EXPECT_EQ(get(c.option, c.wanted), 0);
		EXPECT_EQ(len.get<int>(), c.reply_len);
		const u8 statistics[8] = { 1, 2, 3, 4, 0, 0, 0, 0 };
		for (int i = 0; i < 16; i++)
			EXPECT_EQ(value.bytes[i], i >= c.reply_len ? 0xcc
						  : c.option == 6  ? statistics[i]
								   : 0)
				<< i;
		EXPECT_EQ(s.po().recv_packets, c.option == 6 ? 0u : 0x04030201u);
	}
}

TEST_F(SockoptGet, length__negative)
{
	s.po().recv_packets = 3;
	for (int option : { 6, 8, 9, 15 })
		for (int wanted : { -1, -8, -0x7fffffff - 1 })
			EXPECT_EQ(get(option, wanted), -22);
	EXPECT_EQ(s.po().recv_packets, 3u) << "not read, not cleared";
}

TEST_F(SockoptGet, fault__at_the_length)
{
	s.po().recv_packets = 3;
	len.fault_at = 2;
	for (int option : { 6, 8, 9, 15 })
		EXPECT_EQ(get(option, 8), -14);
	EXPECT_EQ(s.po().recv_packets, 3u);
	EXPECT_EQ(value.bytes, Bytes(16, 0xcc));
}

TEST_F(SockoptGet, fault__while_the_length_is_written_back)
{
	for (int option : { 6, 8, 9 }) {
		kernel().fail(Fail::kPutUser);
		EXPECT_EQ(get(option, 8), -14);
		EXPECT_EQ(value.bytes, Bytes(16, 0xcc)) << "the value comes behind it";
	}
}

TEST_F(SockoptGet, fault__at_the_value)
{
	value.fault_at = 3;
	s.po().recv_packets = 3;
	EXPECT_EQ(get(8, 4), -14);
	EXPECT_EQ(get(9, 4), -14);
	EXPECT_EQ(get(6, 8), -14);
	EXPECT_EQ(s.po().recv_packets, 0u) << "read and cleared before";
	EXPECT_EQ(len.get<int>(), 8);
}

TEST_F(SockoptGet, auxdata_and_origdev__are_0_whatever_else_is_set)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, 2), 0);
	lines();
	ASSERT_EQ(s.po().flags, PO_CTRL_INFO | PO_RUNNING);
	for (int option : { 8, 9 }) {
		EXPECT_EQ(get(option, 4), 0);
		EXPECT_EQ(value.get<u32>(), 0u);
	}
}

// No option sets these bits; if one ever does, each answers for its own.
TEST_F(SockoptGet, auxdata_and_origdev__read_their_own_bits)
{
	s.po().flags = PO_AUXDATA;
	EXPECT_EQ(get(8, 4), 0);
	EXPECT_EQ(value.get<u32>(), 1u);
	EXPECT_EQ(get(9, 4), 0);
	EXPECT_EQ(value.get<u32>(), 0u);
	s.po().flags = PO_ORIGDEV;
	EXPECT_EQ(get(8, 4), 0);
	EXPECT_EQ(value.get<u32>(), 0u);
	EXPECT_EQ(get(9, 4), 0);
	EXPECT_EQ(value.get<u32>(), 1u);
	s.po().flags = 0;
}

// ---- getname ---------------------------------------------------------------------------

struct Name {
	u8 bytes[128];
	Name() { memset(bytes, 0x5a, sizeof bytes); }
	sockaddr *addr() { return reinterpret_cast<sockaddr *>(bytes); }
	Bytes head(size_t n) const { return Bytes(bytes, bytes + n); }
};

TEST_F(SockoptGet, getname__peer_is_refused_and_nothing_is_written)
{
	for (int peer : { 1, 2 }) {
		Name name;
		EXPECT_EQ(mox_packet_getname(&s.socket, name.addr(), peer), -95);
		EXPECT_EQ(name.head(128), Bytes(128, 0x5a));
	}
}

TEST_F(SockoptGet, getname__unbound_has_no_hardware_address)
{
	Name name;
	EXPECT_EQ(mox_packet_getname(&s.socket, name.addr(), 0), 12);
	// Family 17, the rest zero: the packet type too, as the buffer is old kernel stack.
	EXPECT_EQ(name.head(12), (Bytes{ 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
	EXPECT_EQ(name.bytes[20], 0x5a);
}

TEST_F(SockoptGet, getname__bound)
{
	const u8 mac[6] = { 2, 1, 0xaa, 0xbb, 0xcc, 0xdd };
	efmp().add_interface(0x01020304, "far", mac);
	ASSERT_EQ(s.bind(0x01020304, 0x0608), 0);
	lines();
	Name name;
	EXPECT_EQ(mox_packet_getname(&s.socket, name.addr(), 0), 18);
	// The protocol stays 0, whatever the socket has.
	EXPECT_EQ(name.head(18),
		  (Bytes{ 17, 0, 0, 0, 4, 3, 2, 1, 0, 0, 0, 6, 2, 1, 0xaa, 0xbb, 0xcc, 0xdd }));
	EXPECT_EQ(name.bytes[20], 0x5a);
}

TEST_F(SockoptGet, getname__interface_that_has_gone)
{
	ASSERT_EQ(s.bind(7), 0);
	lines();
	efmp().interfaces.clear();
	Name name;
	EXPECT_EQ(mox_packet_getname(&s.socket, name.addr(), 0), 12);
	EXPECT_EQ(name.head(12), (Bytes{ 17, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0 }));
}

TEST_F(SockoptGet, getname__while_another_thread_binds_is_of_one_interface)
{
	const u8 mac[6] = { 2, 1, 0xaa, 0xbb, 0xcc, 0xdd };
	efmp().add_interface(5, "near", mac);
	ASSERT_EQ(s.bind(5), 0);
	lines();
	kernel().at[Point::kFindIntf] = [&](const void *) {
		on_other_cpu([&] { EXPECT_EQ(s.bind(7), 0); });
	};
	Name name;
	EXPECT_EQ(mox_packet_getname(&s.socket, name.addr(), 0), 18);
	kernel().at.erase(Point::kFindIntf);
	lines();
	EXPECT_EQ(name.head(18),
		  (Bytes{ 17, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 6, 2, 1, 0xaa, 0xbb, 0xcc, 0xdd }));
}

TEST_F(SockoptGet, getname__unbound_where_the_platform_has_interface_0)
{
	const u8 mac[6] = { 6, 5, 4, 3, 2, 1 };
	efmp().add_interface(0, "zero", mac);
	Name name;
	EXPECT_EQ(mox_packet_getname(&s.socket, name.addr(), 0), 18);
	EXPECT_EQ(name.head(18), (Bytes{ 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 6, 6, 5, 4, 3, 2, 1 }));
}

// ---- ioctl -------------------------------------------------------------------------------

unsigned long user(fake::UserBuf &buf)
{
	return reinterpret_cast<unsigned long>(buf.data());
}

TEST_F(SockoptGet, ioctl__send_memory_less_the_sockets_own_share)
{
	for (int in_use : { 0, 1, 4000 }) {
		s.sk->wmem = in_use;
		EXPECT_EQ(mox_packet_ioctl(&s.socket, 0x5411, user(value)), 0);
		EXPECT_EQ(value.get<int>(), in_use);
	}
	s.sk->wmem = 0;
}

TEST_F(SockoptGet, ioctl__length_of_the_first_queued_buffer)
{
	EXPECT_EQ(mox_packet_ioctl(&s.socket, 0x541B, user(value)), 0);
	EXPECT_EQ(value.get<int>(), 0);
	queue(61);
	queue(1500);
	LockTrace trace;
	EXPECT_EQ(mox_packet_ioctl(&s.socket, 0x541B, user(value)), 0);
	EXPECT_EQ(value.get<int>(), 61);
	EXPECT_EQ(trace.steps, (Strings{ "+rcvq", "-rcvq" }));
	EXPECT_EQ(s.queued(), 2u) << "only looked at";
}

TEST_F(SockoptGet, ioctl__time_stamps)
{
	EXPECT_EQ(mox_packet_ioctl(&s.socket, 0x8906, user(value)), 0);
	EXPECT_EQ(value.get<u32>(4), 4u) << "the fake's microseconds";
	EXPECT_EQ(mox_packet_ioctl(&s.socket, 0x8907, user(value)), 0);
	EXPECT_EQ(value.get<u32>(4), 9u) << "the fake's nanoseconds";
}

TEST_F(SockoptGet, ioctl__faults)
{
	value.fault_at = 2;
	for (unsigned int command : { 0x5411, 0x541B, 0x8906, 0x8907 })
		EXPECT_EQ(mox_packet_ioctl(&s.socket, command, user(value)), -14) << command;
}

// The socket layer goes on with the generic device commands.
TEST_F(SockoptGet, ioctl__any_other_command)
{
	for (unsigned int command : { 0u, 0x5410u, 0x5412u, 0x541Au, 0x541Cu, 0x8905u, 0x8908u,
				      0x8910u, 0x8972u, 0xffffffffu })
		EXPECT_EQ(mox_packet_ioctl(&s.socket, command, user(value)), -515) << command;
	EXPECT_EQ(value.bytes, Bytes(16, 0xcc));
}

} // namespace
