/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * moxlab.h - the control interface of the lab's forwarding platform.
 *
 * The stand-in efmp module offers one character device, /dev/moxlab. Over it a
 * test or a script adds ports, injects frames at a hook, reads what left, makes
 * platform calls fail, changes interfaces, and reads and clears what the
 * platform recorded. Each verb is one ioctl with one structure below.
 *
 * Fixed-width fields only, host byte order unless a comment says otherwise;
 * user pointers travel as __u64. A verb returns 0, or -1 with errno:
 *
 *   EINVAL    a field is out of its range, or a combination makes no sense
 *   ENODEV    no such network device or port
 *   ENXIO     no such interface control block
 *   ENOENT    nothing of that name or number
 *   EMSGSIZE  a frame or a record does not fit
 *   EFAULT    a user pointer is bad
 *   ENOMEM    no memory
 *   EINTR     a signal came during a long flood; nothing is left behind
 */
#ifndef MOXLAB_H
#define MOXLAB_H

#include <linux/ioctl.h>
#include <linux/types.h>

#include "moxlab_tables.h"

#define MOXLAB_DEVICE "/dev/moxlab"
#define MOXLAB_ABI 4

/* Owner ids of efbuffs: the platform's own, and the capture module's. */
#define MOXLAB_OWNER_PLATFORM 0x01
#define MOXLAB_OWNER_MODULE 0x93

#define MOXLAB_NAME_LEN 32    /* interface names, NUL included */
#define MOXLAB_SYMBOL_LEN 64  /* function names, NUL included */
#define MOXLAB_HEADER_LEN 192 /* the part of an efbuff header that is public */
#define MOXLAB_HEADER_ALL 256 /* the whole of it: the rest is the platform's own */
#define MOXLAB_FRAME_MAX 65535

#define MOXLAB_POINT_ROW(id, name) MOXLAB_POINT_##id,
enum moxlab_point { MOXLAB_POINTS(MOXLAB_POINT_ROW) MOXLAB_POINT_COUNT };

/*
 * Headers handed out: a copy of an efbuff's header without kernel addresses. The
 * link word is 0; at 4 and 8 are the interface indexes of the two blocks,
 * MOXLAB_NO_BLOCK for a null pointer.
 */

/* ------------------------------------------------------------------------
 * INJECT: one frame, or many, at a point
 */
#define MOXLAB_ANY_CPU 0xffffffffu  /* inject: wherever the caller runs */
#define MOXLAB_NO_BLOCK 0xffffffffu /* src/dst_ifindex: a null pointer */

/*
 * Bits of moxlab_inject.set: which fields replace what the platform would have
 * set for a plain Ethernet frame of these bytes. The image comes first, single
 * fields are put over it.
 */
#define MOXLAB_SET_ROW(field, id, bit, offset, convert, option) MOXLAB_SET_##id = bit,
enum moxlab_set { MOXLAB_FIELDS(MOXLAB_SET_ROW) };
#define MOXLAB_SET_SRC 0x00000080u
#define MOXLAB_SET_DST 0x00000100u
#define MOXLAB_SET_HEADER 0x80000000u

/* Bits of moxlab_inject.options. */
#define MOXLAB_INJ_TAG_CLEAR 0x1u /* per-CPU buffer word with bit 0 clear */
#define MOXLAB_INJ_TAG_SET 0x2u   /* ... set; neither: the platform alternates */
#define MOXLAB_INJ_HARD_SOFTIRQ \
	0x4u /* run inside a softirq proper, not merely
				      * with bottom halves disabled */
#define MOXLAB_INJ_CALL \
	0x8u /* call the function at address function instead
				   * of what is registered at the point */

#define MOXLAB_OUT_ROW(id, name) MOXLAB_OUT_##id,
enum moxlab_outcome { MOXLAB_OUTCOMES(MOXLAB_OUT_ROW) MOXLAB_OUT_COUNT = 8 };

#define MOXLAB_ANSWERS 8

struct moxlab_inject {
	/* in */
	__u32 point;        /* enum moxlab_point */
	__u32 cpu;          /* CPU number, or MOXLAB_ANY_CPU */
	__u32 repeat;       /* how many frames; 0 and 1: one */
	__u32 nth;          /* 0: every function in order; n: the n-th only */
	__u32 port_ifindex; /* PIPELINE: the port it comes in by; elsewhere: the
			     * source interface unless src_ifindex is set */
	__u32 options;      /* MOXLAB_INJ_* */
	__u32 set;          /* MOXLAB_SET_* */
	__u32 frame_len;    /* bytes at frame, 1 to MOXLAB_FRAME_MAX */
	__u64 frame;        /* user pointer to the bytes from the MAC header on */

	__u32 src_ifindex; /* header offset 4: that interface's block, or MOXLAB_NO_BLOCK */
	__u32 dst_ifindex; /* 8: the same */
#define MOXLAB_WORD_ROW(field, ...) __u32 field;
#define MOXLAB_HALF_ROW(field, ...) __u16 field;
#define MOXLAB_BYTE_ROW(field, ...) __u8 field;
	MOXLAB_WORDS(MOXLAB_WORD_ROW)
	MOXLAB_HALVES(MOXLAB_HALF_ROW)
	MOXLAB_BYTES(MOXLAB_BYTE_ROW)
	__u8 reserved[6];               /* 0 */
	__u64 function;                 /* INJ_CALL: a function of mox_ef_socket's */
	char symbol[MOXLAB_SYMBOL_LEN]; /* not empty: only the function of that
					 * name, "mox_packet_local_rcv" */
	__u8 header[MOXLAB_HEADER_LEN]; /* MOXLAB_SET_HEADER; the pointers at 4
					 * and 8 are the platform's all the same */

	/* out, about the last frame */
	__u32 outcome;                 /* enum moxlab_outcome */
	__u32 answer;                  /* raw answer of the last function that ran; for SEND
			     * the outcome number of efmp_output_pkt() */
	__u32 hooks_run;               /* functions that ran */
	__u32 decided_at;              /* the point that took or freed it, else PIPELINE */
	__u32 answers[MOXLAB_ANSWERS]; /* of the first functions, in order */
	__u32 ran_on_cpu;
	__u32 left_ports;                   /* ports it left by */
	__u32 buffer_seq;                   /* sequence number of its efbuff */
	__u32 header_valid;                 /* header_out holds it as the hooks left it. A taken
			     * buffer that was freed long ago is out of reach: 0 */
	__u8 header_out[MOXLAB_HEADER_LEN]; /* see "Headers handed out" */

	/* out, about all frames */
	__u32 outcomes[MOXLAB_OUT_COUNT]; /* how many ended in each outcome */
};

/* ------------------------------------------------------------------------
 * PORT: network devices as bridge ports. Each gets an interface control block.
 */
#define MOXLAB_PORT_WLAN \
	0x1u                  /* a WLAN interface: its frames pass WLAN_IN and
			       * carry the three ids below */
#define MOXLAB_PORT_HOST 0x2u /* out only: the platform's own "ap0" */

struct moxlab_port {
	__u32 ifindex; /* of the network device; 0: look for name. Out: its index */
	__u32 flags;   /* MOXLAB_PORT_WLAN */
	char name[MOXLAB_NAME_LEN];
	__u16 wlan_id;
	__u16 ap_wlan_id;
	__u8 radio_id;
	__u8 reserved[3];
};

/* ------------------------------------------------------------------------
 * INTF: interface control blocks without a network device behind them (and
 * changes to those that have one, until its next own change)
 */
#define MOXLAB_INTF_SET_MAC 0x1u
#define MOXLAB_INTF_SET_LINK 0x2u
#define MOXLAB_INTF_SET_NAME 0x4u
#define MOXLAB_INTF_SET_WLAN 0x8u

struct moxlab_intf {
	__u32 ifindex; /* 0 is allowed and means index 0 */
	__u32 set;     /* MOXLAB_INTF_SET_*; a new block starts with a zero MAC,
			* link up, the name "if<index>" and no WLAN */
	__u32 link;    /* 1 up, 0 down */
	__u32 wlan;    /* 1: a WLAN interface */
	__u8 mac[6];
	__u8 reserved[2];
	char name[MOXLAB_NAME_LEN];
};

/* ------------------------------------------------------------------------
 * FAIL: make platform calls fail
 */
#define MOXLAB_FAIL_ROW(id, name) MOXLAB_FAIL_##id,
enum moxlab_fail_call { MOXLAB_FAIL_CALLS(MOXLAB_FAIL_ROW) MOXLAB_FAIL_COUNT };

#define MOXLAB_FOREVER 0xffffffffu

struct moxlab_fail {
	__u32 call;  /* enum moxlab_fail_call */
	__u32 skip;  /* let so many calls pass first */
	__u32 count; /* then fail so many; 0 cancels, MOXLAB_FOREVER until cancelled */
	__s32 value; /* what a failing registration returns */
	__u32 hit;   /* out: calls failed since the previous FAIL for this call */
	__u32 left;  /* out: failures still to come of the previous FAIL */
};

/* The next sends end so, whatever the platform would have said. */
struct moxlab_outcome_override {
	__u32 count;   /* 0 cancels, MOXLAB_FOREVER until cancelled */
	__s32 outcome; /* what efmp_output_pkt() returns */
	__u32 send;    /* 1: send the frame all the same; 0: only free it */
	__u32 reserved;
};

/* ------------------------------------------------------------------------
 * SERVICE: what efmp_get_service() finds, and the events about it
 */
#define MOXLAB_SERVICE_ROW(id, name) MOXLAB_SERVICE_##id,
enum moxlab_service_op { MOXLAB_SERVICE_OPS(MOXLAB_SERVICE_ROW) };

/*
 * PUBLISH and WITHDRAW return when the change handlers and every hook that ran
 * meanwhile have returned. Calling a drop service after that is misuse. A sender in process context may still
 * call the local MAC service that it found before; that is only counted.
 */
#define MOXLAB_SERVICE_ENTRIES 2 /* entry points that each service has */

struct moxlab_service {
	__u32 op;            /* enum moxlab_service_op */
	__u32 service_class; /* 11 or 32; EVENT: anything */
	__u32 instance;      /* 10 with 11, 0 or 3 with 32; EVENT: anything */
	__u32 event;         /* EVENT: the event number */
	__s32 result;        /* PUBLISH, SET: what the entry point's calls return */
	__u8 mac[6];         /* 11/10, PUBLISH, SET: the MAC; zero: that of "ap0" */
	__u8 published;      /* out: 1 while it is known */
	__u8 entry;          /* which entry point is meant, 0 or 1. WITHDRAW: for
			      * calls below only */
	__u32 calls;         /* out: how often that entry point was called */
	__u32 handlers;      /* out: registered change handlers */
	__u32 late;          /* out: calls of either one after it was withdrawn */
	__u32 unit;          /* out: unit of the last call for the local MAC */
};

/* ------------------------------------------------------------------------
 * READ and CLEAR: records that the platform keeps. Reading never clears.
 */
enum moxlab_what {
	MOXLAB_LEFT = 0,   /* struct moxlab_left_rec; ring, oldest lost first */
	MOXLAB_REGLOG = 1, /* struct moxlab_reglog_rec; ring */
	MOXLAB_PRINTK = 2, /* struct moxlab_printk_rec; ring */
	MOXLAB_REGS = 3,   /* struct moxlab_reg_rec; registered now; no CLEAR */
	MOXLAB_LIVE = 4,   /* struct moxlab_live_rec; efbuffs now; no CLEAR */
	MOXLAB_PORTS = 5,  /* struct moxlab_port_rec; ports now; CLEAR zeroes
			    * their counters */
	MOXLAB_INTFS = 6,  /* struct moxlab_intf_rec; blocks now; no CLEAR */
	MOXLAB_WHAT_COUNT = 7,
};

struct moxlab_read {
	__u32 what;  /* enum moxlab_what */
	__u32 size;  /* room at buf in bytes */
	__u64 buf;   /* user pointer */
	__u64 from;  /* first record number wanted, 0: the oldest. For more,
			* give back next */
	__u64 next;  /* out */
	__u64 lost;  /* out: records overwritten since the last CLEAR */
	__u32 used;  /* out: bytes filled */
	__u32 count; /* out: records filled; 0: there are no more */
};

/* Heads every record; size includes it and is a multiple of 8. */
struct moxlab_rec {
	__u32 size;
	__u32 cpu;     /* CPU that wrote it */
	__u64 seq;     /* record number, from 1 */
	__u64 time_ns; /* monotonic clock */
};

struct moxlab_left_rec {
	struct moxlab_rec rec;
	__u32 ifindex; /* the port; 0 when it left by none */
	__u32 outcome; /* enum moxlab_outcome: LEFT, NOWHERE */
	__u32 sent;    /* 1: came by efmp_output_pkt(); 0: by the pipeline */
	__u32 length;  /* of the frame */
	__u32 kept;    /* bytes of it that follow */
	__u32 reserved;
	__u8 header[MOXLAB_HEADER_ALL]; /* see "Headers handed out" */
	__u8 frame[];                   /* as in the efbuff: VLAN tags are in the header */
};

/* The most that a record of the printk ring and of the left ring keeps. */
#define MOXLAB_PRINTK_KEPT 480
#define MOXLAB_LEFT_KEPT 1792

struct moxlab_printk_rec {
	struct moxlab_rec rec;
	__u32 level;  /* 0 to 7, or 0xffffffff when the call gave none */
	__u32 length; /* of the text as formatted, level marker left out */
	__u32 kept;   /* bytes of it that follow */
	__u32 reserved;
	char text[]; /* verbatim: newlines as they were; NUL follows */
};

#define MOXLAB_REG_ROW(id, name) MOXLAB_##id,
enum moxlab_reg_call { MOXLAB_REG_CALLS(MOXLAB_REG_ROW) };

struct moxlab_reglog_rec {
	struct moxlab_rec rec;
	__u32 call;    /* enum moxlab_reg_call */
	__s32 result;  /* what the call returned */
	__u32 changed; /* 1: it changed what is registered; 0: was so already,
			* or failed */
	__u32 point;   /* second argument; for a module record its byte 12 */
	__u32 word0;   /* module records: the descriptor's other fields */
	__u32 word8;
	__u32 byte13;
	__u32 half14;
	char symbol[MOXLAB_SYMBOL_LEN]; /* the function, without its module */
};

struct moxlab_reg_rec {
	struct moxlab_rec rec;
	__u32 call;  /* MOXLAB_REG_MODULE, _RECV, _OUTPUT or _SERV */
	__u32 point; /* as in the log */
	__u32 runs;  /* how often it was called since it was registered */
	__u32 reserved;
	char symbol[MOXLAB_SYMBOL_LEN];
};

struct moxlab_live_rec {
	struct moxlab_rec rec; /* seq: the buffer's sequence number; time: birth */
	__u32 owner;
	__u32 length;                    /* room for the frame */
	__u32 cloned;                    /* 1: a clone */
	__u32 offered;                   /* 1: in a hook just now */
	char creator[MOXLAB_SYMBOL_LEN]; /* who asked for it */
};

struct moxlab_port_rec {
	struct moxlab_rec rec;
	struct moxlab_port port;
	__u64 rx;      /* frames that came in */
	__u64 tx;      /* frames that left */
	__u64 tx_drop; /* frames that the device did not take */
};

struct moxlab_intf_rec {
	struct moxlab_rec rec;
	struct moxlab_intf intf;
	__u32 known; /* 1: lsm_get_intfcb() finds it; 0: removed, still valid */
	__u32 reserved;
};

struct moxlab_clear {
	__u32 what;   /* enum moxlab_what */
	__u32 enable; /* LEFT only: 1 starts recording, 0 stops it */
};

/* ------------------------------------------------------------------------
 * BALANCE: efbuffs by owner. live = allocated + cloned + adopted - given - freed
 */
struct moxlab_balance {
	__u32 owner; /* in: an owner id, 0 to 255 */
	__u32 live;
	__u64 allocated;
	__u64 cloned;
	__u64 adopted; /* became the owner's: taken from a hook, handed to output */
	__u64 given;   /* became another's */
	__u64 freed;
	__u64 failed;   /* asked for and not given, for whatever reason */
	__u32 live_all; /* of all owners */
	__u32 reserved;
};

/* ------------------------------------------------------------------------
 * MISUSE: breaches of the efbuff rules. Each is a kernel warning, but for the
 * number announced with expect, which are counted and printed at info level.
 */
#define MOXLAB_MISUSE_ROW(id, name, text) MOXLAB_MISUSE_##id,
enum moxlab_misuse_kind { MOXLAB_MISUSE_KINDS(MOXLAB_MISUSE_ROW) MOXLAB_MISUSE_COUNT };

struct moxlab_misuse {
	__u32 expect; /* in: announce so many; replaces what was left of before */
	__u32 commit; /* in: MOXLAB_MISUSE_* + 1: commit it on purpose (for the
			  * platform's own test), 0: nothing. LEAK allocates a
			  * buffer of the module's and forgets it; committing
			  * LEAK again frees it first */
	__u32 query;  /* in: 1: leave expect as it is */
	__u32 left;   /* out: announced and not seen */
	__u32 seen[MOXLAB_MISUSE_COUNT]; /* out: since load, announced or not */
	__u32 unexpected;                /* out: not announced, since load */
	__u32 reserved;
};

/* ------------------------------------------------------------------------
 * STATS: since load or since CLEAR_STATS
 */
struct moxlab_stats {
#define MOXLAB_COUNTER_ROW(id, field, name) __u64 field;
	MOXLAB_COUNTERS(MOXLAB_COUNTER_ROW)
	__u64 point_frames[MOXLAB_POINT_COUNT]; /* frames offered at each point that
						 * had a function registered */
	__u64 point_taken[MOXLAB_POINT_COUNT];
	__u32 fdb_entries; /* MAC addresses learned */
	__u32 cpus;        /* online CPUs */
};

/* ------------------------------------------------------------------------
 * SETTINGS
 */
#define MOXLAB_TAG_ROW(id, name) MOXLAB_TAG_##id,
enum moxlab_tag_mode { MOXLAB_TAG_MODES(MOXLAB_TAG_ROW) };

struct moxlab_settings {
	__u32 set;         /* in: 1: take over what follows; 0: only read */
	__u32 abi;         /* out: MOXLAB_ABI */
	__u32 tag_mode;    /* enum moxlab_tag_mode */
	__u32 redzone;     /* guard bytes behind each new buffer, 0 to 256. Default
			    * 32; 0 under KASAN, whose own guard starts at once */
	__u32 quarantine;  /* freed buffers remembered, 1 to 4096 */
	__u32 hold_memory; /* 1: they keep their memory, poisoned; 0: only their
			    * address. Default 1; 0 under KASAN, which watches
			    * freed memory itself */
	__u32 printk_echo; /* 1: mox_printk() lines also go to the kernel log */
	__u32 reserved;
};

/* ------------------------------------------------------------------------
 * MEMORY: globals of mox_ef_socket and of efmp, by the address that
 * /proc/kallsyms gives; ENOENT for any other. efmp has two drop services that a
 * test may put into the module's pointers: moxlab_rnfp and moxlab_rnfp_wlan,
 * returning moxlab_rnfp_result[] and counting moxlab_rnfp_calls[].
 */
struct moxlab_memory {
	__u64 address;
	__u32 length; /* 1 to 64 */
	__u32 write;  /* 1: bytes go there; 0: they come from there */
	__u8 bytes[64];
};

/* ------------------------------------------------------------------------
 * BENCH: batches of sends or receipts of one socket, without the system call
 * around each, and of what the platform does in a send. The socket's own errno
 * when one fails. RECEIVE takes frames of frame_len bytes, which are queued
 * already, into the user's buffer at frame.
 */
enum moxlab_bench_part {
	MOXLAB_BENCH_SEND = 0,     /* the whole of the socket's sendmsg */
	MOXLAB_BENCH_PLATFORM = 1, /* the platform calls of such a send */
	MOXLAB_BENCH_NOTHING = 2,  /* the loop around each */
	MOXLAB_BENCH_RECEIVE = 3,  /* the whole of the socket's recvmsg */
	MOXLAB_BENCH_COUNT = 4,
};

#define MOXLAB_BENCH_CONTROL 48 /* bytes of the send control record, all zero */

struct moxlab_bench {
	__s32 fd;          /* a socket of family 17 */
	__u32 part;        /* enum moxlab_bench_part */
	__u32 count;       /* calls in a batch, 1 to 100000 */
	__u32 batches;     /* 1 to 100000 */
	__u64 frame;       /* user pointer to the data */
	__u32 frame_len;   /* 14 to MOXLAB_FRAME_MAX */
	__u32 dst_ifindex; /* in the name */
	__u32 controlled;  /* 1: with a control record */
	__u32 reserved;
	__u64 shortest_ns; /* out: the shortest batch */
	__u64 total_ns;    /* out: all of them */
};

/* ------------------------------------------------------------------------
 * MEASURE: one batch of received frames, timed around the call of the registered
 * function itself, with bottom halves disabled. On one CPU only: the machine has
 * no other, or the caller is pinned to one (else EBUSY). A caller that measures
 * wanted frames on a machine with more CPUs pins the copy thread to its own first,
 * and keeps other frames away from the module meanwhile.
 *
 * The efbuffs are made before the clock starts. While the batch is in the hook
 * and on its way through the copy thread, the stand-in's clone function hands
 * out clones that were made before, and its free function only notes what it
 * gets: CLONE and FREE measure those two, for the caller to take off. EAGAIN
 * when what the module took did not come back within a minute.
 */
enum moxlab_measure_what {
	MOXLAB_MEASURE_HOOK = 0,  /* the first function at the point, then delivery */
	MOXLAB_MEASURE_EMPTY = 1, /* the same loop around a function that does nothing */
	MOXLAB_MEASURE_CLONE = 2, /* the clone function as HOOK has it */
	MOXLAB_MEASURE_FREE = 3,  /* the free function as HOOK has it */
	MOXLAB_MEASURE_STACK = 4, /* netif_receive_skb() of the frame on a device */
	MOXLAB_MEASURE_COUNT = 5,
};

#define MOXLAB_MEASURE_MAX 1024 /* frames of a batch */

struct moxlab_measure {
	__u32 what;        /* enum moxlab_measure_what */
	__u32 point;       /* HOOK: enum moxlab_point, one with a function */
	__u32 count;       /* frames, 2 to MOXLAB_MEASURE_MAX */
	__u32 draining;    /* HOOK: 1: the calls come while the copy thread delivers a
			    * frame sent ahead of the batch, so that none wakes it */
	__u64 frame;       /* user pointer to the frame, which is the same each time */
	__u32 frame_len;   /* 14 to MOXLAB_FRAME_MAX */
	__u32 src_ifindex; /* the interface block's; STACK: the network device's */
	__u32 answer;      /* out: HOOK: of the last call */
	__u32 queued;      /* out: HOOK: efbuffs taken or cloned by the batch */
	__u64 first_ns;    /* out: the first call, which may wake the copy thread */
	__u64 rest_ns;     /* out: the others, count - 1 */
	__u64 deliver_ns;  /* out: from the copy thread's first free of the batch to
			    * its last: queued - 1 deliveries */
};

/* ------------------------------------------------------------------------
 * LATENCY: a timer interrupt every period_ns raises a tasklet, unless the last
 * one is still waiting. How long it waits is how long bottom halves were off.
 */
enum moxlab_latency_op {
	MOXLAB_LATENCY_START = 0, /* forgets what was measured before */
	MOXLAB_LATENCY_READ = 1,
	MOXLAB_LATENCY_STOP = 2,
};

struct moxlab_latency {
	__u32 op;         /* enum moxlab_latency_op */
	__u32 period_ns;  /* START: 10000 to 1000000000 */
	__u64 longest_ns; /* out: the longest wait between the raise and the run */
	__u64 longest_at; /* out: when that wait ended, monotonic clock */
	__u64 runs;       /* out: of the tasklet */
	char symbol[128]; /* out: the function that the last interrupt of the
			    * longest wait came into */
};

#define MOXLAB_IOC 0xB7

#define MOXLAB_INJECT _IOWR(MOXLAB_IOC, 1, struct moxlab_inject)
#define MOXLAB_PORT_ADD _IOWR(MOXLAB_IOC, 2, struct moxlab_port)
#define MOXLAB_PORT_DEL _IOWR(MOXLAB_IOC, 3, struct moxlab_port)
#define MOXLAB_INTF_SET _IOW(MOXLAB_IOC, 4, struct moxlab_intf)
#define MOXLAB_INTF_DEL _IOW(MOXLAB_IOC, 5, struct moxlab_intf)
#define MOXLAB_FAIL _IOWR(MOXLAB_IOC, 6, struct moxlab_fail)
#define MOXLAB_OUTCOME _IOW(MOXLAB_IOC, 7, struct moxlab_outcome_override)
#define MOXLAB_SERVICE _IOWR(MOXLAB_IOC, 8, struct moxlab_service)
#define MOXLAB_READ _IOWR(MOXLAB_IOC, 9, struct moxlab_read)
#define MOXLAB_CLEAR _IOW(MOXLAB_IOC, 10, struct moxlab_clear)
#define MOXLAB_BALANCE _IOWR(MOXLAB_IOC, 11, struct moxlab_balance)
#define MOXLAB_MISUSE _IOWR(MOXLAB_IOC, 12, struct moxlab_misuse)
#define MOXLAB_STATS _IOR(MOXLAB_IOC, 13, struct moxlab_stats)
#define MOXLAB_CLEAR_STATS _IO(MOXLAB_IOC, 14)
#define MOXLAB_SETTINGS _IOWR(MOXLAB_IOC, 15, struct moxlab_settings)
/* Returns when every hook that ran at the time of the call has come back. */
#define MOXLAB_SYNC _IO(MOXLAB_IOC, 16)
/* Forgets every learned MAC address. */
#define MOXLAB_FDB_FLUSH _IO(MOXLAB_IOC, 17)
#define MOXLAB_MEMORY _IOWR(MOXLAB_IOC, 18, struct moxlab_memory)
#define MOXLAB_BENCH _IOWR(MOXLAB_IOC, 19, struct moxlab_bench)
#define MOXLAB_MEASURE _IOWR(MOXLAB_IOC, 20, struct moxlab_measure)
#define MOXLAB_LATENCY _IOWR(MOXLAB_IOC, 21, struct moxlab_latency)

#endif /* MOXLAB_H */
