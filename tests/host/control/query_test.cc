// SPDX-License-Identifier: GPL-2.0-only
// The attributes of requests: right, wrong, and at random.
#include "capture_fixture.h"

namespace {

// Bytes of each kind in the table of requests; of BINARY, the sizes that the attribute has.
struct Row {
	const char *name;
	u16 number;
	std::vector<size_t> sizes;
	size_t offset; // of the field
};

#define OF(name, field, ...)                                                                    \
	{                                                                                       \
#name, MOX_CAPTURE_REQUEST_##name, { __VA_ARGS__ }, offsetof(mox::Query, field) \
	}
const Row kRows[] = {
	OF(LOCATION, location, 4),
	OF(PID, pid, 4),
	OF(COOKIE, cookie, 8),
	OF(RESTRICT, restrict_on, 1),
	OF(IFINDEX, ifindex, 4),
	OF(VLAN, vlan, 2),
	OF(MAC, mac, 6),
	OF(ETHER_TYPE, ether_type, 2),
	OF(ADDRESS, address, 4, 16),
	OF(PREFIX, prefix, 1),
	OF(IP_PROTOCOL, ip_protocol, 1),
	OF(PORT, port, 2),
};

struct Outcome {
	int error;
	std::string reason;
	mox::Query query;
};

Outcome read(const Bytes &bytes)
{
	Outcome out{};
	const char *reason = "never set";
	memset(&out.query, 0xa5, sizeof(out.query));
	out.error = mox::read_query(exact(bytes).get(), bytes.size(), &out.query, &reason);
	out.reason = reason ? reason : "";
	EXPECT_EQ(out.reason.empty(), out.error == 0);
	EXPECT_TRUE(out.error == 0 || out.error == -EINVAL || out.error == -ERANGE);
	return out;
}

Bytes payload(size_t size, u8 first = 1)
{
	Bytes bytes(size);
	for (size_t i = 0; i < size; i++)
		bytes[i] = static_cast<u8>(i ? 0x40 + i : first);
	return bytes;
}

// PREFIX is for an address.
Bytes before(const Row &row)
{
	return row.number == MOX_CAPTURE_REQUEST_PREFIX
		       ? attribute(MOX_CAPTURE_REQUEST_ADDRESS, Bytes(4))
		       : Bytes{};
}

TEST(Query, read__nothing_is_there)
{
	const Outcome out = read({});
	EXPECT_EQ(out.error, 0);
	EXPECT_EQ(out.query.present, 0u);
	EXPECT_EQ(out.query.location, 0u);
	for (const Row &row : kRows)
		EXPECT_FALSE(out.query.has(static_cast<mox_capture_request_attr>(row.number)));
}

TEST(Query, read__each_attribute)
{
	EXPECT_EQ(std::size(kRows), size_t{ MOX_CAPTURE_REQUEST_MAX });
	for (const Row &row : kRows)
		for (size_t size : row.sizes)
			for (u16 flags : { 0, 0x8000, 0x4000, 0xc000 }) {
				SCOPED_TRACE(row.name);
				const Bytes value = payload(size);
				const Outcome out = read(
					before(row) +
					attribute(static_cast<u16>(row.number | flags), value));
				ASSERT_EQ(out.error, 0) << out.reason;
				EXPECT_EQ(out.query.present & ~(1u << MOX_CAPTURE_REQUEST_ADDRESS),
					  1u << row.number & ~(1u << MOX_CAPTURE_REQUEST_ADDRESS));
				EXPECT_EQ(memcmp(reinterpret_cast<const u8 *>(&out.query) +
							 row.offset,
						 value.data(), size),
					  0);
				if (row.number == MOX_CAPTURE_REQUEST_ADDRESS)
					EXPECT_EQ(out.query.address_size, size);
			}
}

TEST(Query, read__payloads_of_another_size)
{
	for (const Row &row : kRows)
		for (size_t size = 0; size <= 40; size++) {
			SCOPED_TRACE(std::string(row.name) + ", " + std::to_string(size));
			const bool right = std::count(row.sizes.begin(), row.sizes.end(), size);
			const Outcome out = read(before(row) +
						 attribute(row.number, payload(size)));
			EXPECT_EQ(out.error, right ? 0 : -ERANGE);
			if (!right)
				EXPECT_NE(out.reason.find(row.sizes[0] == 1 ? "byte" : "bytes"),
					  std::string::npos);
		}
}

// An attribute that was cut anywhere, its header included.
TEST(Query, read__cut_short)
{
	for (const Row &row : kRows) {
		const Bytes front = before(row);
		Bytes whole = front + attribute(row.number, payload(row.sizes[0]));
		whole.resize(front.size() + 4 + row.sizes[0]); // without padding: the last one
		EXPECT_EQ(read(whole).error, 0) << row.name;
		for (size_t left = front.size() + 1; left < whole.size(); left++) {
			SCOPED_TRACE(std::string(row.name) + ", " + std::to_string(left));
			const Outcome out = read({ whole.begin(), whole.begin() + left });
			EXPECT_EQ(out.error, -EINVAL);
		}
	}
}

TEST(Query, read__lengths_that_cannot_be)
{
	for (u16 length : { 0, 1, 2, 3, 9, 12, 255, 0x7fff, 0xffff }) {
		Bytes bytes = attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, 2);
		memcpy(&bytes[0], &length, 2);
		const Outcome out = read(bytes);
		EXPECT_EQ(out.error, -EINVAL) << length;
		EXPECT_EQ(out.reason, "an attribute reaches beyond the request");
	}
}

TEST(Query, read__unknown_attributes)
{
	for (u16 number : { 0, 13, 14, 64, 0x3fff })
		for (u16 flags : { 0, 0x8000, 0x4000, 0xc000 })
			for (size_t size : { 0, 1, 4, 8 })
				for (bool behind : { false, true }) {
					Bytes bytes = attribute(static_cast<u16>(number | flags),
								Bytes(size));
					if (behind)
						bytes = attribute<s32>(MOX_CAPTURE_REQUEST_PID, 7) +
							bytes;
					const Outcome out = read(bytes);
					EXPECT_EQ(out.error, -EINVAL);
					EXPECT_EQ(out.reason,
						  "an attribute that this module does not know");
				}
}

TEST(Query, read__the_last_of_two_counts)
{
	for (const Row &row : kRows) {
		SCOPED_TRACE(row.name);
		const size_t size = row.sizes.back();
		const Bytes first = payload(size, 1), second = payload(size, 0);
		const Outcome out = read(before(row) + attribute(row.number, first) +
					 attribute(row.number, second));
		ASSERT_EQ(out.error, 0);
		EXPECT_EQ(memcmp(reinterpret_cast<const u8 *>(&out.query) + row.offset,
				 second.data(), size),
			  0);
	}
	// The shorter address is not the longer one's rest.
	const Outcome out = read(attribute(MOX_CAPTURE_REQUEST_ADDRESS, Bytes(16, 1)) +
				 attribute(MOX_CAPTURE_REQUEST_ADDRESS, Bytes(4, 2)));
	EXPECT_EQ(out.query.address_size, 4);
	EXPECT_EQ(out.query.address[0], 2);
}

TEST(Query, read__bytes_behind_the_last_one)
{
	const Bytes good = attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, 2);
	for (size_t more : { 1, 2, 3 }) {
		const Outcome out = read(good + Bytes(more));
		EXPECT_EQ(out.error, -EINVAL);
		EXPECT_EQ(out.reason, "bytes behind the last attribute");
	}
	// A whole header of zeros has a length that cannot be.
	EXPECT_EQ(read(good + Bytes(4)).error, -EINVAL);
	// Padding belongs to its attribute, and the last one may do without.
	const Bytes restrict_on = attribute<u8>(MOX_CAPTURE_REQUEST_RESTRICT, 1);
	ASSERT_EQ(restrict_on.size(), 8u);
	for (size_t left : { 5, 6, 7, 8 })
		EXPECT_EQ(read(good + Bytes(restrict_on.begin(), restrict_on.begin() + left)).error,
			  0)
			<< left;
}

TEST(Query, read__numbers_that_go_together)
{
	const auto address = [](size_t size) {
		return attribute(MOX_CAPTURE_REQUEST_ADDRESS, Bytes(size, 1));
	};
	const auto prefix = [](u8 bits) { return attribute<u8>(MOX_CAPTURE_REQUEST_PREFIX, bits); };
	const auto restricted = [](u8 on) {
		return attribute<u8>(MOX_CAPTURE_REQUEST_RESTRICT, on);
	};
	const struct {
		Bytes bytes;
		const char *reason; // null: accepted
	} rows[] = {
		{ prefix(0), "prefix: without an address" },
		{ prefix(8), "prefix: without an address" },
		{ address(4) + prefix(0), nullptr },
		{ address(4) + prefix(32), nullptr },
		{ prefix(32) + address(4), nullptr },
		{ address(4) + prefix(33), "prefix: longer than the address" },
		{ address(16) + prefix(33), nullptr },
		{ address(16) + prefix(128), nullptr },
		{ address(16) + prefix(129), "prefix: longer than the address" },
		{ address(16) + prefix(255), "prefix: longer than the address" },
		{ address(16) + address(4) + prefix(33), "prefix: longer than the address" },
		{ restricted(0), nullptr },
		{ restricted(1), nullptr },
		{ restricted(2), "restrict: neither 0 nor 1" },
		{ restricted(255), "restrict: neither 0 nor 1" },
	};
	for (size_t i = 0; i < std::size(rows); i++) {
		SCOPED_TRACE(i);
		const Outcome out = read(rows[i].bytes);
		EXPECT_EQ(out.error, rows[i].reason ? -EINVAL : 0);
		EXPECT_EQ(out.reason, rows[i].reason ? rows[i].reason : "");
	}
}

TEST(Query, read__whatever_the_bytes_are)
{
	const char *seed_of = getenv("SEED");
	const unsigned seed = seed_of ? strtoul(seed_of, nullptr, 0) : std::random_device{}();
	std::mt19937 random(seed);
	SCOPED_TRACE("SEED=" + std::to_string(seed));
	int accepted = 0, refused = 0;
	for (int round = 0; round < 100000; round++) {
		// Bytes of all kinds, attributes that are nearly right, and right ones.
		Bytes bytes;
		const u32 way = random() % 3;
		if (way == 0)
			for (u32 left = random() % 64; left; left--)
				bytes.push_back(
					static_cast<u8>(random() % 4 ? random() % 16 : random()));
		for (u32 left = way ? random() % 5 : 0; left; left--) {
			const Row &row = kRows[random() % std::size(kRows)];
			const size_t size = random() % 8 ? row.sizes[random() % row.sizes.size()]
							 : random() % 24;
			Bytes one = attribute(row.number, payload(size, random() % 2));
			if (way == 2 && random() % 4 == 0)
				one[random() % one.size()] = static_cast<u8>(random());
			bytes = bytes + one;
		}
		if (random() % 8 == 0 && !bytes.empty())
			bytes.resize(random() % bytes.size());
		const Outcome out = read(bytes);
		(out.error ? refused : accepted)++;
		if (!out.error && out.query.has(MOX_CAPTURE_REQUEST_PREFIX))
			EXPECT_LE(out.query.prefix, out.query.address_size * 8);
		if (HasFailure())
			return;
	}
	EXPECT_GT(accepted, 1000);
	EXPECT_GT(refused, 1000);
}

} // namespace
