/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The module's shared records: the packet socket, the rule records and the
 * copy thread's state, for the C seam and for the C++ units alike.
 *
 * Locking: docs/locking.md of the source tree.
 */
#ifndef MOX_EF_SOCKET_H
#define MOX_EF_SOCKET_H

#include "mox_packet_tables.h"
#include "seam/seam_types.h"

struct mox_packet_sock;

/** Bytes of a rule value. */
#define REGULAR_VALUE_SIZE 8

/** A capture rule: a socket's own, or a match copy filed in a library. */
struct packet_regular {
	struct mox_packet_sock *owner;
	u32 treatment;             /* enum mox_packet_treatment */
	u32 location;              /* enum mox_packet_location, or any value a user set */
	struct list_head items;    /* of regular_item */
	struct list_head lib_node; /* own: in the library's regulars; copy: in a match list */
};

/** All match values of one type inside a rule. */
struct regular_item {
	struct list_head node;
	u32 type;               /* enum mox_packet_rule_type */
	struct list_head datas; /* of regular_data */
};

/** One match value; the type decides how many of the bytes count. */
struct regular_data {
	struct list_head node;
	u32 type;
	unsigned char value[REGULAR_VALUE_SIZE];
};

/** One distinct key of a library, with the rules filed under it. */
struct filter_list_data {
	struct list_head node;
	struct list_head match_list;       /* trap, then fetch, then copy */
	struct list_head local_match_list; /* fetch-local, then copy-local */
	u32 type;
	unsigned char value[REGULAR_VALUE_SIZE];
};

/** The rules of one location group. */
struct packet_regular_lib {
	seam_rwlock lock;
	u32 regular_count SEAM_GUARDED_BY(lock);
	struct list_head regulars SEAM_GUARDED_BY(lock); /* the sockets' own, in treatment order */
	u32 filter_count SEAM_GUARDED_BY(lock);
	struct list_head filter_list SEAM_GUARDED_BY(lock); /* by type, new after equals */
};

/** Bits of mox_packet_sock::flags. */
enum mox_packet_sock_flags {
	PO_RUNNING = 0x1,   /* the rule is active; holds a reference on the socket */
	PO_AUXDATA = 0x2,   /* only ever read */
	PO_ORIGDEV = 0x4,   /* only ever read */
	PO_CTRL_INFO = 0x8, /* control records come with received frames */
};

/*
 * The counters. They are fields of the socket, and as one block what reading
 * PACKET_STATISTICS clears.
 */
#define MOX_PACKET_COUNTER_FIELD(field, label, line, meaning) u32 field;
#define MOX_PACKET_COUNTERS MOX_PACKET_COUNTER_TABLE(MOX_PACKET_COUNTER_FIELD)

struct mox_packet_counters {
	MOX_PACKET_COUNTERS
};

/** The packet socket. The kernel allocates it as one object with its sock. */
struct mox_packet_sock {
	seam_sock sk;
	union {
		struct mox_packet_counters counters;
		struct {
			MOX_PACKET_COUNTERS
		};
	};
	u32 vsd;
	s32 pid;
	char process[16];
	struct packet_regular regular;
	seam_spinlock bind_lock;
	seam_mutex pg_vec_lock;
	u8 flags; /* enum mox_packet_sock_flags */
	u32 ifindex;
	u16 protocol; /* network order */
	u32 reserved;
	seam_spinlock rule_lock;
};

/** A CPU's queue of efbuffs for one location. */
struct efbuff_queue {
	void *head SEAM_GUARDED_BY(lock);
	u32 *tail SEAM_GUARDED_BY(lock); /* link word of the last efbuff */
	u32 count SEAM_GUARDED_BY(lock);
	seam_spinlock lock;
};

/** Slots of g_cpu_pkt_que and queues of a slot. */
#define CPU_QUEUE_SLOTS 64
#define CPU_QUEUES 8

/** The copy thread's state. wake, running and pending are written without a lock. */
struct packet_thread_top {
	struct task_struct *task;
	seam_waitqueue wait_queue;
	u32 wake;
	u8 running;
	u8 pending[CPU_QUEUES]; /* in queue order */
};

#endif
