/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
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

#define MOXLAB_DEVICE "/dev/moxlab"
#define MOXLAB_ABI 2

/* Owner ids of efbuffs: the platform's own, and the capture module's. */
#define MOXLAB_OWNER_PLATFORM 0x01
#define MOXLAB_OWNER_MODULE 0x93

#define MOXLAB_NAME_LEN 32   /* interface names, NUL included */
#define MOXLAB_SYMBOL_LEN 64 /* function names, NUL included */
#define MOXLAB_HEADER_LEN 192 /* the part of an efbuff header that is public */
#define MOXLAB_HEADER_ALL 256 /* the whole of it: the rest is the platform's own */
#define MOXLAB_FRAME_MAX 65535

/* ------------------------------------------------------------------------
 * Points of the pipeline
 */
enum moxlab_point {
	MOXLAB_POINT_PIPELINE = 0, /* the whole road, from a port to leaving */
	MOXLAB_POINT_RESV = 1,     /* receive functions registered at 2 */
	MOXLAB_POINT_WLAN_IN = 2,  /* module records with byte 12 = 0x06 */
	MOXLAB_POINT_LEV2 = 3,     /* ... 0x00 */
	MOXLAB_POINT_IPV4 = 4,     /* ... 0x02 */
	MOXLAB_POINT_IPV6 = 5,     /* ... 0x04 */
	MOXLAB_POINT_OUTPUT = 6,   /* output functions registered at 1 */
	MOXLAB_POINT_SEND = 7,     /* efmp_output_pkt(), called as the module would */
	MOXLAB_POINT_COUNT = 8,
};

/*
 * Headers handed out: a copy of an efbuff's header, but kernel addresses are
 * nobody's business. The link word is 0; at 4 and 8 stand the interface indexes
 * of the two blocks, MOXLAB_NO_BLOCK for a null pointer.
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
#define MOXLAB_SET_KIND 0x00000001u
#define MOXLAB_SET_L2_LEN 0x00000002u
#define MOXLAB_SET_MAC_OFFSET 0x00000004u
#define MOXLAB_SET_NET_OFFSET 0x00000008u
#define MOXLAB_SET_FLAGS 0x00000010u
#define MOXLAB_SET_VLAN 0x00000020u
#define MOXLAB_SET_INNER_VLAN 0x00000040u
#define MOXLAB_SET_SRC 0x00000080u
#define MOXLAB_SET_DST 0x00000100u
#define MOXLAB_SET_WLAN_FLAGS 0x00000200u
#define MOXLAB_SET_SEND_FLAGS 0x00000400u
#define MOXLAB_SET_L2IFX 0x00000800u
#define MOXLAB_SET_ORIGIFX 0x00001000u
#define MOXLAB_SET_PROXY 0x00002000u
#define MOXLAB_SET_DST_L2IFX 0x00004000u
#define MOXLAB_SET_ATTR 0x00008000u
#define MOXLAB_SET_RADIO_ID 0x00010000u
#define MOXLAB_SET_WLAN_ID 0x00020000u
#define MOXLAB_SET_AP_WLAN_ID 0x00040000u
#define MOXLAB_SET_TOTAL_LEN 0x00080000u
#define MOXLAB_SET_WORD172 0x00100000u
#define MOXLAB_SET_CODE 0x00200000u
#define MOXLAB_SET_SUB_CODE 0x00400000u
#define MOXLAB_SET_HALF188 0x00800000u
#define MOXLAB_SET_REASON 0x01000000u
#define MOXLAB_SET_HEADER 0x80000000u

/* Bits of moxlab_inject.options. */
#define MOXLAB_INJ_TAG_CLEAR 0x1u /* per-CPU buffer word with bit 0 clear */
#define MOXLAB_INJ_TAG_SET 0x2u   /* ... set; neither: the platform alternates */
#define MOXLAB_INJ_HARD_SOFTIRQ 0x4u /* run inside a softirq proper, not merely
				      * with bottom halves disabled */
#define MOXLAB_INJ_CALL 0x8u      /* call the function at address function instead
				   * of what is registered at the point */

/* What became of an injected frame. */
enum moxlab_outcome {
	MOXLAB_OUT_NO_HOOK = 0, /* nothing is registered there; no code ran */
	MOXLAB_OUT_WENT_ON = 1, /* every function let it pass */
	MOXLAB_OUT_FREED = 2,   /* a function answered 1: the platform freed it */
	MOXLAB_OUT_TAKEN = 3,   /* the module owns it */
	MOXLAB_OUT_LEFT = 4,    /* PIPELINE, SEND: it left by at least one port */
	MOXLAB_OUT_NOWHERE = 5, /* PIPELINE, SEND: no port for it, or none took it */
	MOXLAB_OUT_NO_MEMORY = 6, /* no efbuff for it */
	MOXLAB_OUT_COUNT = 8,
};

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

	__u32 flags;        /* efbuff offset 32 */
	__u32 src_ifindex;  /* 4: that interface's block, or MOXLAB_NO_BLOCK */
	__u32 dst_ifindex;  /* 8: the same */
	__u32 wlan_flags;   /* 56 */
	__u32 send_flags;   /* 60 */
	__u32 l2ifx;        /* 64 */
	__u32 origifx;      /* 68 */
	__u32 dst_l2ifx;    /* 76 */
	__u32 attr;         /* 96 */
	__u32 total_len;    /* 164; at most MOXLAB_FRAME_MAX. Memory behind it is
			     * always readable, whatever frame_len says */
	__u32 word172;      /* 172 */
	__u16 l2_len;       /* 20 */
	__u16 mac_offset;   /* 22: 256 to 2048; the frame is put there */
	__u16 net_offset;   /* 24: 256 to 4096 */
	__u16 vlan;         /* 18: tag control, host order here */
	__u16 inner_vlan;   /* 16: the same */
	__u16 wlan_id;      /* 146 */
	__u16 ap_wlan_id;   /* 148 */
	__u16 half188;      /* 188 */
	__u8 kind;          /* 40 */
	__u8 reason;        /* 43 */
	__u8 proxy;         /* 72 */
	__u8 radio_id;      /* 144 */
	__u8 code;          /* 184 */
	__u8 sub_code;      /* 185 */
	__u8 reserved[6];   /* 0 */
	__u64 function;     /* INJ_CALL: a function of mox_ef_socket's */
	char symbol[MOXLAB_SYMBOL_LEN]; /* not empty: only the function of that
					 * name, "mox_packet_local_rcv" */
	__u8 header[MOXLAB_HEADER_LEN]; /* MOXLAB_SET_HEADER; the pointers at 4
					 * and 8 are the platform's all the same */

	/* out, about the last frame */
	__u32 outcome;      /* enum moxlab_outcome */
	__u32 answer;       /* raw answer of the last function that ran; for SEND
			     * the outcome number of efmp_output_pkt() */
	__u32 hooks_run;    /* functions that ran */
	__u32 decided_at;   /* the point that took or freed it, else PIPELINE */
	__u32 answers[MOXLAB_ANSWERS]; /* of the first functions, in order */
	__u32 ran_on_cpu;
	__u32 left_ports;   /* ports it left by */
	__u32 buffer_seq;   /* sequence number of its efbuff */
	__u32 header_valid; /* header_out holds it as the hooks left it. A taken
			     * buffer that was freed long ago is out of reach: 0 */
	__u8 header_out[MOXLAB_HEADER_LEN]; /* see "Headers handed out" */

	/* out, about all frames */
	__u32 outcomes[MOXLAB_OUT_COUNT]; /* how many ended in each outcome */
};

/* ------------------------------------------------------------------------
 * PORT: network devices as bridge ports. Each gets an interface control block.
 */
#define MOXLAB_PORT_WLAN 0x1u /* a WLAN interface: its frames pass WLAN_IN and
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
enum moxlab_fail_call {
	MOXLAB_FAIL_ALLOC = 0,      /* efmp_buff_alloc_sw_with_owner: null */
	MOXLAB_FAIL_CLONE = 1,      /* efmp_buff_clone_with_owner: null */
	MOXLAB_FAIL_REG_MODULE = 2, /* efmp_reg_module: value */
	MOXLAB_FAIL_REG_RECV = 3,   /* efmp_reg_recv_pkt_func: value */
	MOXLAB_FAIL_REG_OUTPUT = 4, /* efmp_reg_output_pkt_func: value */
	MOXLAB_FAIL_REG_SERV = 5,   /* efmp_reg_serv_change_handler: value */
	MOXLAB_FAIL_GET_SERVICE = 6, /* efmp_get_service: null */
	MOXLAB_FAIL_INTFCB = 7,     /* lsm_get_intfcb: null */
	MOXLAB_FAIL_COUNT = 8,
};

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
enum moxlab_service_op {
	MOXLAB_SERVICE_PUBLISH = 0,  /* make it known, or let its other entry point
				      * take over, then event 0 */
	MOXLAB_SERVICE_WITHDRAW = 1, /* make it unknown, then event 1 */
	MOXLAB_SERVICE_EVENT = 2,    /* only the event as given, state unchanged */
	MOXLAB_SERVICE_SET = 3,      /* only change what its calls return */
	MOXLAB_SERVICE_QUERY = 4,    /* only read it */
};

/*
 * PUBLISH and WITHDRAW return when the change handlers have been told and every
 * hook that ran meanwhile has come back. A drop service that is called once it
 * was withdrawn or replaced so is misuse. A sender in process context may still
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
	__u32 what;    /* enum moxlab_what */
	__u32 size;    /* room at buf in bytes */
	__u64 buf;     /* user pointer */
	__u64 from;    /* first record number wanted, 0: the oldest. For more,
			* give back next */
	__u64 next;    /* out */
	__u64 lost;    /* out: records overwritten since the last CLEAR */
	__u32 used;    /* out: bytes filled */
	__u32 count;   /* out: records filled; 0: there are no more */
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
	__u32 ifindex;   /* the port; 0 when it left by none */
	__u32 outcome;   /* enum moxlab_outcome: LEFT, NOWHERE */
	__u32 sent;      /* 1: came by efmp_output_pkt(); 0: by the pipeline */
	__u32 length;    /* of the frame */
	__u32 kept;      /* bytes of it that follow */
	__u32 reserved;
	__u8 header[MOXLAB_HEADER_ALL]; /* see "Headers handed out" */
	__u8 frame[];    /* as in the efbuff: VLAN tags are in the header */
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
	char text[];  /* verbatim: newlines as they were; NUL follows */
};

enum moxlab_reg_call {
	MOXLAB_REG_MODULE = 0,
	MOXLAB_DEREG_MODULE = 1,
	MOXLAB_REG_RECV = 2,
	MOXLAB_DEREG_RECV = 3,
	MOXLAB_REG_OUTPUT = 4,
	MOXLAB_DEREG_OUTPUT = 5,
	MOXLAB_REG_SERV = 6,
	MOXLAB_DEREG_SERV = 7,
};

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
	__u32 length; /* room for the frame */
	__u32 cloned; /* 1: a clone */
	__u32 offered; /* 1: in a hook just now */
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
	__u32 known;   /* 1: lsm_get_intfcb() finds it; 0: removed, still valid */
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
	__u32 owner;     /* in: an owner id, 0 to 255 */
	__u32 live;
	__u64 allocated;
	__u64 cloned;
	__u64 adopted;   /* became the owner's: taken from a hook, handed to output */
	__u64 given;     /* became another's */
	__u64 freed;
	__u64 failed;    /* asked for and not given, for whatever reason */
	__u32 live_all;  /* of all owners */
	__u32 reserved;
};

/* ------------------------------------------------------------------------
 * MISUSE: breaches of the efbuff rules. Each is a kernel warning, but for the
 * number announced with expect, which are counted and printed at info level.
 */
enum moxlab_misuse_kind {
	MOXLAB_MISUSE_DOUBLE_FREE = 0,
	MOXLAB_MISUSE_WRONG_OWNER = 1,   /* freed by another than its owner */
	MOXLAB_MISUSE_UNKNOWN = 2,       /* an address that is no efbuff */
	MOXLAB_MISUSE_OVERRUN = 3,       /* written past its end */
	MOXLAB_MISUSE_AFTER_FREE = 4,    /* written after it was freed */
	MOXLAB_MISUSE_LEAK = 5,          /* alive at unload */
	MOXLAB_MISUSE_NOT_TAKEN = 6,     /* a hook let it pass, yet had freed it */
	MOXLAB_MISUSE_BAD_ANSWER = 7,    /* a hook's answer without a meaning */
	MOXLAB_MISUSE_BAD_HEADER = 8,    /* sent with offsets outside the buffer */
	MOXLAB_MISUSE_CONTEXT = 9,       /* a hook came back with another preempt
					  * count than it was called with, or a
					  * process sent while it held a lock */
	MOXLAB_MISUSE_WITHDRAWN = 10,    /* a drop service was called after its
					  * withdrawal had returned */
	MOXLAB_MISUSE_COUNT = 11,
};

struct moxlab_misuse {
	__u32 expect;    /* in: announce so many; replaces what was left of before */
	__u32 commit;    /* in: MOXLAB_MISUSE_* + 1: commit it on purpose (for the
			  * platform's own test), 0: nothing. LEAK allocates a
			  * buffer of the module's and forgets it; committing
			  * LEAK again frees it first */
	__u32 query;     /* in: 1: leave expect as it is */
	__u32 left;      /* out: announced and not seen */
	__u32 seen[MOXLAB_MISUSE_COUNT]; /* out: since load, announced or not */
	__u32 unexpected; /* out: not announced, since load */
	__u32 reserved;
};

/* ------------------------------------------------------------------------
 * STATS: since load or since CLEAR_STATS
 */
struct moxlab_stats {
	__u64 seen;       /* frames that entered the pipeline by a port */
	__u64 injected;   /* frames injected, at whatever point */
	__u64 taken;      /* frames that hooks took */
	__u64 freed;      /* frames freed because a hook answered 1 */
	__u64 forwarded;  /* frames that left by their destination port */
	__u64 flooded;    /* frames that left by every other port */
	__u64 nowhere;    /* frames without a port to leave by */
	__u64 no_memory;  /* frames lost for want of an efbuff or skb */
	__u64 malformed;  /* frames too short or too long for the pipeline */
	__u64 sends;      /* calls of efmp_output_pkt() */
	__u64 point_frames[MOXLAB_POINT_COUNT]; /* frames offered at each point that
						 * had a function registered */
	__u64 point_taken[MOXLAB_POINT_COUNT];
	__u32 fdb_entries; /* MAC addresses learned */
	__u32 cpus;        /* online CPUs */
};

/* ------------------------------------------------------------------------
 * SETTINGS
 */
enum moxlab_tag_mode {
	MOXLAB_TAG_ALTERNATE = 0, /* bit 0 of the per-CPU word: every other frame */
	MOXLAB_TAG_NEVER = 1,
	MOXLAB_TAG_ALWAYS = 2,
};

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
 * BENCH: batches of sends of one socket, without the system call around each,
 * and of what the platform does in them. The socket's own errno when one fails.
 */
enum moxlab_bench_part {
	MOXLAB_BENCH_SEND = 0,     /* the whole of the socket's sendmsg */
	MOXLAB_BENCH_PLATFORM = 1, /* the platform calls of such a send */
	MOXLAB_BENCH_NOTHING = 2,  /* the loop around both */
	MOXLAB_BENCH_COUNT = 3,
};

#define MOXLAB_BENCH_CONTROL 48 /* bytes of the send control record, all zero */

struct moxlab_bench {
	__s32 fd;           /* a socket of family 17 */
	__u32 part;         /* enum moxlab_bench_part */
	__u32 count;        /* sends in a batch, 1 to 100000 */
	__u32 batches;      /* 1 to 100000 */
	__u64 frame;        /* user pointer to the data */
	__u32 frame_len;    /* 14 to MOXLAB_FRAME_MAX */
	__u32 dst_ifindex;  /* in the name */
	__u32 controlled;   /* 1: with a control record */
	__u32 reserved;
	__u64 shortest_ns;  /* out: the shortest batch */
	__u64 total_ns;     /* out: all of them */
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

#endif /* MOXLAB_H */
