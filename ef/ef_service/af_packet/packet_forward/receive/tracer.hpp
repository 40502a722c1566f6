// SPDX-License-Identifier: GPL-2.0-only
/*
 * Traces of single frames, over mox_capture. Each trace belongs to a netlink socket, to
 * which its records go without waiting, and ends with it. What cannot be sent is counted,
 * and the next record says so.
 *
 * Limits: MOX_CAPTURE_TRACES traces; kRecordsOfTick records a CPU and clock tick, and the
 * reader's receive buffer.
 */
#pragma once

#include "base/sync.hpp"
#include "packet/headers.hpp"
#include "receive/queue.hpp"

namespace mox {

/** Records that a CPU makes in a tick of the kernel's clock: 1 to 10 ms. */
inline constexpr u32 kRecordsOfTick = 32;

/** Which frames a trace follows. A bit of `criteria` for each that is given. */
struct TraceFilter {
	u32 criteria; /* bits by number of mox_capture_request_attr */
	u32 location;
	u32 ifindex;
	u16 vlan;
	u16 ether_type;
	u8 mac[6];
	u8 address_size;
	u8 prefix;
	u8 address[16];
	u8 ip_protocol;
	u16 port;

	bool has(mox_capture_request_attr which) const { return criteria & 1u << which; }
};

/** Whether a filter follows a frame; location 0: a send. Any. */
bool trace_matches(const TraceFilter &filter, const FrameHeaders &headers, u32 location);

/** What is recorded of a hop besides the frame's headers. */
struct TraceHop {
	mox_capture_hop hop;
	mox_capture_verdict verdict;
	u32 cpu;
	u32 location; /* 0: a send */
	bool queued;  /* frame is valid */
	u32 frame;    /* its number on the queue */
	u64 since;    /* nanoseconds since the hook; 0: not known */
	bool has_key;
	u32 key_type;
	u8 key[REGULAR_VALUE_SIZE];
	bool has_socket;
	u64 cookie;
	s32 pid;
	char process[MOX_PACKET_NAME_SIZE];
	u32 treatment; /* of the socket's rule */
	s32 error;
};

/** Say which socket a hop is about. The socket stays meanwhile. Any. */
void trace_socket(TraceHop *hop, mox_packet_sock *po);

/** Prepare, once. Process. */
void tracer_init();
/** End all traces; no more begin. Process. */
void tracer_deinit();
/**
 * Begin the trace of a netlink socket, or replace its filter: 0, -EBUSY when there are too
 * many, or -ENOMEM. Process.
 */
int tracer_start(u32 client, const TraceFilter &filter);
/** End it: 0, or -ENOENT without one. Process. */
int tracer_stop(u32 client);

/* 1 while there is a trace. */
extern u32 g_tracing;

/** Whether there is a trace. Any. */
inline bool tracer_on()
{
	return load(g_tracing) != 0;
}
/** Whether a trace follows a frame. Any. */
bool tracer_follows(const FrameHeaders &headers, u32 location);
/** Send a record of a hop to all that follow the frame. Any. */
void tracer_record(const FrameHeaders &headers, const TraceHop &hop);

} // namespace mox
