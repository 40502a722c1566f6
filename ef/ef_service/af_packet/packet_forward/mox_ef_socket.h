/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The module's shared records: the packet socket, the rule records and the
 * copy thread's state, for the C seam and for the C++ units alike.
 *
 * Locking: docs/locking.md of the source tree.
 */
#ifndef MOX_EF_SOCKET_H
#define MOX_EF_SOCKET_H

#include "mox_capture.h"
#include "seam/seam_types.h"

struct mox_packet_sock;

/** A counter that nothing clears: 63 bits, in two words (base/total.hpp). */
struct mox_total {
	u32 low;
	u32 high;
} __attribute__((aligned(8)));

/** Bytes of a rule value. */
#define REGULAR_VALUE_SIZE 8

struct filter_list_data;
struct packet_regular;
struct regular_data;

/** A place in a list: a smaller one is nearer to the head. Compared by high, then by low. */
struct rule_place {
	u64 high;
	u64 low;
};

/** A link of a rule or a match copy in a bucket of an index (rules/index.hpp). */
struct rule_anchor {
	struct rule_anchor *next; /* null at the end */
	struct rule_anchor *prev; /* of the first: the last; null while in no bucket */
	u32 hash;                 /* of what follows */
	u32 spot;                 /* view and slot: number in rule_index::anchors */
	u32 low;                  /* the value that it is anchored under */
	u32 high;
	struct packet_regular *rule;
};

/** Links in a tree of values (base/tree.hpp). */
struct value_links {
	struct regular_data *left;
	struct regular_data *right;
};

/** The conditions of one value of a rule or copy, but for the anchored one (rules/digest.hpp). */
struct rule_digest {
	u32 types;    /* a bit for each type */
	u32 sum;      /* of the hashes of the values */
	u32 excluded; /* the attribute, if types says that there is one */
	u32 only;     /* the type of the only condition, or what else there is (rules/digest.hpp) */
	u32 low;      /* the value of the only condition */
	u32 high;
};

/** A capture rule: a socket's own, or a match copy filed in a library. */
struct packet_regular {
	struct mox_packet_sock *owner;
	u32 treatment;             /* enum mox_packet_treatment */
	u32 location;              /* enum mox_packet_location, or any value a user set */
	struct list_head items;    /* of regular_item */
	struct list_head lib_node; /* own: in the library's regulars; copy: in a match list */
	/* What follows belongs to the index and means nothing outside a library. */
	struct filter_list_data *entry; /* copy: the key it is filed under */
	union {
		struct packet_regular *filed;     /* own: the copy for an item without data */
		struct packet_regular **filed_at; /* copy: where its rule points at it */
	};
	/* The condition that is anchored: by its values, or as a class of frames by anchor. */
	struct regular_item *anchored; /* null: a copy's key, or none */
	struct rule_digest digest;
	struct rule_anchor anchor;
	struct rule_place place; /* in the list of lib_node */
};

/** All match values of one type inside a rule. */
struct regular_item {
	struct list_head node;
	u32 type;                  /* enum mox_packet_rule_type */
	u32 count;                 /* of its data */
	struct list_head datas;    /* of regular_data, in the order of their arrival */
	struct regular_data *root; /* of the tree of the same data, by value */
	struct list_head lib_node; /* in the library's items of this type */
	struct mox_total hits;     /* of an item without data: rules/hits.hpp */
};

/** One match value; the type decides how many of the bytes count. */
struct regular_data {
	struct list_head node;
	u32 type;
	unsigned char value[REGULAR_VALUE_SIZE];
	u32 priority;            /* in every tree that it is in */
	struct value_links item; /* in its item's tree */
	struct value_links lib;  /* in its library's tree, if it stands for its equals there */
	struct list_head equals; /* ring of the equal data of the library */
	struct filter_list_data
		*entry;               /* of a datum that stands for its equals: the key, or null */
	struct packet_regular *filed; /* the copy that is filed under this value, or null */
	struct rule_anchor anchor;
	struct mox_total hits; /* rules/hits.hpp */
};

/** One distinct key of a library, with the rules filed under it. */
struct filter_list_data {
	struct list_head node;
	struct list_head match_list;       /* trap, then fetch, then copy */
	struct list_head local_match_list; /* fetch-local, then copy-local */
	u32 type;
	unsigned char value[REGULAR_VALUE_SIZE];
	struct packet_regular *last_trap; /* the last trap of match_list, or null */
	u32 nameless;                     /* 1: the type has values, the key has none */
	u64 place;                        /* among the entries of its type */
};

/*
 * The index of a library. A view is a location that the library serves: its own,
 * and for the reserved multicast one also the two reserved interfaces. A slot is
 * a rule type, or a class of frames for rules without a value to look up.
 */
#define RULE_VIEWS 3
#define RULE_SLOTS 26
#define RULE_FILTER_BUCKETS 1024
#define RULE_DELIVERY_BUCKETS 512

/** What a set of buckets holds. */
struct rule_index {
	u32 present[RULE_VIEWS]; /* a bit for each slot that has anchors */
	u32 reserved_views;      /* present of the views but the first, or-ed */
	u32 anchors[RULE_VIEWS * RULE_SLOTS];
};

/** Where a report on a library goes on: the links of the next rule, key and copy. */
enum lib_reading { LIB_READS_RULE, LIB_READS_KEY, LIB_READS_COPY, LIB_READINGS };

struct lib_report {
	struct list_head *next[LIB_READINGS];
	u32 moved; /* a bit for each whose record has left its list */
};

/** Reports at the same time: to the log, and to the dump file. */
#define LIB_REPORTS 2

/**
 * The rules of one location group. change_lock is held while rules enter or leave
 * and while frames are delivered; under it, lock is taken for the moments in which
 * what hooks read changes.
 */
struct packet_regular_lib {
	seam_rwlock lock;
	u32 regular_count; /* read without a lock */
	struct list_head regulars
		SEAM_GUARDED_BY(change_lock); /* the sockets' own, in treatment order */
	u32 filter_count SEAM_GUARDED_BY(change_lock);
	struct list_head filter_list SEAM_GUARDED_BY(change_lock); /* by type, new after equals */

	seam_mutex change_lock;
	/* For hooks: match copies. present and the heads are also read without a lock. */
	struct rule_index filter;
	struct rule_anchor *filter_buckets[RULE_FILTER_BUCKETS];
	/* For delivery: rules. */
	struct rule_index delivery;
	struct rule_anchor *delivery_buckets[RULE_DELIVERY_BUCKETS];
	/* By type: the last entry, the values of indexed rules, their items. */
	struct filter_list_data *last_entry[MOX_PACKET_RULE_TYPES] SEAM_GUARDED_BY(change_lock);
	struct regular_data *values[MOX_PACKET_RULE_TYPES] SEAM_GUARDED_BY(change_lock);
	struct list_head items[MOX_PACKET_RULE_TYPES] SEAM_GUARDED_BY(change_lock);
	/* Entries of a type with values that have none: the search by value does not find them. */
	u32 nameless SEAM_GUARDED_BY(change_lock);
	/* What leaves a list moves the reports that are at it. */
	struct lib_report reports[LIB_REPORTS] SEAM_GUARDED_BY(change_lock);
	u64 entries_made SEAM_GUARDED_BY(change_lock);
	u64 rules_entered SEAM_GUARDED_BY(change_lock);
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

/** The socket's ledger: by attribute of mox_capture's set of counters, less 1. */
#define MOX_CAPTURE_COUNTER_ONE(...) +1
#define MOX_SOCKET_TOTALS (0 MOX_CAPTURE_COUNTERS_TABLE(MOX_CAPTURE_COUNTER_ONE))

struct socket_ledger {
	struct mox_total totals[MOX_SOCKET_TOTALS];
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
	u32 rule_bytes; /* charged for the rule: rules/budget.hpp; written under the socket lock */
	u32 rule_work;  /* the same */
	u8 dgram;       /* 1: of type SOCK_DGRAM */
	u8 stamped;     /* 1: gets times of arrival (socket/stamps.hpp) */
	struct list_head registered; /* with all sockets: socket/registry.hpp */
	u64 serial;                  /* in the order of their opening */
	struct socket_ledger ledger;
};

/** A CPU's queue of efbuffs for one location. */
struct efbuff_queue {
	void *head SEAM_GUARDED_BY(lock);
	u32 *tail SEAM_GUARDED_BY(lock); /* link word of the last efbuff */
	u32 count SEAM_GUARDED_BY(lock);
	u32 passed SEAM_GUARDED_BY(lock); /* efbuffs that were taken off */
	seam_spinlock lock;
};

/** Slots of g_cpu_pkt_que and queues of a slot. */
#define CPU_QUEUE_SLOTS 64
#define CPU_QUEUES 8

/** What hooks did with the frames of a location on one CPU: written there, bottom halves off. */
struct hook_ledger {
	struct mox_total seen;
	struct mox_total wanted;
	struct mox_total cloned;
	struct mox_total taken;
	struct mox_total clone_failed;
	struct mox_total copies_refused;
	struct mox_total takes_refused;
	struct mox_total rnfp_drops;
	struct mox_total rnfp_wlan_drops;
};

/** What became of a queue's frames: written by whoever took them off the queue. */
struct delivery_ledger {
	struct mox_total kept;
	struct mox_total unkept;
	struct mox_total unmatched;
	struct mox_total freed;
	struct mox_total offers;
};

/** What a hook finds of its CPU, and the ledgers of the CPU, by queue number. */
struct hook_cpu {
	u32 cpu;
	u32 tracing;          /* 1: hooks follow frames (receive/tracer.hpp) */
	void *following;      /* what the running hook follows its frame with; null: it does not */
	unsigned long efbuff; /* the platform's current one, with its tag: of the latest hook */
	u32 *arrivals;        /* rings of times, while they are needed (receive/arrivals.hpp) */
	struct hook_ledger hooks[CPU_QUEUES];
	struct delivery_ledger delivered[CPU_QUEUES] __attribute__((aligned(64)));
};

/** The copy thread's state. wake, running and pending are written without a lock. */
struct packet_thread_top {
	struct task_struct *task;
	seam_waitqueue wait_queue;
	u32 wake;
	u8 running;
	u8 pending[CPU_QUEUES]; /* in queue order */
};

#endif
