// SPDX-License-Identifier: GPL-2.0-only
#include "control/query.hpp"

#include "base/errors.hpp"

namespace mox {
namespace {

constexpr u32 kHeader = 4;
/* Upper bits of an attribute's type: nested, and in network byte order. */
constexpr u16 kTypeMask = 0x3FFF;

/** An attribute: where it is in a query, and how long its payload may be. */
struct Attribute {
	u16 number;
	u16 offset;
	u8 least;
	u8 most;
	const char *size_text; /* of a payload of another size */
};

constexpr Attribute kAttributes[] = {
	{ MOX_CAPTURE_REQUEST_LOCATION, offsetof(Query, location), 4, 4, "location: not 4 bytes" },
	{ MOX_CAPTURE_REQUEST_PID, offsetof(Query, pid), 4, 4, "pid: not 4 bytes" },
	{ MOX_CAPTURE_REQUEST_COOKIE, offsetof(Query, cookie), 8, 8, "cookie: not 8 bytes" },
	{ MOX_CAPTURE_REQUEST_RESTRICT, offsetof(Query, restrict_on), 1, 1,
	  "restrict: not 1 byte" },
	{ MOX_CAPTURE_REQUEST_IFINDEX, offsetof(Query, ifindex), 4, 4, "ifindex: not 4 bytes" },
	{ MOX_CAPTURE_REQUEST_VLAN, offsetof(Query, vlan), 2, 2, "vlan: not 2 bytes" },
	{ MOX_CAPTURE_REQUEST_MAC, offsetof(Query, mac), 6, 6, "mac: not 6 bytes" },
	{ MOX_CAPTURE_REQUEST_ETHER_TYPE, offsetof(Query, ether_type), 2, 2,
	  "ether-type: not 2 bytes" },
	{ MOX_CAPTURE_REQUEST_ADDRESS, offsetof(Query, address), 4, 16,
	  "address: neither 4 nor 16 bytes" },
	{ MOX_CAPTURE_REQUEST_PREFIX, offsetof(Query, prefix), 1, 1, "prefix: not 1 byte" },
	{ MOX_CAPTURE_REQUEST_IP_PROTOCOL, offsetof(Query, ip_protocol), 1, 1,
	  "ip-protocol: not 1 byte" },
	{ MOX_CAPTURE_REQUEST_PORT, offsetof(Query, port), 2, 2, "port: not 2 bytes" },
};
static_assert(sizeof(kAttributes) / sizeof(kAttributes[0]) == MOX_CAPTURE_REQUEST_MAX);

constexpr bool in_order_of_numbers()
{
	for (u32 row = 0; row < MOX_CAPTURE_REQUEST_MAX; row++)
		if (kAttributes[row].number != row + 1)
			return false;
	return true;
}
static_assert(in_order_of_numbers());

template <typename T> T read(const u8 *from)
{
	T value;

	__builtin_memcpy(&value, from, sizeof(value));
	return value;
}

int refuse(const char **reason, const char *text, int error)
{
	*reason = text;
	return error;
}

/** Numbers that go together. */
int check(const Query &query, const char **reason)
{
	if (query.has(MOX_CAPTURE_REQUEST_PREFIX)) {
		if (!query.has(MOX_CAPTURE_REQUEST_ADDRESS))
			return refuse(reason, "prefix: without an address", err::kInval);
		if (query.prefix > query.address_size * 8)
			return refuse(reason, "prefix: longer than the address", err::kInval);
	}
	if (query.restrict_on > 1)
		return refuse(reason, "restrict: neither 0 nor 1", err::kInval);
	return 0;
}

} // namespace

int read_query(const void *attributes, size_t size, Query *query, const char **reason)
{
	const auto *at = static_cast<const u8 *>(attributes);
	size_t left = size;

	*query = {};
	*reason = nullptr;
	while (left >= kHeader) {
		const size_t length = read<u16>(at);
		const u16 number = read<u16>(at + 2) & kTypeMask;
		if (length < kHeader || length > left)
			return refuse(reason, "an attribute reaches beyond the request",
				      err::kInval);
		if (number == 0 || number > MOX_CAPTURE_REQUEST_MAX)
			return refuse(reason, "an attribute that this module does not know",
				      err::kInval);
		const Attribute &row = kAttributes[number - 1];
		const size_t payload = length - kHeader;
		const bool address = number == MOX_CAPTURE_REQUEST_ADDRESS;
		if (payload < row.least || payload > row.most ||
		    (address && payload != row.least && payload != row.most))
			return refuse(reason, row.size_text, err::kRange);
		__builtin_memcpy(reinterpret_cast<u8 *>(query) + row.offset, at + kHeader, payload);
		if (address)
			query->address_size = static_cast<u8>(payload);
		query->present |= 1u << number;
		/* Attributes begin at multiples of 4; the last one may end before. */
		const size_t step = (length + 3) & ~size_t{ 3 };
		at += step < left ? step : left;
		left -= step < left ? step : left;
	}
	if (left != 0)
		return refuse(reason, "bytes behind the last attribute", err::kInval);
	return check(*query, reason);
}

} // namespace mox
