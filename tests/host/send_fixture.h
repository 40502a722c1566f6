// SPDX-License-Identifier: GPL-2.0-only
// For tests of sendmsg: messages as processes make them, the local-MAC service,
// interfaces up and down, and what a send may change.
#pragma once

#include <optional>

#include "contract/sockets.h"
#include "platform.h"
#include "services/services.hpp"
#include "socket_fixture.h"

using namespace mox;

// What one sendmsg gets. Absent means that the process gave none.
struct Outgoing {
	Bytes data = Bytes(60, 0xda);
	std::optional<Bytes> name = {};
	std::optional<Bytes> control = {};
	std::optional<size_t> len = {}; // of the data, when it is not the data's own
	size_t fault_at = SIZE_MAX;     // first byte of the data that cannot be read
};

// A link-layer address to an interface, 20 bytes, with the MAC 06:..:0x15.
Bytes address(u32 ifindex, u16 protocol = 0, u8 mac_len = 6);
inline const Bytes kPeerMac{ 6, 0x11, 0x12, 0x13, 0x14, 0x15 };
inline const Bytes kLocalMac{ 2, 0, 0, 0, 0xca, 0xfe };

// A control record as bytes; all zero but for what the record names.
Bytes control(const mox_packet_ctrl_info &record);
inline Bytes control_flags(u32 flags)
{
	mox_packet_ctrl_info record{};
	record.flags = flags;
	return control(record);
}

using enum contract::Counter;
using contract::Counter;
using Counters13 = std::array<u32, kCounters>;

// The header of an efbuff as it must leave: zero but for what is put.
class SentHeader {
public:
	explicit SentHeader(size_t frame_len);
	template <typename T> SentHeader &put(size_t at, T value)
	{
		memcpy(&bytes[at], &value, sizeof value);
		return *this;
	}
	Bytes bytes = Bytes(256);
};

class SendTest : public SocketTest {
protected:
	void SetUp() override;
	void TearDown() override;

	// A fresh socket in place of the one before.
	void open(int type, u16 protocol = 0);
	int send(const Outgoing &message) { return send_on(s, message); }
	int send_on(Sock &sock, const Outgoing &message);
	static Counters13 counters_of(Sock &sock);
	static u32 interface(u32 ifindex) { return fake::word(efmp().interfaces[ifindex]); }
	static void set_link(u32 ifindex, u32 state);
	static void publish_local_mac();
	// What the last send gave to the platform.
	static const fake::Sent &last() { return efmp().sent.back(); }
	// Sends, and expects that result, one more in that counter and in no other, and
	// every efbuff freed or sent.
	void expect_send(const Outgoing &message, int result, Counter counter);
	// The same for a send that must leave.
	void expect_sent(const Outgoing &message, size_t len)
	{
		expect_send(message, int(len), kSendPackets);
	}
	// "%p" of the efbuff of the last send that reached the platform.
	std::string efbuff_text;

	Sock s;
};

// The local-MAC service: what it was called with, and what it does.
struct LocalMac {
	int calls = 0;
	u32 unit = ~0u;
	int result = 0;
	std::function<void()> inside; // while it runs
};
extern LocalMac g_local_mac;
int local_mac(u32 unit, u8 mac[6]);
