// SPDX-License-Identifier: GPL-2.0-only
// Rules as the tests expect them: types, treatments, and how the records in memory are counted.
#pragma once

#include <cstdint>
#include <string>

namespace contract {

enum Type : uint32_t {
	kCode,
	kDstMac,
	kSrcMac,
	kEth,
	kSnap,
	kV4Proto,
	kV6Proto,
	kV4DstPort,
	kV4SrcPort,
	kV6DstPort,
	kIntf,
	kIcmp6,
	kV4Mcast,
	kV6Mcast,
	kEapol,
	kWps,
	kAll,
	kPid,
	kWlanMgnt,
	kArp,
	kTypes
};

/// What a value is, and so how a report prints it.
enum class Form {
	kNone,
	kCode, ///< two bytes: "code: %d, subcode: %d"
	kMac,
	kEther, ///< u16 in network order, as four hexadecimal digits
	kByte,
	kPort, ///< u16 in network order
	kU16,  ///< u16 as it lies in memory
	kU32,
	kS32,
};

struct RuleType {
	const char *name;
	unsigned width; ///< bytes of an element and of a value, all of them compared; 0: no value
	bool key;       ///< whether the fast filter looks rules up by it
	Form form;
	const char *label; ///< in the memory report
	unsigned line;     ///< place among the items of the memory report
};

inline constexpr RuleType kRuleTypes[kTypes] = {
	{ "PACKET_PACKET_CODE_EQUAL", 2, true, Form::kCode, "PACKET_CODE:  ", 0 },
	{ "PACKET_DEST_MAC_EQUAL", 6, true, Form::kMac, "DST MAC:      ", 1 },
	{ "PACKET_SRC_MAC_EQUAL", 6, true, Form::kMac, "SRC MAC:      ", 2 },
	{ "PACKET_ETH_PROT_EQUAL", 2, true, Form::kEther, "ETH PRO:      ", 3 },
	{ "PACKET_SNAP_ETH_TYPE_EQUAL", 2, true, Form::kEther, "SNAP PRO:     ", 4 },
	{ "PACKET_IPv4_PROT_EQUAL", 1, true, Form::kByte, "IPV4 PRO:     ", 5 },
	{ "PACKET_IPv6_PROT_EQUAL", 1, true, Form::kByte, "IPV6 PRO:     ", 6 },
	{ "PACKET_IPv4_DEST_PORT_EQUAL", 2, true, Form::kPort, "DST PORT NUM: ", 7 },
	{ "PACKET_IPv4_SRC_PORT_EQUAL", 2, true, Form::kPort, "SRC PORT NUM: ", 8 },
	{ "PACKET_IPv6_DEST_PORT_EQUAL", 2, true, Form::kPort, "IPV6 DST PORT:", 10 },
	{ "PACKET_SRC_INTF_EQUAL", 4, true, Form::kU32, "SRC INTF:     ", 9 },
	{ "PACKET_ICMPV6_TYPE_EQUAL", 1, true, Form::kByte, "ICMPV6 TYPE:  ", 12 },
	{ "PACKET_IPv4_MCAST_TRAFFIC", 0, true, Form::kNone, "IPv4 MCAST:   ", 14 },
	{ "PACKET_IPv6_MCAST_TRAFFIC", 0, true, Form::kNone, "IPv6 MCAST:   ", 15 },
	{ "PACKET_EAPOL_TYPE_EQUAL", 1, true, Form::kByte, "EAPOL TYPE:   ", 17 },
	{ "PACKET_EAPOL_TYPE_WPS", 1, true, Form::kByte, "EAPOL WPS TYPE:", 18 },
	{ "PACKET_ALL", 0, true, Form::kNone, "PACKET ALL:   ", 19 },
	{ "PACKET_PID_T", 4, false, Form::kS32, "PID TYPE:     ", 11 },
	{ "PACKET_WLAN_MGNT", 0, true, Form::kNone, "WLAN MGNT:    ", 16 },
	{ "PACKET_ARP_TYPE", 2, true, Form::kU16, "ARP TYPE:     ", 13 },
};

constexpr unsigned width(uint32_t type)
{
	return type < kTypes ? kRuleTypes[type].width : 0;
}
constexpr bool may_be_key(uint32_t type)
{
	return type >= kTypes || kRuleTypes[type].key;
}

/// The value of types 3 and 4 that stands for every EtherType, as it lies in memory.
inline constexpr uint16_t kAnyEth = 768;

/// What adding and deleting rule data of a type prints, without tag.
inline std::string edited_line(uint32_t type)
{
	// The MAC types lack the word "type".
	const char *word = type == kDstMac || type == kSrcMac ? "" : "type ";
	return std::string("ADD-REGUALR: ") + word + kRuleTypes[type].name + " success\n";
}

enum Treatment : uint32_t { kNone, kCopy, kFetch, kTrap, kCopyLocal, kFetchLocal, kTreatments };

constexpr const char *treatment_name(uint32_t treatment)
{
	constexpr const char *kNames[kTreatments] = {
		"PACKET_TREATMENT_NONE", "PACKET_COPY",       "PACKET_FETCH",
		"PACKET_TRAP",           "PACKET_COPY_LOCAL", "PACKET_FETCH_LOCAL",
	};
	return treatment < kTreatments ? kNames[treatment] : "Unknown";
}

/// The four object caches, in the order in which they are made and destroyed.
enum class Cache { kData, kItem, kEntry, kCopy };
struct CacheFacts {
	const char *name;
	const char *not_created; ///< the whole line
	const char *exhausted;   ///< the debug line of a failed allocation, without tag
};
inline constexpr CacheFacts kCaches[] = {
	{ "pkt_regular_data", "MOX-PACKET-REGULAR-INIT: failed to create pkt_regular_data_cache.\n",
	  "MOX-PACKET-ALLOC-INIT-DATA: alloc failed!\n" },
	{ "pkt_item_mem", "MOX-PACKET-REGULAR-INIT: failed to create pkt_regular_item_cache.\n",
	  "MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!\n" },
	{ "pkt_flt_mem", "MOX-PACKET-REGULAR-INIT: failed to create pkt_filter_list_cache.\n",
	  "PKT-ALLOC-FILTER-LIST-DATA: alloc failed!\n" },
	{ "pkt_match_mem", "MOX-PACKET-REGULAR-INIT: failed to create pkt_match_list_cache.\n",
	  "PKT-ALLOC-REGULAR-DATA: alloc failed!\n" },
};
constexpr const CacheFacts &facts(Cache cache)
{
	return kCaches[static_cast<int>(cache)];
}

/// Entries of the two arrays of record counters: types by number, then these.
enum RecordCounter { kLiveEntries = kTypes, kLiveCopies, kFailedAllocations, kRecordCounters };

} // namespace contract
