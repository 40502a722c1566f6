// SPDX-License-Identifier: GPL-2.0-only
// The family as generic netlink lists it, who may ask, and which parts of a message count.
#include "control.h"

#include <cerrno>
#include <cstring>
#include <thread>

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "golden.h"
#include "support/module.h"

namespace {

using namespace vm;

class Family : public ControlTest {
protected:
	/// A request for the copy thread's report, the shortest there is, with the changes of a test.
	GenlMessage ordinary() const
	{
		GenlMessage message;
		message.type = family_;
		message.payload = attribute(MOX_PACKET_GENL_ATTR, record(MOX_MSG_SHOW_THREAD));
		return message;
	}
	std::string thread_report() { return asked_by(client_.port()) + joined(thread_pieces()); }
};

TEST_F(Family, is_registered_as_tools_know_it)
{
	auto family = genl_family(client_, "PACKET_GENL");
	ASSERT_TRUE(family);
	const std::string name = "PACKET_GENL";
	EXPECT_EQ(family->at(CTRL_ATTR_FAMILY_NAME),
		  Bytes(name.c_str(), name.c_str() + name.size() + 1));
	EXPECT_EQ(family->at(CTRL_ATTR_VERSION), words({ 1 }));
	EXPECT_EQ(family->at(CTRL_ATTR_HDRSIZE), words({ 0 }));
	EXPECT_EQ(family->at(CTRL_ATTR_MAXATTR), words({ 1 }));
	EXPECT_FALSE(family->count(CTRL_ATTR_MCAST_GROUPS));
	auto operations = attributes(family->at(CTRL_ATTR_OPS));
	ASSERT_EQ(operations.size(), 1u) << "one operation";
	auto operation = attributes(operations.begin()->second);
	EXPECT_EQ(operation.at(CTRL_ATTR_OP_ID), words({ 0 }));
	EXPECT_EQ(operation.at(CTRL_ATTR_OP_FLAGS), words({ GENL_CMD_CAP_DO }))
		<< "it acts, and has no dump, no policy and no need of a privilege";
	EXPECT_GE(family_, NLMSG_MIN_TYPE) << "a number that the kernel gave";
}

TEST_F(Family, an_ordinary_user_may_ask)
{
	uint32_t port = 0;
	long user = 0;
	std::thread([&] {
		pin(kAskingCpu);
		// Of the thread alone; it loses every capability with it.
		::syscall(SYS_setresuid32, 65534, 65534, 65534);
		user = ::syscall(SYS_geteuid32);
		GenlSocket client;
		port = client.port();
		ask(client, MOX_MSG_DEBUG, words({ MOX_DEBUG_GENERAL, 1 }));
		ask(client, MOX_MSG_SHOW_THREAD);
	}).join();
	EXPECT_EQ(user, 65534);
	EXPECT_EQ(switches()[0], 1);
	EXPECT_EQ(said(), asked_by(port) + tagged("Deal message, length:4.\n") +
				  tagged("MSG TYPE 13, client " + std::to_string(port) + "\n") +
				  asked_by(port) + joined(thread_pieces()));
}

TEST_F(Family, is_that_of_the_initial_network_namespace_only)
{
	uint32_t taken = requests_taken();
	int error = 1;
	uint16_t found = 1;
	std::thread([&] {
		ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << strerror(errno);
		GenlSocket client;
		found = genl_family_id(client, kFamily);
		ASSERT_EQ(client.send(request(MOX_MSG_SHOW_THREAD)), 0);
		if (auto reply = client.receive())
			error = reply->error();
	}).join();
	EXPECT_EQ(found, 0);
	EXPECT_EQ(error, -ENOENT);
	EXPECT_EQ(said(), "");
	EXPECT_EQ(requests_taken(), taken);
}

TEST_F(Family, a_client_of_the_initial_namespace_keeps_its_way_in)
{
	// The socket's namespace counts, not that of the process that uses it.
	std::thread([&] {
		pin(kAskingCpu);
		ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << strerror(errno);
		ask(MOX_MSG_SHOW_THREAD);
	}).join();
	EXPECT_EQ(said(), thread_report());
}

TEST_F(Family, other_commands_and_dumps_are_refused)
{
	for (unsigned command = 1; command < 256; command += command < 8 ? 1 : 31) {
		GenlMessage message = ordinary();
		message.cmd = uint8_t(command);
		EXPECT_EQ(refusal(message.bytes()), -EOPNOTSUPP) << command;
	}
	GenlMessage dump = ordinary();
	dump.flags = NLM_F_REQUEST | NLM_F_DUMP;
	EXPECT_EQ(refusal(dump.bytes()), -EOPNOTSUPP);
	EXPECT_EQ(said(), "");
}

TEST_F(Family, the_generic_header_is_not_looked_at_but_for_the_command)
{
	for (unsigned version : { 0, 1, 2, 255 }) {
		GenlMessage message = ordinary();
		message.version = uint8_t(version);
		message.reserved = uint16_t(version * 0x101);
		EXPECT_EQ(printed(message.bytes()), thread_report()) << version;
	}
	EXPECT_FALSE(client_.receive()) << "nor is any of them answered";
}

TEST_F(Family, the_attributes_type_and_length_are_not_looked_at)
{
	for (unsigned type : { 0, 1, 2, 3, 100, 0x3fff, 0x4001, 0x8001, 0xffff }) {
		GenlMessage message = ordinary();
		message.payload = attribute(uint16_t(type), record(MOX_MSG_SHOW_THREAD));
		EXPECT_EQ(printed(message.bytes()), thread_report()) << "type " << type;
	}
	debug(true);
	for (int length : { 0, 1, 3, 4, 5, 7, 8, 9, 255, 0x7fff, 0xffff }) {
		GenlMessage message = ordinary();
		message.payload = attribute(MOX_PACKET_GENL_ATTR, record(MOX_MSG_SHOW_THREAD),
					    length);
		EXPECT_EQ(printed(message.bytes()),
			  tagged("Deal message, length:" + std::to_string(length - 4) + ".\n") +
				  tagged("MSG TYPE 13, client " + std::to_string(client_.port()) +
					 "\n") +
				  thread_report())
			<< "length " << length;
	}
	EXPECT_FALSE(client_.receive());
}

TEST_F(Family, a_request_is_acknowledged_when_it_asks_for_that)
{
	EXPECT_EQ(refusal(request(MOX_MSG_SHOW_THREAD, {}, NLM_F_REQUEST | NLM_F_ACK)), 0);
	EXPECT_EQ(refusal(request(65535, {}, NLM_F_REQUEST | NLM_F_ACK)), 0)
		<< "also one that means nothing";
	EXPECT_EQ(refusal(request(MOX_MSG_SHOW_THREAD)), 1) << "and not when it does not";
}

TEST_F(Family, two_requests_in_one_datagram)
{
	Bytes both = request(MOX_MSG_SHOW_THREAD), second = request(65535);
	both.insert(both.end(), second.begin(), second.end());
	EXPECT_EQ(printed(both), thread_report() + asked_by(client_.port()));
}

TEST_F(Family, an_open_client_does_not_keep_the_module)
{
	compare_records_ = false;
	ask(65535);
	ASSERT_EQ(unload_module("mox_ef_socket"), 0);
	EXPECT_EQ(genl_family_id(client_, kFamily), 0);
	EXPECT_EQ(refusal(request(MOX_MSG_SHOW_THREAD)), -ENOENT) << "by the number that it had";
	ASSERT_EQ(load_module("mox_ef_socket"), 0);
	EXPECT_EQ(requests_taken(), 0u);
	family_ = genl_family_id(client_, kFamily);
	ASSERT_NE(family_, 0);
	said();
	EXPECT_EQ(printed(request(MOX_MSG_SHOW_THREAD)), thread_report())
		<< "through the same socket";
	EXPECT_EQ(requests_taken(), 1u);
}

} // namespace
