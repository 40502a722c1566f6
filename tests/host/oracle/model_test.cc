// SPDX-License-Identifier: GPL-2.0-only
// Pins ordering, filing, hooks and delivery of the reference with small scenes.
#include <gtest/gtest.h>

#include <cerrno>

#include "frames.h"
#include "sockets.h"

namespace oracle {
namespace {

Bytes n16s(std::initializer_list<uint16_t> hosts)
{
	Bytes out;
	for (uint16_t h : hosts)
		out = out + be16(h);
	return out;
}

struct OracleModel : testing::Test {
	Sockets s;

	void socket(int id, uint32_t location, uint32_t treatment,
		    std::initializer_list<uint16_t> types)
	{
		ASSERT_EQ(s.create(id, 3, 0), 0);
		s.add_rule(id, kEth, types.size(), n16s(types));
		s.set_treatment(id, treatment);
		s.set_location(id, location);
	}
	std::vector<int> order(uint32_t location)
	{
		std::vector<int> ids;
		for (const Regular *r : s.model.library(location)->regulars)
			ids.push_back(r->owner);
		return ids;
	}
	static std::vector<int> owners(const std::vector<Regular> &list)
	{
		std::vector<int> ids;
		for (const Regular &r : list)
			ids.push_back(r.owner);
		return ids;
	}
	Packet packet(uint16_t type) { return parse(efbuff({}, eth(type)).data(), 7); }
	std::vector<Entry> &entries(uint32_t location)
	{
		return s.model.library(location)->filter_list;
	}
};

using Ids = std::vector<int>;

TEST_F(OracleModel, regulars__treatment_order)
{
	socket(1, 2, kCopy, { 1 });
	socket(2, 2, kTrap, { 1 });
	socket(3, 2, kFetch, { 1 });
	socket(4, 2, kTrap, { 1 });
	socket(5, 2, kFetch, { 1 });
	EXPECT_EQ(order(2), (Ids{ 4, 2, 5, 3, 1 }));
	socket(6, 2, kFetchLocal, { 1 });
	EXPECT_EQ(order(2), (Ids{ 6, 4, 2, 5, 3, 1 }));
	socket(7, 2, kFetch, { 1 }); // a local fetch at the head ends the run of traps
	EXPECT_EQ(order(2), (Ids{ 7, 6, 4, 2, 5, 3, 1 }));
	socket(8, 2, kNone, { 1 });
	socket(9, 2, kCopyLocal, { 1 });
	socket(10, 2, kCopy, { 1 });
	EXPECT_EQ(order(2), (Ids{ 7, 6, 4, 2, 5, 3, 1, 8, 9, 10 }));

	ASSERT_EQ(entries(2).size(), 1u);
	EXPECT_EQ(owners(entries(2)[0].match_list), (Ids{ 4, 2, 7, 5, 3, 1, 10 }));
	EXPECT_EQ(owners(entries(2)[0].local_match_list), (Ids{ 6, 9 }));
}

TEST_F(OracleModel, filter_list__sorted_by_type_new_after_equals)
{
	socket(1, 2, kCopy, { 5, 4 });
	s.create(2, 3, 0);
	s.add_rule(2, kDstMac, 1, { 1, 2, 3, 4, 5, 6 });
	s.set_treatment(2, kCopy);
	s.set_location(2, 2);
	socket(3, 2, kCopy, { 4, 3 });
	std::vector<std::pair<uint32_t, uint16_t>> seen;
	for (const Entry &e : entries(2))
		seen.push_back({ e.type, load<uint16_t>(e.value->data()) });
	auto v = [](uint16_t h) { return uint16_t(__builtin_bswap16(h)); };
	EXPECT_EQ(seen,
		  (std::vector<std::pair<uint32_t, uint16_t>>{
			  { kDstMac, 0x0201 }, { kEth, v(5) }, { kEth, v(4) }, { kEth, v(3) } }));
	EXPECT_EQ(owners(entries(2)[2].match_list), (Ids{ 1, 3 }));
}

TEST_F(OracleModel, copies__leave_out_the_key_but_never_pid)
{
	s.create(1, 3, 0);
	s.add_rule(1, kPid, 1, { 5, 0, 0, 0 });
	s.add_rule(1, kEth, 1, n16s({ 1 }));
	s.add_rule(1, kV4Proto, 2, { 6, 17 });
	s.set_treatment(1, kTrap);
	s.set_location(1, 3);
	ASSERT_EQ(entries(3).size(), 1u);
	EXPECT_EQ(entries(3)[0].type, uint32_t(kEth));
	const Regular &copy = entries(3)[0].match_list.at(0);
	ASSERT_EQ(copy.items.size(), 2u);
	EXPECT_EQ(copy.items[0].type, uint32_t(kPid));
	EXPECT_EQ(copy.items[1].type, uint32_t(kV4Proto));
	EXPECT_EQ(copy.items[1].datas.size(), 2u);
	EXPECT_EQ(s.model.counters.data[kV4Proto], 4u);
	EXPECT_EQ(s.model.counters.data[kPid], 2u);
	EXPECT_EQ(s.model.counters.data[kEth], 1u);
	EXPECT_EQ(s.model.counters.item[kPid], 2u);
	EXPECT_EQ(s.model.counters.copies, 1u);
	s.release(1);
	EXPECT_EQ(s.model.counters, Counters{});
}

TEST_F(OracleModel, pid_only_and_no_treatment__counted_but_not_indexed)
{
	s.create(1, 3, 0);
	s.add_rule(1, kPid, 1, { 5, 0, 0, 0 });
	s.set_treatment(1, kCopy);
	s.set_location(1, 2);
	socket(2, 2, kNone, { 1 });
	EXPECT_EQ(order(2), (Ids{ 1, 2 }));
	EXPECT_TRUE(entries(2).empty());
	EXPECT_TRUE(s.model.module_registered("lev2"));
	s.release(1);
	EXPECT_TRUE(s.model.module_registered("lev2"));
	s.release(2);
	EXPECT_FALSE(s.model.module_registered("lev2"));
}

TEST_F(OracleModel, shared_key__goes_with_its_last_owner)
{
	socket(1, 2, kCopy, { 1 });
	socket(2, 2, kTrap, { 1 });
	socket(3, 2, kCopyLocal, { 1 });
	s.release(2);
	ASSERT_EQ(entries(2).size(), 1u);
	EXPECT_EQ(owners(entries(2)[0].match_list), (Ids{ 1 }));
	EXPECT_EQ(owners(entries(2)[0].local_match_list), (Ids{ 3 }));
	s.release(1);
	s.release(3);
	EXPECT_TRUE(entries(2).empty());
	EXPECT_EQ(s.model.counters, Counters{});
}

TEST_F(OracleModel, key_kept_by_a_condition_of_another__until_that_one_leaves)
{
	socket(1, 3, kCopy, { 1 });
	s.create(2, 3, 0);
	s.add_rule(2, kV4Proto, 1, { 17 });
	s.add_rule(2, kEth, 1, n16s({ 1 }));
	s.set_treatment(2, kCopy);
	s.set_location(2, 3);
	EXPECT_EQ(entries(3).size(), 2u);
	s.release(1);
	ASSERT_EQ(entries(3).size(), 2u); // socket 2 still carries the value, as a condition
	EXPECT_TRUE(entries(3)[0].match_list.empty());
	s.release(2);
	EXPECT_TRUE(entries(3).empty());
	EXPECT_EQ(s.model.counters, Counters{});
}

TEST_F(OracleModel, rule_edits)
{
	s.create(1, 3, 0);
	s.add_rule(1, kEth, 3, n16s({ 1, 2, 1 }));
	EXPECT_EQ(s.model.counters.data[kEth], 2u);
	s.del_rule(1, kEth, 2, n16s({ 9, 1 }));
	EXPECT_EQ(s.model.counters.data[kEth], 1u);
	s.del_rule(1, kEth, 1, n16s({ 2 }));
	EXPECT_TRUE(s.at(1).regular.items.empty());
	EXPECT_EQ(s.add_rule(1, kV4Mcast, 3, {}), 0);
	EXPECT_EQ(s.model.counters.data[kV4Mcast], 1u);
	EXPECT_EQ(s.add_rule(1, kAll, 7, {}), 0);
	EXPECT_EQ(s.add_rule(1, kAll, 0, {}), 0);
	EXPECT_EQ(s.model.counters.item[kAll], 1u);
	EXPECT_EQ(s.model.counters.data[kAll], 0u);
	EXPECT_EQ(s.del_rule(1, kAll, 0, {}), 0);
	EXPECT_EQ(s.add_rule(1, 20, 1, {}), -EINVAL);
	s.release(1);
	EXPECT_EQ(s.model.counters, Counters{});
}

TEST_F(OracleModel, key_without_a_value__is_found_by_a_value_of_zeros)
{
	ASSERT_EQ(s.create(1, 3, 0), 0);
	ASSERT_TRUE(s.model.add_empty_item(s.at(1).regular, kEth));
	s.set_treatment(1, kCopy);
	s.set_location(1, 2);
	socket(2, 2, kCopy, { 0 });
	ASSERT_EQ(entries(2).size(), 1u);
	EXPECT_EQ(owners(entries(2)[0].match_list), (Ids{ 1, 2 }));
}

TEST_F(OracleModel, del_data__leaves_an_item_that_never_had_any)
{
	Regular &regular = (s.create(1, 3, 0), s.at(1).regular);
	ASSERT_TRUE(s.model.add_empty_item(regular, kEth));
	s.model.del_data(regular, kEth, Value{});
	EXPECT_EQ(regular.items.size(), 1u);
	ASSERT_TRUE(s.model.take_data(kEth));
	ASSERT_EQ(s.model.add_data(regular, kEth, Value{}), 0);
	s.model.del_data(regular, kEth, Value{});
	EXPECT_TRUE(regular.items.empty());
	EXPECT_EQ(s.model.counters, Counters{});
}

TEST_F(OracleModel, running__as_the_options_leave_it)
{
	s.create(1, 3, 0);
	EXPECT_FALSE(s.at(1).running);
	s.create(2, 3, __builtin_bswap16(0x0806));
	EXPECT_TRUE(s.at(2).running);
	EXPECT_EQ(s.model.counters.data[kEth], 1u);
	s.set_treatment(1, kCopy);
	EXPECT_TRUE(s.at(1).running);
	s.set_location(1, 0);
	EXPECT_FALSE(s.at(1).running);
	EXPECT_EQ(s.set_location(1, 5), -EINVAL);
	EXPECT_EQ(s.set_location(1, 11), 0);
	EXPECT_TRUE(s.at(1).running);
	EXPECT_EQ(s.set_treatment(1, 6), -EINVAL);
	EXPECT_TRUE(s.model.calls.empty());
}

TEST_F(OracleModel, failed_datum__leaves_the_socket_out_until_its_next_change)
{
	socket(1, 2, kCopy, { 1 });
	int left = 1;
	s.model.allocation = [&](Cache c) { return c != Cache::kData || left-- > 0; };
	EXPECT_EQ(s.add_rule(1, kEth, 2, n16s({ 2, 3 })), -ENOMEM);
	EXPECT_FALSE(s.at(1).running);
	EXPECT_EQ(s.model.counters.data_failures, 1u);
	EXPECT_TRUE(entries(2).empty());
	s.model.allocation = [](Cache) { return true; };
	s.set_treatment(1, kTrap);
	EXPECT_EQ(entries(2).size(), 2u);
}

TEST_F(OracleModel, failed_filing__keeps_the_regular_counted)
{
	s.model.allocation = [](Cache c) { return c != Cache::kEntry; };
	socket(1, 2, kCopy, { 1, 2 });
	EXPECT_EQ(order(2), (Ids{ 1 }));
	EXPECT_TRUE(entries(2).empty());
	EXPECT_EQ(s.model.counters.data_failures, 2u);
	s.model.allocation = [](Cache c) { return c != Cache::kCopy; };
	socket(2, 2, kCopy, { 1 });
	ASSERT_EQ(entries(2).size(), 1u);
	EXPECT_TRUE(entries(2)[0].match_list.empty());
}

TEST_F(OracleModel, hooks__per_location)
{
	struct {
		uint32_t location;
		std::vector<HookCall> on, off;
	} cases[] = {
		{ 1, { { "reg_output", "local" } }, { { "dereg_output", "local" } } },
		{ 2, { { "reg_module", "lev2" } }, { { "dereg_module", "lev2" } } },
		{ 3, { { "reg_module", "ipv4" } }, { { "dereg_module", "ipv4" } } },
		{ 4, { { "reg_module", "ipv6" } }, { { "dereg_module", "ipv6" } } },
		{ 7, { { "reg_recv", "resv" } }, { { "dereg_recv", "resv" } } },
		{ 9, { { "reg_recv", "resv" } }, { { "dereg_recv", "resv" } } },
		{ 10, { { "reg_recv", "resv" } }, { { "dereg_recv", "resv" } } },
		{ 8,
		  { { "reg_module", "wlan" }, { "reg_output", "wlan_out" } },
		  { { "dereg_module", "wlan" }, { "dereg_output", "wlan_out" } } },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.location);
		s.model.calls.clear();
		socket(1, c.location, kCopy, { 1 });
		EXPECT_EQ(s.model.calls, c.on);
		s.model.calls.clear();
		s.release(1);
		EXPECT_EQ(s.model.calls, c.off);
	}
	Regular mpls{ 1, kCopy, 5, {} }, trill{ 1, kCopy, 6, {} }, none{ 1, kCopy, 0, {} },
		far{ 1, kCopy, 11, {} };
	s.model.calls.clear();
	EXPECT_EQ(s.model.add(mpls), 0);
	EXPECT_EQ(s.model.add(trill), 0);
	EXPECT_EQ(s.model.add(none), -1);
	EXPECT_EQ(s.model.add(far), -1);
	EXPECT_TRUE(s.model.calls.empty());
}

TEST_F(OracleModel, hooks__function_registration_repeats_and_failed_module_is_retried)
{
	socket(1, 1, kCopy, { 1 });
	socket(2, 1, kCopy, { 1 });
	s.release(1);
	EXPECT_EQ(s.model.calls, std::vector<HookCall>(3, { "reg_output", "local" }));
	s.model.calls.clear();
	s.model.reg_module = [](const std::string &) { return -5; };
	socket(3, 2, kCopy, { 1 });
	socket(4, 2, kCopy, { 1 });
	EXPECT_EQ(s.model.calls, std::vector<HookCall>(2, { "reg_module", "lev2" }));
	EXPECT_FALSE(s.model.module_registered("lev2"));
}

TEST_F(OracleModel, repeated_add__changes_nothing)
{
	Regular r{ 1, kCopy, 2, { Item{ kAll, {} } } };
	s.model.add(r);
	s.model.add(r);
	EXPECT_EQ(order(2).size(), 1u);
	EXPECT_EQ(s.model.counters.copies, 1u);
}

TEST_F(OracleModel, deliver__trap_stops_unless_its_buffer_failed)
{
	socket(1, 2, kCopy, { 1 });
	socket(2, 2, kTrap, { 1 });
	socket(3, 2, kFetchLocal, { 1 });
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), (Ids{ 3, 2 }));
	s.at(2).rcvbuf = 60; // full: 60 + 60 >= 60
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), (Ids{ 3, 2 }));
	EXPECT_EQ(s.at(2).counters.rcvbuf_full_drops, 1u);
	// The second clone is the trap's.
	int n = 0;
	s.skb_clone = [&] { return ++n != 2; };
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), (Ids{ 3, 2, 1 }));
	EXPECT_EQ(s.skb_failures, 1u);
	EXPECT_EQ(s.at(1).counters.recv_packets, 1u);
	// Without memory to share, each socket has an allocation of its own: the third is the trap's.
	s.skb_clone = [] { return true; };
	n = 0;
	s.skb_allocation = [&] { return ++n != 1 && n != 3; };
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), (Ids{ 3, 2, 1 }));
	EXPECT_EQ(s.skb_failures, 2u);
	EXPECT_EQ(s.at(1).counters.recv_packets, 2u);
	EXPECT_EQ(s.deliver(2, packet(2), 60, 14), Ids{});
}

TEST_F(OracleModel, deliver__filter_is_read_the_other_way_round)
{
	socket(1, 2, kCopy, { 1 });
	s.at(1).has_filter = true;
	s.deliver(2, packet(1), 60, 14);
	EXPECT_EQ(s.at(1).counters.filter_drops, 1u);
	s.at(1).verdict = -EPERM;
	s.deliver(2, packet(1), 60, 14);
	ASSERT_EQ(s.at(1).queue.size(), 1u);
	EXPECT_EQ(s.at(1).queue[0].length, 60u);
	EXPECT_EQ(s.in_flight, 1u);
}

TEST_F(OracleModel, deliver__dgram_rcvbuf_edge_vsd_and_none)
{
	s.create(1, 2, 0);
	s.add_rule(1, kAll, 0, {});
	s.set_treatment(1, kFetch);
	s.set_location(1, 2);
	s.at(1).rcvbuf = 121;
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), Ids{ 1 });
	EXPECT_EQ(s.at(1).queue.back().length, 46u);
	EXPECT_EQ(s.at(1).queue.back().frame_offset, 14u);
	s.deliver(2, packet(1), 60, 14);
	EXPECT_EQ(s.at(1).counters.recv_packets, 2u);
	s.deliver(2, packet(1), 60, 14);
	EXPECT_EQ(s.at(1).counters.rcvbuf_full_drops, 1u);
	s.at(1).vsd = 4;
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), Ids{});
	s.at(1).vsd = 0;
	s.set_treatment(1, kNone);
	EXPECT_EQ(s.deliver(2, packet(1), 60, 14), Ids{});
}

TEST_F(OracleModel, deliver__reserved_locations_and_wlan)
{
	s.world.lev2_block = 0x4000;
	s.world.lev3_block = 0x5000;
	socket(1, 9, kCopy, { 1 });
	socket(2, 10, kCopy, { 1 });
	socket(3, 7, kCopy, { 1 });
	Packet p = parse(efbuff({ .dest = 0x5000 }, eth(1)).data(), 7);
	EXPECT_EQ(s.deliver(7, p, 60, 14), (Ids{ 2, 3 }));
	EXPECT_EQ(s.deliver(7, packet(1), 60, 14), (Ids{ 3 }));

	socket(4, 8, kTrap, { 1 });
	socket(5, 8, kCopy, { 1 });
	EXPECT_EQ(s.deliver_wlan(parse_wlan(efbuff({}, eth(1)).data(), 7), 60, 14), (Ids{ 4, 5 }));
}

} // namespace
} // namespace oracle
