// SPDX-License-Identifier: GPL-2.0-only
/* mox_capture: the ledgers of the locations, and the queues. */
#include "base/total.hpp"
#include "control/capture.hpp"
#include "locations/table.hpp"
#include "receive/queue.hpp"
#include "socket/closed.hpp"

namespace mox {
namespace {

/** The ledger of a location, of one CPU or of all. */
struct LocationLedger {
	u64 seen, wanted, cloned, taken, clone_failed, copies_refused, takes_refused, rnfp_drops,
		rnfp_wlan_drops;
	u64 kept, unkept, unmatched, freed, offers;
	u64 queued;

	void add(const LocationLedger &other);
};

/** A word of the ledger: where it is read from, and the attribute that carries it. */
struct Word {
	u64 LocationLedger::*word;
	mox_capture_location_attr attribute;
	mox_total hook_ledger::*hook;
	mox_total delivery_ledger::*delivered;
};

#define MOX_HOOK_WORD(word, attribute)                                                       \
	{                                                                                    \
		&LocationLedger::word, MOX_CAPTURE_LOCATION_##attribute, &hook_ledger::word, \
			nullptr                                                              \
	}
#define MOX_DELIVERY_WORD(word, attribute)                                        \
	{                                                                         \
		&LocationLedger::word, MOX_CAPTURE_LOCATION_##attribute, nullptr, \
			&delivery_ledger::word                                    \
	}

constexpr Word kWords[] = {
	MOX_HOOK_WORD(seen, SEEN),
	MOX_HOOK_WORD(wanted, WANTED),
	MOX_HOOK_WORD(cloned, CLONED),
	MOX_HOOK_WORD(taken, TAKEN),
	MOX_HOOK_WORD(clone_failed, CLONE_FAILED),
	MOX_HOOK_WORD(copies_refused, COPIES_REFUSED),
	MOX_HOOK_WORD(takes_refused, TAKES_REFUSED),
	MOX_HOOK_WORD(rnfp_drops, RNFP_DROPS),
	MOX_HOOK_WORD(rnfp_wlan_drops, RNFP_WLAN_DROPS),
	MOX_DELIVERY_WORD(kept, KEPT),
	MOX_DELIVERY_WORD(unkept, UNKEPT),
	MOX_DELIVERY_WORD(unmatched, UNMATCHED),
	MOX_DELIVERY_WORD(freed, FREED),
	MOX_DELIVERY_WORD(offers, OFFERS),
};

void LocationLedger::add(const LocationLedger &other)
{
	for (const Word &word : kWords)
		this->*word.word += other.*word.word;
	queued += other.queued;
}

/** The ledger of a queue's frames on one CPU. What is counted meanwhile may be in one word only. */
LocationLedger read_ledger(u32 queue, int cpu)
{
	const hook_cpu *record = seam_hook_cpu(cpu);
	LocationLedger ledger{};

	for (const Word &word : kWords)
		ledger.*word.word = read_total(word.hook
						       ? record->hooks[queue].*word.hook
						       : record->delivered[queue].*word.delivered);
	const u64 left = ledger.kept + ledger.unkept + ledger.unmatched + ledger.freed;
	const u64 came = ledger.cloned + ledger.taken;
	ledger.queued = came > left ? came - left : 0;
	return ledger;
}

void put_ledger(Message &message, const LocationLedger &ledger)
{
	for (const Word &word : kWords)
		message.number(word.attribute, ledger.*word.word);
	message.number(MOX_CAPTURE_LOCATION_UNWANTED,
		       ledger.seen > ledger.wanted ? ledger.seen - ledger.wanted : u64{ 0 });
	message.number(MOX_CAPTURE_LOCATION_QUEUED, ledger.queued);
}

void put_closed(Message &message, u32 row)
{
	const ClosedSockets closed = closed_read(row);

	put_counters(message, MOX_CAPTURE_LOCATION_CLOSED,
		     [&](Tally which) { return closed.totals[which - 1]; });
	message.number(MOX_CAPTURE_LOCATION_CLOSED_SOCKETS, closed.sockets);
}

bool put_location(sk_buff *skb, const seam_request *request, u32 location, int cpu)
{
	Message message(skb, request, MOX_CAPTURE_CMD_LOCATIONS);
	const bool all = cpu < 0;

	message.number(MOX_CAPTURE_LOCATION_LOCATION, location);
	message.text(MOX_CAPTURE_LOCATION_NAME, location_name(location), 32);
	if (!all)
		message.number(MOX_CAPTURE_LOCATION_CPU, static_cast<u32>(cpu));
	/* Locations without queues, and the shared ones, have only what closed sockets counted. */
	if (location_has_report(location)) {
		const u32 queue = location_row(location).queue;
		LocationLedger ledger{};
		if (all) {
			for (int one = seam_next_possible_cpu(-1); one < seam_nr_cpu_ids();
			     one = seam_next_possible_cpu(one))
				ledger.add(read_ledger(queue, one));
			message.number(MOX_CAPTURE_LOCATION_RULES,
				       load(location_library(location)->regular_count));
		} else {
			ledger = read_ledger(queue, cpu);
		}
		put_ledger(message, ledger);
	}
	if (all)
		put_closed(message, location);
	return message.end();
}

/** The length of a queue, and what counts as held. */
bool put_queue(sk_buff *skb, const seam_request *request, u32 location, int cpu)
{
	Message message(skb, request, MOX_CAPTURE_CMD_QUEUES);
	const u32 number = location_row(location).queue;
	efbuff_queue *queue = &g_cpu_pkt_que[cpu][number];
	const CpuHeld &held = g_cpu_held[cpu];
	const u32 in_queue = held_now(held.queues[number]);
	const u32 in_all = held_now(held.all);
	const u32 limit = queue_limit();
	u32 length;
	{
		SpinBhGuard guard(&queue->lock);
		length = queue->count;
	}

	message.number(MOX_CAPTURE_QUEUE_LOCATION, location);
	message.text(MOX_CAPTURE_QUEUE_NAME, location_name(location), 32);
	message.number(MOX_CAPTURE_QUEUE_CPU, static_cast<u32>(cpu));
	message.number(MOX_CAPTURE_QUEUE_LENGTH, length);
	message.number(MOX_CAPTURE_QUEUE_HELD, in_queue & 0xFFFF);
	message.number(MOX_CAPTURE_QUEUE_COPIES, in_queue >> 16);
	message.number(MOX_CAPTURE_QUEUE_LIMIT, limit);
	message.number(MOX_CAPTURE_QUEUE_CPU_HELD, in_all & 0xFFFF);
	message.number(MOX_CAPTURE_QUEUE_CPU_LIMIT, kCpuQueues * limit);
	return message.end();
}

/* Numbers of the messages of a location: the sums, then the CPUs. */
constexpr u32 kMessagesOfLocation = 1 + CPU_QUEUE_SLOTS;

/** Whether a CPU has a ledger and queues. */
bool possible(int cpu)
{
	return cpu < seam_nr_cpu_ids() && seam_next_possible_cpu(cpu - 1) == cpu;
}

/**
 * Calls put(location, cpu) for the messages of each location from the dump's next one
 * on, with CPU -1 for the sums, until one has no room. Whether all are written.
 */
template <typename Put> bool for_locations(Dump *dump, u32 first, u32 last, bool sums, Put put)
{
	for (; dump->next < (last - first + 1) * kMessagesOfLocation; dump->next++) {
		const u32 location = first + dump->next / kMessagesOfLocation;
		const int cpu = static_cast<int>(dump->next % kMessagesOfLocation) - 1;
		if (dump->query.has(MOX_CAPTURE_REQUEST_LOCATION) &&
		    dump->query.location != location)
			continue;
		if (cpu < 0 ? !sums : !location_has_report(location) || !possible(cpu))
			continue;
		if (!put(location, cpu))
			return false;
	}
	return true;
}

} // namespace

bool dump_locations(Dump *dump, sk_buff *skb, const seam_request *request)
{
	/* 0, and one beyond the last: of sockets that captured nothing. */
	return for_locations(dump, PACKET_NONE_LOC, kLocationCount, true,
			     [&](u32 location, int cpu) {
				     return put_location(skb, request, location, cpu);
			     });
}

bool dump_queues(Dump *dump, sk_buff *skb, const seam_request *request)
{
	return for_locations(dump, kFirstLocation, kLastLocation, false,
			     [&](u32 location, int cpu) {
				     return put_queue(skb, request, location, cpu);
			     });
}

} // namespace mox
