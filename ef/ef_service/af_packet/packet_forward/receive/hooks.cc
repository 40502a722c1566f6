// SPDX-License-Identifier: GPL-2.0-only
/*
 * Each hook classifies the platform's current packet and puts it, or a clone, on
 * its own CPU's queue. The library lock, which it takes for reading if the packet
 * may match a rule, and the queue lock are never held together.
 */
#include "base/log.hpp"
#include "base/total.hpp"
#include "packet/filter.hpp"
#include "packet/trace.hpp"
#include "receive/arrivals.hpp"
#include "receive/queue.hpp"
#include "receive/thread.hpp"
#include "receive/tracer.hpp"
#include "rules/search.hpp"
#include "services/services.hpp"

namespace mox {

namespace ef = platform::ef;

namespace {

void *current_efbuff(const hook_cpu *here)
{
	return reinterpret_cast<void *>(here->efbuff & ~static_cast<unsigned long>(platform::kTag));
}

void write_forward_reason(void *efbuff)
{
	u8 reason;
	switch (field<u8>(efbuff, ef::kKind)) {
	case ef::kKind2:
		reason = ef::kReasonKind2;
		break;
	case ef::kKindIpv4:
	case ef::kKindIpv6:
		reason = ef::kReasonIp;
		break;
	default:
		reason = ef::kReasonOther;
		break;
	}
	set_field(efbuff, ef::kForwardReason, reason);
}

/** Whether a service drops the packet, which total counts. It may be withdrawn between the test
 * and the call: the pointer is read once. */
bool service_drops(const pkt_rnfp_func &service, void *efbuff, mox_total &total)
{
	pkt_rnfp_func drops = load(service);

	if (!drops || drops(efbuff) == 0)
		return false;
	count(total);
	return true;
}

/** A frame of the running hook while frames are followed; the CPU's record points to it. */
struct Following {
	const FrameHeaders &headers;
	bool wanted; /* its record is still to be made */
	TraceHop hop;

	void record(mox_capture_verdict verdict, u32 queue)
	{
		if (!wanted)
			return;
		wanted = false;
		hop.verdict = verdict;
		hop.queued = verdict == MOX_CAPTURE_VERDICT_CLONED ||
			     verdict == MOX_CAPTURE_VERDICT_TAKEN;
		hop.frame = queue_last_number(hop.cpu, queue);
		tracer_record(headers, hop);
	}
};

/**
 * Note the time of arrival of a frame that is about to be queued, and make its record: as
 * soon as it is queued the copy thread may record its delivery.
 */
[[gnu::noinline, gnu::cold]] void watch_queueing(const hook_cpu *here, u32 queue, Held held)
{
	arrival_note(here, queue, queue_last_number(here->cpu, queue));
	if (here->following)
		static_cast<Following *>(here->following)
			->record(held == Held::kCopy ? MOX_CAPTURE_VERDICT_CLONED
						     : MOX_CAPTURE_VERDICT_TAKEN,
				 queue);
}

/** This CPU's queue of a location, and its ledger. */
template <u32 location> struct Place {
	static constexpr u32 kNumber = location_row(location).queue;

	hook_cpu *here = seam_hook_enter();

	hook_ledger &ledger() const { return here->hooks[kNumber]; }
	bool admits(Held held) const { return queue_admit(here->cpu, kNumber, held); }
	void count_back(Held held) const { queue_count_back(here->cpu, kNumber, held); }
	/** Queue an admitted efbuff, which the queue then owns, for the copy thread. */
	void hand_over(void *efbuff, Held held) const
	{
		count(held == Held::kCopy ? ledger().cloned : ledger().taken);
		if (arrivals_needed(here)) [[unlikely]]
			watch_queueing(here, kNumber, held);
		queue_append(&g_cpu_pkt_que[here->cpu][kNumber], efbuff, held);
		thread_activate<location>();
	}
};

/**
 * The answer for a packet that a rule takes and the queue does not: it is dropped,
 * as no one but the rule's socket may have it.
 */
template <u32 location> u32 drop_taken(const Place<location> &place, void *efbuff)
{
	constexpr Answers kAnswers = location_row(location).answers;

	count(place.ledger().takes_refused);
	if constexpr (kAnswers.taken == platform::kTaken)
		return platform::kDrop;
	/* A receive function has no such answer: it takes the packet, and frees it. */
	free_efbuff(efbuff);
	return kAnswers.taken;
}

/** Queue a packet that a rule takes. The hook's answer. */
template <u32 location> u32 take(const Place<location> &place, void *efbuff)
{
	if (!place.admits(Held::kTaken)) [[unlikely]]
		return drop_taken(place, efbuff);
	place.hand_over(efbuff, Held::kTaken);
	return location_row(location).answers.taken;
}

/** Queue a clone; the packet stays with the platform. False without memory, or room for it. */
template <u32 location> bool hand_over_clone(const Place<location> &place, void *efbuff)
{
	if (!place.admits(Held::kCopy)) [[unlikely]] {
		count(place.ledger().copies_refused);
		return false;
	}
	void *clone = efmp_buff_clone_with_owner(efbuff, platform::kOwner);
	if (!clone) {
		place.count_back(Held::kCopy);
		count(place.ledger().clone_failed);
		return false;
	}
	place.hand_over(clone, Held::kCopy);
	return true;
}

void trace_received(const pkt_info &info, u32 location)
{
	MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, loc %s, src_intf: %s, src_ifx: %u, in vsd: %u\n",
		  info.efbuff, location_name(location), source_name(info.efbuff), info.ifindex, 0u);
	trace_packet(info, TraceTag::kReceive);
}

/** A hook's work at a location whose rules are matched against pkt_info. The hook's answer. */
template <u32 location> [[gnu::always_inline]] inline u32 receive_full(const Place<location> &place)
{
	constexpr const Location &kRow = location_row(location);
	count(place.ledger().seen);
	void *efbuff = current_efbuff(place.here);
	SEAM_UNINITIALIZED pkt_info info;
	pkt_info_build(efbuff, &info);
	const bool trace = traced(efbuff);
	if (trace)
		trace_received(info, location);
	else
		(void)pktd_filter_passes(info);

	const u32 treatment = filter_frame(info, kRow.library);
	if (treatment == PACKET_TREATMENT_NONE) {
		if (trace)
			MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, fast filter\n", efbuff);
		return kRow.answers.go_on;
	}
	count(place.ledger().wanted);
	if (treatment == PACKET_FETCH || treatment == PACKET_TRAP) {
		if constexpr (kRow.services) {
			write_forward_reason(efbuff);
			if (service_drops(pkt_rnfp, efbuff, place.ledger().rnfp_drops)) {
				if (trace)
					MOX_TRACE("MOX-PACKET-RCV: drop pkt %p for rnfp\n", efbuff);
				return platform::kDrop;
			}
			if (service_drops(pkt_rnfp_wlan, efbuff, place.ledger().rnfp_wlan_drops)) {
				if (trace)
					MOX_TRACE("MOX-PACKET-RCV: drop pkt %p for wlan rnfp\n",
						  efbuff);
				return platform::kDrop;
			}
		}
		return take(place, efbuff);
	}
	if (!hand_over_clone(place, efbuff) && trace)
		MOX_TRACE("MOX-PACKET-RCV: alloc buff error!\n");
	return kRow.answers.go_on;
}

void trace_wlan_received(const void *efbuff, const pkt_wlan_info &info)
{
	MOX_TRACE("MOX-PACKET-RCV: rcv %s pkt %p, loc PACKET_WLAN_LOC, in vsd: %u\n",
		  (info.flags & pkt_flag::kWlanMgmt) ? "wlan mgnt" : "wlan data", efbuff, 0u);
	trace_wlan_packet(efbuff, TraceTag::kReceive);
}

u32 wlan_receive(const Place<PACKET_WLAN_LOC> &place)
{
	count(place.ledger().seen);
	void *efbuff = current_efbuff(place.here);
	SEAM_UNINITIALIZED pkt_wlan_info info;
	pkt_wlan_info_build(efbuff, &info);
	const bool trace = traced(efbuff);
	if (trace)
		trace_wlan_received(efbuff, info);

	const u32 treatment = filter_frame(info, &g_wlan_packet_regular_lib);
	if (treatment == PACKET_TREATMENT_NONE) {
		if (trace)
			MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, fast filter\n", efbuff);
		return location_row(PACKET_WLAN_LOC).answers.go_on;
	}
	count(place.ledger().wanted);
	/* Only fetch takes the packet here: a trap at the WLAN location copies. Intended. */
	if (treatment == PACKET_FETCH) {
		write_forward_reason(efbuff);
		if (service_drops(pkt_rnfp, efbuff, place.ledger().rnfp_drops) ||
		    service_drops(pkt_rnfp_wlan, efbuff, place.ledger().rnfp_wlan_drops))
			return platform::kDrop;
		return take(place, efbuff);
	}
	if (!hand_over_clone(place, efbuff) && trace)
		MOX_TRACE("MOX-PACKET-RCV: alloc buff error!\n");
	return location_row(PACKET_WLAN_LOC).answers.go_on;
}

template <u32 location> u32 receive();

/** The word of a hook's ledger that stands for what became of a frame, and its verdict. */
struct Outcome {
	mox_total hook_ledger::*word;
	mox_capture_verdict verdict;
};

constexpr Outcome kOutcomes[] = {
	{ &hook_ledger::cloned, MOX_CAPTURE_VERDICT_CLONED },
	{ &hook_ledger::taken, MOX_CAPTURE_VERDICT_TAKEN },
	{ &hook_ledger::clone_failed, MOX_CAPTURE_VERDICT_CLONE_FAILED },
	{ &hook_ledger::copies_refused, MOX_CAPTURE_VERDICT_COPY_REFUSED },
	{ &hook_ledger::takes_refused, MOX_CAPTURE_VERDICT_TAKE_REFUSED },
	{ &hook_ledger::rnfp_drops, MOX_CAPTURE_VERDICT_RNFP_DROP },
	{ &hook_ledger::rnfp_wlan_drops, MOX_CAPTURE_VERDICT_RNFP_WLAN_DROP },
};

/** What the ledger has counted since it was before: only this CPU writes it. */
mox_capture_verdict verdict_since(const hook_ledger &before, const hook_ledger &now)
{
	for (const Outcome &outcome : kOutcomes)
		if ((before.*outcome.word).low != load((now.*outcome.word).low))
			return outcome.verdict;
	return MOX_CAPTURE_VERDICT_UNWANTED;
}

void describe_deciding(void *context, mox_packet_sock *po)
{
	trace_socket(static_cast<TraceHop *>(context), po);
}

/** Note what decides, of a summary that is built for the purpose: the hook builds its own. */
template <u32 location> void explain_decision(void *efbuff, TraceHop *hop)
{
	constexpr const Location &kRow = location_row(location);
	Decision decision;

	if constexpr (kRow.summary == Summary::kWlan) {
		pkt_wlan_info info;
		pkt_wlan_info_build(efbuff, &info);
		decision = explain_frame(info, kRow.library, describe_deciding, hop);
	} else {
		pkt_info info;
		pkt_info_build(efbuff, &info);
		decision = explain_frame(info, kRow.library, describe_deciding, hop);
	}
	hop->has_key = decision.treatment != PACKET_TREATMENT_NONE;
	hop->key_type = decision.key_type;
	__builtin_memcpy(hop->key, decision.key, sizeof(hop->key));
}

/** A hook's work while frames are followed. */
template <u32 location> [[gnu::noinline, gnu::cold]] u32 follow(hook_cpu *here)
{
	constexpr u32 kNumber = location_row(location).queue;
	const hook_ledger &ledger = here->hooks[kNumber];
	void *efbuff = current_efbuff(here);
	const FrameHeaders headers = read_headers(efbuff);

	const hook_ledger before = ledger;
	Following following{ headers, tracer_follows(headers, location), {} };

	following.hop.hop = MOX_CAPTURE_HOP_HOOK;
	following.hop.cpu = here->cpu;
	following.hop.location = location;
	if (following.wanted)
		explain_decision<location>(efbuff, &following.hop);
	here->following = &following;
	const u32 answer = receive<location>();
	here->following = nullptr;
	following.record(verdict_since(before, ledger), kNumber);
	return answer;
}

template <u32 location> u32 receive()
{
	const Place<location> place;

	if (load(place.here->tracing)) [[unlikely]] {
		/* It calls this function once more. */
		if (!place.here->following)
			return follow<location>(place.here);
	}
	if constexpr (location_row(location).summary == Summary::kWlan)
		return wlan_receive(place);
	else
		return receive_full<location>(place);
}

} // namespace
} // namespace mox

extern "C" {
#define MOX_ROW(location, function)              \
	u32 function(void)                       \
	{                                        \
		return mox::receive<location>(); \
	}
MOX_RECEIVER_TABLE(MOX_ROW)
#undef MOX_ROW
}
