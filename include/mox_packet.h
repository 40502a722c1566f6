/* SPDX-License-Identifier: GPL-2.0-only WITH Linux-syscall-note */
/*
 * mox_packet.h - the user interface of mox_ef_socket, the capture sockets of
 * protocol family 17.
 *
 * Plain C99 and C++; needs nothing but fixed-width integers and size_t. The module itself
 * is built from this header, so that a number can never differ between the two
 * sides. All multi-byte fields are in host byte order unless a comment says
 * "network order".
 */
#ifndef MOX_PACKET_H
#define MOX_PACKET_H

#ifdef __KERNEL__
#if defined(__cplusplus)
/* A kernel's C++ has no header of the toolchain. */
typedef __UINT8_TYPE__ uint8_t;
typedef __UINT16_TYPE__ uint16_t;
typedef __UINT32_TYPE__ uint32_t;
#else
#include <linux/types.h>
#endif
#elif defined(__cplusplus)
#include <cstddef>
#include <cstdint>
#else
#include <stddef.h>
#include <stdint.h>
#endif

/** The protocol family (PF_PACKET) and the option level (SOL_PACKET). */
#define MOX_PACKET_FAMILY 17
#define MOX_SOL_PACKET 263

/**
 * Location: the point of the forwarding pipeline where a socket captures.
 * Argument of PACKET_LOCATION. 5 and 6 are refused by that option. 9 and 10 are
 * the frames at PACKET_RESV_LOC that are addressed to the reserved layer-2 or
 * layer-3 control-plane interface.
 */
enum mox_packet_location {
	PACKET_NONE_LOC = 0,
	PACKET_LOCAL_LOC = 1,
	PACKET_LEV2_LOC = 2,
	PACKET_IPv4_LOC = 3,
	PACKET_IPv6_LOC = 4,
	PACKET_MPLS_LOC = 5,
	PACKET_TRILL_LOC = 6,
	PACKET_RESV_LOC = 7,
	PACKET_WLAN_LOC = 8,
	PACKET_LEV2_RESV_LOC = 9,
	PACKET_LEV3_RESV_LOC = 10,
};

/**
 * Treatment: what happens to a frame that a socket's rule matches. Argument of
 * PACKET_TREATMENT. "Copy" leaves the frame to the platform, "fetch" takes it
 * and offers it to every matching socket, "trap" takes it for the first one.
 */
enum mox_packet_treatment {
	PACKET_TREATMENT_NONE = 0,
	PACKET_COPY = 1,
	PACKET_FETCH = 2,
	PACKET_TRAP = 3,
	PACKET_COPY_LOCAL = 4,
	PACKET_FETCH_LOCAL = 5,
};

/**
 * Rule type, with the size in bytes of one element of the rule record, and the
 * element's meaning. Different types of one socket are ANDed, values of one
 * type are ORed.
 */
enum mox_packet_rule_type {
	PACKET_PACKET_CODE_EQUAL = 0,    /* 2: code, sub-code */
	PACKET_DEST_MAC_EQUAL = 1,       /* 6: MAC address */
	PACKET_SRC_MAC_EQUAL = 2,        /* 6: MAC address */
	PACKET_ETH_PROT_EQUAL = 3,       /* 2: EtherType, network order; htons(3): any */
	PACKET_SNAP_ETH_TYPE_EQUAL = 4,  /* 2: SNAP type, network order; htons(3): any */
	PACKET_IPv4_PROT_EQUAL = 5,      /* 1: IP protocol */
	PACKET_IPv6_PROT_EQUAL = 6,      /* 1: final next header */
	PACKET_IPv4_DEST_PORT_EQUAL = 7, /* 2: port, network order */
	PACKET_IPv4_SRC_PORT_EQUAL = 8,  /* 2: port, network order */
	PACKET_IPv6_DEST_PORT_EQUAL = 9, /* 2: port, network order */
	PACKET_SRC_INTF_EQUAL = 10,      /* 4: interface index */
	PACKET_ICMPV6_TYPE_EQUAL = 11,   /* 1: ICMPv6 type */
	PACKET_IPv4_MCAST_TRAFFIC = 12,  /* 0: no value; one element */
	PACKET_IPv6_MCAST_TRAFFIC = 13,  /* 0: no value; one element */
	PACKET_EAPOL_TYPE_EQUAL = 14,    /* 1: EAPOL packet type */
	PACKET_EAPOL_TYPE_WPS = 15,      /* 1: not compared; WLAN only */
	PACKET_ALL = 16,                 /* no elements at all */
	PACKET_PID_T = 17,               /* 4: attribute word to exclude; 0xffffffff: any but 0 */
	PACKET_WLAN_MGNT = 18,           /* 0: no value; one element; WLAN only */
	PACKET_ARP_TYPE = 19,            /* 2: ARP operation, network order */
};

/** Number of rule types. */
#define MOX_PACKET_RULE_TYPES 20

/** Value of types 3 and 4 that matches every EtherType (htons(3)). */
#define MOX_PACKET_ANY_ETH_TYPE 768

/**
 * Socket options at MOX_SOL_PACKET. Options 6, 8 and 9 of getsockopt are the
 * kernel's own PACKET_STATISTICS, PACKET_AUXDATA and PACKET_ORIGDEV.
 */
enum mox_packet_option {
	MOX_PACKET_STATISTICS = 6,    /* get: struct mox_packet_stats; clears every counter */
	MOX_PACKET_AUXDATA = 8,       /* get: int, 0 */
	MOX_PACKET_ORIGDEV = 9,       /* get: int, 0 */
	MOX_PACKET_ADD_RULE = 11,     /* set: struct mox_packet_rule */
	MOX_PACKET_DEL_RULE = 12,     /* set: struct mox_packet_rule */
	PACKET_TREATMENT = 15,        /* set: u32, enum mox_packet_treatment */
	PACKET_CTRL_INFO = 16,        /* set: u32, 0 off */
	PACKET_LOCATION = 17,         /* set: u32, enum mox_packet_location */
	MOX_PACKET_DUMP_SOCKET = 18,  /* set: no argument; report to the kernel log */
	MOX_PACKET_CONTROL_HOOK = 19, /* set: up to 40 bytes for the platform's handler */
};

/**
 * Head of the rule record of options 11 and 12; count elements follow it at
 * byte 6. The option length must cover 6 + count * size and 6 + count * the
 * type's own element size.
 */
struct mox_packet_rule {
	uint16_t type;  /* enum mox_packet_rule_type */
	uint16_t size;  /* bytes of one element, for the length check */
	uint16_t count; /* number of elements */
};

#ifndef __KERNEL__

/** Bytes of a rule record with count elements. */
#define MOX_PACKET_RULE_LENGTH(element_size, count) \
	(sizeof(struct mox_packet_rule) + (size_t)(element_size) * (count))

/**
 * Builds a rule record: the head, and the elements behind it without padding.
 *
 * record, room    buffer for the record and its size in bytes, at least
 *                 MOX_PACKET_RULE_LENGTH(element_size, count)
 * type            enum mox_packet_rule_type
 * elements        count elements of element_size bytes, one behind the other,
 *                 in the byte order that the type asks for; may be null when
 *                 there is no byte to copy
 * element_size    bytes of one element as the type has it, 0 for types without
 *                 a value
 * count           number of elements: 1 for types without a value, 0 for
 *                 PACKET_ALL
 *
 * Returns the record's length, which is the option length of MOX_PACKET_ADD_RULE
 * and MOX_PACKET_DEL_RULE, or 0 when the record does not fit; the buffer is
 * unchanged then.
 */
static inline size_t mox_packet_build_rule(void *record, size_t room, uint16_t type,
					   const void *elements, uint16_t element_size,
					   uint16_t count)
{
	const struct mox_packet_rule head = { type, element_size, count };
	const unsigned char *from = (const unsigned char *)&head;
	unsigned char *to = (unsigned char *)record;
	const size_t length = MOX_PACKET_RULE_LENGTH(element_size, count);
	size_t i;

	if (length > room)
		return 0;
	for (i = 0; i < sizeof(head); i++)
		to[i] = from[i];
	from = (const unsigned char *)elements;
	for (; i < length; i++)
		to[i] = from[i - sizeof(head)];
	return length;
}

#endif /* !__KERNEL__ */

/** Reply of MOX_PACKET_STATISTICS; packets includes drops. */
struct mox_packet_stats {
	uint32_t packets;
	uint32_t drops;
};

/** Bits of mox_packet_ctrl_info::flags as set on received frames. */
enum mox_packet_recv_flags {
	MOX_RECV_TRACE = 0x00020002,    /* the platform's trace mark */
	MOX_RECV_EF_40000 = 0x4,        /* efbuff flag 0x40000 */
	MOX_RECV_EF_80 = 0x800,         /* efbuff flag 0x80 */
	MOX_RECV_NO_L2 = 0x1000,        /* the frame has no layer-2 header */
	MOX_RECV_WLAN_800000 = 0x80000, /* WLAN flag 0x800000 */
};

/**
 * The control record that recvmsg stores raw (without a cmsg header) at
 * msg_control once PACKET_CTRL_INFO is on. Give msg_control 48 bytes: the
 * length of the buffer is not looked at. With SO_TIMESTAMP and the like on, the
 * kernel's control messages come first, and the record stands at msg_control
 * plus the msg_controllen that recvmsg returned: give msg_control 48 bytes more
 * than the msg_controllen passed in.
 */
struct mox_packet_ctrl_info {
	uint32_t pkt_ifx;       /* interface the frame came in on */
	uint32_t pkt_origifx;   /* original interface */
	uint32_t pkt_l2ifx;     /* layer-2 interface */
	uint32_t pkt_dst_l2ifx; /* not filled on receive: 0 */
	uint16_t eth_type;      /* network order, as in the frame */
	uint16_t vlan;          /* priority in the low 4 bits, VLAN id above */
	uint16_t reserved20;
	uint16_t inner_vid;
	uint32_t flags;         /* enum mox_packet_recv_flags */
	uint32_t word28;        /* passed through by the platform */
	uint16_t inner_vlan;    /* second VLAN id, low 12 bits */
	uint16_t ex_inner_vlan; /* the same again */
	uint16_t l2_len;        /* layer-2 header length */
	uint16_t half38;        /* passed through by the platform */
	uint16_t wlan_id;
	uint16_t ap_wlan_id;
	uint8_t radio_id;
	uint8_t proxy_capture; /* passed through by the platform */
	uint16_t reserved46;   /* 0 */
};

/**
 * Bits of mox_packet_ctrl_info::flags for sendmsg. One flag sets one bit of the
 * outgoing buffer; what the platform does with it is the platform's.
 */
enum mox_packet_send_flags {
	MOX_SEND_DEBUG = 0x2,         /* trace this frame; log its outcome as a debug packet's */
	MOX_SEND_EF_40000 = 0x4,      /* efbuff flag 0x40000 */
	MOX_SEND_VXLAN_ENCAP = 0x100, /* send flag 0x1 */
	MOX_SEND_BLOCK = 0x200,       /* send flag 0x2 */
	MOX_SEND_400 = 0x400,         /* send flag 0x4 */
	MOX_SEND_4000 = 0x4000,       /* send flag 0x20 */
	MOX_SEND_10000 = 0x10000,     /* send flag 0x40 */
	MOX_SEND_20000 = 0x20000,     /* send flag 0x80 */
	MOX_SEND_NO_ACL = 0x40000,    /* send flag 0x8: do not match access lists */
	MOX_SEND_PROXY_CAPTURE = 0x100000, /* send flag 0x10: proxy_capture is valid */
};

/** Low bits of mox_packet_ctrl_info::vlan and inner_vlan that sendmsg takes: the VLAN id. */
#define MOX_SEND_VLAN_MASK 0x0fff

/*
 * The operators' channel: a generic netlink family of the initial network
 * namespace. A request is command 0 with one attribute that holds a
 * struct mox_packet_request; only MOX_MSG_TECH is answered, by an empty
 * attribute. Reports go to the kernel log.
 */
#define MOX_PACKET_GENL_NAME "PACKET_GENL"
#define MOX_PACKET_GENL_VERSION 1
#define MOX_PACKET_GENL_CMD 0
#define MOX_PACKET_GENL_ATTR 1

/** mox_packet_request::msg_type. */
enum mox_packet_msg_type {
	MOX_MSG_SHOW_FIRST = 0, /* 0 to 7: report of location msg_type + 1 */
	MOX_MSG_SHOW_LAST = 7,
	MOX_MSG_SHOW_ALL = 8,    /* the eight reports in a row */
	MOX_MSG_SHOW_QUEUES = 9, /* fill of the per-CPU queues */
	MOX_MSG_SHOW_MEMORY = 10,
	MOX_MSG_SHOW_NAME = 11,   /* body: name; the sockets of a process name */
	MOX_MSG_SHOW_PID = 12,    /* body: pid; the sockets of a process id */
	MOX_MSG_SHOW_THREAD = 13, /* counters of the copy thread */
	MOX_MSG_DEBUG = 14,       /* body: debug; a debug switch or a hook */
	MOX_MSG_FILTER = 15,      /* body: filter */
	MOX_MSG_TECH = 16,        /* everything into the dump file; answered when done */
};

/** mox_packet_request::body.debug.type. */
enum mox_packet_debug_type {
	MOX_DEBUG_GENERAL = 0,       /* every tagged line hangs on it */
	MOX_DEBUG_DELIVER_FIRST = 1, /* 1 to 8: delivery, by location */
	MOX_DEBUG_DELIVER_LAST = 8,
	MOX_DEBUG_DELIVER_ALL = 9,
	MOX_DEBUG_RECEIVE_FIRST = 10, /* 10 to 17: receive hooks, by location + 9 */
	MOX_DEBUG_RECEIVE_LAST = 17,
	MOX_DEBUG_RECEIVE_ALL = 18,
	MOX_DEBUG_HOOK_FIRST = 19, /* 19 to 26: hooks, by location + 18; 1 takes one away */
	MOX_DEBUG_HOOK_LAST = 26,
	MOX_DEBUG_HOOK_ALL = 27,
};

/** Bits of mox_packet_filter::flags: which fields a packet must match. */
enum mox_packet_filter_flags {
	MOX_FILTER_VID = 0x002,
	MOX_FILTER_SRC_MAC = 0x004,
	MOX_FILTER_DST_MAC = 0x008,
	MOX_FILTER_SRC_INTF = 0x010,
	MOX_FILTER_DST_INTF = 0x020,
	MOX_FILTER_SRC_IPV4 = 0x040,
	MOX_FILTER_DST_IPV4 = 0x080,
	MOX_FILTER_SRC_IPV6 = 0x100,
	MOX_FILTER_DST_IPV6 = 0x200,
};

/** The debug packet filter: whole addresses, no masks. */
struct mox_packet_filter {
	uint8_t enable; /* 0: not in force */
	uint8_t reserved[3];
	uint32_t flags; /* enum mox_packet_filter_flags; 0: every packet */
	uint32_t vid;   /* VLAN id in the low 12 bits */
	uint8_t src_mac[6];
	uint8_t dst_mac[6];
	uint32_t src_intf;
	uint32_t dst_intf;
	uint8_t src_ipv4[4]; /* addresses in network order */
	uint8_t dst_ipv4[4];
	uint8_t src_ipv6[16];
	uint8_t dst_ipv6[16];
};

/** Bytes of a process name, its NUL included. */
#define MOX_PACKET_NAME_SIZE 16

/** The payload of the request's attribute. Cut it after the body that the type has. */
struct mox_packet_request {
	uint16_t msg_type; /* enum mox_packet_msg_type */
	uint16_t reserved;
	union {
		char name[MOX_PACKET_NAME_SIZE];
		uint32_t pid;
		struct {
			uint32_t type;    /* enum mox_packet_debug_type */
			uint32_t is_open; /* the low byte counts */
		} debug;
		struct mox_packet_filter filter;
	} body;
};

/**
 * The file that MOX_MSG_TECH writes: printf format, with the number of the
 * requester's virtual switch device. The double slash is the name's own. The
 * directory must be there.
 */
#define MOX_PACKET_DUMP_FILE "/tmp/vsd/%d//ef/af_packet/afpacketdump"

/** The 18 characters before a virtual switch device's number in a path. */
#define MOX_VSD_PREFIX "/data/var/run/vsd/"

#endif
