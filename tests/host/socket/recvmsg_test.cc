// SPDX-License-Identifier: GPL-2.0-only
// recvmsg: a queued packet, its address and its control record, out to the process.
#include "socket_fixture.h"

namespace {

constexpr int kPeek = 0x2, kTrunc = 0x20, kDontWait = 0x40;

class Recvmsg : public SocketTest {
protected:
	void SetUp() override
	{
		SocketTest::SetUp();
		ASSERT_EQ(s.create(), 0);
		g_free_skb_num = 0;
	}
	void TearDown() override
	{
		s.release();
		SocketTest::TearDown();
	}
	static Bytes content(u32 size)
	{
		Bytes b(size);
		for (u32 i = 0; i < size; i++)
			b[i] = static_cast<u8>(i * 7 + 1);
		return b;
	}
	// A packet as delivery leaves it, its control record numbered byte by byte.
	sk_buff *queue(u32 size, u16 protocol = 0x0608)
	{
		sk_buff *skb = fake::skb_alloc(size);
		Bytes bytes = content(size);
		std::copy(bytes.begin(), bytes.end(), static_cast<u8 *>(fake::skb_put(skb, size)));
		skb->iif = 7;
		skb->has_dev = false;
		skb->protocol = protocol;
		for (u8 i = 0; i < 48; i++)
			skb->cb[i] = 0x40 + i;
		EXPECT_TRUE(fake::deliver(s.sk, skb));
		return skb;
	}
	int receive(msghdr &msg, size_t len, int flags = kDontWait)
	{
		return mox_packet_recvmsg(&s.socket, &msg, len, flags);
	}
	static Bytes record()
	{
		Bytes b(48);
		for (u8 i = 0; i < 48; i++)
			b[i] = 0x40 + i;
		return b;
	}

	Sock s;
};

TEST_F(Recvmsg, flags__only_peek_trunc_and_dontwait)
{
	queue(60);
	for (int bit = 0; bit < 32; bit++) {
		int flag = static_cast<int>(1u << bit);
		if (flag == kPeek || flag == kTrunc || flag == kDontWait)
			continue;
		msghdr msg;
		EXPECT_EQ(receive(msg, 100, flag), -22) << "flag " << flag;
		EXPECT_EQ(receive(msg, 100, flag | kDontWait), -22) << "flag " << flag;
		EXPECT_EQ(msg.namelen, -1) << "untouched";
		EXPECT_EQ(msg.flags, 0);
	}
	EXPECT_EQ(s.queued(), 1u);
	EXPECT_EQ(kernel().calls(Fail::kRecvDatagram), 0u);
	msghdr msg;
	EXPECT_EQ(receive(msg, 100, kPeek | kTrunc | kDontWait), 60);
}

TEST_F(Recvmsg, socket__without_sk)
{
	::socket socket;
	msghdr msg;
	EXPECT_EQ(mox_packet_recvmsg(&socket, &msg, 100, 0), -22);
}

TEST_F(Recvmsg, queue__empty_and_other_errors_of_the_datagram_layer)
{
	msghdr msg;
	EXPECT_EQ(receive(msg, 100), -11);
	EXPECT_EQ(msg.namelen, -1);
	for (int error : { -512, -104, -107 }) {
		kernel().error[Fail::kRecvDatagram] = error;
		kernel().fail(Fail::kRecvDatagram);
		EXPECT_EQ(receive(msg, 100, 0), error);
	}
	EXPECT_EQ(g_free_skb_num, 0u);
}

TEST_F(Recvmsg, packet__by_length_buffer_and_flags)
{
	struct {
		u32 size;
		size_t len;
		int flags, result;
		u32 copied;
		bool truncated;
	} const cases[] = {
		{ 100, 60, 0, 60, 60, true },      { 100, 60, kTrunc, 100, 60, true },
		{ 100, 100, 0, 100, 100, false },  { 100, 100, kTrunc, 100, 100, false },
		{ 100, 2000, 0, 100, 100, false }, { 100, 2000, kTrunc, 100, 100, false },
		{ 100, 0, 0, 0, 0, true },         { 100, 0, kTrunc, 100, 0, true },
		{ 1, 1, 0, 1, 1, false },          { 0, 60, 0, 0, 0, false },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message()
			     << c.size << " into " << c.len << " flags " << c.flags);
		queue(c.size);
		msghdr msg;
		EXPECT_EQ(receive(msg, c.len, c.flags | kDontWait), c.result);
		Bytes wanted = content(c.size);
		wanted.resize(c.copied);
		EXPECT_EQ(msg.data, wanted);
		EXPECT_EQ(msg.flags, c.truncated ? kTrunc : 0);
		EXPECT_EQ(msg.timestamps, 1);
		EXPECT_TRUE(kernel().skbs.empty());
	}
}

TEST_F(Recvmsg, packets__in_the_order_of_the_queue)
{
	for (u32 size : { 10, 20, 30 })
		queue(size);
	for (int size : { 10, 20, 30 }) {
		msghdr msg;
		EXPECT_EQ(receive(msg, 100), size);
	}
	EXPECT_EQ(g_free_skb_num, 3u);
	EXPECT_EQ(s.sk->rmem, 0) << "the memory is the socket's again";
}

TEST_F(Recvmsg, peek__leaves_the_packet_and_does_not_count_it)
{
	sk_buff *skb = queue(60);
	for (int i = 0; i < 2; i++) {
		msghdr msg;
		EXPECT_EQ(receive(msg, 100, kPeek | kDontWait), 60);
		EXPECT_EQ(msg.data, content(60));
		EXPECT_EQ(g_free_skb_num, 0u);
		EXPECT_EQ(skb->users, 1u);
		EXPECT_EQ(s.queued(), 1u);
	}
	msghdr msg;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(g_free_skb_num, 1u);
	EXPECT_TRUE(kernel().skbs.empty());
}

// Another reader still peeks at it: that one is not the last to let go.
TEST_F(Recvmsg, freed__is_counted_by_whoever_holds_the_last_reference)
{
	sk_buff *skb = queue(60);
	skb->users = 2;
	msghdr msg;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(g_free_skb_num, 0u);
	ASSERT_EQ(kernel().skbs.size(), 1u);
	seam_consume_skb(skb);
}

// ---- name -----------------------------------------------------------------------------

TEST_F(Recvmsg, name__all_26_bytes)
{
	queue(60, 0x0608);
	u8 name[128];
	memset(name, 0x5a, sizeof name);
	msghdr msg;
	msg.name = name;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(msg.namelen, 26);
	// Family, protocol, interface of the control record, hardware type 0, packet
	// type 3 for every packet, no hardware address, and zeroes to the end.
	Bytes wanted{ 17, 0, 0x08, 0x06, 0x40, 0x41, 0x42, 0x43, 0, 0, 3, 0 };
	wanted.resize(26);
	EXPECT_EQ(Bytes(name, name + 26), wanted);
	for (size_t i = 26; i < sizeof name; i++)
		ASSERT_EQ(name[i], 0x5a) << i;
}

// Older kernels would hand out, by that length, what was never filled.
TEST_F(Recvmsg, name__without_a_buffer_has_no_length)
{
	queue(60);
	msghdr msg;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(msg.namelen, 0);
}

TEST_F(Recvmsg, name__is_filled_for_a_peek_and_for_a_truncated_packet)
{
	queue(60);
	for (int flags : { kPeek, 0 }) {
		u8 name[128] = {};
		msghdr msg;
		msg.name = name;
		EXPECT_EQ(receive(msg, 10, flags | kDontWait), 10);
		EXPECT_EQ(name[0], 17);
		EXPECT_EQ(name[10], 3);
	}
}

// ---- control record ----------------------------------------------------------------------

TEST_F(Recvmsg, control__off_leaves_the_callers_length_and_buffer)
{
	queue(60);
	fake::UserBuf control(48, 0xcc);
	msghdr msg;
	msg.control = control.data();
	msg.controllen = 777;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(msg.controllen, 777u);
	EXPECT_EQ(control.bytes, Bytes(48, 0xcc));
}

TEST_F(Recvmsg, control__on_copies_the_record_raw)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	queue(60);
	fake::UserBuf control(64, 0xcc);
	msghdr msg;
	msg.control = control.data();
	msg.controllen = 64;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(msg.controllen, 48u);
	Bytes wanted = record();
	wanted.resize(64, 0xcc);
	EXPECT_EQ(control.bytes, wanted);
}

// Callers give 48 bytes: the length is not looked at.
TEST_F(Recvmsg, control__callers_length_does_not_matter)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	for (size_t length : { 0, 1, 47, 1000 }) {
		queue(60);
		fake::UserBuf control(48, 0xcc);
		msghdr msg;
		msg.control = control.data();
		msg.controllen = length;
		EXPECT_EQ(receive(msg, 100), 60);
		EXPECT_EQ(msg.controllen, 48u);
		EXPECT_EQ(control.bytes, record());
	}
}

TEST_F(Recvmsg, control__on_without_a_buffer_prints_the_length)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	queue(60);
	msghdr msg;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(msg.controllen, 48u);
}

TEST_F(Recvmsg, control__buffer_that_faults_loses_the_record_and_not_the_packet)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	for (size_t fault_at : { 0, 20 }) {
		queue(60);
		fake::UserBuf control(48, 0xcc);
		control.fault_at = fault_at;
		msghdr msg;
		msg.control = control.data();
		EXPECT_EQ(receive(msg, 100), 60);
		EXPECT_EQ(msg.controllen, 48u);
		EXPECT_EQ(msg.data, content(60));
		EXPECT_TRUE(kernel().skbs.empty());
	}
}

TEST_F(Recvmsg, control__with_trunc_and_peek)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	queue(100);
	for (int flags : { kPeek, 0 }) {
		fake::UserBuf control(48, 0xcc);
		msghdr msg;
		msg.control = control.data();
		EXPECT_EQ(receive(msg, 60, flags | kTrunc | kDontWait), 100);
		EXPECT_EQ(msg.flags, kTrunc);
		EXPECT_EQ(control.bytes, record());
	}
}

// A frame by way of a hook, the thread and delivery, as a process sees it.
TEST_F(Recvmsg, arrival__name_and_record_are_those_of_the_frame)
{
	ASSERT_EQ(s.add(PACKET_ALL), 0);
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	Bytes sent = packets::eth(0x88cc) + Bytes(86, 0x5c);
	frame(PACKET_LEV2_LOC, {}, sent);
	ASSERT_EQ(s.queued(), 1u);
	u8 name[128];
	memset(name, 0xcc, sizeof name);
	fake::UserBuf control(48, 0xcc);
	msghdr msg;
	msg.name = name;
	msg.control = control.data();
	EXPECT_EQ(receive(msg, 65536), 100);
	EXPECT_EQ(msg.data, sent);
	Bytes wanted{ 17, 0, 0, 0, 7, 0, 0, 0, 0, 0, 3, 0 };
	wanted.resize(26);
	EXPECT_EQ(Bytes(name, name + 26), wanted);
	EXPECT_EQ(control.get<u32>(0), 7u);
	EXPECT_EQ(control.get<u16>(16), 0xcc88) << "as in the frame";
	EXPECT_EQ(control.get<u16>(46), 0) << "no rule fills it";
	EXPECT_EQ(g_free_skb_num, 1u);
}

// ---- failure ---------------------------------------------------------------------------------

TEST_F(Recvmsg, copy_error__is_returned_and_the_packet_is_freed)
{
	ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
	queue(60);
	queue(61);
	msghdr msg;
	msg.data_fault_at = 10;
	EXPECT_EQ(receive(msg, 100), -14);
	EXPECT_EQ(g_free_skb_num, 1u);
	EXPECT_EQ(kernel().skbs.size(), 1u);
	msghdr next;
	EXPECT_EQ(receive(next, 100), 61);
}

TEST_F(Recvmsg, copy_error__while_peeking_keeps_the_packet)
{
	queue(60);
	msghdr msg;
	msg.data_fault_at = 10;
	EXPECT_EQ(receive(msg, 100, kPeek | kDontWait), -14);
	EXPECT_EQ(s.queued(), 1u);
	EXPECT_EQ(g_free_skb_num, 0u);
}

TEST_F(Recvmsg, locks__none_are_left_and_none_are_needed_to_count)
{
	queue(60);
	LockTrace trace;
	msghdr msg;
	EXPECT_EQ(receive(msg, 100), 60);
	EXPECT_EQ(trace.steps, Strings{});
}

} // namespace
