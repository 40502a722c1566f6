// SPDX-License-Identifier: GPL-2.0-only
#include "send_fixture.h"

LocalMac g_local_mac;

namespace {

// Exactly as long as its content, so that a byte read beyond it is found.
class Exact {
public:
	explicit Exact(const std::optional<Bytes> &content)
	{
		if (!content)
			return;
		bytes_.reset(new u8[content->size()]);
		std::copy(content->begin(), content->end(), bytes_.get());
	}
	void *get() { return bytes_.get(); }

private:
	std::unique_ptr<u8[]> bytes_;
};

} // namespace

int local_mac(u32 unit, u8 mac[6])
{
	g_local_mac.calls++;
	g_local_mac.unit = unit;
	if (g_local_mac.inside)
		g_local_mac.inside();
	std::copy(kLocalMac.begin(), kLocalMac.end(), mac);
	return g_local_mac.result;
}

Bytes address(u32 ifindex, u16 protocol, u8 mac_len)
{
	Bytes out{ 17, 0, 0, 0, 0, 0, 0, 0, 0x99, 0x99, 0x99, mac_len };
	memcpy(&out[2], &protocol, 2);
	memcpy(&out[4], &ifindex, 4);
	return out + kPeerMac + Bytes{ 0x99, 0x99 };
}

Bytes control(const mox_packet_ctrl_info &record)
{
	Bytes out(sizeof record);
	memcpy(out.data(), &record, sizeof record);
	return out;
}

SentHeader::SentHeader(size_t frame_len)
{
	const u16 mac = efmp().room_at, l2 = frame_len < 14 ? 0 : 14;
	put<u16>(20, l2).put<u16>(22, mac).put<u16>(24, mac + l2).put<u32>(164, frame_len);
}

void SendTest::SetUp()
{
	SocketTest::SetUp();
	g_local_mac = {};
	const u8 mac[6] = { 2, 0, 0, 0, 0, 8 };
	efmp().add_interface(8, "eth8", mac);
	efmp().add_interface(9, "eth9", mac);
	set_link(9, 0);
	publish_local_mac();
	kernel().at.watch(Point::kOutput, [this](const void *efbuff) {
		char text[16];
		snprintf(text, sizeof text, "%08x", fake::word(efbuff));
		efbuff_text = text;
	});
	ASSERT_EQ(s.create(), 0);
	lines();
}

void SendTest::TearDown()
{
	if (s.sk)
		s.release();
	SocketTest::TearDown();
}

void SendTest::open(int type, u16 protocol)
{
	if (s.sk)
		s.release();
	ASSERT_EQ(s.create(type, protocol), 0);
	lines();
}

int SendTest::send_on(Sock &sock, const Outgoing &message)
{
	Exact name(message.name), ctrl(message.control);
	msghdr msg;
	msg.name = name.get();
	msg.namelen = message.name ? int(message.name->size()) : 0;
	msg.control = ctrl.get();
	msg.controllen = message.control ? message.control->size() : 0;
	msg.out = message.data;
	msg.out_fault_at = message.fault_at;
	return mox_packet_sendmsg(&sock.socket, &msg, message.len.value_or(message.data.size()));
}

Counters13 SendTest::counters_of(Sock &sock)
{
	Counters13 out;
	static_assert(sizeof out == sizeof(mox_packet_counters));
	memcpy(&out, &sock.po().counters, sizeof out);
	return out;
}

void SendTest::set_link(u32 ifindex, u32 state)
{
	memcpy(static_cast<u8 *>(efmp().interfaces[ifindex]) + 12, &state, 4);
}

void SendTest::publish_local_mac()
{
	efmp().publish(11, 10, reinterpret_cast<void *>(local_mac));
}

void SendTest::expect_send(const Outgoing &message, int result, Counter counter)
{
	Counters13 wanted = counters_of(s);
	wanted[counter]++;
	// The rest of the socket stays as it is, too.
	Bytes behind(offsetof(mox_packet_sock, ledger) - offsetof(mox_packet_sock, vsd));
	memcpy(behind.data(), &s.po().vsd, behind.size());
	const u32 refs = s.refs();
	const uint64_t allocated = efmp().allocated, freed = efmp().freed;
	const size_t sent = efmp().sent.size();

	EXPECT_EQ(send(message), result);
	EXPECT_EQ(counters_of(s), wanted);
	EXPECT_EQ(memcmp(behind.data(), &s.po().vsd, behind.size()), 0);
	EXPECT_EQ(s.refs(), refs);
	EXPECT_TRUE(efmp().live.empty());
	const bool reached = counter == kEfSendFails || counter == kSendPackets;
	EXPECT_EQ(efmp().sent.size() - sent, reached ? 1u : 0u);
	EXPECT_LE(efmp().allocated - allocated, 1u) << "one efbuff is enough";
	// What the module has allocated it has freed, or it has given it away.
	EXPECT_EQ(efmp().allocated - allocated, efmp().freed - freed + (efmp().sent.size() - sent));
}
