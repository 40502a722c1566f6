// SPDX-License-Identifier: GPL-2.0-only
// A frame that was trapped, looked at and sent on its way again: what it keeps, where it leaves, and when it is captured
// once more.
#include <cstring>

#include "support/send.h"
#include "support/tap.h"

namespace {

using namespace vm;

/// The send that puts a trapped frame back: from the port where it came in, the platform selects where to.
Send put_back(const Packet &packet)
{
	Send send;
	send.data = packet.bytes;
	send.to(0);
	mox_packet_ctrl_info record{};
	record.pkt_ifx = packet.info.pkt_ifx;
	record.vlan = packet.info.vlan >> 4;
	record.inner_vlan = packet.info.inner_vlan;
	record.wlan_id = packet.info.wlan_id;
	record.ap_wlan_id = packet.info.ap_wlan_id;
	record.radio_id = packet.info.radio_id;
	send.with(record);
	return send;
}

class PutBack : public SendTest {
protected:
	/// The next frame of the type that left by the port; empty without one.
	static Bytes leaves_by(TapPort &port)
	{
		while (auto frame = port.read(1000))
			if (frame->size() > 20)
				return *frame;
		return {};
	}
};

TEST_F(PutBack, at_LEV2_it_leaves_by_every_other_port_and_is_not_trapped_again)
{
	TapPort in("tap-in"), one("tap-one"), other("tap-other");
	Socket trap;
	ASSERT_EQ(trap.add(u32s(PACKET_SRC_INTF_EQUAL, { in.ifindex() })), 0);
	ASSERT_EQ(trap.ctrl(true), 0);
	ASSERT_EQ(trap.treatment(PACKET_TRAP), 0);
	ASSERT_EQ(trap.location(PACKET_LEV2_LOC), 0);
	struct Row {
		const char *name;
		Bytes tag, tag_after;
	};
	const Row rows[] = {
		{ "untagged", {}, {} },
		{ "VLAN 7", { 0x81, 0, 0, 7 }, { 0x81, 0, 0, 7 } },
		{ "VLAN 7, priority 5: that is lost", { 0x81, 0, 0xa0, 7 }, { 0x81, 0, 0, 7 } },
	};
	for (const Row &row : rows) {
		SCOPED_TRACE(row.name);
		Bytes frame = frames::plain().bytes, after = frame;
		frame.insert(frame.begin() + 12, row.tag.begin(), row.tag.end());
		after.insert(after.begin() + 12, row.tag_after.begin(), row.tag_after.end());
		in.write(frame);
		auto packet = trap.receive();
		ASSERT_TRUE(packet);
		EXPECT_FALSE(one.read(200)) << "trapped";
		ASSERT_EQ(put_back(*packet).by(trap.fd()), ssize_t(packet->bytes.size()));
		EXPECT_EQ(leaves_by(one), after);
		EXPECT_EQ(leaves_by(other), after);
		EXPECT_FALSE(in.read(200)) << "not to where it came from";
		EXPECT_FALSE(trap.receive(200)) << "no loop";
	}
}

TEST_F(PutBack, without_the_source_interface_it_also_returns_to_its_sender)
{
	TapPort in("tap-in"), out("tap-out");
	Socket trap;
	ASSERT_EQ(trap.add(u32s(PACKET_SRC_INTF_EQUAL, { in.ifindex() })), 0);
	ASSERT_EQ(trap.treatment(PACKET_TRAP), 0);
	ASSERT_EQ(trap.location(PACKET_LEV2_LOC), 0);
	in.write(frames::plain().bytes);
	auto packet = trap.receive();
	ASSERT_TRUE(packet);
	Send send;
	send.data = packet->bytes;
	send.to(0);
	ASSERT_EQ(send.by(trap.fd()), ssize_t(packet->bytes.size()));
	EXPECT_EQ(leaves_by(out), packet->bytes);
	EXPECT_EQ(leaves_by(in), packet->bytes);
}

TEST_F(PutBack, at_LOCAL_it_is_trapped_again_whatever_the_flags)
{
	Socket trap = capture(PACKET_LOCAL_LOC, PACKET_TRAP, ethertype(0x88b5));
	ASSERT_EQ(trap.ctrl(true), 0);
	const uint32_t flags[] = { 0,
				   MOX_SEND_DEBUG,
				   MOX_SEND_EF_40000,
				   MOX_SEND_VXLAN_ENCAP,
				   MOX_SEND_BLOCK,
				   MOX_SEND_400,
				   MOX_SEND_4000,
				   MOX_SEND_10000,
				   MOX_SEND_20000,
				   MOX_SEND_NO_ACL,
				   MOX_SEND_PROXY_CAPTURE };
	for (uint32_t flag : flags) {
		SCOPED_TRACE(flag);
		Send send;
		send.data = frames::plain().bytes;
		send.to(lab::kPortB);
		send.with({});
		send.control.pkt_ifx = lab::kPortA;
		send.control.flags = flag;
		EXPECT_EQ(attempt(trap, send).left.size(), 0u);
		ASSERT_TRUE(lab::settle());
		auto packet = trap.receive();
		ASSERT_TRUE(packet);
		// The one mark by which a daemon recognises its own frame, beside the trace mark.
		EXPECT_EQ((packet->info.flags & 0x4) != 0, flag == MOX_SEND_EF_40000);
	}
}

TEST_F(PutBack, at_LOCAL_a_rule_on_source_interfaces_leaves_out_what_has_none)
{
	Socket trap = capture(PACKET_LOCAL_LOC, PACKET_TRAP,
			      u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA, lab::kPortB }));
	Send send;
	send.data = frames::plain().bytes;
	send.to(lab::kPortB);
	EXPECT_EQ(attempt(trap, send).left.size(), 1u) << "no source: it leaves";
	send.with({});
	send.control.pkt_ifx = lab::kPortA;
	EXPECT_EQ(attempt(trap, send).left.size(), 0u) << "from a port: trapped again";
	ASSERT_TRUE(lab::settle());
	EXPECT_EQ(trap.drain(), 1u);
}

} // namespace
