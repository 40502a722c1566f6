// SPDX-License-Identifier: GPL-2.0-only
#include "rules_fixture.h"

namespace {

class RegularMem : public RulesTest {
protected:
	static std::vector<std::string> caches(const std::string &what)
	{
		std::vector<std::string> out;
		for (const contract::CacheFacts &cache : contract::kCaches)
			out.push_back(what + cache.name);
		return out;
	}
};

TEST_F(RegularMem, init__creates_four_caches_in_order)
{
	EXPECT_EQ(kernel().journal, caches("cache+ "));
	EXPECT_EQ(mox_packet_regular_inited, 1);
}

TEST_F(RegularMem, init__object_sizes_are_those_of_the_records)
{
	std::map<std::string, size_t> sizes;
	for (auto *c : kernel().caches)
		sizes[c->name] = c->size;
	EXPECT_EQ(sizes["pkt_regular_data"], sizeof(regular_data));
	EXPECT_EQ(sizes["pkt_item_mem"], sizeof(regular_item));
	EXPECT_EQ(sizes["pkt_flt_mem"], sizeof(filter_list_data));
	EXPECT_EQ(sizes["pkt_match_mem"], sizeof(packet_regular));
}

TEST_F(RegularMem, init__second_call_creates_nothing)
{
	EXPECT_EQ(mox_packet_regular_init(), 0);
	EXPECT_EQ(kernel().caches.size(), 4u);
}

TEST_F(RegularMem, deinit__destroys_in_creation_order_and_once)
{
	kernel().journal.clear();
	mox_packet_regular_deinit();
	EXPECT_EQ(kernel().journal, caches("cache- "));
	EXPECT_EQ(mox_packet_regular_inited, 0);
	mox_packet_regular_deinit();
	EXPECT_EQ(kernel().journal.size(), 4u);
}

TEST_F(RegularMem, init__failure_of_each_cache)
{
	mox_packet_regular_deinit();
	for (int nth = 1; nth <= 4; nth++) {
		SCOPED_TRACE(nth);
		kernel().log.clear();
		kernel().fail(Fail::kCacheCreate, nth);
		EXPECT_EQ(mox_packet_regular_init(), -1);
		EXPECT_EQ(kernel().text(), contract::kCaches[nth - 1].not_created);
		EXPECT_TRUE(kernel().caches.empty());
		EXPECT_EQ(mox_packet_regular_inited, 0);
	}
	EXPECT_EQ(mox_packet_regular_init(), 0);
}

TEST_F(RegularMem, init_regular_lib__empty_with_a_ready_lock)
{
	packet_regular_lib lib;
	memset(&lib, 0x5a, sizeof lib);
	mox_packet_init_regular_lib(&lib);
	EXPECT_EQ(lib.regular_count, 0u);
	EXPECT_EQ(lib.filter_count, 0u);
	EXPECT_EQ(lib.regulars.next, &lib.regulars);
	EXPECT_EQ(lib.filter_list.prev, &lib.filter_list);
	const rule_index none{};
	EXPECT_EQ(memcmp(&lib.filter, &none, sizeof none), 0);
	EXPECT_EQ(memcmp(&lib.delivery, &none, sizeof none), 0);
	for (const rule_anchor *bucket : lib.filter_buckets)
		EXPECT_EQ(bucket, nullptr);
	for (const rule_anchor *bucket : lib.delivery_buckets)
		EXPECT_EQ(bucket, nullptr);
	for (u32 type = 0; type < contract::kTypes; type++) {
		EXPECT_EQ(lib.last_entry[type], nullptr);
		EXPECT_EQ(lib.values[type], nullptr);
		EXPECT_EQ(lib.items[type].next, &lib.items[type]);
	}
	EXPECT_EQ(lib.nameless, 0u);
	const lib_report no_report{};
	for (const lib_report &report : lib.reports)
		EXPECT_EQ(memcmp(&report, &no_report, sizeof report), 0);
	EXPECT_EQ(lib.entries_made, 0u);
	EXPECT_EQ(lib.rules_entered, 0u);
	seam_write_lock_bh(&lib.lock);
	seam_write_unlock_bh(&lib.lock);
}

TEST_F(RegularMem, data__counted_by_type_and_zeroed)
{
	for (u32 type = 0; type < 20; type++) {
		regular_data *d = mox_packet_alloc_init_data(type);
		ASSERT_NE(d, nullptr);
		EXPECT_EQ(d->type, type);
		EXPECT_EQ(d->node.next, &d->node);
		for (unsigned char b : d->value)
			EXPECT_EQ(b, 0);
		EXPECT_EQ(d->entry, nullptr);
		EXPECT_EQ(d->filed, nullptr);
		EXPECT_EQ(d->anchor.prev, nullptr);
		EXPECT_EQ(g_regular_data_stats[type], 1u);
		mox_packet_free_data(d);
		EXPECT_EQ(g_regular_data_stats[type], 0u);
	}
}

TEST_F(RegularMem, item__counted_by_type)
{
	for (u32 type = 0; type < 20; type++) {
		regular_item *item = mox_packet_alloc_init_item(type);
		ASSERT_NE(item, nullptr);
		EXPECT_EQ(item->type, type);
		EXPECT_TRUE(mox_packet_item_empty(item));
		EXPECT_EQ(item->node.next, &item->node);
		EXPECT_EQ(item->root, nullptr);
		EXPECT_EQ(item->count, 0u);
		EXPECT_EQ(g_regular_item_stats[type], 1u);
		mox_packet_free_item(item);
		EXPECT_EQ(g_regular_item_stats[type], 0u);
	}
}

TEST_F(RegularMem, entry_and_copy__counted_in_20_and_21)
{
	const u8 value[8] = { 1, 2, 3, 4, 5, 6, 7, 8 };
	filter_list_data *e = pkt_alloc_filter_list_data(PACKET_SRC_MAC_EQUAL, value);
	EXPECT_EQ(memcmp(e->value, value, 8), 0);
	EXPECT_EQ(e->node.next, &e->node);
	EXPECT_EQ(e->last_trap, nullptr);
	EXPECT_EQ(e->match_list.next, &e->match_list);
	EXPECT_EQ(e->local_match_list.next, &e->local_match_list);
	packet_regular *copy = pkt_alloc_regular_data();
	EXPECT_EQ(copy->items.next, &copy->items);
	EXPECT_EQ(copy->lib_node.next, &copy->lib_node);
	EXPECT_EQ(copy->owner, nullptr);
	EXPECT_EQ(copy->treatment, u32{ PACKET_TREATMENT_NONE });
	EXPECT_EQ(copy->location, u32{ PACKET_NONE_LOC });
	EXPECT_EQ(copy->entry, nullptr);
	EXPECT_EQ(copy->filed_at, nullptr);
	EXPECT_EQ(copy->anchored, nullptr);
	EXPECT_EQ(copy->anchor.prev, nullptr);
	EXPECT_EQ(g_regular_data_stats[20], 1u);
	EXPECT_EQ(g_regular_data_stats[21], 1u);
	ASSERT_EQ(mox_packet_add_data_to_regular(datum(PACKET_ETH_PROT_EQUAL, { 8, 0 }), copy), 0);
	pkt_free_regular_data(copy);
	pkt_free_filter_list_data(e);
	EXPECT_EQ(counters(), oracle::Counters{});
}

TEST_F(RegularMem, failures__counted_in_22_and_printed_while_debugging)
{
	struct {
		contract::Cache cache;
		std::function<void *()> make;
		u32 *counter;
	} const cases[] = {
		{ contract::Cache::kData, [] { return mox_packet_alloc_init_data(3); },
		  &g_regular_data_stats[22] },
		{ contract::Cache::kItem, [] { return mox_packet_alloc_init_item(3); },
		  &g_regular_item_stats[22] },
		{ contract::Cache::kEntry, [] { return pkt_alloc_filter_list_data(3, nullptr); },
		  &g_regular_data_stats[22] },
		{ contract::Cache::kCopy, [] { return pkt_alloc_regular_data(); },
		  &g_regular_data_stats[22] },
	};
	kernel().cpu = 2;
	for (auto &c : cases) {
		SCOPED_TRACE(facts(c.cache).name);
		u32 before = *c.counter;
		for (u8 debug : { 0, 1 }) {
			mox_packet_debug[0] = debug;
			kernel().log.clear();
			kernel().fail(fake::alloc_of(c.cache));
			EXPECT_EQ(c.make(), nullptr);
			EXPECT_EQ(kernel().text(), debug ? std::string("[MOX-PACKET(2)]: ") +
								   facts(c.cache).exhausted
							 : "");
		}
		EXPECT_EQ(*c.counter, before + 2);
	}
	EXPECT_EQ(g_regular_data_stats[3], 0u);
	EXPECT_EQ(g_regular_item_stats[3], 0u);
	EXPECT_EQ(g_regular_item_stats[20], 0u);
	EXPECT_EQ(g_regular_item_stats[21], 0u);
}

TEST_F(RegularMem, empty_regular_and_match_regular__free_everything)
{
	for (auto empty : { mox_packet_empty_regular, mox_packet_empty_match_regular }) {
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		rule.data(PACKET_ETH_PROT_EQUAL, { 8, 0 }).data(PACKET_ETH_PROT_EQUAL, { 8, 6 });
		rule.data(PACKET_PID_T, { 1, 0, 0, 0 }).item(PACKET_ALL);
		EXPECT_EQ(g_regular_data_stats[PACKET_PID_T], 1u);
		EXPECT_EQ(g_regular_item_stats[PACKET_ALL], 1u);
		empty(&rule.regular());
		EXPECT_EQ(counters(), oracle::Counters{});
		EXPECT_EQ(rule.regular().items.next, &rule.regular().items);
	}
}

} // namespace
