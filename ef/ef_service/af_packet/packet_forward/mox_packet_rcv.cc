// SPDX-License-Identifier: GPL-2.0
/*
 * The hooks. Each classifies the platform's current packet under its library's
 * read lock and hands it, or a clone, to its own CPU's queue. The library lock
 * and the queue lock are never held together.
 */
#include "log.hpp"
#include "names.hpp"
#include "pktd_filter.hpp"
#include "receive.hpp"
#include "serv.hpp"
#include "thread.hpp"

using namespace platform;

namespace {

/** What makes one per-location receiver differ from the others. */
struct Receiver {
	u32 location;
	packet_regular_lib *lib;
	CpuQueue queue;
	u32 taken;    /* answer when the module takes the packet */
	u32 go_on;    /* answer when it does not */
	bool services; /* drop services are asked and the forward reason is written */

	/** The receiver's own byte of the debug switches. */
	constexpr u32 path_switch() const { return location + kSwitchesBefore; }
	static constexpr u32 kSwitchesBefore = u32{ MOX_DEBUG_RECEIVE_FIRST } - PACKET_LOCAL_LOC;
};

constexpr Receiver kLocal{ PACKET_LOCAL_LOC, &g_local_packet_regular_lib, kQueueLocal,
			   kTaken, kGoOn, true };
constexpr Receiver kLev2{ PACKET_LEV2_LOC, &g_lev2_packet_regular_lib, kQueueLev2,
			  kTaken, kGoOn, true };
constexpr Receiver kIpv4{ PACKET_IPv4_LOC, &g_ipv4_packet_regular_lib, kQueueIpv4,
			  kTaken, kGoOn, true };
constexpr Receiver kIpv6{ PACKET_IPv6_LOC, &g_ipv6_packet_regular_lib, kQueueIpv6,
			  kTaken, kGoOn, true };
constexpr Receiver kMpls{ PACKET_MPLS_LOC, &g_mpls_packet_regular_lib, kQueueMpls,
			  kTaken, kGoOn, true };
constexpr Receiver kTrill{ PACKET_TRILL_LOC, &g_trill_packet_regular_lib, kQueueTrill,
			   kTaken, kGoOn, true };
/*
 * RESV is a receive function, not a module record, and those answer the other
 * way round: taking is 0 and going on is all ones.
 */
constexpr Receiver kResv{ PACKET_RESV_LOC, &g_resv_packet_regular_lib, kQueueResv,
			  kRecvTaken, kRecvGoOn, false };

void *current_efbuff()
{
	return reinterpret_cast<void *>(seam_current_efbuff() &
					~static_cast<unsigned long>(kTag));
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

/** Queue an efbuff, which is the module's from here on, for the copy thread. */
void hand_over(CpuQueue queue, u32 location, void *efbuff)
{
	queue_append(&g_cpu_pkt_que[seam_cpu()][queue], efbuff);
	mox_packet_thread_active(location);
}

/** Queue a clone; the packet stays with the platform. False without memory. */
bool hand_over_clone(CpuQueue queue, u32 location, void *efbuff)
{
	void *clone = efmp_buff_clone_with_owner(efbuff, kOwner);
	if (!clone)
		return false;
	hand_over(queue, location, clone);
	return true;
}

void trace_received(const pkt_info &info, u32 location)
{
	MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, loc %s, src_intf: %s, src_ifx: %u, in vsd: %u\n",
		  info.efbuff, location_name(location), source_name(info.efbuff), info.ifindex,
		  0u);
	trace_packet(info, TraceTag::kReceive);
}

template <const Receiver &R> u32 receive()
{
	void *efbuff = current_efbuff();
	pkt_info info;
	pkt_info_build(efbuff, &info);
	const bool trace = traced(efbuff);
	if (trace)
		trace_received(info, R.location);
	else if (pktd_filter_passes(info))
		(void)path_switch_on(R.path_switch());

	u32 treatment;
	{
		ReadGuard guard(&R.lib->lock);
		treatment = pkt_fast_filter(&info, R.lib);
	}
	if (treatment == PACKET_TREATMENT_NONE) {
		if (trace)
			MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, fast filter\n", efbuff);
		return R.go_on;
	}
	if (treatment == PACKET_FETCH || treatment == PACKET_TRAP) {
		if constexpr (R.services) {
			write_forward_reason(efbuff);
			if (service_drops(pkt_rnfp, efbuff)) {
				if (trace)
					MOX_TRACE("MOX-PACKET-RCV: drop pkt %p for rnfp\n", efbuff);
				return kDrop;
			}
			if (service_drops(pkt_rnfp_wlan, efbuff)) {
				if (trace)
					MOX_TRACE("MOX-PACKET-RCV: drop pkt %p for wlan rnfp\n",
						  efbuff);
				return kDrop;
			}
		}
		hand_over(R.queue, R.location, efbuff);
		return R.taken;
	}
	if (!hand_over_clone(R.queue, R.location, efbuff) && trace)
		MOX_TRACE("MOX-PACKET-RCV: alloc buff error!\n");
	return R.go_on;
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
	pkt_wlan_info info;
	pkt_wlan_info_build(efbuff, &info);
	const bool trace = traced(efbuff);
	if (trace)
		trace_wlan_received(efbuff, info);

	u32 treatment;
	{
		ReadGuard guard(&g_wlan_packet_regular_lib.lock);
		treatment = pkt_wlan_fast_filter(&info);
	}
	if (treatment == PACKET_TREATMENT_NONE) {
		if (trace)
			MOX_TRACE("MOX-PACKET-RCV: rcv pkt %p, fast filter\n", efbuff);
		return kGoOn;
	}
	/* Only fetch takes the packet here: a trap at the WLAN location copies. Intended. */
	if (treatment == PACKET_FETCH) {
		write_forward_reason(efbuff);
		if (service_drops(pkt_rnfp, efbuff) || service_drops(pkt_rnfp_wlan, efbuff))
			return kDrop;
		hand_over(kQueueWlan, PACKET_WLAN_LOC, efbuff);
		return kTaken;
	}
	if (!hand_over_clone(kQueueWlan, PACKET_WLAN_LOC, efbuff) && trace)
		MOX_TRACE("MOX-PACKET-RCV: alloc buff error!\n");
	return kGoOn;
}

} // namespace

extern "C" {

u32 mox_packet_local_rcv(void)
{
	return receive<kLocal>();
}

u32 mox_packet_lev2_rcv(void)
{
	return receive<kLev2>();
}

u32 mox_packet_ipv4_rcv(void)
{
	return receive<kIpv4>();
}

u32 mox_packet_ipv6_rcv(void)
{
	return receive<kIpv6>();
}

u32 mox_packet_mpls_rcv(void)
{
	return receive<kMpls>();
}

u32 mox_packet_trill_rcv(void)
{
	return receive<kTrill>();
}

u32 mox_packet_resv_rcv(void)
{
	return receive<kResv>();
}

u32 mox_packet_wlan_in_rcv(void)
{
	return wlan_receive();
}

u32 mox_packet_wlan_out_rcv(void)
{
	return wlan_receive();
}
} // extern "C"
