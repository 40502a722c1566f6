// SPDX-License-Identifier: GPL-2.0-only
#include "rules/budget.hpp"

#include "base/errors.hpp"
#include "base/log.hpp"
#include "rules/digest.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

extern "C" {
constinit u32 g_packet_rule_bytes = 0;
constinit u32 g_packet_rule_work = 0;
constinit u32 g_packet_rule_refused = 0;
}

namespace mox {
namespace {

/* Shares of the machine's memory. */
constexpr u32 kSocketShare = 32;
constexpr u32 kAllShare = 8;
constexpr u32 kUnprivilegedShare = 16;

/*
 * Instructions, as `lab/bench` measures them, rounded up: of a rule that the search for
 * a frame's rules has to compare, of each of its conditions as long as all have one value
 * (rules/digest.hpp), and of each when they are compared one by one.
 */
constexpr u32 kCandidateWork = 24;
constexpr u32 kDigestWork = 10;
constexpr u32 kConditionWork = 32;
constexpr u32 kTreeLevelWork = 12;
/* Copies of a rule that a frame may have to be compared with: rules/index.cc. */
constexpr u32 kCopiesCompared = kFewKeys;

/** Bytes that an object takes of its cache, which aligns it to 8. */
template <typename Record> constexpr u64 size_of()
{
	return (sizeof(Record) + 7) & ~7ull;
}

/** A budget that all sockets share. */
struct Budget {
	u32 &used;
	u32 all = 0;
	u32 unprivileged = 0;
	u32 refused = 0;

	/** Add to what is used, up to a limit. */
	bool take_up_to(u32 more, u32 limit)
	{
		u32 before = load(used);

		do {
			if (more > limit || before > limit - more)
				return false;
		} while (!__atomic_compare_exchange_n(&used, &before, before + more, true,
						      __ATOMIC_RELAXED, __ATOMIC_RELAXED));
		return true;
	}
	bool take(u32 more)
	{
		/* With CAP_NET_ADMIN others may have more than half of all. */
		return more == 0 || take_up_to(more, unprivileged) ||
		       (seam_capable_net_admin() && take_up_to(more, all)) || refuse();
	}
	/** Count a refusal. False. */
	bool refuse()
	{
		__atomic_fetch_add(&refused, 1u, __ATOMIC_RELAXED);
		return false;
	}
	void give_back(u32 less) { __atomic_fetch_sub(&used, less, __ATOMIC_RELAXED); }
	/** Whether a socket that has some already may have so much, as far as without the capability. */
	bool fits(u64 wanted, u32 has) const
	{
		return wanted <= has || wanted + load(used) <= u64{ unprivileged } + has;
	}
};

constinit Budget g_bytes{ g_packet_rule_bytes };
constinit Budget g_work{ g_packet_rule_work };
constinit u32 g_socket_limit = 0;

/** What a rule takes of the budgets. */
struct Charge {
	u64 bytes;
	u32 work;
};

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

/** The least power of two that is not below a number, as an exponent. */
u32 levels_of(u64 values)
{
	return values <= 1 ? 0 : 64 - static_cast<u32>(__builtin_clzll(values - 1));
}

/**
 * What a rule may cost a frame that it does not match. Of a key with several values the
 * copies of kCopiesCompared at most are compared with one frame. As above, any item may
 * be the key, and fewer values never cost more.
 */
u32 rule_work(const Sizes &sizes)
{
	u32 conditions = 0;
	u32 one_by_one = 0;
	bool digest = true;
	u64 keys = 1;

	for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++) {
		if (!sizes.there[type])
			continue;
		conditions++;
		one_by_one += kConditionWork + kTreeLevelWork * levels_of(sizes.of[type]);
		digest = digest && sizes.of[type] <= 1 && digest_decides(type);
		if (type_is_key(type) && sizes.of[type] > keys)
			keys = sizes.of[type];
	}
	if (conditions < 2)
		return 0;
	if (digest)
		return kCandidateWork + kDigestWork * conditions;
	if (keys > kCopiesCompared)
		keys = kCopiesCompared;
	return static_cast<u32>(keys) * (kCandidateWork + one_by_one);
}

Charge charge_of(const Sizes &sizes)
{
	return { rule_bytes(sizes), rule_work(sizes) };
}

/** What a socket's rule takes with so many further values of a type. */
Charge charge_with(const mox_packet_sock *po, u32 type, u32 values)
{
	Sizes sizes = sizes_of(&po->regular);

	sizes.there[type] = true;
	sizes.of[type] += values;
	return charge_of(sizes);
}

/** Charge a socket for more than it has, of both budgets or of none. */
bool take(mox_packet_sock *po, const Charge &charge)
{
	const u32 bytes = static_cast<u32>(charge.bytes) - po->rule_bytes;
	const u32 work = charge.work - po->rule_work;

	if (!g_bytes.take(bytes))
		return false;
	if (!g_work.take(work)) {
		g_bytes.give_back(bytes);
		return false;
	}
	store(po->rule_bytes, po->rule_bytes + bytes);
	store(po->rule_work, po->rule_work + work);
	return true;
}

} // namespace

void budget_init(u32 frame_work)
{
	const u64 memory = seam_total_memory();

	/* A 32-bit machine has far less than 2^40 bytes: an eighth fits. */
	g_socket_limit = static_cast<u32>(memory / kSocketShare);
	g_bytes.all = static_cast<u32>(memory / kAllShare);
	g_bytes.unprivileged = static_cast<u32>(memory / kUnprivilegedShare);
	g_work.all = frame_work;
	g_work.unprivileged = frame_work / 2;
}

BudgetState budget_state(BudgetOf which)
{
	const bool bytes = which == BudgetOf::kBytes;
	const Budget &budget = bytes ? g_bytes : g_work;

	return { load(budget.used), budget.all, budget.unprivileged,
		 bytes ? g_socket_limit : budget.all, load(budget.refused) };
}

bool budget_fits(const mox_packet_sock *po, u32 type, u32 values)
{
	const Charge charge = charge_with(po, type, values);

	return charge.bytes <= g_socket_limit && g_bytes.fits(charge.bytes, po->rule_bytes) &&
	       g_work.fits(charge.work, po->rule_work);
}

int budget_charge(mox_packet_sock *po, u32 type, u32 values)
{
	Charge charge = charge_with(po, type, values);

	/* What has been deleted since the last charge stays charged until it settles. */
	if (charge.bytes < po->rule_bytes)
		charge.bytes = po->rule_bytes;
	if (charge.work < po->rule_work)
		charge.work = po->rule_work;
	if ((charge.bytes <= g_socket_limit || g_bytes.refuse()) && take(po, charge))
		return 0;
	__atomic_fetch_add(&g_packet_rule_refused, 1u, __ATOMIC_RELAXED);
	MOX_DEBUG(
		"MOX-PACKET-RULE-BUDGET: process %s pid %d: %llu bytes, limit %u, all %u; work %u, "
		"limit %u, all %u\n",
		po->process, po->pid, static_cast<unsigned long long>(charge.bytes), g_socket_limit,
		load(g_packet_rule_bytes), charge.work, g_work.all, load(g_packet_rule_work));
	return err::kNoMem;
}

void budget_settle(mox_packet_sock *po)
{
	const Charge charge = list_empty(&po->regular.items) ? Charge{}
							     : charge_of(sizes_of(&po->regular));

	if (charge.bytes < po->rule_bytes) {
		g_bytes.give_back(po->rule_bytes - static_cast<u32>(charge.bytes));
		store(po->rule_bytes, static_cast<u32>(charge.bytes));
	}
	if (charge.work < po->rule_work) {
		g_work.give_back(po->rule_work - charge.work);
		store(po->rule_work, charge.work);
	}
}

void budget_release(mox_packet_sock *po)
{
	g_bytes.give_back(po->rule_bytes);
	g_work.give_back(po->rule_work);
	store(po->rule_bytes, 0u);
	store(po->rule_work, 0u);
}

} // namespace mox
