// SPDX-License-Identifier: GPL-2.0-only
/* Attributes of "mox_capture" taken apart: whole, unknown, broken and random ones. */
#include "capture_record.h"
#include "expect_error.h"
#include "fake_capture.h"

#include <memory>
#include <random>

namespace {

using moxctl::Failure;
using moxctl::Kind;
using moxctl::Record;
using moxctl::Set;

/** On the heap at its exact size, so that a read beyond it is found. */
Record decoded(Set set, const Bytes &bytes)
{
	auto exact = std::make_unique<std::uint8_t[]>(bytes.size());
	std::copy(bytes.begin(), bytes.end(), exact.get());
	return moxctl::decode_record(set, { exact.get(), bytes.size() });
}

constexpr Set kAllSets[] = { Set::kRequest, Set::kInfo,   Set::kLocation, Set::kCounters,
			     Set::kSocket,  Set::kRule,   Set::kValue,    Set::kQueue,
			     Set::kMemory,  Set::kThread, Set::kTrace };

/** An attribute with a payload of its kind, whose number is marked. */
Attributes whole(const moxctl::AttributeRow &row)
{
	Attributes attributes;
	switch (row.kind) {
	case Kind::kU8:
		return attributes.u8(row.number, 0xf1);
	case Kind::kU16:
		return attributes.u16(row.number, 0xf102);
	case Kind::kU32:
		return attributes.u32(row.number, 0xf1020304);
	case Kind::kS32:
		return attributes.s32(row.number, -5);
	case Kind::kU64:
		return attributes.u64(row.number, 0xf102030405060708);
	case Kind::kString:
		return attributes.text(row.number, "text");
	case Kind::kBinary:
		return attributes.raw(row.number, { 'b', 0, 'c' });
	case Kind::kFlag:
		return attributes.flag(row.number);
	case Kind::kNest:
		return attributes.nest(row.number, Attributes().u64(99, 1));
	}
	return attributes;
}

TEST(capture_record, attributes__of_every_set_and_kind)
{
	for (Set set : kAllSets)
		for (const moxctl::AttributeRow &row : moxctl::attributes_of(set)) {
			SCOPED_TRACE(std::string(moxctl::set_name(set)) + " " +
				     std::string(row.name));
			Record record = decoded(set, whole(row).bytes());
			EXPECT_TRUE(record.has(row.number));
			switch (row.kind) {
			case Kind::kU8:
				EXPECT_EQ(record.number(row.number), 0xf1u);
				break;
			case Kind::kU16:
				EXPECT_EQ(record.number(row.number), 0xf102u);
				break;
			case Kind::kU32:
				EXPECT_EQ(record.number(row.number), 0xf1020304u);
				break;
			case Kind::kS32:
				EXPECT_EQ(static_cast<std::int64_t>(record.number(row.number)), -5);
				break;
			case Kind::kU64:
				EXPECT_EQ(record.number(row.number), 0xf102030405060708u);
				break;
			case Kind::kString:
				EXPECT_EQ(record.text(row.number), "text");
				break;
			case Kind::kBinary:
				EXPECT_EQ(record.text(row.number), std::string_view("b\0c", 3));
				break;
			case Kind::kFlag:
				break;
			case Kind::kNest:
				ASSERT_TRUE(record.nest(row.number));
				EXPECT_EQ(record.nest(row.number)->set(), row.nested);
				break;
			}
			Record empty = decoded(set, {});
			EXPECT_FALSE(empty.has(row.number));
			EXPECT_EQ(empty.number(row.number), 0u);
			EXPECT_EQ(empty.text(row.number), "");
			EXPECT_EQ(empty.nest(row.number), nullptr);
		}
}

TEST(capture_record, a_length_that_is_not_the_kinds_is_refused)
{
	unsigned checked = 0;
	for (Set set : kAllSets)
		for (const moxctl::AttributeRow &row : moxctl::attributes_of(set)) {
			if (row.kind == Kind::kNest || row.kind == Kind::kBinary)
				continue;
			SCOPED_TRACE(std::string(moxctl::set_name(set)) + " " +
				     std::string(row.name));
			for (std::size_t length : { 0u, 1u, 2u, 3u, 4u, 5u, 7u, 8u, 9u, 12u }) {
				bool right = row.kind == Kind::kString
						     ? false
						     : length == moxctl::width_of(row.kind);
				if (right)
					continue;
				// Without a zero byte, which would end a string.
				Bytes bytes =
					Attributes().raw(row.number, Bytes(length, 0x41)).bytes();
				expect_error<Failure>([&] { decoded(set, bytes); },
						      { std::string(row.name).c_str(),
							std::string(moxctl::set_name(set)).c_str(),
							"versions" });
				++checked;
			}
		}
	EXPECT_GT(checked, 500u);
}

TEST(capture_record, unknown_attributes_are_passed_over)
{
	Attributes attributes;
	attributes.raw(0, Bytes(3))
		.u64(200, 1)
		.u64(MOX_CAPTURE_SOCKET_COOKIE, 17)
		.flag(63)
		.raw(0x3fff, Bytes(300));
	Record record = decoded(Set::kSocket, attributes.bytes());
	EXPECT_EQ(record.number(MOX_CAPTURE_SOCKET_COOKIE), 17u);
	EXPECT_FALSE(record.has(0));
	EXPECT_FALSE(record.has(63));
}

TEST(capture_record, repeated__the_last_counts_and_lists_have_all)
{
	Attributes attributes;
	attributes.u32(MOX_CAPTURE_THREAD_PENDING, 2)
		.u32(MOX_CAPTURE_THREAD_PENDING, 8)
		.u32(MOX_CAPTURE_THREAD_PENDING, 3)
		.text(MOX_CAPTURE_THREAD_NAME, "a")
		.text(MOX_CAPTURE_THREAD_NAME, "b");
	Record record = decoded(Set::kThread, attributes.bytes());
	EXPECT_EQ(record.number(MOX_CAPTURE_THREAD_PENDING), 3u);
	EXPECT_EQ(record.numbers(MOX_CAPTURE_THREAD_PENDING),
		  (std::vector<std::uint64_t>{ 2, 8, 3 }));
	EXPECT_EQ(record.text(MOX_CAPTURE_THREAD_NAME), "b");
	EXPECT_EQ(record.texts(MOX_CAPTURE_THREAD_NAME),
		  (std::vector<std::string_view>{ "a", "b" }));
}

TEST(capture_record, cut_messages_are_refused)
{
	Bytes whole = sample_socket().bytes();
	unsigned refused = 0;
	for (std::size_t length = 1; length < whole.size(); ++length) {
		try {
			decoded(Set::kSocket,
				Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
		} catch (const Failure &failure) {
			EXPECT_NE(std::string(failure.what()).find("attribute"), std::string::npos);
			++refused;
		}
	}
	// What remains ends between two attributes, or in the padding of one.
	EXPECT_GT(refused, whole.size() * 3 / 4);
}

TEST(capture_record, an_attribute_shorter_than_its_head_is_refused)
{
	expect_error<Failure>([] { decoded(Set::kSocket, { 3, 0, 1, 0 }); }, { "in the middle" });
	expect_error<Failure>([] { decoded(Set::kSocket, { 0, 0, 0, 0 }); }, { "in the middle" });
	expect_error<Failure>([] { decoded(Set::kSocket, { 9, 0, 1, 0 }); }, { "in the middle" });
}

TEST(capture_record, random_bytes_do_no_harm)
{
	std::mt19937 random(1);
	unsigned taken = 0;
	for (int round = 0; round < 20000; ++round) {
		Bytes bytes(random() % 120);
		for (std::uint8_t &byte : bytes)
			byte = static_cast<std::uint8_t>(random() % 4 ? random() % 24 : random());
		try {
			decoded(kAllSets[random() % std::size(kAllSets)], bytes);
			++taken;
		} catch (const Failure &) {
		}
	}
	EXPECT_GT(taken, 0u);
}

TEST(capture_record, changed_bytes_do_no_harm)
{
	std::mt19937 random(2);
	Bytes whole = sample_rule().bytes();
	unsigned taken = 0;
	for (int round = 0; round < 20000; ++round) {
		Bytes bytes = whole;
		for (unsigned changes = 1 + random() % 3; changes > 0; --changes)
			bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
		try {
			decoded(Set::kRule, bytes);
			++taken;
		} catch (const Failure &) {
		}
	}
	EXPECT_GT(taken, 0u);
	EXPECT_LT(taken, 20000u);
}

} // namespace
