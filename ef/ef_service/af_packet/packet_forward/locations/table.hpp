// SPDX-License-Identifier: GPL-2.0-only
/*
 * The locations: one row each, found by index. Everything that makes one
 * location differ from another is read from its row.
 */
#pragma once

#include "packet/efbuff.hpp"
#include "seam/seam.h"

/*
 * The receive functions that the platform calls, with bottom halves disabled,
 * and the location that each serves. receive/hooks.cc defines them from this
 * list; MPLS's and TRILL's are never registered.
 */
#define MOX_RECEIVER_TABLE(X)                      \
	X(PACKET_LOCAL_LOC, mox_packet_local_rcv)  \
	X(PACKET_LEV2_LOC, mox_packet_lev2_rcv)    \
	X(PACKET_IPv4_LOC, mox_packet_ipv4_rcv)    \
	X(PACKET_IPv6_LOC, mox_packet_ipv6_rcv)    \
	X(PACKET_MPLS_LOC, mox_packet_mpls_rcv)    \
	X(PACKET_TRILL_LOC, mox_packet_trill_rcv)  \
	X(PACKET_RESV_LOC, mox_packet_resv_rcv)    \
	X(PACKET_WLAN_LOC, mox_packet_wlan_in_rcv) \
	X(PACKET_WLAN_LOC, mox_packet_wlan_out_rcv)

/*
 * OWN: a location with a library and queues of its own.
 *
 *   location   enum mox_packet_location; its identifier is its name in reports
 *   prefix     the library is g_<prefix>_packet_regular_lib
 *   queue      number of its queue in a CPU's slot: the order of a drain
 *   module     module record that is registered, or null
 *   output     output function that is registered, or null
 *   recv       receive function that is registered, or null
 *   answers    kHookAnswers, or kRecvAnswers for a receive function
 *   services   drop services are called, and the forward reason is written, for a taken packet
 *   summary    the summary of a packet that its rules are matched against
 *
 * SHARED: a location whose rules are in the library of another one, and see only
 * the packets that are addressed to one reserved interface.
 */
#define MOX_LOCATION_TABLE(OWN, SHARED)                                                            \
	OWN(PACKET_LOCAL_LOC, local, 1, nullptr, mox_packet_local_rcv, nullptr, kHookAnswers,      \
	    true, Summary::kFull)                                                                  \
	OWN(PACKET_LEV2_LOC, lev2, 0, &g_lev2_packet_module, nullptr, nullptr, kHookAnswers, true, \
	    Summary::kFull)                                                                        \
	OWN(PACKET_IPv4_LOC, ipv4, 2, &g_ipv4_packet_module, nullptr, nullptr, kHookAnswers, true, \
	    Summary::kFull)                                                                        \
	OWN(PACKET_IPv6_LOC, ipv6, 3, &g_ipv6_packet_module, nullptr, nullptr, kHookAnswers, true, \
	    Summary::kFull)                                                                        \
	OWN(PACKET_MPLS_LOC, mpls, 4, nullptr, nullptr, nullptr, kHookAnswers, true,               \
	    Summary::kFull)                                                                        \
	OWN(PACKET_TRILL_LOC, trill, 5, nullptr, nullptr, nullptr, kHookAnswers, true,             \
	    Summary::kFull)                                                                        \
	OWN(PACKET_RESV_LOC, resv, 6, nullptr, nullptr, mox_packet_resv_rcv, kRecvAnswers, false,  \
	    Summary::kFull)                                                                        \
	OWN(PACKET_WLAN_LOC, wlan, 7, &g_wlan_packet_module, mox_packet_wlan_out_rcv, nullptr,     \
	    kHookAnswers, true, Summary::kWlan)                                                    \
	SHARED(PACKET_LEV2_RESV_LOC, PACKET_RESV_LOC, platform::kLev2ResvIntf)                     \
	SHARED(PACKET_LEV3_RESV_LOC, PACKET_RESV_LOC, platform::kLev3ResvIntf)

/** A receive function that the platform calls through a module record. */
struct packet_module {
	u8 registered; /* under the hook lock */
	const char *name;
	platform::descriptor descriptor;
};

extern "C" {
#define MOX_ROW(location, function) u32 function(void);
MOX_RECEIVER_TABLE(MOX_ROW)
#undef MOX_ROW

#define MOX_OWN(location, prefix, ...) extern packet_regular_lib g_##prefix##_packet_regular_lib;
#define MOX_SHARED(...)
MOX_LOCATION_TABLE(MOX_OWN, MOX_SHARED)
#undef MOX_OWN
#undef MOX_SHARED

extern packet_module g_lev2_packet_module;
extern packet_module g_ipv4_packet_module;
extern packet_module g_ipv6_packet_module;
extern packet_module g_wlan_packet_module;
}

namespace mox {

/** Locations, PACKET_NONE_LOC included. */
inline constexpr u32 kLocationCount = PACKET_LEV3_RESV_LOC + 1;
/** The locations that have a library of their own, which reports and the hook switch number. */
inline constexpr u32 kFirstLocation = PACKET_LOCAL_LOC;
inline constexpr u32 kLastLocation = PACKET_WLAN_LOC;

/** What a hook answers for a packet that it takes, and for one that it does not. */
struct Answers {
	u32 taken;
	u32 go_on;
};
inline constexpr Answers kHookAnswers{ platform::kTaken, platform::kGoOn };
/* A receive function answers the other way round: 0 for taken, all ones for going on. */
inline constexpr Answers kRecvAnswers{ platform::kRecvTaken, platform::kRecvGoOn };

/** pkt_info or pkt_wlan_info. */
enum class Summary : u8 { kFull, kWlan };

struct Location {
	packet_regular_lib *library; /* null: no rule is filed and no packet passes */
	u32 queue;                   /* CPU_QUEUES without a library */
	packet_module *module;
	efmp_pkt_func output;
	efmp_pkt_func recv;
	Answers answers;
	bool services;
	Summary summary;
	u32 reserved_intf; /* interface that a packet must be addressed to; 0: any */
};

struct LocationTable {
	Location rows[kLocationCount];
	u8 of_queue[CPU_QUEUES]; /* the location with its own library behind each queue */
};

constexpr LocationTable make_location_table()
{
	LocationTable table{};
	table.rows[PACKET_NONE_LOC].queue = CPU_QUEUES;
#define MOX_OWN(location, prefix, queue, ...)                                               \
	table.rows[location] = { &g_##prefix##_packet_regular_lib, queue, __VA_ARGS__, 0 }; \
	table.of_queue[queue] = location;
#define MOX_SHARED(location, owner, intf)         \
	table.rows[location] = table.rows[owner]; \
	table.rows[location].reserved_intf = intf;
	MOX_LOCATION_TABLE(MOX_OWN, MOX_SHARED)
#undef MOX_OWN
#undef MOX_SHARED
	return table;
}

inline constexpr LocationTable kLocationTable = make_location_table();

/** A location that has a row: 0 to 10. */
inline bool location_valid(u32 location)
{
	return location < kLocationCount;
}

/** A location with a library of its own: 1 to 8. */
inline bool location_has_report(u32 location)
{
	return location >= kFirstLocation && location <= kLastLocation;
}

/** The row of a valid location. */
constexpr const Location &location_row(u32 location)
{
	return kLocationTable.rows[location];
}

/** The location with its own library behind a queue, 0 to CPU_QUEUES - 1. */
constexpr u32 queue_location(u32 queue)
{
	return kLocationTable.of_queue[queue];
}

/** "PACKET_LEV2_LOC" and its like; "Unknown" for a number that has no row. Any context. */
const char *location_name(u32 location);

/** The library that serves a location, or null for a number that has none. */
inline packet_regular_lib *location_library(u32 location)
{
	return location_valid(location) ? location_row(location).library : nullptr;
}

/**
 * Whether a packet's destination is the reserved interface of its location, or
 * the location has none. Any context. Not inline: few rules are at such a
 * location, and every hook pays for the registers of its filter.
 */
bool addressed_to_reserved(u32 location, const void *efbuff);

/**
 * Whether a rule at a location may see a packet. At a location with a reserved
 * interface, which shares a library, the packet's destination must be that
 * interface. Any context.
 */
inline bool location_sees(u32 location, const void *efbuff)
{
	return location <= kLastLocation || addressed_to_reserved(location, efbuff);
}

} // namespace mox
