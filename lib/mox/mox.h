/* SPDX-License-Identifier: MIT */
/*
 * mox.h - the capture sockets of mox_ef_socket for programs in C.
 *
 * Plain C99, and C++. A handle is set up first and started then, so that no frame is captured by an incomplete rule:
 *
 *     mox_socket *s = mox_new(MOX_RAW);
 *     if (!s || mox_add_rule(s, "eth=arp") || mox_set_location(s, PACKET_LEV2_LOC) || mox_start(s))
 *             fprintf(stderr, "%s\n", mox_error());
 *
 * Functions that return int return 0 or a count when they succeed, and -1 when they fail; those that return a pointer
 * return NULL when they fail. After a failure errno has the reason, and mox_error() a text that names the thing and the
 * remedy. EINVAL is a name, a value or an order of calls that is not valid; ENOMEM also means that there was no memory.
 * No function prints, and none ends the program. None is a cancellation point: pthread_cancel takes effect after it, so
 * a thread that waits for a frame ends with a limit of time, or with a signal (EINTR).
 *
 * A handle belongs to one thread at a time. All numbers are in host byte order unless stated otherwise. Names, numbers
 * and records of the kernel's interface are in mox_packet.h. libmox(3) describes every function.
 */
#ifndef MOX_MOX_H
#define MOX_MOX_H

#include "mox/export.h"
#include "mox_packet.h"
#include "mox_version.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A capture socket, or what is set up for one. */
typedef struct mox_socket mox_socket;

/** Argument of mox_new: frames with their layer-2 header, or without it. */
enum mox_kind {
	MOX_RAW = 0,
	MOX_DATAGRAM = 1,
};

/** How long mox_receive waits, if not a number of milliseconds. */
#define MOX_NO_WAIT 0
#define MOX_WAIT (-1)

/** The most frames that one call of mox_receive_many returns. */
#define MOX_MOST_FRAMES 64

/** The most bytes that mox_restore_vlan adds to a frame. */
#define MOX_MOST_VLAN_BYTES 8

/** Bits of mox_frame::flags. */
enum mox_frame_flags {
	MOX_FRAME_CONTROL = 0x1,   /* control is set */
	MOX_FRAME_STAMP = 0x2,     /* seconds and nanoseconds are set */
	MOX_FRAME_TRUNCATED = 0x4, /* the frame is longer than what was captured */
	MOX_FRAME_ETHERNET = 0x8,  /* known to begin with an Ethernet header */
};

/** The control record of a received frame, with its fields taken apart. 0 where the platform has nothing. */
struct mox_control {
	uint32_t ifindex;        /* interface the frame came in on; 0: the device made it */
	uint32_t origin_ifindex; /* original interface */
	uint32_t l2_ifindex;     /* layer-2 interface */
	uint32_t flags;          /* enum mox_packet_recv_flags */
	uint32_t word28;         /* the platform's word */
	uint16_t ether_type;
	uint16_t vlan;       /* VLAN id, up to 4095 */
	uint16_t inner_vlan; /* id of the second tag */
	uint16_t l2_length;  /* length of the layer-2 header; 0: there is none */
	uint16_t half38;     /* the platform's word */
	uint16_t wlan_id;
	uint16_t ap_wlan_id;
	uint8_t priority; /* of the VLAN tag, up to 7 */
	uint8_t radio_id;
	uint8_t proxy_capture; /* the platform's byte */
	uint8_t reserved[11];
};

/** A buffer, and the frame that mox_receive stores there. The caller sets buffer and size. */
struct mox_frame {
	void *buffer;
	size_t size;     /* bytes that the buffer has room for */
	size_t captured; /* bytes of the frame in the buffer */
	size_t length;   /* of the whole frame */
	int64_t seconds; /* time of arrival since the epoch */
	uint32_t nanoseconds;
	uint32_t ifindex; /* interface the frame came in on */
	uint32_t flags;   /* enum mox_frame_flags */
	uint32_t reserved[3];
	struct mox_control control;
};

/** Where a frame goes. */
struct mox_address {
	uint32_t ifindex;    /* destination interface; 0: the platform decides */
	uint16_t ether_type; /* of a datagram's header; 0: that of the socket */
	uint8_t has_mac;     /* not 0: mac is set; a datagram needs it */
	uint8_t mac[6];      /* destination of a datagram's header */
	uint8_t reserved[3];
};

/** The control record of a frame to send. 0 leaves a field to the platform. */
struct mox_send_control {
	uint32_t source_ifindex; /* must exist on the platform */
	uint32_t origin_ifindex;
	uint32_t l2_ifindex;
	uint32_t destination_l2_ifindex;
	uint32_t flags;      /* enum mox_packet_send_flags */
	uint32_t word28;     /* passed through to the platform */
	uint16_t vlan;       /* VLAN id, up to 4095 */
	uint16_t inner_vlan; /* id of the second tag, up to 4095 */
	uint16_t half38;     /* passed through to the platform */
	uint16_t wlan_id;
	uint16_t ap_wlan_id;
	uint8_t radio_id;
	uint8_t proxy_capture; /* read with MOX_SEND_PROXY_CAPTURE only */
	uint32_t reserved[3];
};

/** Counters of a socket; frames include drops. */
struct mox_statistics {
	uint64_t frames; /* that rules matched, since the previous reading */
	uint64_t drops;
	uint64_t total_frames; /* the sum of this handle's readings */
	uint64_t total_drops;
};

/** The library's version as MOX_VERSION has it; a program may run with another one than it was built with. */
MOX_API const char *mox_version(void);

/**
 * Text of the last failure of a function of this library in this thread, without a line end; "" when none has failed.
 * Valid until the next failure. A text of more than 4095 bytes is cut.
 */
MOX_API const char *mox_error(void);

/* ---- Handles ---- */

/** A handle without a socket yet, of enum mox_kind. Treatment PACKET_COPY, control records on, no location. Free it with mox_free. */
MOX_API mox_socket *mox_new(uint32_t kind);

/**
 * A handle for an open socket of family 17, from a supervisor for example, with all that is set on it. The handle is as
 * after mox_start: settings take effect immediately. The descriptor belongs to the handle now; after a failure it is
 * still the caller's. EPROTONOSUPPORT: it is no socket of mox_ef_socket.
 */
MOX_API mox_socket *mox_adopt(int fd);

/** Frees the handle and returns its descriptor, which stays open, and capturing. -1 and EBADF when it has none. */
MOX_API int mox_release(mox_socket *s);

/** Closes the socket, if there is one, and frees the handle. NULL is allowed. errno stays as it is. */
MOX_API void mox_free(mox_socket *s);

/** The descriptor, for poll: it stays the handle's. -1 and EBADF before mox_open or mox_start. */
MOX_API int mox_fd(const mox_socket *s);

/* ---- Which frames. Before mox_start these are noted, afterwards they take effect immediately. ---- */

/**
 * Adds rule values: "TYPE" or "TYPE=VALUE[,VALUE...]", as in "eth=arp,0x888e", "dmac=01:80:c2:00:00:0e", "all". Types are
 * combined, values of one type are alternatives. The order of types does not matter before mox_start.
 */
MOX_API int mox_add_rule(mox_socket *s, const char *rule);

/** Adds count numbers as values of a type (enum mox_packet_rule_type) that has numbers, given in host byte order. */
MOX_API int mox_add_rule_numbers(mox_socket *s, uint32_t type, const uint32_t *numbers,
				 size_t count);

/**
 * Adds count values as the rule record has them, one after the other: MAC addresses of 6 bytes, numbers of packets in
 * network byte order. For a type without values count is 0 and elements may be NULL.
 */
MOX_API int mox_add_rule_elements(mox_socket *s, uint32_t type, const void *elements, size_t count);

/**
 * Deletes rule values, text as for mox_add_rule, also those noted since mox_stop; those that the socket does not have are
 * ignored. EINVAL before the first mox_start.
 */
MOX_API int mox_delete_rule(mox_socket *s, const char *rule);

/** Where: enum mox_packet_location. */
MOX_API int mox_set_location(mox_socket *s, uint32_t location);

/** How: enum mox_packet_treatment. */
MOX_API int mox_set_treatment(mox_socket *s, uint32_t treatment);

/**
 * The interface, by name or by index: only frames that came in on it are captured, and frames that are sent without a
 * destination leave by it. Before mox_open only: EBUSY afterwards.
 */
MOX_API int mox_set_interface(mox_socket *s, const char *interface_name);

/** Whether frames come with their control record. */
MOX_API int mox_set_control(mox_socket *s, int on);

/** Whether frames come with the time of their arrival. */
MOX_API int mox_set_timestamps(mox_socket *s, int on);

/** SO_RCVBUF in bytes, at least 1; the kernel doubles the number and applies its own limits. */
MOX_API int mox_set_receive_buffer(mox_socket *s, int bytes);

/* ---- Start and stop ---- */

/** Opens the socket without starting a capture: enough to send. No effect when it is open. */
MOX_API int mox_open(mox_socket *s);

/**
 * Opens the socket unless it is open, sets rules, treatment and, as the last one, the location. EINVAL without a rule or
 * location. No effect while it runs. After a failure it captures nothing, and may be started again.
 */
MOX_API int mox_start(mox_socket *s);

/** Ends the capture: location 0. Rules stay; frames on the queue can still be read. mox_start continues. */
MOX_API int mox_stop(mox_socket *s);

/* ---- Receiving ---- */

/**
 * One frame. Waits up to `milliseconds`, or as MOX_NO_WAIT and MOX_WAIT say. Returns 1, or 0 when there is none: errno is
 * EAGAIN, or EINTR when a signal ended the wait.
 */
MOX_API int mox_receive(mox_socket *s, struct mox_frame *frame, int milliseconds);

/**
 * The frames that are there, up to count and MOX_MOST_FRAMES, in one system call; waits for the first as mox_receive.
 * Returns their number. Frames after those are not changed.
 */
MOX_API int mox_receive_many(mox_socket *s, struct mox_frame *frames, size_t count,
			     int milliseconds);

/**
 * Puts the VLAN tags of the control record back into an Ethernet frame that lacks them. Returns the bytes by which it
 * grew, 0 to MOX_MOST_VLAN_BYTES. What has no room in the buffer is cut off, and MOX_FRAME_TRUNCATED set. Frames without
 * MOX_FRAME_ETHERNET stay as they are: 0.
 */
MOX_API int mox_restore_vlan(struct mox_frame *frame);

/**
 * Reads the counters, which clears every counter of the socket in the kernel: others that read them, and its report in
 * the kernel log, start again from 0. total_frames and total_drops add up the readings of this handle.
 */
MOX_API int mox_read_statistics(mox_socket *s, struct mox_statistics *statistics);

/* ---- Sending ---- */

/**
 * Sends one frame out of an interface: from the MAC header on. 0: out of the one of mox_set_interface or, without one,
 * where the platform decides. ENXIO: no such interface. ENETDOWN: its link is down. ENETUNREACH: the platform dropped
 * the frame. For MOX_RAW; datagrams need mox_send_to.
 */
MOX_API int mox_send(mox_socket *s, const void *frame, size_t length, uint32_t ifindex);

/** The same with an address and a control record; either may be NULL. */
MOX_API int mox_send_to(mox_socket *s, const void *frame, size_t length,
			const struct mox_address *address, const struct mox_send_control *control);

/**
 * Makes the control record of an answer: VLAN and WLAN ids of the received frame, all else 0. A received record has other
 * bits than one to send, so it cannot be used as it is.
 */
MOX_API void mox_reply_control(struct mox_send_control *answer, const struct mox_control *received);

/* ---- Names ---- */

/** The number of a location that captures, by its name ("lev2", "PACKET_LEV2_LOC"); -1 if there is none. */
MOX_API int mox_location(const char *name);

/** The number of a treatment, by its name ("fetch", "PACKET_FETCH"); -1 if there is none. */
MOX_API int mox_treatment(const char *name);

/** The name in mox_packet.h; "Unknown" for other numbers. */
MOX_API const char *mox_location_name(uint32_t location);
MOX_API const char *mox_treatment_name(uint32_t treatment);

/** The index of an interface, by its name or by its index as text; 0 if there is none. */
MOX_API uint32_t mox_interface_index(const char *name);

/** MAC address of the interface that the socket is bound to. ENODEV: it is bound to none. */
MOX_API int mox_interface_mac(const mox_socket *s, uint8_t mac[6]);

#ifdef __cplusplus
}
#endif

#endif
