/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * mox_packet.h - the user interface of mox_ef_socket, the capture sockets of
 * protocol family 17.
 *
 * Plain C99 and C++; needs nothing but fixed-width integers. The module itself
 * is built from this header, so that a number can never differ between the two
 * sides. All multi-byte fields are in host byte order unless a comment says
 * "network order".
 */
#ifndef MOX_PACKET_H
#define MOX_PACKET_H

#ifdef __KERNEL__
#if defined(__cplusplus)
#include <cstdint>
#else
#include <linux/types.h>
#endif
#elif defined(__cplusplus)
#include <cstdint>
#else
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
	MOX_PACKET_STATISTICS = 6,  /* get: struct mox_packet_stats; clears every counter */
	MOX_PACKET_AUXDATA = 8,     /* get: int, 0 */
	MOX_PACKET_ORIGDEV = 9,     /* get: int, 0 */
	MOX_PACKET_ADD_RULE = 11,   /* set: struct mox_packet_rule */
	MOX_PACKET_DEL_RULE = 12,   /* set: struct mox_packet_rule */
	PACKET_TREATMENT = 15,      /* set: u32, enum mox_packet_treatment */
	PACKET_CTRL_INFO = 16,      /* set: u32, 0 off */
	PACKET_LOCATION = 17,       /* set: u32, enum mox_packet_location */
	MOX_PACKET_DUMP_SOCKET = 18, /* set: no argument; report to the kernel log */
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

/** Reply of MOX_PACKET_STATISTICS; packets includes drops. */
struct mox_packet_stats {
	uint32_t packets;
	uint32_t drops;
};

/** Bits of mox_packet_ctrl_info::flags as set on received frames. */
enum mox_packet_recv_flags {
	MOX_RECV_TRACE = 0x00020002,     /* the platform's trace mark */
	MOX_RECV_EF_40000 = 0x4,         /* efbuff flag 0x40000 */
	MOX_RECV_EF_80 = 0x800,          /* efbuff flag 0x80 */
	MOX_RECV_NO_L2 = 0x1000,         /* the frame has no layer-2 header */
	MOX_RECV_WLAN_800000 = 0x80000,  /* WLAN flag 0x800000 */
};

/**
 * The control record that recvmsg stores raw (without a cmsg header) at
 * msg_control once PACKET_CTRL_INFO is on. Give msg_control 48 bytes: the
 * length of the buffer is not looked at.
 */
struct mox_packet_ctrl_info {
	uint32_t pkt_ifx;        /* interface the frame came in on */
	uint32_t pkt_origifx;    /* original interface */
	uint32_t pkt_l2ifx;      /* layer-2 interface */
	uint32_t pkt_dst_l2ifx;  /* not filled on receive: 0 */
	uint16_t eth_type;       /* network order, as in the frame */
	uint16_t vlan;           /* priority in the low 4 bits, VLAN id above */
	uint16_t reserved20;
	uint16_t inner_vid;
	uint32_t flags;          /* enum mox_packet_recv_flags */
	uint32_t word28;         /* passed through by the platform */
	uint16_t inner_vlan;     /* second VLAN id, low 12 bits */
	uint16_t ex_inner_vlan;  /* the same again */
	uint16_t l2_len;         /* layer-2 header length */
	uint16_t half38;         /* passed through by the platform */
	uint16_t wlan_id;
	uint16_t ap_wlan_id;
	uint8_t radio_id;
	uint8_t proxy_capture;   /* passed through by the platform */
	uint16_t reserved46;     /* 0 */
};

/** The 18 characters before a virtual switch device's number in a path. */
#define MOX_VSD_PREFIX "/data/var/run/vsd/"

#endif
