// SPDX-License-Identifier: GPL-2.0-only
// Requests of every length: what the kernel's own layer keeps back, what the module refuses, and that a record ends where
// its message ends.
#include "control.h"

#include <cerrno>
#include <cstring>

#include <linux/netlink.h>

#include "golden.h"

namespace {

using namespace vm;

class Length : public ControlTest {
protected:
	/// The first bytes of a message, as a message of that length.
	static Bytes cut(Bytes message, uint32_t length)
	{
		message.resize(length);
		for (uint32_t i = 0; i < 4 && i < length; ++i)
			message[i] = uint8_t(length >> 8 * i);
		return message;
	}
	/// A filter of all bits and different bytes everywhere.
	static Bytes filter_body()
	{
		Bytes body = { 1, 0, 0, 0, 0xfe, 0x03, 0, 0 };
		for (uint8_t byte = 0x81; body.size() < 72; ++byte)
			body.push_back(byte);
		return body;
	}
};

TEST_F(Length, shorter_than_a_netlink_header_goes_nowhere)
{
	const Bytes whole = request(MOX_MSG_SHOW_THREAD);
	for (uint32_t length = 1; length < 16; ++length)
		EXPECT_EQ(refusal(cut(whole, length)), 1) << length;
	// Kernels since 5.16 refuse an empty datagram themselves.
	int empty = client_.send({});
	EXPECT_TRUE(empty == 0 || empty == ENODATA) << strerror(empty);
	EXPECT_EQ(said(), "");
}

TEST_F(Length, without_a_generic_header_the_kernel_refuses)
{
	debug(true);
	for (uint32_t length = 16; length < 20; ++length)
		EXPECT_EQ(refusal(cut(request(MOX_MSG_SHOW_THREAD), length)), -EINVAL) << length;
	EXPECT_EQ(said(), "");
}

TEST_F(Length, twenty_three_bytes_are_refused_by_the_module)
{
	uint32_t taken = requests_taken();
	for (bool on : { false, true }) {
		debug(on);
		for (uint32_t length = 20; length < 24; ++length) {
			// An error is answered whether or not the sender asked for it.
			EXPECT_EQ(refusal(cut(request(MOX_MSG_SHOW_THREAD), length)), -1) << length;
			EXPECT_EQ(said(), on ? tagged("Netlink message length error.\n") : "")
				<< length;
		}
	}
	EXPECT_EQ(requests_taken(), taken);
}

TEST_F(Length, twenty_four_bytes_ask_for_type_0)
{
	EXPECT_EQ(printed(cut(request(MOX_MSG_SHOW_THREAD), 24)),
		  asked_by(client_.port()) + joined(location_pieces(PACKET_LOCAL_LOC)));
	// Also when bytes that could be a type lie right behind the message.
	Bytes longer = request(MOX_MSG_SHOW_THREAD);
	longer[0] = 24;
	EXPECT_EQ(printed(longer),
		  asked_by(client_.port()) + joined(location_pieces(PACKET_LOCAL_LOC)));
}

TEST_F(Length, a_filter_cut_at_every_length)
{
	const Bytes whole = request(MOX_MSG_FILTER, filter_body());
	ASSERT_EQ(whole.size(), 100u);
	for (uint32_t length = 0; length <= 100; ++length) {
		SCOPED_TRACE(length);
		for (uint32_t i = 0; i < 72; ++i)
			lab::poke8("g_pktd_kdbg_filter", i, 0x55);
		uint32_t taken = requests_taken();
		client_.drain();
		said();
		int sent = client_.send(cut(whole, length));
		EXPECT_TRUE(sent == 0 || (length == 0 && sent == ENODATA)) << strerror(sent);
		EXPECT_EQ(requests_taken() - taken, length >= 24 ? 1u : 0u);
		Bytes stored = lab::peek("g_pktd_kdbg_filter", 0, 72);
		if (length < 25) {
			EXPECT_EQ(stored, Bytes(72, 0x55)) << "no request for a filter";
			continue;
		}
		// Of a little-endian type the first byte is enough.
		Bytes wanted = filter_body();
		for (uint32_t i = 0; i < 72; ++i)
			if (28 + i >= length)
				wanted[i] = 0;
		uint32_t vid = wanted[8] | (wanted[9] & 0x0fu) << 8;
		wanted[8] = wanted[9] = 0;
		wanted[10] = uint8_t(vid >> 8);
		wanted[11] = uint8_t(vid);
		EXPECT_EQ(stored, wanted);
		EXPECT_EQ(said(), asked_by(client_.port()));
	}
}

TEST_F(Length, a_switch_cut_at_every_length)
{
	const Bytes whole = request(MOX_MSG_DEBUG, { 3, 0, 0, 0, 0x81, 1, 1, 1 });
	ASSERT_EQ(whole.size(), 36u);
	for (uint32_t length = 25; length <= 36; ++length) {
		SCOPED_TRACE(length);
		lab::poke8("mox_packet_debug", 0, 0x77);
		lab::poke8("mox_packet_debug", 3, 0x77);
		ASSERT_EQ(client_.send(cut(whole, length)), 0);
		// Before byte 28 it is switch 0 that goes off, before byte 32 the value is 0.
		EXPECT_EQ(switches()[0], length <= 28 ? 0 : 0x77);
		EXPECT_EQ(switches()[3], length <= 28 ? 0x77 : length <= 32 ? 0 : 0x81);
		said();
	}
}

TEST_F(Length, a_name_cut_at_every_length)
{
	const std::string name = "abcdefghijklmnopqrstuvwx";
	const Bytes whole = request(MOX_MSG_SHOW_NAME, Bytes(name.begin(), name.end()));
	for (uint32_t length = 25; length <= whole.size(); ++length) {
		uint32_t letters = length < 28 ? 0 : length - 28;
		EXPECT_EQ(printed(cut(whole, length)), asked_by(client_.port()) + "show process " +
							       name.substr(0, letters) +
							       " regular:\n")
			<< length;
	}
}

TEST_F(Length, a_pid_cut_at_every_length)
{
	const Bytes whole = request(MOX_MSG_SHOW_PID, { 0x01, 0x02, 0x03, 0x84 });
	const char *texts[] = { "0", "1", "513", "197121", "-2080177663" };
	for (uint32_t length = 28; length <= 32; ++length)
		EXPECT_EQ(printed(cut(whole, length)), asked_by(client_.port()) + "show process " +
							       texts[length - 28] + " regular:\n")
			<< length;
}

TEST_F(Length, what_lies_behind_the_message_is_not_read)
{
	// The datagram goes on, the message does not: the filter's fields are zero, not what comes behind.
	Bytes datagram = request(MOX_MSG_FILTER, Bytes(72, 0xff));
	datagram[0] = 28;
	ASSERT_EQ(client_.send(datagram), 0);
	EXPECT_EQ(lab::peek("g_pktd_kdbg_filter", 0, 72), Bytes(72));
	said();
	datagram = request(MOX_MSG_SHOW_NAME, { 'a', 'b', 'c', 'd' });
	datagram[0] = 30;
	EXPECT_EQ(printed(datagram), asked_by(client_.port()) + "show process ab regular:\n");
}

TEST_F(Length, a_message_that_claims_more_than_its_datagram_is_dropped)
{
	Bytes datagram = request(MOX_MSG_SHOW_THREAD);
	for (uint32_t claimed : { 29u, 100u, 65535u, 0xffffffffu }) {
		for (uint32_t i = 0; i < 4; ++i)
			datagram[i] = uint8_t(claimed >> 8 * i);
		EXPECT_EQ(refusal(datagram), 1) << claimed;
	}
	EXPECT_EQ(said(), "");
}

} // namespace
