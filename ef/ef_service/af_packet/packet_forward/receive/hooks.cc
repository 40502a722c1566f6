// SPDX-License-Identifier: GPL-2.0
/*
 * Each hook classifies the platform's current packet and puts it, or a clone, on
 * its own CPU's queue. The library lock, which it takes for reading if the packet
 * may match a rule, and the queue lock are never held together.
 */
#include "base/log.hpp"
#include "packet/filter.hpp"
#include "packet/trace.hpp"
#include "receive/queue.hpp"
#include "receive/thread.hpp"
#include "rules/search.hpp"
#include "services/services.hpp"

namespace mox {

namespace ef = platform::ef;

namespace {

/** A hook's own byte of the debug switches. */
constexpr u32 path_switch(u32 location)
{
	return MOX_DEBUG_RECEIVE_FIRST + (location - kFirstLocation);
}

void *current_efbuff()
{
	return reinterpret_cast<void *>(seam_current_efbuff() &
					~static_cast<unsigned long>(platform::kTag));
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

/* A service may be withdrawn between the test and the call: the pointer is read once. */
bool service_drops(const pkt_rnfp_func &service, void *efbuff)
{
	pkt_rnfp_func drops = load(service);
	return drops && drops(efbuff) != 0;
}

/** This CPU's queue of a location, and whether it takes one more efbuff. */
template <u32 location> struct Place {
	static constexpr u32 kNumber = location_row(location).queue;

	u32 cpu = static_cast<u32>(seam_cpu());

	bool admits(Held held) const { return queue_admit(cpu, kNumber, held); }
	/** Queue an admitted efbuff, which the queue then owns, for the copy thread. */
	void hand_over(void *efbuff, Held held) const
	{
		queue_append(&g_cpu_pkt_que[cpu][kNumber], efbuff, held);
		mox_packet_thread_active(location);
	}
};

/**
 * The answer for a packet that a rule takes and the queue does not: it is dropped,
 * as no one but the rule's socket may have it.
 */
template <u32 location> u32 drop_taken(void *efbuff)
{
	constexpr Answers kAnswers = location_row(location).answers;

	bump(g_queue_frames_dropped[location]);
	if constexpr (kAnswers.taken == platform::kTaken)
		return platform::kDrop;
	/* A receive function has no such answer: it takes the packet, and frees it. */
	free_efbuff(efbuff);
	return kAnswers.taken;
}

/** Queue a packet that a rule takes. The hook's answer. */
template <u32 location> u32 take(void *efbuff)
{
	const Place<location> place;

	if (!place.admits(Held::kTaken)) [[unlikely]]
		return drop_taken<location>(efbuff);
	place.hand_over(efbuff, Held::kTaken);
	return location_row(location).answers.taken;
}

/** Queue a clone; the packet stays with the platform. False without memory, or room for it. */
template <u32 location> bool hand_over_clone(void *efbuff)
{
	const Place<location> place;

	if (!place.admits(Held::kCopy)) [[unlikely]] {
		bump(g_queue_copies_refused[location]);
		return false;
	}
	void *clone = efmp_buff_clone_with_owner(efbuff, platform::kOwner);
	if (!clone) {
		queue_count_back(place.cpu, place.kNumber, Held::kCopy);
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
template <u32 location> u32 receive_full()
{
	constexpr const Location &kRow = location_row(location);
	void *efbuff = current_efbuff();
	SEAM_UNINITIALIZED pkt_info info;
	pkt_info_build(efbuff, &info);
	const bool trace = traced(efbuff);
	if (trace)
		trace_received(info, location);
	else if (pktd_filter_passes(info))
		(void)path_switch_on(path_switch(location));

	const u32 treatment = filter_frame(info, kRow.library);
	if (treatment == PACKET_TREATMENT_NONE) {
		if (trace)
			MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, fast filter\n", efbuff);
		return kRow.answers.go_on;
	}
	if (treatment == PACKET_FETCH || treatment == PACKET_TRAP) {
		if constexpr (kRow.services) {
			write_forward_reason(efbuff);
			if (service_drops(pkt_rnfp, efbuff)) {
				if (trace)
					MOX_TRACE("MOX-PACKET-RCV: drop pkt %p for rnfp\n", efbuff);
				return platform::kDrop;
			}
			if (service_drops(pkt_rnfp_wlan, efbuff)) {
				if (trace)
					MOX_TRACE("MOX-PACKET-RCV: drop pkt %p for wlan rnfp\n",
						  efbuff);
				return platform::kDrop;
			}
		}
		return take<location>(efbuff);
	}
	if (!hand_over_clone<location>(efbuff) && trace)
		MOX_TRACE("MOX-PACKET-RCV: alloc buff error!\n");
	return kRow.answers.go_on;
}

void trace_wlan_received(const void *efbuff, const pkt_wlan_info &info)
{
	MOX_TRACE("MOX-PACKET-RCV: rcv %s pkt %p, loc PACKET_WLAN_LOC, in vsd: %u\n",
		  (info.flags & pkt_flag::kWlanMgmt) ? "wlan mgnt" : "wlan data", efbuff, 0u);
	trace_wlan_packet(efbuff, TraceTag::kReceive);
}

u32 wlan_receive()
{
	void *efbuff = current_efbuff();
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
	/* Only fetch takes the packet here: a trap at the WLAN location copies. Intended. */
	if (treatment == PACKET_FETCH) {
		write_forward_reason(efbuff);
		if (service_drops(pkt_rnfp, efbuff) || service_drops(pkt_rnfp_wlan, efbuff))
			return platform::kDrop;
		return take<PACKET_WLAN_LOC>(efbuff);
	}
	if (!hand_over_clone<PACKET_WLAN_LOC>(efbuff) && trace)
		MOX_TRACE("MOX-PACKET-RCV: alloc buff error!\n");
	return location_row(PACKET_WLAN_LOC).answers.go_on;
}

template <u32 location> u32 receive()
{
	if constexpr (location_row(location).summary == Summary::kWlan)
		return wlan_receive();
	else
		return receive_full<location>();
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
