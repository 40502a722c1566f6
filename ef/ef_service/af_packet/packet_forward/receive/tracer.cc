// SPDX-License-Identifier: GPL-2.0-only
#include "receive/tracer.hpp"

#include "base/errors.hpp"
#include "base/message.hpp"
#include "base/owned.hpp"
#include "base/socket_record.hpp"
#include "receive/arrivals.hpp"
#include "rules/types.hpp"

namespace mox {

constinit u32 g_tracing = 0;

namespace {

/* Bytes behind the headers of a record: 20 attributes, a key, a name. */
constexpr size_t kRecordSize = 384;

/** A trace. client is 0 in a row that is free. */
struct Trace {
	u32 client;
	u32 lost; /* records that were not sent */
	TraceFilter filter;
};

constinit seam_rwlock g_tracer_lock{};
/* Changes of the table, and of what depends on whether there is one. */
constinit seam_mutex g_tracer_mutex{};
constinit Trace g_traces[MOX_CAPTURE_TRACES] SEAM_GUARDED_BY(g_tracer_lock){};
constinit u32 g_count SEAM_GUARDED_BY(g_tracer_mutex) = 0;

/* What the CPUs may still record in this tick. */
struct Allowance {
	u32 tick;
	u32 used;
};
constinit Allowance g_allowances[CPU_QUEUE_SLOTS]{};

void watch(bool on)
{
	store(g_tracing, static_cast<u32>(on));
	for (int cpu = seam_next_possible_cpu(-1); cpu < seam_nr_cpu_ids();
	     cpu = seam_next_possible_cpu(cpu)) {
		hook_cpu *record = seam_hook_cpu(cpu);
		store(record->tracing, static_cast<u32>(on));
	}
}

bool same_prefix(const u8 *one, const u8 *other, u32 bits)
{
	const u32 bytes = bits / 8;

	if (__builtin_memcmp(one, other, bytes) != 0)
		return false;
	const u32 rest = bits % 8;
	return rest == 0 || (one[bytes] ^ other[bytes]) >> (8 - rest) == 0;
}

bool address_matches(const TraceFilter &filter, const FrameHeaders &headers)
{
	const u32 bits = filter.has(MOX_CAPTURE_REQUEST_PREFIX) ? filter.prefix
								: filter.address_size * 8u;

	return headers.address_size == filter.address_size &&
	       (same_prefix(filter.address, headers.src_address, bits) ||
		same_prefix(filter.address, headers.dst_address, bits));
}

bool mac_matches(const TraceFilter &filter, const FrameHeaders &headers)
{
	return headers.has_macs && (__builtin_memcmp(filter.mac, headers.src_mac, 6) == 0 ||
				    __builtin_memcmp(filter.mac, headers.dst_mac, 6) == 0);
}

/** Whether this CPU may make one more record now. */
bool allowed()
{
	/* A record that is interrupted by another one may be counted once: it bounds all the same. */
	Allowance &mine = g_allowances[seam_cpu()];
	const u32 tick = seam_clock_ticks();

	if (load(mine.tick) != tick) {
		store(mine.tick, tick);
		store(mine.used, 0u);
	}
	const u32 used = load(mine.used);
	store(mine.used, used + 1);
	return used < kRecordsOfTick;
}

void put_key(Message &message, const TraceHop &hop)
{
	message.nest(MOX_CAPTURE_TRACE_KEY, [&] {
		message.number(MOX_CAPTURE_VALUE_TYPE, hop.key_type);
		const RuleType *row = rule_type(hop.key_type);
		if (row && row->width != 0)
			message.put(MOX_CAPTURE_VALUE_DATA, hop.key, row->width);
	});
}

void put_record(Message &message, const FrameHeaders &headers, const TraceHop &hop, u32 lost)
{
	message.number(MOX_CAPTURE_TRACE_HOP, u32{ hop.hop });
	message.number(MOX_CAPTURE_TRACE_VERDICT, u32{ hop.verdict });
	message.number(MOX_CAPTURE_TRACE_TIME, seam_real_ns());
	if (hop.since != 0)
		message.number(MOX_CAPTURE_TRACE_SINCE, hop.since);
	message.number(MOX_CAPTURE_TRACE_CPU, hop.cpu);
	if (hop.location != 0)
		message.number(MOX_CAPTURE_TRACE_LOCATION, hop.location);
	if (hop.queued)
		message.number(MOX_CAPTURE_TRACE_FRAME, hop.frame);
	message.number(MOX_CAPTURE_TRACE_LENGTH, headers.length);
	message.number(MOX_CAPTURE_TRACE_IFINDEX, headers.ifindex);
	message.number(MOX_CAPTURE_TRACE_VLAN, headers.vlan);
	if (headers.has_macs) {
		message.put(MOX_CAPTURE_TRACE_SRC_MAC, headers.src_mac, 6);
		message.put(MOX_CAPTURE_TRACE_DST_MAC, headers.dst_mac, 6);
		message.number(MOX_CAPTURE_TRACE_ETHER_TYPE, headers.ether_type);
	}
	if (hop.has_key)
		put_key(message, hop);
	if (hop.has_socket) {
		message.number(MOX_CAPTURE_TRACE_COOKIE, hop.cookie);
		message.number(MOX_CAPTURE_TRACE_PID, hop.pid);
		message.text(MOX_CAPTURE_TRACE_PROCESS, hop.process, sizeof(hop.process));
		message.number(MOX_CAPTURE_TRACE_TREATMENT, hop.treatment);
	}
	if (hop.hop == MOX_CAPTURE_HOP_SEND)
		message.number(MOX_CAPTURE_TRACE_ERROR, hop.error);
	message.number(MOX_CAPTURE_TRACE_LOST, u64{ lost });
}

bool send(u32 client, u32 lost, const FrameHeaders &headers, const TraceHop &hop)
{
	const seam_request request = { seam_init_net(), client, 0, 0, nullptr };
	Owned<sk_buff, seam_capture_free> skb(seam_capture_alloc_atomic(kRecordSize));

	if (!skb)
		return false;
	{
		Message message(skb.get(), &request, MOX_CAPTURE_CMD_TRACE);
		put_record(message, headers, hop, lost);
		if (!message.end())
			return false;
	}
	return seam_capture_reply(&request, skb.release()) == 0;
}

Trace *find(u32 client) SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	for (Trace &trace : g_traces)
		if (trace.client == client)
			return &trace;
	return nullptr;
}

} // namespace

void trace_socket(TraceHop *hop, mox_packet_sock *po)
{
	hop->has_socket = true;
	hop->cookie = seam_sk_cookie(sk_of(po));
	hop->pid = po->pid;
	__builtin_memcpy(hop->process, po->process, sizeof(hop->process));
	hop->treatment = load(po->regular.treatment);
}

bool trace_matches(const TraceFilter &filter, const FrameHeaders &headers, u32 location)
{
	const auto asks = [&](mox_capture_request_attr which) { return filter.has(which); };

	if (asks(MOX_CAPTURE_REQUEST_LOCATION) && filter.location != location)
		return false;
	if (asks(MOX_CAPTURE_REQUEST_IFINDEX) && filter.ifindex != headers.ifindex)
		return false;
	if (asks(MOX_CAPTURE_REQUEST_VLAN) && filter.vlan != headers.vlan)
		return false;
	if (asks(MOX_CAPTURE_REQUEST_MAC) && !mac_matches(filter, headers))
		return false;
	if (asks(MOX_CAPTURE_REQUEST_ETHER_TYPE) && filter.ether_type != headers.ether_type)
		return false;
	if (asks(MOX_CAPTURE_REQUEST_ADDRESS) && !address_matches(filter, headers))
		return false;
	if (asks(MOX_CAPTURE_REQUEST_IP_PROTOCOL) &&
	    (headers.address_size == 0 || filter.ip_protocol != headers.ip_protocol))
		return false;
	return !asks(MOX_CAPTURE_REQUEST_PORT) ||
	       (headers.has_ports &&
		(filter.port == headers.src_port || filter.port == headers.dst_port));
}

void tracer_init() SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	seam_tracer_locks_init(&g_tracer_lock, &g_tracer_mutex);
	for (Trace &trace : g_traces)
		trace = {};
	g_count = 0;
}

void tracer_deinit() SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	for (const Trace &trace : g_traces)
		if (trace.client != 0)
			(void)tracer_stop(trace.client);
}

int tracer_start(u32 client, const TraceFilter &filter)
{
	MutexGuard guard(&g_tracer_mutex);
	Trace *mine = find(client);
	Trace *row = mine ? mine : find(0);

	if (!row)
		return err::kBusy;
	/* Deliveries say how long ago the hook was. */
	if (!mine && !arrivals_need())
		return err::kNoMem;
	{
		WriteGuard table(&g_tracer_lock);
		*row = { client, 0, filter };
	}
	if (!mine && g_count++ == 0)
		watch(true);
	return 0;
}

int tracer_stop(u32 client)
{
	MutexGuard guard(&g_tracer_mutex);
	Trace *mine = find(client);

	if (!mine)
		return err::kNoEnt;
	if (--g_count == 0)
		watch(false);
	{
		WriteGuard table(&g_tracer_lock);
		*mine = {};
	}
	arrivals_release();
	return 0;
}

bool tracer_follows(const FrameHeaders &headers, u32 location)
{
	BottomHalfReadGuard table(&g_tracer_lock);

	for (const Trace &trace : g_traces)
		if (trace.client != 0 && trace_matches(trace.filter, headers, location))
			return true;
	return false;
}

void tracer_record(const FrameHeaders &headers, const TraceHop &hop)
{
	BottomHalfReadGuard table(&g_tracer_lock);
	/* The allowance is taken once, and only for a frame that some trace follows. */
	bool asked = false;
	bool may = false;

	for (Trace &trace : g_traces) {
		if (trace.client == 0 || !trace_matches(trace.filter, headers, hop.location))
			continue;
		may = asked ? may : allowed();
		asked = true;
		if (!may || !send(trace.client, load(trace.lost), headers, hop))
			__atomic_fetch_add(&trace.lost, 1u, __ATOMIC_RELAXED);
	}
}

} // namespace mox
