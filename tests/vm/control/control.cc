// SPDX-License-Identifier: GPL-2.0-only
#include "control.h"

#include <cstring>

namespace vm {

Bytes words(std::initializer_list<uint32_t> values)
{
	Bytes out;
	for (uint32_t value : values)
		put32(out, value);
	return out;
}

Bytes record(uint16_t type, const Bytes &body)
{
	Bytes out;
	put16(out, type);
	put16(out, 0);
	out.insert(out.end(), body.begin(), body.end());
	return out;
}

std::string tagged(const std::string &text)
{
	return "[MOX-PACKET(" + std::to_string(cpu_for(kAskingCpu)) + ")]: " + text;
}

std::string said()
{
	std::string all;
	for (const std::string &line : lab::printk_lines())
		all += line;
	lab::clear_printk();
	return all;
}

void ControlTest::SetUp()
{
	VmTest::SetUp();
	lab::echo_printk(false);
	pin(kAskingCpu);
	family_ = genl_family_id(client_, kFamily);
	ASSERT_NE(family_, 0) << "no generic netlink family " << kFamily;
	ASSERT_EQ(switches(), Bytes(kSwitches)) << "switches left on by an earlier test";
	lab::clear_printk();
}

void ControlTest::TearDown()
{
	for (uint32_t i = 0; i < kSwitches; ++i)
		lab::poke8("mox_packet_debug", i, 0);
	for (uint32_t i = 0; i < sizeof(mox_packet_filter); ++i)
		lab::poke8("g_pktd_kdbg_filter", i, 0);
	EXPECT_EQ(lab::peek8("g_tech_dump"), 0);
	EXPECT_EQ(lab::peek32("g_file_buff"), 0u) << "the staging buffer is still there";
	EXPECT_EQ(lab::peek32("g_tech_filp"), 0u);
	EXPECT_EQ(lab::peek32("g_file_bufflen"), 0u);
	lab::echo_printk(true);
	pin(-1);
	VmTest::TearDown();
}

Bytes ControlTest::request(uint16_t type, const Bytes &body, uint16_t flags) const
{
	GenlMessage message;
	message.type = family_;
	message.flags = flags;
	message.payload = attribute(MOX_PACKET_GENL_ATTR, record(type, body));
	return message.bytes();
}

void ControlTest::ask(GenlSocket &client, uint16_t type, const Bytes &body)
{
	EXPECT_EQ(client.send(request(type, body)), 0) << "request of type " << type;
}

std::string ControlTest::asked_by(uint32_t port, const char *name) const
{
	return "Deal message from " + std::to_string(port) + ", " + name + ".\n";
}

std::string ControlTest::answer(uint16_t type, const Bytes &body)
{
	said();
	ask(type, body);
	std::string text = said(), first = asked_by(client_.port());
	EXPECT_EQ(text.substr(0, first.size()), first);
	return text.size() > first.size() ? text.substr(first.size()) : "";
}

std::string ControlTest::printed(const Bytes &datagram)
{
	said();
	EXPECT_EQ(client_.send(datagram), 0);
	return said();
}

int ControlTest::refusal(const Bytes &datagram)
{
	client_.drain();
	EXPECT_EQ(client_.send(datagram), 0);
	auto reply = client_.receive();
	return reply ? reply->error() : 1;
}

} // namespace vm
