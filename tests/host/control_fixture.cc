// SPDX-License-Identifier: GPL-2.0-only
#include "control_fixture.h"

Bytes ControlTest::message(const Bytes &record, int nlmsg_len, int nla_len)
{
	Bytes m(24);
	const u32 len = nlmsg_len >= 0 ? nlmsg_len : 24 + record.size();
	const u16 attr = nla_len >= 0 ? nla_len : 4 + record.size();
	const u16 family = 0x1f, request = 1, type = 1;
	memcpy(&m[0], &len, 4);
	memcpy(&m[4], &family, 2);
	memcpy(&m[6], &request, 2);
	m[17] = 1;
	memcpy(&m[20], &attr, 2);
	memcpy(&m[22], &type, 2);
	m = m + record;
	m.resize(std::max<u32>(len, 16));
	return m;
}

Bytes ControlTest::record(u16 type, const Bytes &body)
{
	Bytes r{ u8(type), u8(type >> 8), 0, 0 };
	return r + body;
}

int ControlTest::receive(const Bytes &message)
{
	// Not a byte more than the message has: what is read behind it fails the test.
	genl_info info{ std::vector<uint8_t>(message.begin(), message.end()), kClient };
	info.message.shrink_to_fit();
	return mox_packet_msg_recv(nullptr, &info);
}

std::string ControlTest::said()
{
	std::string text = kernel().text();
	kernel().log.clear();
	return text;
}

std::string ControlTest::answer()
{
	const std::string first = "Deal message from 74565, captured.\n";
	std::string text = said();
	EXPECT_EQ(text.substr(0, first.size()), first);
	return text.size() < first.size() ? text : text.substr(first.size());
}

std::vector<u8> ControlTest::switches()
{
	return { mox_packet_debug, mox_packet_debug + 19 };
}

std::vector<u8> ControlTest::filter_bytes()
{
	auto *b = reinterpret_cast<u8 *>(&g_pktd_kdbg_filter);
	return { b, b + sizeof g_pktd_kdbg_filter };
}
