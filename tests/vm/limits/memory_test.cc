// SPDX-License-Identifier: GPL-2.0-only
// Memory of rules and of delivered frames: all that a large rule takes comes back, and sockets that receive the same frame
// share its bytes.
#include "limits/measure.h"

#include <cerrno>
#include <string>

#include <sys/sysinfo.h>

namespace {

using namespace vm;

class Memory : public VmTest {
protected:
	static RuleRecords since(const RuleRecords &before)
	{
		RuleRecords now = RuleRecords::read();
		for (uint32_t i = 0; i < contract::kRecordCounters; ++i) {
			now.data[i] -= before.data[i];
			now.items[i] -= before.items[i];
		}
		return now;
	}
	static long free_kib()
	{
		struct sysinfo now;
		EXPECT_EQ(::sysinfo(&now), 0);
		return long(now.freeram / 1024 * now.mem_unit);
	}
};

TEST_F(Memory, a_rule_of_10000_values_leaves_nothing)
{
	constexpr unsigned kValues = 10000;
	Socket socket;
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.add(many(PACKET_SRC_MAC_EQUAL, 0, kValues)), 0);
	EXPECT_EQ(since(records_).data[PACKET_SRC_MAC_EQUAL], kValues);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	EXPECT_EQ(put(lab::Hook::Lev2, from_mac(frames::plain(), kValues - 1)), lab::kGoOn);
	EXPECT_EQ(socket.drain(), 1u);
	ASSERT_EQ(socket.treatment(PACKET_TRAP), 0);
	ASSERT_EQ(socket.del(many(PACKET_SRC_MAC_EQUAL, 0, kValues / 2)), 0);
	EXPECT_EQ(since(records_).data[PACKET_SRC_MAC_EQUAL], kValues / 2);
	ASSERT_EQ(socket.add(many(PACKET_ETH_PROT_EQUAL, 0, 3)), 0);
	ASSERT_EQ(socket.location(PACKET_IPv4_LOC), 0);
	socket.close();
	const RuleRecords left = since(records_);
	for (uint32_t i = 0; i < contract::kRecordCounters; ++i) {
		EXPECT_EQ(left.data[i], 0u) << "rule data counter " << i;
		EXPECT_EQ(left.items[i], 0u) << "rule item counter " << i;
	}
}

/// Every value of one type is filed with all of the other: a few kilobytes of input ask for a product of memory.
TEST_F(Memory, two_types_of_many_values_do_not_take_their_product)
{
	for (unsigned values : { 2048u, 4096u }) {
		SCOPED_TRACE(std::to_string(values) + " EtherTypes and as many interfaces");
		const long before = free_kib();
		const uint32_t refused = lab::peek32("g_packet_rule_refused");
		Socket socket;
		ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
		ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
		ASSERT_EQ(socket.add(many(PACKET_ETH_PROT_EQUAL, 0x9000, values)), 0);
		EXPECT_EQ(socket.add(many(PACKET_SRC_INTF_EQUAL, 0, values)), ENOMEM);
		const long taken = before - free_kib();
		show("memory of " + std::to_string(values) + " values", double(taken), "KiB");
		EXPECT_LT(taken, 16 << 10) << "KiB; the product takes 99,000 and more";
		EXPECT_EQ(lab::peek32("g_packet_rule_refused"), refused + 1);
		EXPECT_EQ(since(records_).data[PACKET_SRC_INTF_EQUAL], 0u);
		// The rule is what it was, and still in its library.
		put(lab::Hook::Lev2, frames::plain(0x9001));
		EXPECT_EQ(socket.drain(), 1u);
	}
}

TEST_F(Memory, sockets_that_receive_a_frame_share_its_bytes)
{
	constexpr unsigned kSockets = 300;
	constexpr size_t kLength = 60000;
	allow_files(kSockets);
	std::vector<Socket> sockets;
	while (sockets.size() < kSockets)
		sockets.push_back(capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5)));
	const long before = free_kib();
	put(lab::Hook::Lev2, frames::plain(0x88b5, kLength));
	const long taken = before - free_kib();
	show("memory of one frame of 60,000 bytes on 300 sockets", double(taken), "KiB");
	EXPECT_LT(taken, long(kSockets * kLength / 1024 / 4))
		<< "KiB; a copy for each takes 17,500";
	const Bytes bytes = frames::plain(0x88b5, kLength).bytes;
	for (Socket &socket : sockets) {
		auto packet = socket.receive_now();
		ASSERT_TRUE(packet);
		EXPECT_TRUE(packet->bytes == bytes);
	}
}

} // namespace
