/* SPDX-License-Identifier: GPL-2.0-only WITH Linux-syscall-note */
/*
 * mox_packet_tables.h - the facts about rule types and counters that the module
 * and its tools share, one row each.
 *
 * A table is a macro that applies its argument to each row. Define a macro with
 * the columns that are needed, apply the table to it, undefine it:
 *
 *     #define FIELD(field, ...) uint32_t field;
 *     struct counters { MOX_PACKET_COUNTER_TABLE(FIELD) };
 *     #undef FIELD
 */
#ifndef MOX_PACKET_TABLES_H
#define MOX_PACKET_TABLES_H

#include "mox_packet.h"

/**
 * What a value of a rule type is, and so how reports print it.
 */
enum mox_packet_value_form {
	MOX_FORM_NONE,       /* no value */
	MOX_FORM_CODE,       /* code byte, sub-code byte: "code: %d, subcode: %d" */
	MOX_FORM_MAC,        /* MAC address: "%pM" */
	MOX_FORM_ETHER_TYPE, /* u16, network order: "%04x" of the host-order number */
	MOX_FORM_BYTE,       /* u8: "%d" */
	MOX_FORM_PORT,       /* u16, network order: "%d" of the host-order number */
	MOX_FORM_U16,        /* u16: "%d" of the number as it lies there */
	MOX_FORM_U32,        /* u32: "%u" */
	MOX_FORM_S32,        /* s32: "%d" */
};

/**
 * The rule types, by number.
 *
 *   type      enum mox_packet_rule_type; its identifier is its name in reports
 *   width     bytes that one element of a rule record takes and gives to its value
 *   compared  leading bytes of a value that decide whether two values are equal;
 *             0: the type has no value, and all of them are equal
 *   key       1: the fast filter may look a rule up by this type; 0: never
 *   form      enum mox_packet_value_form
 *   label     name in the memory report
 *   line      place in the memory report, from 0
 */
#define MOX_PACKET_RULE_TYPE_TABLE(X)                                                \
	/* type, width, compared, key, form, label, line */                          \
	X(PACKET_PACKET_CODE_EQUAL, 2, 2, 1, MOX_FORM_CODE, "PACKET_CODE:", 0)       \
	X(PACKET_DEST_MAC_EQUAL, 6, 6, 1, MOX_FORM_MAC, "DST MAC:", 1)               \
	X(PACKET_SRC_MAC_EQUAL, 6, 6, 1, MOX_FORM_MAC, "SRC MAC:", 2)                \
	X(PACKET_ETH_PROT_EQUAL, 2, 2, 1, MOX_FORM_ETHER_TYPE, "ETH PRO:", 3)        \
	X(PACKET_SNAP_ETH_TYPE_EQUAL, 2, 2, 1, MOX_FORM_ETHER_TYPE, "SNAP PRO:", 4)  \
	X(PACKET_IPv4_PROT_EQUAL, 1, 1, 1, MOX_FORM_BYTE, "IPV4 PRO:", 5)            \
	X(PACKET_IPv6_PROT_EQUAL, 1, 1, 1, MOX_FORM_BYTE, "IPV6 PRO:", 6)            \
	X(PACKET_IPv4_DEST_PORT_EQUAL, 2, 2, 1, MOX_FORM_PORT, "DST PORT NUM:", 7)   \
	X(PACKET_IPv4_SRC_PORT_EQUAL, 2, 2, 1, MOX_FORM_PORT, "SRC PORT NUM:", 8)    \
	X(PACKET_IPv6_DEST_PORT_EQUAL, 2, 2, 1, MOX_FORM_PORT, "IPV6 DST PORT:", 10) \
	X(PACKET_SRC_INTF_EQUAL, 4, 4, 1, MOX_FORM_U32, "SRC INTF:", 9)              \
	X(PACKET_ICMPV6_TYPE_EQUAL, 1, 1, 1, MOX_FORM_BYTE, "ICMPV6 TYPE:", 12)      \
	X(PACKET_IPv4_MCAST_TRAFFIC, 0, 0, 1, MOX_FORM_NONE, "IPv4 MCAST:", 14)      \
	X(PACKET_IPv6_MCAST_TRAFFIC, 0, 0, 1, MOX_FORM_NONE, "IPv6 MCAST:", 15)      \
	X(PACKET_EAPOL_TYPE_EQUAL, 1, 1, 1, MOX_FORM_BYTE, "EAPOL TYPE:", 17)        \
	X(PACKET_EAPOL_TYPE_WPS, 1, 1, 1, MOX_FORM_BYTE, "EAPOL WPS TYPE:", 18)      \
	X(PACKET_ALL, 0, 0, 1, MOX_FORM_NONE, "PACKET ALL:", 19)                     \
	X(PACKET_PID_T, 4, 4, 0, MOX_FORM_S32, "PID TYPE:", 11)                      \
	X(PACKET_WLAN_MGNT, 0, 0, 1, MOX_FORM_NONE, "WLAN MGNT:", 16)                \
	X(PACKET_ARP_TYPE, 2, 2, 1, MOX_FORM_U16, "ARP TYPE:", 13)

/*
 * Entries of the module's statistics arrays behind those of the rule types.
 * Readers of memory dumps rely on their numbers, which a new rule type moves.
 */
enum mox_packet_stat {
	MOX_STAT_ENTRIES = MOX_PACKET_RULE_TYPES, /* live entries of filter lists */
	MOX_STAT_COPIES,                          /* live match copies */
	MOX_STAT_FAILED,                          /* failed allocations */
	MOX_STAT_COUNT,
};
#ifdef __cplusplus
static_assert(MOX_STAT_ENTRIES == 20 && MOX_STAT_COUNT == 23, "today's numbers");
#endif

/** Column of the numbers in the memory report; a longer label pushes its number to the right. */
#define MOX_PACKET_MEMORY_COLUMN 14

/**
 * The counters of a socket, in the order of the record, which is fixed.
 *
 *   field    the counter's name in the record and in JSON
 *   label    its name in the socket report
 *   line     its place in the socket report, from 0
 *   meaning  one sentence for people
 */
#define MOX_PACKET_COUNTER_TABLE(X)                                                           \
	/* field, label, line, meaning */                                                     \
	X(filter_drops, "sk filter drops:", 1,                                                \
	  "frames dropped because the socket's filter accepted them")                         \
	X(rcvbuf_full_drops, "sk rcvbuff full drops:", 2,                                     \
	  "frames dropped because the receive buffer was full")                               \
	X(trim_fail_drops, "sk trim fail drops:", 3,                                          \
	  "frames dropped because they could not be cut to the filter's length")              \
	X(recv_packets, "sk recv packets:", 0, "frames put on the receive queue")             \
	X(sendmsg_ill_fails, "sk sendmsg ill fails:", 5,                                      \
	  "sends refused for a short control record or address, or for a caller in a vsd "    \
	  "other than 0 (EINVAL)")                                                            \
	X(macfunc_ill_fails, "sk macfunc ill fails:", 6,                                      \
	  "sends on a SOCK_DGRAM socket without a destination MAC address, or while the "     \
	  "device's own address was not available (EINVAL)")                                  \
	X(dstintf_ill_fails, "sk dstintf ill fails:", 7,                                      \
	  "sends to an interface that does not exist (ENXIO)")                                \
	X(srcintf_ill_fails, "sk srcintf ill fails:", 8,                                      \
	  "sends whose control record names a source interface that does not exist (ENXIO)")  \
	X(intf_linkdown_fails, "sk intf linkdown fails:", 9,                                  \
	  "sends to an interface whose link was down (ENETDOWN)")                             \
	X(alloc_efbuff_fails, "sk alloc efbuff fails:", 10,                                   \
	  "sends for which the platform had no efbuff (ENOMEM)")                              \
	X(pkt_copy_fails, "sk pkt copy fails:", 11,                                           \
	  "sends whose data could not be read from the program (EFAULT)")                     \
	X(ef_send_fails, "sk ef send fails:", 12,                                             \
	  "sends that the platform dropped, or answered with a number beyond the named ones " \
	  "(ENETUNREACH)")                                                                    \
	X(send_packets, "sk send packet:", 4, "frames that the platform accepted")

/** Column of the numbers in the socket report. */
#define MOX_PACKET_COUNTER_COLUMN 24

#endif
