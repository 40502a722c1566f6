/* SPDX-License-Identifier: MIT */
/*
 * wire.h - the records between libmox-compat.so in a program and mox-relay, which owns the program's capture socket.
 *
 * The program's descriptor is one end of a pair of SOCK_SEQPACKET sockets, the relay has the other end. Each message
 * to the program is a mox_wire_frame and the frame. Each message to the relay is a mox_wire_request and its data; it
 * carries a descriptor (SCM_RIGHTS) of a second pair, made for this request alone, on which the relay sends one
 * mox_wire_reply and its data. So replies never mix with frames, and processes that share the descriptor need to
 * share nothing else.
 *
 * Both ends are of one build and on one machine: numbers are in host byte order unless a comment says otherwise.
 */
#ifndef MOX_COMPAT_WIRE_H
#define MOX_COMPAT_WIRE_H

#include <stdint.h>

/** First word of every record; changes with the layout of any of them. */
#define MOX_WIRE_MAGIC 0x4d785231u

/** The relay's end is bound to an abstract name that begins with this, by which other processes recognise the pair. */
#define MOX_WIRE_NAME "mox-compat/"

/** Descriptors with which mox-relay starts: its end of the pair, and where its first reply goes. */
#define MOX_WIRE_CHANNEL_FD 3
#define MOX_WIRE_HELLO_FD 4

/** Longest frame in bytes, either way: an Ethernet header, two tags and the longest IP packet. */
#define MOX_WIRE_MAX_FRAME 65557u
/** Most data bytes of a request (a frame, or a filter of 4096 instructions) and of a reply. */
#define MOX_WIRE_MAX_REQUEST MOX_WIRE_MAX_FRAME
#define MOX_WIRE_MAX_REPLY 512u

/** How long a program waits for the relay's reply. */
#define MOX_WIRE_REPLY_MS 10000

/** mox_wire_frame::flags: which control messages the program has switched on. */
enum mox_wire_frame_flags {
	MOX_WIRE_AUXDATA = 0x1,
	MOX_WIRE_STAMP_US_OLD = 0x2, /* SO_TIMESTAMP */
	MOX_WIRE_STAMP_US_NEW = 0x4,
	MOX_WIRE_STAMP_NS_OLD = 0x8, /* SO_TIMESTAMPNS */
	MOX_WIRE_STAMP_NS_NEW = 0x10,
	MOX_WIRE_STAMPING_OLD = 0x20, /* SO_TIMESTAMPING with software times of arrival */
	MOX_WIRE_STAMPING_NEW = 0x40,
};

/** What comes before each frame. */
struct mox_wire_frame {
	uint32_t magic;
	uint32_t flags;    /* enum mox_wire_frame_flags */
	uint16_t protocol; /* sll_protocol, network order */
	uint16_t hardware; /* sll_hatype */
	int32_t ifindex;   /* sll_ifindex */
	uint8_t packet;    /* sll_pkttype */
	uint8_t address_length;
	uint8_t address[8]; /* sll_addr */
	uint16_t
		network; /* tp_net: where the network header is, in the frame as the program gets it */
	uint32_t status; /* tp_status */
	uint32_t length; /* tp_len: before the filter cut it */
	uint16_t vlan_tci;
	uint16_t vlan_tpid;
	int64_t seconds; /* time of arrival since the epoch */
	uint32_t nanoseconds;
	uint32_t reserved;
};

enum mox_wire_kind {
	MOX_WIRE_BIND = 1,       /* data: sockaddr_ll */
	MOX_WIRE_NAME_OF = 2,    /* reply: sockaddr_ll, as long as getsockname reports */
	MOX_WIRE_SET_OPTION = 3, /* data: the value; of a filter its instructions */
	MOX_WIRE_GET_OPTION = 4, /* reply: the value */
	MOX_WIRE_SEND = 5,       /* data: sockaddr_ll of address_length bytes, then the frame */
};

struct mox_wire_request {
	uint32_t magic;
	uint32_t kind; /* enum mox_wire_kind */
	int32_t level;
	int32_t option;
	uint32_t address_length; /* MOX_WIRE_SEND: 0, or bytes of the address before the frame */
	uint32_t length;         /* of the data */
};

/** mox_wire_reply::flags. */
enum mox_wire_reply_flags {
	MOX_WIRE_TEXT = 0x1, /* the data is a line for standard error, without a line feed */
	MOX_WIRE_NATIVE =
		0x2, /* first reply: this program is configured to have the socket itself */
};

struct mox_wire_reply {
	uint32_t magic;
	int32_t error; /* 0 or an errno */
	uint32_t flags;
	uint32_t length; /* of the data */
};

#endif
