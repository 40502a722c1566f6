// SPDX-License-Identifier: GPL-2.0-only
// sendmsg: what of the control record reaches the efbuff's header, and where.
#include "send_fixture.h"

namespace {

class SendEfbuff : public SendTest {
protected:
	void SetUp() override
	{
		SendTest::SetUp();
		debug();
	}
	// The header that a record leaves behind; 60 bytes of frame.
	Bytes header_for(const Bytes &record)
	{
		expect_sent({ .control = record }, 60);
		return last().header;
	}
	Bytes header_for(const mox_packet_ctrl_info &record) { return header_for(control(record)); }
	// The header with two words of flags besides.
	static Bytes flags_set(u32 at32, u32 at60)
	{
		return SentHeader(60).put<u32>(32, at32).put<u32>(60, at60).bytes;
	}
	Strings lines_between()
	{
		// What is printed between the record's own lines and the result.
		Strings all = lines();
		if (all.size() < 5) {
			ADD_FAILURE() << "lines are missing";
			return all;
		}
		return Strings(all.begin() + 4, all.end() - 1);
	}
};

using contract::kSendFlags;
using contract::SendFlag;

TEST_F(SendEfbuff, flags__each_of_the_32_bits_alone)
{
	for (int bit = 0; bit < 32; bit++) {
		const u32 flag = u32{ 1 } << bit;
		SCOPED_TRACE(testing::Message() << "flag " << std::hex << flag);
		SendFlag wanted{ flag, 0, 0, nullptr };
		for (const SendFlag &f : kSendFlags)
			if (f.flag == flag)
				wanted = f;
		lines();
		EXPECT_EQ(header_for(control_flags(flag)), flags_set(wanted.at32, wanted.at60));
		EXPECT_EQ(lines_between(), wanted.line ? Strings{ std::string("MOX-PACKET-SEND: ") +
								  wanted.line + "\n" }
						       : Strings{});
	}
}

TEST_F(SendEfbuff, flags__any_two_together)
{
	for (const SendFlag &a : kSendFlags)
		for (const SendFlag &b : kSendFlags) {
			SCOPED_TRACE(testing::Message() << std::hex << a.flag << " " << b.flag);
			EXPECT_EQ(header_for(control_flags(a.flag | b.flag)),
				  flags_set(a.at32 | b.at32, a.at60 | b.at60));
		}
}

TEST_F(SendEfbuff, flags__all_and_none)
{
	Strings all;
	for (const SendFlag &f : kSendFlags)
		if (f.line)
			all.push_back(std::string("MOX-PACKET-SEND: ") + f.line + "\n");
	EXPECT_EQ(header_for(control_flags(0x174706)), flags_set(0x44000, 0xff));
	EXPECT_EQ(lines_between(), all);
	EXPECT_EQ(header_for(control_flags(~u32{ 0 })), flags_set(0x44000, 0xff));
	EXPECT_EQ(lines_between(), all) << "bits without a meaning add nothing";
	EXPECT_EQ(header_for(control_flags(~u32{ 0x174706 })), flags_set(0, 0));
	EXPECT_EQ(lines_between(), Strings{});
	EXPECT_EQ(header_for(control_flags(0)), flags_set(0, 0));
}

// The trace mark goes with the debug send, and only with it.
TEST_F(SendEfbuff, flags__do_not_depend_on_debugging)
{
	debug(false);
	EXPECT_EQ(header_for(control_flags(~u32{ 0 })), flags_set(0x44000, 0xff));
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(SendEfbuff, proxy_byte__only_with_its_flag)
{
	mox_packet_ctrl_info record{};
	for (u32 value : { 0u, 1u, 0x5au, 0xffu }) {
		record.proxy_capture = u8(value);
		record.flags = ~u32{ 0x100000 };
		EXPECT_EQ(header_for(record), flags_set(0x44000, 0xef));
		record.flags = 0x100000;
		EXPECT_EQ(header_for(record),
			  SentHeader(60).put<u32>(60, 0x10).put<u8>(72, value).bytes);
	}
}

// Every byte of the record at once, all different.
TEST_F(SendEfbuff, fields__all_at_their_places)
{
	Bytes record(48);
	for (size_t i = 0; i < record.size(); i++)
		record[i] = u8(0x10 + i);
	const u32 flags = 0x100000, source = 8;
	memcpy(&record[0], &source, 4);
	memcpy(&record[24], &flags, 4);
	const Bytes wanted = SentHeader(60)
				     .put<u32>(4, interface(8))
				     .put<u32>(68, 0x17161514)
				     .put<u32>(64, 0x1b1a1918)
				     .put<u32>(76, 0x1f1e1d1c)
				     .put<u16>(18, 0x2203) // 0x2322: 12 bits, network order
				     .put<u16>(16, 0x3001) // 0x3130
				     .put<u32>(60, 0x10)
				     .put<u32>(172, 0x2f2e2d2c)
				     .put<u16>(188, 0x3736)
				     .put<u16>(146, 0x3938)
				     .put<u16>(148, 0x3b3a)
				     .put<u8>(144, 0x3c)
				     .put<u8>(72, 0x3d)
				     .bytes;
	EXPECT_EQ(header_for(record), wanted);
}

// Each byte of the record changes exactly these bytes of the header.
TEST_F(SendEfbuff, fields__one_byte_at_a_time)
{
	std::map<int, int> places; // of the record's byte in the header
	auto field = [&](int record, int width, int header) {
		for (int i = 0; i < width; i++)
			places[record + i] = header + i;
	};
	field(4, 4, 68), field(8, 4, 64), field(12, 4, 76), field(28, 4, 172), field(38, 2, 188);
	field(40, 2, 146), field(42, 2, 148), field(44, 1, 144);
	// Low byte first in the record, last in the tag.
	places[18] = 19, places[19] = 18, places[32] = 17, places[33] = 16;
	const Bytes none = SentHeader(60).bytes;
	for (int at = 0; at < 48; at++) {
		if (at < 4 || (at >= 24 && at < 28))
			continue; // an interface and the flags: tests of their own
		SCOPED_TRACE(at);
		Bytes record(48), wanted = none;
		record[at] = 0xff;
		if (places.count(at))
			wanted[places[at]] = at == 19 || at == 33 ? 0x0f : 0xff;
		EXPECT_EQ(header_for(record), wanted);
	}
}

TEST_F(SendEfbuff, vlan__ids_are_masked_and_in_network_order)
{
	struct {
		u16 given;
		u8 high, low;
	} const cases[] = { { 0, 0, 0 },
			    { 1, 0, 1 },
			    { 100, 0, 100 },
			    { 0xfff, 0x0f, 0xff },
			    { 0x1000, 0, 0 },
			    { 0xf123, 0x01, 0x23 },
			    { 0xffff, 0x0f, 0xff },
			    { 0x8abc, 0x0a, 0xbc } };
	for (auto &c : cases) {
		mox_packet_ctrl_info outer{}, inner{};
		outer.vlan = c.given;
		inner.inner_vlan = c.given;
		EXPECT_EQ(header_for(outer),
			  SentHeader(60).put<u8>(18, c.high).put<u8>(19, c.low).bytes)
			<< c.given;
		EXPECT_EQ(header_for(inner),
			  SentHeader(60).put<u8>(16, c.high).put<u8>(17, c.low).bytes)
			<< c.given;
	}
}

// A record that came with a captured frame has its VLAN id above the priority: sending
// takes the low bits of the same word, as it always has.
TEST_F(SendEfbuff, vlan__word_is_read_otherwise_than_it_is_written_on_receive)
{
	mox_packet_ctrl_info received{};
	received.vlan = (100 << 4) | 5;
	EXPECT_EQ(header_for(received),
		  SentHeader(60).put<u16>(18, __builtin_bswap16(0x645)).bytes);
}

TEST_F(SendEfbuff, interfaces__both_and_either)
{
	mox_packet_ctrl_info record{};
	record.pkt_ifx = 8;
	expect_sent({ .name = address(7), .control = control(record) }, 60);
	EXPECT_EQ(last().header, SentHeader(60).put<u32>(4, interface(8)).put<u32>(8, port).bytes);
	// The same one, reserved ones.
	record.pkt_ifx = 7;
	expect_sent({ .name = address(7), .control = control(record) }, 60);
	EXPECT_EQ(last().header, SentHeader(60).put<u32>(4, port).put<u32>(8, port).bytes);
	record.pkt_ifx = 4094;
	expect_sent({ .name = address(4095), .control = control(record) }, 60);
	EXPECT_EQ(last().header,
		  SentHeader(60).put<u32>(4, interface(4094)).put<u32>(8, interface(4095)).bytes);
}

// The other indices name interfaces to the platform: the module does not look them up.
TEST_F(SendEfbuff, interfaces__other_indices_need_not_exist)
{
	mox_packet_ctrl_info record{};
	record.pkt_origifx = record.pkt_l2ifx = record.pkt_dst_l2ifx = 77;
	expect_sent({ .control = control(record) }, 60);
	EXPECT_EQ(last().header,
		  SentHeader(60).put<u32>(64, 77).put<u32>(68, 77).put<u32>(76, 77).bytes);
}

// One send's record is nothing to the next one.
TEST_F(SendEfbuff, record__does_not_outlive_its_send)
{
	Bytes record(48, 0xff);
	const u32 none = 0;
	memcpy(record.data(), &none, 4);
	header_for(record);
	expect_sent({}, 60);
	EXPECT_EQ(last().header, SentHeader(60).bytes);
	EXPECT_EQ(kernel().count_said("debug pkt"), 1u);
}

} // namespace
