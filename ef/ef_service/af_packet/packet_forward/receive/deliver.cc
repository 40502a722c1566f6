// SPDX-License-Identifier: GPL-2.0-only
/*
 * The library's change lock, a mutex, is held while frames are delivered: rules
 * neither enter nor leave meanwhile, and a socket that is being closed waits in its
 * rule's withdrawal, so that no buffer is queued behind its purge.
 */
#include "receive/deliver.hpp"

#include "base/counters.hpp"
#include "base/errors.hpp"
#include "base/log.hpp"
#include "base/socket_record.hpp"
#include "packet/filter.hpp"
#include "packet/trace.hpp"
#include "receive/arrivals.hpp"
#include "receive/frame_buffers.hpp"
#include "receive/queue.hpp"
#include "receive/tracer.hpp"
#include "rules/matching.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

extern "C" {
constinit packet_thread_debug g_packet_thread_debug{};
constinit u32 g_alloc_skb_num = 0;
}

namespace mox {

namespace {

/* Frames, and sockets that get one, for which the change lock is held once. */
constexpr u32 kWorkOfHold = 2048;
/* After so many of those, delivery checks whether another task is due. A power of two. */
constexpr u32 kWorkOfLook = 4;
/* Sockets that get a frame between two chances for another task. */
constexpr u32 kSocketsOfTurn = 64;

const char *treatment_text(u32 treatment)
{
	switch (treatment) {
	case PACKET_COPY:
		return "packet-copy";
	case PACKET_TRAP:
		return "packet-trap";
	default:
		return "packet-fetch";
	}
}

[[gnu::noinline]] void trace_delivery(const pkt_info &info, const packet_regular &rule)
{
	/* Operators know the number with a reference of the delivery in it. */
	SockRef ref(rule.owner);

	MOX_TRACE("MOX-PACKET-FW: rcv pkt: %p, loc %s, %s by process %s in vsd %u sk_refcnt %u.\n",
		  info.efbuff, location_name(rule.location), treatment_text(rule.treatment),
		  rule.owner->process, 0u, seam_sk_refcnt(sk_of(rule.owner)));
	MOX_TRACE("MOX-PACKET-FW: src_intf: %s, src_ifx: %u\n", source_name(info.efbuff),
		  info.ifindex);
	trace_packet(info, TraceTag::kForward);
}

[[gnu::noinline]] void trace_wlan_delivery(const void *efbuff, const pkt_wlan_info &info,
					   const packet_regular &rule)
{
	const char *treatment = treatment_text(rule.treatment);

	if (info.flags & pkt_flag::kWlan80211)
		MOX_TRACE("MOX-PACKET-FW: rcv %s pkt: %p, loc PACKET_WLAN_LOC, %s by process %s "
			  "in vsd %u.\n",
			  (info.flags & pkt_flag::kWlanMgmt) ? "wlan mgnt" : "wlan data", efbuff,
			  treatment, rule.owner->process, 0u);
	else
		MOX_TRACE("MOX-PACKET-FW: rcv pkt: %p, eth type %d, eapol type %d, loc "
			  "PACKET_WLAN_LOC, %s by process %s in vsd %u.\n",
			  efbuff, host16(info.eth_type), info.eapol_type, treatment,
			  rule.owner->process, 0u);
	trace_wlan_packet(efbuff, TraceTag::kForward);
}

/** What becomes of a frame that is offered to a socket. */
enum class Verdict { kKeep, kFiltered, kTrimFailed, kQueueFull, kNoMemory };

/**
 * The socket's filter. The filter call's 0, "accepted", is read as a snap length
 * of 0, and its negative "rejected" as a large one: daemons attach filters for
 * the frames to drop and receive all others whole. Intended; they rely on it.
 */
[[gnu::noinline]] Verdict apply_filter(sock *sk, sk_buff *skb)
{
	const u32 snap_len = static_cast<u32>(seam_sk_filter_trim_cap(sk, skb, 1));

	if (snap_len == 0)
		return Verdict::kFiltered;
	if (snap_len >= seam_skb_len(skb))
		return Verdict::kKeep;
	if (!seam_skb_nonlinear(skb))
		seam_skb_cut(skb, snap_len);
	else if (seam_skb_pskb_trim(skb, snap_len) != 0)
		return Verdict::kTrimFailed;
	return Verdict::kKeep;
}

/** Count a frame that the socket does not get. */
[[gnu::noinline]] void count_drop(mox_packet_sock *po, Verdict verdict, bool trace)
{
	const char *text;

	switch (verdict) {
	case Verdict::kFiltered:
		text = "MOX-PACKET-FW: drop packet by socket filter rules.\n";
		tally<MOX_CAPTURE_COUNTERS_FILTER_DROPS>(po);
		break;
	case Verdict::kTrimFailed:
		text = "MOX-PACKET-FW: drop packet for trim skb fail.\n";
		tally<MOX_CAPTURE_COUNTERS_TRIM_FAIL_DROPS>(po);
		break;
	case Verdict::kQueueFull:
		text = "MOX-PACKET-FW: drop packet for socket recvbuff is full.\n";
		tally<MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS>(po);
		break;
	default:
		text = "MOX-PACKET-FW: alloc skb failed.\n";
		tally<MOX_CAPTURE_COUNTERS_MEMORY_DROPS>(po);
		break;
	}
	if (trace)
		MOX_TRACE("%s", text);
}

/** The same for a socket with a filter, or a frame without bytes. */
[[gnu::noinline]] Verdict offer_filtered(sock *sk, sk_buff *skb)
{
	if (seam_sk_filtered(sk)) {
		Verdict verdict = apply_filter(sk, skb);
		if (verdict != Verdict::kKeep)
			return verdict;
	} else if (seam_skb_len(skb) == 0) {
		/* Without a filter the snap length is the buffer's: an empty one is dropped as well. */
		return Verdict::kFiltered;
	}
	return seam_rcvq_offer(sk, skb, true) == SEAM_OFFER_QUEUED ? Verdict::kKeep
								   : Verdict::kQueueFull;
}

/** Offer a buffer to a socket, whose it is then if the verdict is kKeep. */
[[gnu::always_inline]] inline Verdict offer(sock *sk, sk_buff *skb, bool empty)
{
	int answer = SEAM_OFFER_FILTER;

	if (!empty) [[likely]]
		answer = seam_rcvq_offer(sk, skb, false);
	if (answer == SEAM_OFFER_QUEUED) [[likely]]
		return Verdict::kKeep;
	return answer == SEAM_OFFER_FULL ? Verdict::kQueueFull : offer_filtered(sk, skb);
}

/** One packet for one socket, whose rule is in a library. mark(skb) comes before the offer. */
template <typename Mark>
[[gnu::always_inline]] inline Verdict deliver(FrameBuffers &buffers, bool trace,
					      mox_packet_sock *po, Mark mark)
{
	const bool dgram = po->dgram != 0;
	OwnedSkb skb = buffers.make(dgram);

	tally<MOX_CAPTURE_COUNTERS_MATCHED>(po);
	Verdict verdict = Verdict::kNoMemory;
	if (skb) [[likely]] {
		const bool empty = dgram ? seam_skb_len(skb.get()) == 0 : buffers.empty();
		mark(skb.get());
		verdict = offer(sk_of(po), skb.get(), empty);
	}
	if (verdict == Verdict::kKeep) [[likely]] {
		static_cast<void>(skb.release());
		tally<MOX_CAPTURE_COUNTERS_RECV_PACKETS>(po);
	} else {
		count_drop(po, verdict, trace);
	}
	return verdict;
}

/** A frame while times of arrival are needed, which they are as well while frames are followed. */
struct WatchedFrame {
	u64 now;     /* monotonic */
	u64 arrival; /* the same, or kNoArrival */
	bool followed;
	TraceHop hop;
	FrameHeaders headers; /* of a frame that is followed */
};

[[gnu::noinline]] void watch_frame(const efbuff_queue *queue, u32 location, const void *efbuff,
				   u32 number, WatchedFrame *frame)
{
	frame->now = seam_monotonic_ns();
	frame->arrival = arrival_of(queue, number, frame->now);
	frame->followed = false;
	if (!tracer_on())
		return;
	frame->headers = read_headers(efbuff);
	frame->followed = tracer_follows(frame->headers, location);
	if (!frame->followed)
		return;
	frame->hop = {};
	frame->hop.hop = MOX_CAPTURE_HOP_DELIVERY;
	frame->hop.verdict = MOX_CAPTURE_VERDICT_UNMATCHED;
	frame->hop.cpu = queue_cpu(queue);
	frame->hop.location = location;
	frame->hop.queued = true;
	frame->hop.frame = number & 0xFFFF;
	if (frame->arrival != kNoArrival)
		frame->hop.since = frame->now - frame->arrival;
}

mox_capture_verdict trace_verdict(Verdict verdict)
{
	switch (verdict) {
	case Verdict::kKeep:
		return MOX_CAPTURE_VERDICT_PUT;
	case Verdict::kFiltered:
		return MOX_CAPTURE_VERDICT_FILTERED;
	case Verdict::kTrimFailed:
		return MOX_CAPTURE_VERDICT_TRIM_FAILED;
	case Verdict::kQueueFull:
		return MOX_CAPTURE_VERDICT_BUFFER_FULL;
	default:
		return MOX_CAPTURE_VERDICT_NO_MEMORY;
	}
}

/** deliver() for a frame that is watched: its buffer gets the time, its outcome is recorded. */
[[gnu::noinline]] Verdict deliver_watched(FrameBuffers &buffers, bool trace, mox_packet_sock *po,
					  WatchedFrame &frame)
{
	const Verdict verdict = deliver(buffers, trace, po, [&](sk_buff *skb) {
		if (load(po->stamped) && frame.arrival != kNoArrival)
			seam_skb_set_time(skb,
					  seam_real_ns() - (seam_monotonic_ns() - frame.arrival));
	});
	if (frame.followed) {
		frame.hop.verdict = trace_verdict(verdict);
		trace_socket(&frame.hop, po);
		tracer_record(frame.headers, frame.hop);
	}
	return verdict;
}

/** The seven per-location queues. */
struct LocationDelivery {
	using Info = pkt_info;

	u32 location;
	const void *efbuff;
	pkt_info info;

	LocationDelivery(u32 queue_location, void *buffer)
		: location(queue_location), efbuff(buffer)
	{
		pkt_info_build(buffer, &info);
	}

	/**
	 * Only packets with the platform's mark are printed. The filter is evaluated all the same
	 * while it is on: here for every matched packet, at hooks for unmarked ones only.
	 */
	void trace(const packet_regular &rule, bool marked)
	{
		(void)pktd_filter_passes(info);
		if (marked) [[unlikely]]
			trace_delivery(info, rule);
	}

	/** Whether a rule whose socket was offered the frame ends its delivery. */
	static bool ends(const packet_regular &rule) { return rule.treatment == PACKET_TRAP; }
};

/** The WLAN queue: a trap ends nothing. */
struct WlanDelivery {
	using Info = pkt_wlan_info;

	const void *efbuff;
	pkt_wlan_info info;

	WlanDelivery(u32, void *buffer) : efbuff(buffer) { pkt_wlan_info_build(buffer, &info); }

	/** The small summary has no field that the debug filter compares. */
	void trace(const packet_regular &rule, bool marked)
	{
		if (marked) [[unlikely]]
			trace_wlan_delivery(efbuff, info, rule);
	}

	static bool ends(const packet_regular &) { return false; }
};

/** The frames of one hold of the change lock, until they are counted. */
struct Sums {
	u32 unkept = 0;
	u32 unmatched = 0;
	u32 offers = 0;

	/** A frame that was offered to some sockets, of which one may have kept it. */
	[[gnu::always_inline]] void add(u32 frame_offers, bool frame_kept)
	{
		offers += frame_offers;
		if (frame_kept) [[likely]]
			return;
		if (frame_offers != 0)
			unkept++;
		else
			unmatched++;
	}
	/** frames: how many there were. */
	void count_in(delivery_ledger *ledger, u32 frames) const
	{
		count(ledger->kept, frames - unkept - unmatched);
		count(ledger->unkept, unkept);
		count(ledger->unmatched, unmatched);
		count(ledger->offers, offers);
	}
};

/** Count a frame that stays with the platform although the rule takes it. */
[[gnu::noinline]] void count_passed_on(const packet_regular &rule)
{
	if (rule.treatment == PACKET_TRAP || rule.treatment == PACKET_FETCH)
		tally<MOX_CAPTURE_COUNTERS_PASSED_ON>(rule.owner);
}

/** Offer a frame to the sockets of all rules that match it. Their number. */
template <typename Delivery>
[[gnu::always_inline]] inline u32 deliver_frame(u32 location, packet_regular_lib *lib, void *efbuff,
						bool copy, Sums &sums, WatchedFrame *watched)
	SEAM_REQUIRES(lib->change_lock)
{
	SEAM_UNINITIALIZED Delivery delivery(location, efbuff);
	FrameBuffers buffers(efbuff, delivery.info.eth_type);
	SEAM_UNINITIALIZED MatchingRules<typename Delivery::Info> matching(delivery.info, lib);
	const bool trace = traced(efbuff);
	u32 offers = 0;
	bool kept = false;

	for (packet_regular *rule = matching.first(); rule;) {
		packet_regular *next = nullptr;
		const bool ends = Delivery::ends(*rule);
		if (!ends) {
			next = matching.next();
			if (next)
				buffers.expect_more();
		}
		delivery.trace(*rule, trace);
		if (copy && rule->treatment != PACKET_COPY) [[unlikely]]
			count_passed_on(*rule);
		/* The rule cannot leave meanwhile: its running mark holds the socket. */
		const Verdict verdict = watched ? deliver_watched(buffers, trace, rule->owner,
								  *watched)
						: deliver(buffers, trace, rule->owner,
							  [](sk_buff *) {});
		offers++;
		kept |= verdict == Verdict::kKeep;
		rule = next;
		if (ends) {
			/* A trap without memory for a buffer leaves the frame to others. */
			if (verdict != Verdict::kNoMemory) [[likely]]
				break;
			rule = matching.next();
		}
		if (rule && offers % kSocketsOfTurn == 0) [[unlikely]]
			seam_cond_resched();
	}
	sums.add(offers, kept);
	if (watched && watched->followed && offers == 0)
		tracer_record(watched->headers, watched->hop);
	return offers;
}

void spend(u32 *budget)
{
	if (--*budget != 0)
		return;
	*budget = kDrainBudget;
	seam_schedule();
}

/** A queue that is being delivered. */
struct Draining {
	u32 location;
	packet_regular_lib *lib;
	efbuff_queue *queue;
	u32 *budget;
	EfbuffChain chain;
	OwnedEfbuff efbuff; /* the next one */
};

/**
 * Deliver for one hold of the change lock. watched: null, or room for what times of
 * arrival and traces ask for; a constant where this is inlined, since most often it is null.
 */
template <typename Delivery>
[[gnu::always_inline]] inline void deliver_hold(Draining &draining, WatchedFrame *watched)
{
	MutexGuard guard(&draining.lib->change_lock);
	/* The last frame of the budget yields: outside. */
	u32 left = *draining.budget;
	u32 work = 0;
	Sums sums;

	do {
		if (watched)
			watch_frame(draining.queue, draining.location, draining.efbuff.get(),
				    draining.chain.number(), watched);
		work += 1 + deliver_frame<Delivery>(draining.location, draining.lib,
						    draining.efbuff.get(), draining.chain.is_copy(),
						    sums, watched);
		/* Freed before the next: the chain counts what is held. */
		draining.efbuff = OwnedEfbuff();
		draining.efbuff = OwnedEfbuff(draining.chain.next());
		left--;
	} while (draining.efbuff && left != 0 && work < kWorkOfHold &&
		 (work % kWorkOfLook != 0 || !seam_need_resched()));
	sums.count_in(queue_ledger(draining.queue), *draining.budget - left);
	*draining.budget = left + 1;
}

template <typename Delivery> [[gnu::noinline]] void deliver_watched_hold(Draining &draining)
{
	SEAM_UNINITIALIZED WatchedFrame frame;

	deliver_hold<Delivery>(draining, &frame);
}

/**
 * Deliver a queue. Rule changes wait for the change lock while it is held here,
 * and delivery waits for them: it lets go of the lock after a bounded amount of
 * work and whenever another task is due.
 */
template <typename Delivery>
void deliver_queue(u32 location, packet_regular_lib *lib, efbuff_queue *queue, u32 *budget)
{
	Draining draining{ location, lib, queue, budget, queue_detach(queue), OwnedEfbuff() };

	draining.efbuff = OwnedEfbuff(draining.chain.next());
	while (draining.efbuff) {
		spend(budget);
		if (arrivals_needed(queue_record(queue))) [[unlikely]]
			deliver_watched_hold<Delivery>(draining);
		else
			deliver_hold<Delivery>(draining, nullptr);
		seam_cond_resched();
	}
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

void mox_packet_deal_regular_lib_pkt(u32 location, packet_regular_lib *lib, efbuff_queue *queue,
				     u32 *budget)
{
	deliver_queue<LocationDelivery>(location, lib, queue, budget);
}

void mox_packet_deal_regular_lib_wlan_pkt(packet_regular_lib *lib, efbuff_queue *queue, u32 *budget)
{
	deliver_queue<WlanDelivery>(PACKET_WLAN_LOC, lib, queue, budget);
}

void mox_packet_deal_regular_lib_pkt_global(u32 location, packet_regular_lib *lib,
					    efbuff_queue *queue, u32 *budget)
{
	mox_packet_deal_regular_lib_pkt(location, lib, queue, budget);
}

void mox_packet_deal_regular_lib_wlan_pkt_global(packet_regular_lib *lib, efbuff_queue *queue,
						 u32 *budget)
{
	mox_packet_deal_regular_lib_wlan_pkt(lib, queue, budget);
}
} // extern "C"
