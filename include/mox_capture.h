/* SPDX-License-Identifier: GPL-2.0-only WITH Linux-syscall-note */
/*
 * mox_capture.h - the generic netlink family "mox_capture", for reading what
 * mox_ef_socket does with frames: ledgers, sockets, rules, queues, memory, the copy
 * thread, and traces of single frames.
 *
 * Plain C99 and C++. docs/netlink/mox_capture.yaml describes the same for programs
 * that read the kernel's netlink specifications.
 *
 * Messages are extensible: readers pass over attributes that they do not know, and
 * take an absent one for a module that does not have it. Numbers never change and
 * are never used again. All numbers are in host byte order unless their row says so;
 * 64-bit ones are aligned to 4 bytes, as attributes are. Counters are totals since the
 * module was loaded, or the socket opened. Nothing clears them.
 *
 * A table is a macro that applies its argument to each row: see mox_packet_tables.h.
 */
#ifndef MOX_CAPTURE_H
#define MOX_CAPTURE_H

#include "mox_packet_tables.h"

#define MOX_CAPTURE_NAME "mox_capture"
#define MOX_CAPTURE_VERSION 1

/*
 * Commands. All of them need CAP_NET_ADMIN in the user namespace of the caller's network
 * namespace, and RESTRICT, TRACE_START in the initial one; INFO is open to everyone.
 * The family is there in the initial network namespace only.
 *
 *   name       MOX_CAPTURE_CMD_<name>
 *   number
 *   how        DO: one request, one answer; DUMP: many answers; EVENT: sent without a request
 *   reply      the attributes of the answer
 *   meaning    one sentence
 */
#define MOX_CAPTURE_CMD_TABLE(X)                                                             \
	X(INFO, 1, DO, INFO, "Version and features of the module.")                          \
	X(LOCATIONS, 2, DUMP, LOCATION,                                                      \
	  "What became of the frames at each location, in all and on each CPU.")             \
	X(SOCKETS, 3, DUMP, SOCKET, "All capture sockets, of all network namespaces.")       \
	X(RULES, 4, DUMP, RULE, "The rules of all sockets, with the values and their hits.") \
	X(QUEUES, 5, DUMP, QUEUE, "How full the queues between hooks and copy thread are.")  \
	X(MEMORY, 6, DUMP, MEMORY, "Objects in use, and how much of each budget is used.")   \
	X(THREAD, 7, DO, THREAD, "State and counters of the copy thread.")                   \
	X(RESTRICT, 8, DO, NONE,                                                             \
	  "From now on, opening a capture socket needs CAP_NET_RAW, and PACKET_GENL needs "  \
	  "CAP_NET_ADMIN, both in the initial user namespace.")                              \
	X(TRACE_START, 9, DO, NONE,                                                          \
	  "Trace the frames that satisfy the request. Records come as TRACE events to the "  \
	  "requesting socket, until it sends TRACE_STOP or is closed.")                      \
	X(TRACE_STOP, 10, DO, NONE, "End the trace of the requesting socket.")               \
	X(TRACE, 11, EVENT, TRACE, "One hop of a traced frame.")

#define MOX_CAPTURE_CMD_NUMBER(name, number, ...) MOX_CAPTURE_CMD_##name = number,
enum mox_capture_cmd { MOX_CAPTURE_CMD_TABLE(MOX_CAPTURE_CMD_NUMBER) };

/*
 * Attributes.
 *
 *   name      MOX_CAPTURE_<set>_<name>
 *   number
 *   kind      U8, U16, U32, S32, U64: a number of so many bits; STRING: text that ends with
 *             a NUL; BINARY: bytes; FLAG: no payload, said by being there; NEST_<set>: attributes
 *             of that set; each, like a STRING of INFO, may come several times in one message
 *   meaning   one sentence
 */

/* What a request may carry. A dump has the entries that satisfy everything that is given. */
#define MOX_CAPTURE_REQUEST_TABLE(X)                                                     \
	X(LOCATION, 1, U32, "Sockets, rules, queues, frames of this location only.")     \
	X(PID, 2, S32, "Sockets of this process only.")                                  \
	X(COOKIE, 3, U64, "The socket with this cookie only: SO_COOKIE, and ss -e.")     \
	X(RESTRICT, 4, U8, "1: restrict; 0: lift the restriction.")                      \
	X(IFINDEX, 5, U32, "Trace frames that came in on this interface.")               \
	X(VLAN, 6, U16, "Trace frames of this VLAN id.")                                 \
	X(MAC, 7, BINARY, "Trace frames from or to this MAC address: 6 bytes.")          \
	X(ETHER_TYPE, 8, U16, "Trace frames of this EtherType, host byte order.")        \
	X(ADDRESS, 9, BINARY, "Trace frames from or to this IP address: 4 or 16 bytes.") \
	X(PREFIX, 10, U8, "So many leading bits of ADDRESS count; all without it.")      \
	X(IP_PROTOCOL, 11, U8, "Trace frames of this IP protocol, or IPv6 next header.") \
	X(PORT, 12, U16, "Trace frames from or to this TCP or UDP port, host byte order.")

#define MOX_CAPTURE_INFO_TABLE(X)                                                          \
	X(MODULE, 1, STRING, "Name of the module.")                                        \
	X(MODULE_VERSION, 2, STRING, "Version of the module.")                             \
	X(INTERFACE, 3, U32, "Version of this interface: MOX_CAPTURE_VERSION.")            \
	X(FEATURE, 4, STRING, "A feature that the module has: MOX_CAPTURE_FEATURE_TABLE.") \
	X(RESTRICTED, 5, U8, "1 while RESTRICT is in force.")

/*
 * A location has one message without CPU, which has the sums, and one for each CPU. At rest:
 *
 *   seen = unwanted + wanted
 *   wanted = cloned + taken + clone_failed + copies_refused + takes_refused + rnfp_drops +
 *            rnfp_wlan_drops
 *   cloned + taken = kept + unkept + unmatched + freed + queued
 *
 * The frames of locations 9 and 10 are those of location 7.
 */
#define MOX_CAPTURE_LOCATION_TABLE(X)                                                            \
	X(LOCATION, 1, U32, "enum mox_packet_location.")                                         \
	X(NAME, 2, STRING, "Its name.")                                                          \
	X(CPU, 3, U32, "The CPU; absent in the message with the sums.")                          \
	X(RULES, 4, U32, "Rules that are in force here; with the sums.")                         \
	X(SEEN, 5, U64, "Frames that the hook saw.")                                             \
	X(UNWANTED, 6, U64, "Of these: no rule matched.")                                        \
	X(WANTED, 7, U64, "Of these: a rule matched.")                                           \
	X(CLONED, 8, U64, "Wanted, and a clone was queued: the platform kept the frame.")        \
	X(TAKEN, 9, U64, "Wanted, taken from the platform, and queued.")                         \
	X(CLONE_FAILED, 10, U64, "Wanted, but the platform had no buffer for a clone.")          \
	X(COPIES_REFUSED, 11, U64,                                                               \
	  "Wanted, but no clone was made: half of the queue, or of the CPU's share, was in "     \
	  "use by clones.")                                                                      \
	X(TAKES_REFUSED, 12, U64, "Taken and dropped: the queue, or the CPU's share, was full.") \
	X(RNFP_DROPS, 13, U64, "Dropped by the drop service of instance 0.")                     \
	X(RNFP_WLAN_DROPS, 14, U64, "Dropped by the drop service of the WLAN.")                  \
	X(KEPT, 15, U64, "Delivered: at least one socket got it.")                               \
	X(UNKEPT, 16, U64, "Matched at delivery, but every matching socket dropped it.")         \
	X(UNMATCHED, 17, U64, "No rule matched any more at delivery.")                           \
	X(FREED, 18, U64, "Freed with its queue.")                                               \
	X(QUEUED, 19, U64, "On the queue, or being delivered, now.")                             \
	X(OFFERS, 20, U64,                                                                       \
	  "Times that a frame was offered to a matching socket: what the sockets' counters "     \
	  "matched add up to.")                                                                  \
	X(CLOSED, 21, NEST_COUNTERS,                                                             \
	  "Sums of the counters of sockets that were closed while their rule was of this "       \
	  "location; with the sums.")                                                            \
	X(CLOSED_SOCKETS, 22, U64, "Their number.")

/*
 * The ledger of a socket. The first rows are those of MOX_PACKET_COUNTER_TABLE, by the same
 * names, but these are totals that reading PACKET_STATISTICS does not clear. At rest:
 *
 *   matched = recv_packets + filter_drops + trim_fail_drops + rcvbuf_full_drops + memory_drops
 *   recv_packets = read + freed_unread + on the queue
 *   sends = send_packets + the eight counters of failed sends
 */
#define MOX_CAPTURE_COUNTERS_TABLE(X)                       \
	X(FILTER_DROPS, 1, U64, filter_drops)               \
	X(RCVBUF_FULL_DROPS, 2, U64, rcvbuf_full_drops)     \
	X(TRIM_FAIL_DROPS, 3, U64, trim_fail_drops)         \
	X(RECV_PACKETS, 4, U64, recv_packets)               \
	X(SENDMSG_ILL_FAILS, 5, U64, sendmsg_ill_fails)     \
	X(MACFUNC_ILL_FAILS, 6, U64, macfunc_ill_fails)     \
	X(DSTINTF_ILL_FAILS, 7, U64, dstintf_ill_fails)     \
	X(SRCINTF_ILL_FAILS, 8, U64, srcintf_ill_fails)     \
	X(INTF_LINKDOWN_FAILS, 9, U64, intf_linkdown_fails) \
	X(ALLOC_EFBUFF_FAILS, 10, U64, alloc_efbuff_fails)  \
	X(PKT_COPY_FAILS, 11, U64, pkt_copy_fails)          \
	X(EF_SEND_FAILS, 12, U64, ef_send_fails)            \
	X(SEND_PACKETS, 13, U64, send_packets)              \
	X(MATCHED, 14, U64, matched)                        \
	X(MEMORY_DROPS, 15, U64, memory_drops)              \
	X(READ, 16, U64, read)                              \
	X(FREED_UNREAD, 17, U64, freed_unread)              \
	X(PASSED_ON, 18, U64, passed_on)                    \
	X(SENDS, 19, U64, sends)

/*
 * The counters of a socket that only this family has: name, label in text, meaning.
 */
#define MOX_CAPTURE_LEDGER_TABLE(X)                                                            \
	X(matched, "frames offered to the socket, because its rule matched them")              \
	X(memory_drops, "frames dropped because there was no memory for a socket buffer")      \
	X(read, "frames that the program has read")                                            \
	X(freed_unread, "frames that were on the receive queue when the socket was closed")    \
	X(passed_on, "frames that went on with the platform although the socket's rule takes " \
		     "them: the hook decided for another socket's copy rule")                  \
	X(sends, "frames that the program asked to send")

#define MOX_CAPTURE_SOCKET_TABLE(X)                                                               \
	X(COOKIE, 1, U64, "As SO_COOKIE has it. Unique in a network namespace.")                  \
	X(INODE, 2, U32, "Inode of the socket: what /proc/<pid>/fd names; 0 without a file.")     \
	X(PID, 3, S32, "Process that opened it.")                                                 \
	X(PROCESS, 4, STRING, "Its name at that time.")                                           \
	X(UID, 5, U32, "User that opened it, as the initial user namespace numbers users.")       \
	X(NETNS, 6, U32, "Inode of its network namespace.")                                       \
	X(TYPE, 7, U32, "SOCK_RAW or SOCK_DGRAM.")                                                \
	X(LOCATION, 8, U32, "enum mox_packet_location; 0: captures nothing.")                     \
	X(TREATMENT, 9, U32, "enum mox_packet_treatment.")                                        \
	X(RUNNING, 10, FLAG, "Its rule is entered at its location.")                              \
	X(CTRL_INFO, 11, FLAG, "It asked for control records.")                                   \
	X(TIMESTAMPS, 12, FLAG, "It asked for times of arrival.")                                 \
	X(FILTERED, 13, FLAG, "It has a socket filter.")                                          \
	X(IFINDEX, 14, U32, "Interface that it is bound to; 0: none.")                            \
	X(PROTOCOL, 15, U16, "Protocol that it was opened with or bound to, network byte order.") \
	X(QUEUE, 16, U32, "Frames on its receive queue.")                                         \
	X(QUEUE_BYTES, 17, U32, "Receive memory that they take.")                                 \
	X(QUEUE_LIMIT, 18, U32, "SO_RCVBUF: receive memory that they may take.")                  \
	X(RULE_BYTES, 19, U32, "Bytes of the memory budget that are charged for its rule.")       \
	X(RULE_WORK, 20, U32, "Instructions of the work budget that are charged for its rule.")   \
	X(COUNTERS, 21, NEST_COUNTERS, "Its ledger.")

/*
 * A rule. Its types come in the order in which they were added, of which the first that a
 * key may have is the key; the values of a type by number. With more values than one message
 * has room for it goes on in the next ones, which repeat all but VALUE; all but the last of
 * them have MORE.
 */
#define MOX_CAPTURE_RULE_TABLE(X)                                                             \
	X(COOKIE, 1, U64, "The socket's.")                                                    \
	X(PID, 2, S32, "The socket's.")                                                       \
	X(PROCESS, 3, STRING, "The socket's.")                                                \
	X(LOCATION, 4, U32, "enum mox_packet_location; 0: none.")                             \
	X(TREATMENT, 5, U32, "enum mox_packet_treatment.")                                    \
	X(RUNNING, 6, FLAG, "The rule is entered at its location.")                           \
	X(PLACE, 7, BINARY,                                                                   \
	  "Place in the order in which a location's rules are asked, as 16 bytes in network " \
	  "byte order: a smaller one comes first. Absent for a rule that is not entered.")    \
	X(VALUE, 8, NEST_VALUE, "A value.")                                                   \
	X(MORE, 9, FLAG, "The rule goes on in the next message.")

#define MOX_CAPTURE_VALUE_TABLE(X)                                                         \
	X(TYPE, 1, U32, "enum mox_packet_rule_type.")                                      \
	X(DATA, 2, BINARY, "As the rule record has it; absent for a type without values.") \
	X(HITS, 3, U64, "Frames offered to the socket that had the value.")

#define MOX_CAPTURE_QUEUE_TABLE(X)                                                      \
	X(LOCATION, 1, U32, "enum mox_packet_location.")                                \
	X(NAME, 2, STRING, "Its name.")                                                 \
	X(CPU, 3, U32, "The CPU.")                                                      \
	X(LENGTH, 4, U32, "Frames on the queue.")                                       \
	X(HELD, 5, U32, "Frames that count as held: on the queue, or being delivered.") \
	X(COPIES, 6, U32, "Of these: clones.")                                          \
	X(LIMIT, 7, U32, "Frames that it may hold, of which clones may be half.")       \
	X(CPU_HELD, 8, U32, "Frames that all queues of the CPU hold.")                  \
	X(CPU_LIMIT, 9, U32, "Frames that they may hold.")

#define MOX_CAPTURE_MEMORY_TABLE(X)                                                              \
	X(NAME, 1, STRING, "What is counted: a kind of object, or a budget.")                    \
	X(OBJECTS, 2, U64, "Objects in use.")                                                    \
	X(FAILED, 3, U64, "Allocations that failed.")                                            \
	X(UNIT, 4, STRING, "Of a budget: bytes, or instructions.")                               \
	X(USED, 5, U64, "Of a budget: what is used.")                                            \
	X(LIMIT, 6, U64, "Of a budget: its end.")                                                \
	X(UNPRIVILEGED_LIMIT, 7, U64, "Of a budget: its end for callers without CAP_NET_ADMIN.") \
	X(SOCKET_LIMIT, 8, U64, "Of a budget: what one socket may use.")                         \
	X(REFUSED, 9, U64, "Of a budget: calls that it refused.")

#define MOX_CAPTURE_THREAD_TABLE(X)                                                           \
	X(NAME, 1, STRING, "Its name.")                                                       \
	X(PID, 2, S32, "Its process id; absent while it does not run.")                       \
	X(SCHEDULED, 3, U64, "Wake-ups.")                                                     \
	X(ALLOC_SKB_FAILED, 4, U64, "Frames for which it had no memory for a socket buffer.") \
	X(RUNNING, 5, FLAG, "It is draining the queues.")                                     \
	X(PENDING, 6, U32, "A location with frames that wait for it; once for each.")

#define MOX_CAPTURE_TRACE_TABLE(X)                                                              \
	X(HOP, 1, U32, "enum mox_capture_hop.")                                                 \
	X(VERDICT, 2, U32, "enum mox_capture_verdict.")                                         \
	X(TIME, 3, U64, "Nanoseconds since the epoch.")                                         \
	X(SINCE, 4, U64, "At delivery: nanoseconds since the hook, where that is known.")       \
	X(CPU, 5, U32, "The CPU of the hook; of a send: the sender's.")                         \
	X(LOCATION, 6, U32, "enum mox_packet_location; absent for a send.")                     \
	X(FRAME, 7, U32,                                                                        \
	  "Number of the frame on its queue: with CPU and LOCATION the same at the hook and "   \
	  "at delivery. Absent for frames that were not queued.")                               \
	X(LENGTH, 8, U32, "Bytes of the frame.")                                                \
	X(IFINDEX, 9, U32, "Interface it came in on; of a send: it goes out of, 0 if refused.") \
	X(VLAN, 10, U16, "VLAN id; 0 without one.")                                             \
	X(SRC_MAC, 11, BINARY, "6 bytes.")                                                      \
	X(DST_MAC, 12, BINARY, "6 bytes.")                                                      \
	X(ETHER_TYPE, 13, U16, "Host byte order.")                                              \
	X(KEY, 14, NEST_VALUE, "At the hook: the value that decided, without hits.")            \
	X(COOKIE, 15, U64, "The socket: that decided, was offered the frame, or sent it.")      \
	X(PID, 16, S32, "Its process.")                                                         \
	X(PROCESS, 17, STRING, "Its name.")                                                     \
	X(TREATMENT, 18, U32, "Of its rule: enum mox_packet_treatment.")                        \
	X(ERROR, 19, S32, "Of a send: its negative errno, or 0.")                               \
	X(LOST, 20, U64, "Records that could not be sent to this reader so far.")

/*
 * Attribute numbers and kinds of a set.
 */
#define MOX_CAPTURE_ATTR_REQUEST(name, number, ...) MOX_CAPTURE_REQUEST_##name = number,
#define MOX_CAPTURE_ATTR_INFO(name, number, ...) MOX_CAPTURE_INFO_##name = number,
#define MOX_CAPTURE_ATTR_LOCATION(name, number, ...) MOX_CAPTURE_LOCATION_##name = number,
#define MOX_CAPTURE_ATTR_COUNTERS(name, number, ...) MOX_CAPTURE_COUNTERS_##name = number,
#define MOX_CAPTURE_ATTR_SOCKET(name, number, ...) MOX_CAPTURE_SOCKET_##name = number,
#define MOX_CAPTURE_ATTR_RULE(name, number, ...) MOX_CAPTURE_RULE_##name = number,
#define MOX_CAPTURE_ATTR_VALUE(name, number, ...) MOX_CAPTURE_VALUE_##name = number,
#define MOX_CAPTURE_ATTR_QUEUE(name, number, ...) MOX_CAPTURE_QUEUE_##name = number,
#define MOX_CAPTURE_ATTR_MEMORY(name, number, ...) MOX_CAPTURE_MEMORY_##name = number,
#define MOX_CAPTURE_ATTR_THREAD(name, number, ...) MOX_CAPTURE_THREAD_##name = number,
#define MOX_CAPTURE_ATTR_TRACE(name, number, ...) MOX_CAPTURE_TRACE_##name = number,

enum mox_capture_request_attr { MOX_CAPTURE_REQUEST_TABLE(MOX_CAPTURE_ATTR_REQUEST) };
enum mox_capture_info_attr { MOX_CAPTURE_INFO_TABLE(MOX_CAPTURE_ATTR_INFO) };
enum mox_capture_location_attr { MOX_CAPTURE_LOCATION_TABLE(MOX_CAPTURE_ATTR_LOCATION) };
enum mox_capture_counters_attr { MOX_CAPTURE_COUNTERS_TABLE(MOX_CAPTURE_ATTR_COUNTERS) };
enum mox_capture_socket_attr { MOX_CAPTURE_SOCKET_TABLE(MOX_CAPTURE_ATTR_SOCKET) };
enum mox_capture_rule_attr { MOX_CAPTURE_RULE_TABLE(MOX_CAPTURE_ATTR_RULE) };
enum mox_capture_value_attr { MOX_CAPTURE_VALUE_TABLE(MOX_CAPTURE_ATTR_VALUE) };
enum mox_capture_queue_attr { MOX_CAPTURE_QUEUE_TABLE(MOX_CAPTURE_ATTR_QUEUE) };
enum mox_capture_memory_attr { MOX_CAPTURE_MEMORY_TABLE(MOX_CAPTURE_ATTR_MEMORY) };
enum mox_capture_thread_attr { MOX_CAPTURE_THREAD_TABLE(MOX_CAPTURE_ATTR_THREAD) };
enum mox_capture_trace_attr { MOX_CAPTURE_TRACE_TABLE(MOX_CAPTURE_ATTR_TRACE) };

/** Attribute numbers of a request: 1 to this. */
#define MOX_CAPTURE_REQUEST_MAX MOX_CAPTURE_REQUEST_PORT

/** Features, by the text of MOX_CAPTURE_INFO_FEATURE. */
#define MOX_CAPTURE_FEATURE_TABLE(X)                                        \
	X("ledger", "counters of locations and sockets that balance")       \
	X("rules", "rules with the hits of each value")                     \
	X("restrict", "the request RESTRICT")                               \
	X("arrival-time", "SO_TIMESTAMP and the like have the hook's time") \
	X("sock-diag", "ss -0 lists capture sockets")                       \
	X("trace", "the requests TRACE_START and TRACE_STOP")

/** Where a trace record was made. */
enum mox_capture_hop {
	MOX_CAPTURE_HOP_HOOK = 1,     /* a frame at the hook of a location */
	MOX_CAPTURE_HOP_DELIVERY = 2, /* a socket's outcome; or none had a matching rule */
	MOX_CAPTURE_HOP_SEND = 3,     /* a frame that a socket sends */
};

/** What became of a frame at a hop: number, name, meaning. */
#define MOX_CAPTURE_VERDICT_TABLE(X)                                            \
	/* at the hook */                                                       \
	X(UNWANTED, 1, "no rule matched: the platform goes on with it")         \
	X(CLONED, 2, "a clone was queued: the platform goes on with the frame") \
	X(TAKEN, 3, "taken from the platform, and queued")                      \
	X(CLONE_FAILED, 4, "the platform had no buffer for a clone")            \
	X(COPY_REFUSED, 5, "no room for another clone on the queue")            \
	X(TAKE_REFUSED, 6, "dropped: the queue is full")                        \
	X(RNFP_DROP, 7, "dropped by the drop service")                          \
	X(RNFP_WLAN_DROP, 8, "dropped by the drop service of the WLAN")         \
	/* at delivery */                                                       \
	X(PUT, 9, "put on the socket's receive queue")                          \
	X(FILTERED, 10, "dropped by the socket's filter")                       \
	X(TRIM_FAILED, 11, "dropped: could not be cut to the filter's length")  \
	X(BUFFER_FULL, 12, "dropped: the socket's receive buffer is full")      \
	X(NO_MEMORY, 13, "dropped: no memory for a socket buffer")              \
	X(UNMATCHED, 14, "no rule matched any more")                            \
	/* a send */                                                            \
	X(ACCEPTED, 15, "the platform accepted it")                             \
	X(REFUSED, 16, "the send failed")

#define MOX_CAPTURE_VERDICT_NUMBER(name, number, meaning) MOX_CAPTURE_VERDICT_##name = number,
enum mox_capture_verdict { MOX_CAPTURE_VERDICT_TABLE(MOX_CAPTURE_VERDICT_NUMBER) };

/** Traces at the same time. */
#define MOX_CAPTURE_TRACES 4

#endif
