// SPDX-License-Identifier: GPL-2.0-only
// The module, its memory, and the copy thread, as the family for reading has them.
#include "capture_fixture.h"
#include "base/restriction.hpp"
#include "rules/budget.hpp"

namespace {

class CaptureMisc : public CaptureTest {
protected:
	// The rows of the dump of memory, by name.
	static std::map<std::string, capture::Message> memory()
	{
		std::map<std::string, capture::Message> rows;
		for (const capture::Message &row : dump(MOX_CAPTURE_CMD_MEMORY)) {
			const std::string name = row.text(MOX_CAPTURE_MEMORY_NAME);
			EXPECT_TRUE(rows.emplace(name, row).second) << name << " twice";
		}
		return rows;
	}
	static uint64_t objects(const std::string &name)
	{
		return memory()[name].u64(MOX_CAPTURE_MEMORY_OBJECTS);
	}
};

#define FEATURE(name, ...) name,
const Strings kFeatures = { MOX_CAPTURE_FEATURE_TABLE(FEATURE) };

TEST_F(CaptureMisc, info__whole)
{
	for (bool restricted : { false, true }) {
		restriction_set(restricted);
		ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_INFO), 0);
		ASSERT_EQ(answers.size(), 1u);
		const capture::Message &info = answers[0];
		EXPECT_EQ(info.text(MOX_CAPTURE_INFO_MODULE), "mox_ef_socket");
		EXPECT_EQ(info.text(MOX_CAPTURE_INFO_MODULE_VERSION), "7.8.9");
		EXPECT_EQ(info.u32(MOX_CAPTURE_INFO_INTERFACE), 1u);
		EXPECT_EQ(info.texts(MOX_CAPTURE_INFO_FEATURE), kFeatures);
		EXPECT_EQ(info.number<u8>(MOX_CAPTURE_INFO_RESTRICTED), restricted);
	}
}

TEST_F(CaptureMisc, thread__state_and_counters)
{
	g_packet_thread_debug.scheduled = 4000000000u;
	g_packet_thread_debug.alloc_skb_failed = 17;
	for (u8 running : { 0, 1 })
		for (u32 pending = 0; pending < 256; pending += 51) {
			SCOPED_TRACE(pending);
			std::vector<u32> locations;
			g_packet_thread_top.running = running;
			for (u32 queue = 0; queue < CPU_QUEUES; queue++) {
				g_packet_thread_top.pending[queue] = pending >> queue & 1;
				if (pending >> queue & 1)
					locations.push_back(queue_location(queue));
			}
			ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_THREAD), 0);
			ASSERT_EQ(answers.size(), 1u);
			const capture::Message &thread = answers[0];
			EXPECT_EQ(thread.text(MOX_CAPTURE_THREAD_NAME), "packet-copy");
			EXPECT_EQ(thread.s32(MOX_CAPTURE_THREAD_PID), 815);
			EXPECT_EQ(thread.u64(MOX_CAPTURE_THREAD_SCHEDULED), 4000000000u);
			EXPECT_EQ(thread.u64(MOX_CAPTURE_THREAD_ALLOC_SKB_FAILED), 17u);
			EXPECT_EQ(thread.has(MOX_CAPTURE_THREAD_RUNNING), running != 0);
			EXPECT_EQ(thread.numbers(MOX_CAPTURE_THREAD_PENDING), locations);
		}
	g_packet_thread_top.running = 0;
	memset(g_packet_thread_top.pending, 0, sizeof(g_packet_thread_top.pending));
	g_packet_thread_debug = {};
}

// Without a thread there is no process id.
TEST_F(CaptureMisc, thread__that_does_not_run)
{
	mox_packet_thread_deinit();
	ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_THREAD), 0);
	ASSERT_EQ(answers.size(), 1u);
	EXPECT_FALSE(answers[0].has(MOX_CAPTURE_THREAD_PID));
	EXPECT_TRUE(answers[0].has(MOX_CAPTURE_THREAD_SCHEDULED));
	ASSERT_EQ(mox_packet_thread_init(), 0);
}

TEST_F(CaptureMisc, memory__the_rows_and_what_each_has)
{
	const struct {
		const char *name;
		bool failed; // has a count of failed allocations
	} kinds[] = { { "sockets", false },      { "rule values", true },
		      { "rule items", true },    { "filter keys", false },
		      { "match copies", false }, { "rule record buffers", false },
		      { "socket buffers", true } };
	const Messages rows = dump(MOX_CAPTURE_CMD_MEMORY);
	ASSERT_EQ(rows.size(), std::size(kinds) + 2);
	for (size_t i = 0; i < std::size(kinds); i++) {
		SCOPED_TRACE(kinds[i].name);
		EXPECT_EQ(rows[i].text(MOX_CAPTURE_MEMORY_NAME), kinds[i].name);
		EXPECT_EQ(rows[i].u64(MOX_CAPTURE_MEMORY_OBJECTS), 0u);
		EXPECT_EQ(rows[i].has(MOX_CAPTURE_MEMORY_FAILED), kinds[i].failed);
		EXPECT_FALSE(rows[i].has(MOX_CAPTURE_MEMORY_LIMIT));
	}
	const char *const budgets[][2] = { { "rule memory", "bytes" },
					   { "rule work", "instructions" } };
	for (size_t i = 0; i < 2; i++) {
		const capture::Message &row = rows[std::size(kinds) + i];
		EXPECT_EQ(row.text(MOX_CAPTURE_MEMORY_NAME), budgets[i][0]);
		EXPECT_EQ(row.text(MOX_CAPTURE_MEMORY_UNIT), budgets[i][1]);
		EXPECT_FALSE(row.has(MOX_CAPTURE_MEMORY_OBJECTS));
	}
}

TEST_F(CaptureMisc, memory__objects_in_use)
{
	Sock s, other;
	ASSERT_EQ(other.create(), 0);
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 3, { 8, 0, 8, 6, 0x88, 0xcc }), 0);
	ASSERT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 1, { 17 }), 0);
	ASSERT_EQ(s.add(PACKET_PACKET_CODE_EQUAL, 1, { 1, 2 }), 0); // the first type
	ASSERT_EQ(s.add(PACKET_ARP_TYPE, 1, { 0, 1 }), 0);          // the last one
	EXPECT_EQ(objects("sockets"), 2u);
	EXPECT_EQ(objects("rule values"), 6u);
	EXPECT_EQ(objects("rule items"), 4u);
	ASSERT_EQ(s.del(PACKET_PACKET_CODE_EQUAL, 1, { 1, 2 }), 0);
	ASSERT_EQ(s.del(PACKET_ARP_TYPE, 1, { 0, 1 }), 0);
	EXPECT_EQ(objects("rule values"), 4u);
	EXPECT_EQ(objects("rule items"), 2u);
	EXPECT_EQ(objects("filter keys"), 0u) << "the rule is at no location";
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	const oracle::Counters in_use = counters();
	EXPECT_EQ(objects("filter keys"), in_use.entries);
	EXPECT_EQ(objects("match copies"), in_use.copies);
	EXPECT_GT(in_use.entries, 0u);
	EXPECT_GT(in_use.copies, 0u);
	frame(PACKET_LEV2_LOC, {}, packets::eth(0x0806) + Bytes(46));
	EXPECT_EQ(objects("socket buffers"), kernel().skbs.size()) << "those of this dump are gone";
	EXPECT_EQ(s.queued(), kernel().skbs.size());
	g_packet_regular_data_alloc = 7;
	g_packet_regular_data_free = 4;
	EXPECT_EQ(objects("rule record buffers"), 3u);
	g_packet_regular_data_alloc = g_packet_regular_data_free = 0;
	// Both numbers only grow, and wrap.
	const u32 made = g_alloc_skb_num, freed = g_free_skb_num;
	g_alloc_skb_num = 3;
	g_free_skb_num = 0xfffffffe;
	EXPECT_EQ(objects("socket buffers"), 5u);
	g_alloc_skb_num = made;
	g_free_skb_num = freed;
}

TEST_F(CaptureMisc, memory__failed_allocations)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	kernel().fail(Fail::kDataAlloc);
	EXPECT_NE(s.add(PACKET_ETH_PROT_EQUAL, 1, { 8, 6 }), 0);
	kernel().fail(Fail::kItemAlloc);
	EXPECT_NE(s.add(PACKET_ETH_PROT_EQUAL, 1, { 8, 6 }), 0);
	EXPECT_EQ(memory()["rule values"].u64(MOX_CAPTURE_MEMORY_FAILED), 1u);
	EXPECT_EQ(memory()["rule items"].u64(MOX_CAPTURE_MEMORY_FAILED), 1u);
	EXPECT_EQ(memory()["socket buffers"].u64(MOX_CAPTURE_MEMORY_FAILED), 0u);
	g_packet_thread_debug.alloc_skb_failed = 5;
	EXPECT_EQ(memory()["socket buffers"].u64(MOX_CAPTURE_MEMORY_FAILED), 5u);
}

TEST_F(CaptureMisc, memory__budgets)
{
	const struct {
		const char *name;
		uint64_t limit, unprivileged, socket;
	} rows[] = {
		{ "rule memory", fake::Kernel::kTotalMemory / 8, fake::Kernel::kTotalMemory / 16,
		  fake::Kernel::kTotalMemory / 32 },
		{ "rule work", kFrameWork, kFrameWork / 2, kFrameWork },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		const capture::Message got = memory()[row.name];
		EXPECT_EQ(got.u64(MOX_CAPTURE_MEMORY_USED), 0u);
		EXPECT_EQ(got.u64(MOX_CAPTURE_MEMORY_LIMIT), row.limit);
		EXPECT_EQ(got.u64(MOX_CAPTURE_MEMORY_UNPRIVILEGED_LIMIT), row.unprivileged);
		EXPECT_EQ(got.u64(MOX_CAPTURE_MEMORY_SOCKET_LIMIT), row.socket);
	}
	const auto number = [](const char *name, int attribute) {
		return memory()[name].u64(attribute);
	};
	// What is charged to the socket.
	Sock s;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.add(PACKET_ETH_PROT_EQUAL, 1, { 8, 6 }), 0);
	ASSERT_EQ(s.add(PACKET_IPv4_PROT_EQUAL, 1, { 17 }), 0);
	EXPECT_EQ(number("rule memory", MOX_CAPTURE_MEMORY_USED), s.po().rule_bytes);
	EXPECT_EQ(number("rule work", MOX_CAPTURE_MEMORY_USED), s.po().rule_work);
	EXPECT_GT(s.po().rule_bytes, 0u);
	EXPECT_GT(s.po().rule_work, 0u);
	// Each budget counts its own refusals.
	const uint64_t bytes = number("rule memory", MOX_CAPTURE_MEMORY_REFUSED);
	const uint64_t work = number("rule work", MOX_CAPTURE_MEMORY_REFUSED);
	budget_init(1);
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 1, { 0, 1 }), -ENOMEM);
	EXPECT_EQ(number("rule memory", MOX_CAPTURE_MEMORY_REFUSED), bytes);
	EXPECT_EQ(number("rule work", MOX_CAPTURE_MEMORY_REFUSED), work + 1);
	kernel().total_memory = 4096;
	budget_init();
	EXPECT_EQ(s.add(PACKET_IPv4_DEST_PORT_EQUAL, 1, { 0, 1 }), -ENOMEM);
	EXPECT_EQ(number("rule memory", MOX_CAPTURE_MEMORY_REFUSED), bytes + 1);
	EXPECT_EQ(number("rule work", MOX_CAPTURE_MEMORY_REFUSED), work + 1);
	kernel().total_memory = fake::Kernel::kTotalMemory;
	budget_init();
	ASSERT_EQ(s.release(), 0);
	EXPECT_EQ(number("rule memory", MOX_CAPTURE_MEMORY_USED), 0u);
	EXPECT_EQ(number("rule work", MOX_CAPTURE_MEMORY_USED), 0u);
}

// Every row comes once, whatever the buffers' size.
TEST_F(CaptureMisc, memory__in_buffers_of_any_size)
{
	const Messages whole = dump(MOX_CAPTURE_CMD_MEMORY);
	size_t longest = 0;
	for (const capture::Message &row : whole)
		longest = std::max(longest, row.size);
	for (size_t room = 0; room < longest; room += 4) {
		Reader reader(MOX_CAPTURE_CMD_MEMORY);
		int result = 1;
		for (int calls = 0; result > 0 && calls < 100; calls++)
			result = reader.fill(room);
		EXPECT_EQ(result, -EMSGSIZE) << room;
	}
	for (size_t room = longest; room <= 2 * longest; room++) {
		const Messages rows = dump(MOX_CAPTURE_CMD_MEMORY, {}, room);
		ASSERT_EQ(rows.size(), whole.size()) << room;
		for (size_t i = 0; i < rows.size(); i++)
			EXPECT_EQ(rows[i].text(MOX_CAPTURE_MEMORY_NAME),
				  whole[i].text(MOX_CAPTURE_MEMORY_NAME));
	}
}

} // namespace
