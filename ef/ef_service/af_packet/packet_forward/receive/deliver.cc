// SPDX-License-Identifier: GPL-2.0
/*
 * The library's change lock, a mutex, is held while frames are delivered: rules
 * neither enter nor leave meanwhile, and a socket that is being closed waits in its
 * rule's withdrawal, so that no buffer is queued behind its purge.
 */
#include "receive/deliver.hpp"

#include "base/errors.hpp"
#include "base/log.hpp"
#include "base/socket_record.hpp"
#include "packet/filter.hpp"
#include "packet/trace.hpp"
#include "receive/queue.hpp"
#include "rules/matching.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"

extern "C" {
constinit packet_thread_debug g_packet_thread_debug{};
constinit u32 g_alloc_skb_num = 0;
}

namespace mox {

namespace ef = platform::ef;

namespace {

static_assert(sizeof(mox_packet_ctrl_info) == 48);

/* Frames, and sockets that get one, for which the change lock is held once. */
constexpr u32 kWorkOfHold = 2048;
/* Of those, how often it is asked whether another task is due. A power of two. */
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

u32 ctrl_flags(const void *efbuff)
{
	u32 from = field<u32>(efbuff, ef::kFlags);
	u32 flags = 0;

	if (from & ef::kFlagTrace)
		flags |= MOX_RECV_TRACE;
	if (from & ef::kFlag40000)
		flags |= MOX_RECV_EF_40000;
	if (from & ef::kFlag80)
		flags |= MOX_RECV_EF_80;
	if (field<u16>(efbuff, ef::kL2Len) == 0)
		flags |= MOX_RECV_NO_L2;
	if (field<u32>(efbuff, ef::kWlanFlags) & ef::kWlan800000)
		flags |= MOX_RECV_WLAN_800000;
	return flags;
}

/** The receive control record of a packet; what nothing fills is zero. */
[[gnu::always_inline]] inline void fill_ctrl(const void *efbuff, u16 eth_type,
					     mox_packet_ctrl_info *ctrl)
{
	u16 tag = host16(field<u16>(efbuff, ef::kVlan + 2));
	u16 inner = host16(field<u16>(efbuff, ef::kVlan)) & 0x0FFF;

	/* Field by field: clearing the record first would cost as much again. */
	ctrl->pkt_dst_l2ifx = 0;
	ctrl->reserved20 = 0;
	ctrl->inner_vid = 0;
	ctrl->reserved46 = 0;
	ctrl->pkt_ifx = source_ifindex(efbuff);
	ctrl->pkt_origifx = field<u32>(efbuff, ef::kOrigIfx);
	ctrl->pkt_l2ifx = field<u32>(efbuff, ef::kL2Ifx);
	ctrl->eth_type = eth_type;
	ctrl->vlan = static_cast<u16>((tag >> 13) | ((tag & 0x0FFF) << 4));
	ctrl->flags = ctrl_flags(efbuff);
	ctrl->word28 = field<u32>(efbuff, ef::kWord172);
	ctrl->inner_vlan = inner;
	ctrl->ex_inner_vlan = inner;
	ctrl->l2_len = field<u16>(efbuff, ef::kL2Len);
	ctrl->half38 = field<u16>(efbuff, ef::kHalf188);
	ctrl->wlan_id = field<u16>(efbuff, ef::kWlanId);
	ctrl->ap_wlan_id = field<u16>(efbuff, ef::kApWlanId);
	ctrl->radio_id = field<u8>(efbuff, ef::kRadioId);
	ctrl->proxy_capture = field<u8>(efbuff, ef::kProxyCapture);
}

/** Drop a buffer that no queue has; another reference, if any, keeps it and its count. */
void drop_skb(sk_buff *skb)
{
	if (seam_skb_users(skb) == 1)
		bump(g_alloc_skb_num, -1);
	seam_consume_skb(skb);
}

using OwnedSkb = Owned<sk_buff, drop_skb>;

/** A socket buffer with the whole frame and its control record, or null. Not counted. */
[[gnu::always_inline]] inline sk_buff *build_skb(const void *efbuff, u16 eth_type)
{
	const seam_frame frame = { mac_header(efbuff), field<u32>(efbuff, ef::kTotalLen),
				   field<u16>(efbuff, ef::kL2Len), source_ifindex(efbuff),
				   static_cast<u16>(vlan_id_of(efbuff)) };
	sk_buff *skb = seam_skb_of_frame(&frame);

	if (skb)
		fill_ctrl(efbuff, eth_type, static_cast<mox_packet_ctrl_info *>(seam_skb_cb(skb)));
	return skb;
}

/**
 * The buffers of one frame. When several sockets get it, they share its data:
 * each has a clone of a master that no socket has.
 */
class FrameBuffers : Pinned {
public:
	FrameBuffers(const void *efbuff, u16 eth_type) : efbuff_(efbuff), eth_type_(eth_type) {}

	/** The next buffer will not be the last. */
	void expect_more()
	{
		if (!master_)
			master_ = Owned<sk_buff, seam_consume_skb>(build_skb(efbuff_, eth_type_));
	}

	/** Whether the frame has no bytes. */
	bool empty() const { return field<u32>(efbuff_, ef::kTotalLen) == 0; }

	/** A buffer for one socket, or null, which is counted. */
	OwnedSkb make(bool dgram)
	{
		/* Without memory for a master each socket's own attempt counts. */
		sk_buff *skb = master_ ? seam_skb_clone(master_.get())
				       : build_skb(efbuff_, eth_type_);
		if (!skb) {
			bump(g_packet_thread_debug.alloc_skb_failed);
			return OwnedSkb();
		}
		bump(g_alloc_skb_num);
		if (dgram)
			seam_skb_pull(skb, field<u16>(efbuff_, ef::kL2Len));
		return OwnedSkb(skb);
	}

private:
	const void *efbuff_;
	u16 eth_type_;
	Owned<sk_buff, seam_consume_skb> master_;
};

/** What becomes of a socket's buffer. */
enum class Verdict { kKeep, kFiltered, kTrimFailed, kQueueFull };

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

/** Count a buffer that the socket does not get. */
[[gnu::noinline]] void count_drop(mox_packet_sock *po, Verdict verdict, bool trace)
{
	const char *text;
	u32 *counter;

	switch (verdict) {
	case Verdict::kFiltered:
		text = "MOX-PACKET-FW: drop packet by socket filter rules.\n";
		counter = &po->filter_drops;
		break;
	case Verdict::kTrimFailed:
		text = "MOX-PACKET-FW: drop packet for trim skb fail.\n";
		counter = &po->trim_fail_drops;
		break;
	default:
		text = "MOX-PACKET-FW: drop packet for socket recvbuff is full.\n";
		counter = &po->rcvbuf_full_drops;
		break;
	}
	if (trace)
		MOX_TRACE("%s", text);
	bump(*counter);
}

/** Offer a buffer to a socket; if it has no filter, empty says whether the buffer is. */
Verdict offer(sock *sk, OwnedSkb &skb, bool filtered, bool empty)
{
	/* Without a filter the snap length is the buffer's: an empty one is dropped as well. */
	if (filtered) {
		Verdict verdict = apply_filter(sk, skb.get());
		if (verdict != Verdict::kKeep)
			return verdict;
	} else if (empty) {
		return Verdict::kFiltered;
	}
	if (!seam_rcvq_offer(sk, skb.get()))
		return Verdict::kQueueFull;
	static_cast<void>(skb.release());
	return Verdict::kKeep;
}

/**
 * One packet for one socket, whose rule is in a library. False when there was no
 * memory for the buffer, which does not count as an offer.
 */
bool deliver(FrameBuffers &buffers, bool trace, mox_packet_sock *po)
{
	sock *sk = sk_of(po);
	const u32 receiver = seam_sk_receiver(sk);
	const bool dgram = receiver & SEAM_RECEIVER_DGRAM;
	OwnedSkb skb = buffers.make(dgram);
	if (!skb) {
		if (trace)
			MOX_TRACE("MOX-PACKET-FW: alloc skb failed.\n");
		return false;
	}
	const bool empty = dgram ? seam_skb_len(skb.get()) == 0 : buffers.empty();
	Verdict verdict = offer(sk, skb, receiver & SEAM_RECEIVER_FILTERED, empty);
	if (verdict == Verdict::kKeep)
		bump(po->recv_packets);
	else
		count_drop(po, verdict, trace);
	return true;
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

	/** Here the filter is compared with every matched packet; hooks compare unmarked ones only. */
	void trace(const packet_regular &rule, bool marked)
	{
		const bool passes = pktd_filter_passes(info);
		if (marked) [[unlikely]]
			trace_delivery(info, rule);
		else if (passes)
			(void)path_switch_on(location);
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
		if (marked)
			trace_wlan_delivery(efbuff, info, rule);
		else
			(void)path_switch_on(PACKET_WLAN_LOC);
	}

	static bool ends(const packet_regular &) { return false; }
};

/** Offer a frame to the sockets of all rules that match it. Their number. */
template <typename Delivery>
u32 deliver_frame(u32 location, packet_regular_lib *lib, void *efbuff)
	SEAM_REQUIRES(lib->change_lock)
{
	SEAM_UNINITIALIZED Delivery delivery(location, efbuff);
	FrameBuffers buffers(efbuff, delivery.info.eth_type);
	SEAM_UNINITIALIZED MatchingRules<typename Delivery::Info> matching(delivery.info, lib);
	const bool trace = traced(efbuff);
	u32 offered = 0;

	packet_regular *rule = matching.first();
	while (rule) {
		packet_regular *next = nullptr;
		const bool ends = Delivery::ends(*rule);
		if (!ends) {
			next = matching.next();
			if (next)
				buffers.expect_more();
		}
		delivery.trace(*rule, trace);
		/* The rule cannot leave meanwhile: its running mark holds the socket. */
		if (deliver(buffers, trace, rule->owner) && ends)
			break;
		rule = ends ? matching.next() : next;
		if (++offered % kSocketsOfTurn == 0)
			seam_cond_resched();
	}
	return offered;
}

void spend(u32 *budget)
{
	if (--*budget != 0)
		return;
	*budget = kDrainBudget;
	seam_schedule();
}

/**
 * Deliver a queue. Rule changes wait for the change lock while it is held here,
 * and delivery waits for them: it lets go of the lock after a bounded amount of
 * work and whenever another task is due.
 */
template <typename Delivery>
void deliver_queue(u32 location, packet_regular_lib *lib, efbuff_queue *queue, u32 *budget)
{
	EfbuffChain chain = queue_detach(queue);
	OwnedEfbuff efbuff(chain.next());

	while (efbuff) {
		spend(budget);
		{
			MutexGuard guard(&lib->change_lock);
			/* The last frame of the budget yields: outside. */
			u32 left = *budget;
			u32 work = 0;
			do {
				work += 1 + deliver_frame<Delivery>(location, lib, efbuff.get());
				/* Freed before the next: the chain counts what is held. */
				efbuff = OwnedEfbuff();
				efbuff = OwnedEfbuff(chain.next());
				left--;
			} while (efbuff && left != 0 && work < kWorkOfHold &&
				 (work % kWorkOfLook != 0 || !seam_need_resched()));
			*budget = left + 1;
		}
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
