// SPDX-License-Identifier: GPL-2.0
#include "rules/budget.hpp"

#include "base/errors.hpp"
#include "base/log.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

extern "C" {
constinit u32 g_packet_rule_bytes = 0;
constinit u32 g_packet_rule_refused = 0;
}

namespace mox {
namespace {

/* Shares of the machine's memory. */
constexpr u32 kSocketShare = 32;
constexpr u32 kAllShare = 8;
constexpr u32 kUnprivilegedShare = 16;

/** Bytes that an object takes of its cache, which aligns it to 8. */
template <typename Record> constexpr u64 size_of()
{
	return (sizeof(Record) + 7) & ~7ull;
}

constinit u32 g_socket_limit = 0;
constinit u32 g_all_limit = 0;
constinit u32 g_unprivileged_limit = 0;

/** A rule's items as numbers: what each takes, and whether it may be the key. */
struct Sizes {
	u64 of[MOX_PACKET_RULE_TYPES]; /* values of the item of a type */
	bool there[MOX_PACKET_RULE_TYPES];
};

u64 item_bytes(u64 values)
{
	return size_of<regular_item>() + values * size_of<regular_data>();
}

/**
 * What a rule takes at most: its own records, and under each value of its key item an
 * entry and a copy of its other items. Which item is the key depends on those before
 * it, which may be deleted: the one that takes most counts. So a deletion never takes
 * more than is charged already.
 */
u64 rule_bytes(const Sizes &sizes)
{
	u64 own = 0;
	u64 filed = 0;

	for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++)
		if (sizes.there[type])
			own += item_bytes(sizes.of[type]);
	for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++) {
		if (!sizes.there[type] || !type_is_key(type))
			continue;
		u64 keys = sizes.of[type] ? sizes.of[type] : 1;
		u64 copy = size_of<packet_regular>() + own - item_bytes(sizes.of[type]);
		/* Neither factor is above 2^32: values are counted in 32 bits, and have been charged. */
		u64 total = keys * (size_of<filter_list_data>() + copy);
		if (total > filed)
			filed = total;
	}
	return own + filed;
}

Sizes sizes_of(const packet_regular *regular)
{
	Sizes sizes{};

	for (const regular_item *item : items_of(regular)) {
		sizes.there[item->type] = true;
		sizes.of[item->type] = item->count;
	}
	return sizes;
}

/** What a socket's rule takes with so many further values of a type. */
u64 bytes_with(const mox_packet_sock *po, u32 type, u32 values)
{
	Sizes sizes = sizes_of(&po->regular);

	sizes.there[type] = true;
	sizes.of[type] += values;
	return rule_bytes(sizes);
}

/** Add to the bytes of all sockets, up to a limit. */
bool take_bytes(u32 bytes, u32 limit)
{
	u32 used = load(g_packet_rule_bytes);

	do {
		if (bytes > limit || used > limit - bytes)
			return false;
	} while (!__atomic_compare_exchange_n(&g_packet_rule_bytes, &used, used + bytes, true,
					      __ATOMIC_RELAXED, __ATOMIC_RELAXED));
	return true;
}

void give_bytes(u32 bytes)
{
	__atomic_fetch_sub(&g_packet_rule_bytes, bytes, __ATOMIC_RELAXED);
}

} // namespace

void budget_init()
{
	const u64 memory = seam_total_memory();

	/* A 32-bit machine has far less than 2^40 bytes: an eighth fits. */
	g_socket_limit = static_cast<u32>(memory / kSocketShare);
	g_all_limit = static_cast<u32>(memory / kAllShare);
	g_unprivileged_limit = static_cast<u32>(memory / kUnprivilegedShare);
}

bool budget_fits(const mox_packet_sock *po, u32 type, u32 values)
{
	const u64 bytes = bytes_with(po, type, values);

	return bytes <= g_socket_limit &&
	       bytes + load(g_packet_rule_bytes) <= u64{ g_unprivileged_limit } + po->rule_bytes;
}

int budget_charge(mox_packet_sock *po, u32 type, u32 values)
{
	const u64 bytes = bytes_with(po, type, values);

	if (bytes <= po->rule_bytes)
		return 0;
	if (bytes <= g_socket_limit) {
		u32 more = static_cast<u32>(bytes) - po->rule_bytes;
		if (take_bytes(more, g_unprivileged_limit) ||
		    (seam_capable_net_admin() && take_bytes(more, g_all_limit))) {
			po->rule_bytes = static_cast<u32>(bytes);
			return 0;
		}
	}
	__atomic_fetch_add(&g_packet_rule_refused, 1u, __ATOMIC_RELAXED);
	MOX_DEBUG("MOX-PACKET-RULE-BUDGET: process %s pid %d: %llu bytes, limit %u, all %u\n",
		  po->process, po->pid, static_cast<unsigned long long>(bytes), g_socket_limit,
		  load(g_packet_rule_bytes));
	return err::kNoMem;
}

void budget_settle(mox_packet_sock *po)
{
	const u64 bytes = list_empty(&po->regular.items) ? 0 : rule_bytes(sizes_of(&po->regular));

	if (bytes >= po->rule_bytes)
		return;
	give_bytes(po->rule_bytes - static_cast<u32>(bytes));
	po->rule_bytes = static_cast<u32>(bytes);
}

void budget_release(mox_packet_sock *po)
{
	give_bytes(po->rule_bytes);
	po->rule_bytes = 0;
}

} // namespace mox
