// SPDX-License-Identifier: GPL-2.0-only
/* The public header's rule builder, in C++ and in C99. */
#include "rule_record_c99.h"

#include "mox_packet.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Builder {
	const char *language;
	decltype(&mox_packet_build_rule) build;
};

constexpr Builder kBuilders[] = { { "C++", mox_packet_build_rule }, { "C99", c99_build_rule } };

struct RecordCase {
	const char *what;
	std::uint16_t type;
	std::uint16_t element_size;
	std::uint16_t count;
	Bytes elements;
	Bytes record; /* as a little-endian machine stores it */
};

const RecordCase kCases[] = {
	{ "one EtherType", PACKET_ETH_PROT_EQUAL, 2, 1, { 8, 6 }, { 3, 0, 2, 0, 1, 0, 8, 6 } },
	{ "a MAC address",
	  PACKET_DEST_MAC_EQUAL,
	  6,
	  1,
	  { 1, 2, 3, 4, 5, 6 },
	  { 1, 0, 6, 0, 1, 0, 1, 2, 3, 4, 5, 6 } },
	{ "two interface indexes, which are not aligned",
	  PACKET_SRC_INTF_EQUAL,
	  4,
	  2,
	  { 1, 2, 3, 4, 5, 6, 7, 8 },
	  { 10, 0, 4, 0, 2, 0, 1, 2, 3, 4, 5, 6, 7, 8 } },
	{ "an odd number of bytes",
	  PACKET_IPv4_PROT_EQUAL,
	  1,
	  3,
	  { 1, 6, 17 },
	  { 5, 0, 1, 0, 3, 0, 1, 6, 17 } },
	{ "an element of no bytes", PACKET_WLAN_MGNT, 0, 1, {}, { 18, 0, 0, 0, 1, 0 } },
	{ "no element", PACKET_ALL, 0, 0, {}, { 16, 0, 0, 0, 0, 0 } },
};

TEST(rule_record, build__head_and_elements_without_padding)
{
	for (const Builder &builder : kBuilders)
		for (const RecordCase &each : kCases) {
			SCOPED_TRACE(std::string(builder.language) + ": " + each.what);
			Bytes record(each.record.size());
			const void *elements = each.elements.empty() ? nullptr
								     : each.elements.data();
			ASSERT_EQ(builder.build(record.data(), record.size(), each.type, elements,
						each.element_size, each.count),
				  each.record.size());
			EXPECT_EQ(record, each.record);
		}
}

TEST(rule_record, build__a_larger_buffer_keeps_its_tail)
{
	for (const Builder &builder : kBuilders)
		for (const RecordCase &each : kCases) {
			SCOPED_TRACE(std::string(builder.language) + ": " + each.what);
			Bytes record(each.record.size() + 5, 0xee);
			ASSERT_EQ(builder.build(record.data(), record.size(), each.type,
						each.elements.data(), each.element_size,
						each.count),
				  each.record.size());
			EXPECT_EQ(Bytes(record.begin() + static_cast<long>(each.record.size()),
					record.end()),
				  Bytes(5, 0xee));
		}
}

TEST(rule_record, build__a_buffer_that_is_too_small_is_left_alone)
{
	for (const Builder &builder : kBuilders)
		for (const RecordCase &each : kCases)
			for (std::size_t room = 0; room < each.record.size(); ++room) {
				SCOPED_TRACE(std::string(builder.language) + ": " + each.what);
				Bytes record(room, 0xee);
				EXPECT_EQ(builder.build(record.data(), room, each.type,
							each.elements.data(), each.element_size,
							each.count),
					  0u);
				EXPECT_EQ(record, Bytes(room, 0xee));
			}
}

TEST(rule_record, build__the_longest_record_that_numbers_allow_does_not_wrap_around)
{
	for (const Builder &builder : kBuilders) {
		std::uint8_t record[64];
		EXPECT_EQ(builder.build(record, sizeof(record), 0, record, 0xffff, 0xffff), 0u)
			<< builder.language;
	}
}

TEST(rule_record, length__sizes_a_buffer_at_compile_time)
{
	static_assert(MOX_PACKET_RULE_LENGTH(4, 2) == 14);
	EXPECT_EQ(c99_length_of_two_indexes(), 14u);
}

} // namespace
