/* SPDX-License-Identifier: GPL-2.0-only */
#include "neighbours.h"
#include "samples.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace std::chrono_literals;
using lldp::Change;
using lldp::Lldpdu;
using lldp::NeighbourTable;

constexpr lldp::Time start{ 1000s };

Lldpdu from(const char *name, std::uint16_t ttl = 120)
{
	Lldpdu pdu = sample_pdu();
	pdu.chassis = { lldp::chassis_local, lldp::Bytes(name, name + std::strlen(name)) };
	pdu.ttl = ttl;
	return pdu;
}

TEST(neighbours, update__what_each_announcement_changes)
{
	NeighbourTable table(8);
	EXPECT_EQ(table.update(3, from("a"), start), Change::kAdded);
	EXPECT_EQ(table.update(3, from("a"), start + 1s), Change::kRefreshed);
	Lldpdu renamed = from("a");
	renamed.system_name = "other";
	EXPECT_EQ(table.update(3, renamed, start + 2s), Change::kChanged);
	EXPECT_EQ(table.all().begin()->second.pdu.system_name, "other");
	EXPECT_EQ(table.all().size(), 1u);
	EXPECT_EQ(table.update(3, lldp::shutdown_of(from("a")), start + 3s), Change::kRemoved);
	EXPECT_TRUE(table.all().empty());
	EXPECT_EQ(table.update(3, lldp::shutdown_of(from("a")), start + 4s), Change::kUnknown);
}

TEST(neighbours, update__told_apart_by_port_chassis_and_neighbours_port)
{
	NeighbourTable table(8);
	EXPECT_EQ(table.update(3, from("a"), start), Change::kAdded);
	EXPECT_EQ(table.update(4, from("a"), start), Change::kAdded);
	EXPECT_EQ(table.update(3, from("b"), start), Change::kAdded);
	Lldpdu other_port = from("a");
	other_port.port.value.push_back('1');
	EXPECT_EQ(table.update(3, other_port, start), Change::kAdded);
	Lldpdu other_subtype = from("a");
	other_subtype.chassis.subtype = lldp::chassis_interface_name;
	EXPECT_EQ(table.update(3, other_subtype, start), Change::kAdded);
	EXPECT_EQ(table.all().size(), 5u);
	EXPECT_EQ(table.update(4, lldp::shutdown_of(from("a")), start), Change::kRemoved);
	EXPECT_EQ(table.all().size(), 4u);
}

TEST(neighbours, update__no_port_can_take_the_room_of_another)
{
	NeighbourTable table(2);
	EXPECT_EQ(table.update(3, from("a"), start), Change::kAdded);
	EXPECT_EQ(table.update(3, from("b"), start), Change::kAdded);
	EXPECT_EQ(table.update(3, from("c"), start), Change::kRefused);
	EXPECT_EQ(table.update(4, from("c"), start), Change::kAdded);
	EXPECT_EQ(table.update(3, from("b"), start), Change::kRefreshed)
		<< "those known still count";
	EXPECT_EQ(table.update(3, lldp::shutdown_of(from("a")), start), Change::kRemoved);
	EXPECT_EQ(table.update(3, from("c"), start), Change::kAdded);
}

TEST(neighbours, age__at_the_second_of_the_ttl_and_not_before)
{
	NeighbourTable table(8);
	table.update(3, from("a", 10), start);
	table.update(3, from("b", 20), start);
	EXPECT_TRUE(table.age(start + 10s - 1ns).empty());
	auto gone = table.age(start + 10s);
	ASSERT_EQ(gone.size(), 1u);
	EXPECT_EQ(std::get<1>(gone[0].key()), from("a").chassis);
	EXPECT_EQ(table.all().size(), 1u);
	EXPECT_EQ(table.age(start + 1h).size(), 1u);
	EXPECT_TRUE(table.all().empty());
}

TEST(neighbours, age__an_announcement_starts_the_ttl_anew_and_may_change_it)
{
	NeighbourTable table(8);
	table.update(3, from("a", 10), start);
	table.update(3, from("a", 10), start + 9s);
	EXPECT_TRUE(table.age(start + 10s).empty());
	table.update(3, from("a", 1), start + 11s);
	EXPECT_EQ(table.age(start + 12s).size(), 1u);
}

TEST(neighbours, next_expiry__the_earliest)
{
	NeighbourTable table(8);
	EXPECT_FALSE(table.next_expiry());
	table.update(3, from("a", 30), start);
	table.update(4, from("b", 10), start + 5s);
	EXPECT_EQ(table.next_expiry(), start + 15s);
	table.age(start + 15s);
	EXPECT_EQ(table.next_expiry(), start + 30s);
	table.update(3, from("c", 0xffff), start);
	EXPECT_EQ(table.next_expiry(), start + 30s);
}

} // namespace
