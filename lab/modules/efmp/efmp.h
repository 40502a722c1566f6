/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * efmp.h - between the units of the stand-in forwarding platform.
 *
 * Locks, none of which is ever taken inside another but for the first:
 *
 *   rtnl               ports come and go (port.c); process context
 *   serv mutex         services and their handlers (serv.c); held while handlers
 *                      run, process context
 *   hook lock          writers of the hook lists (hooks.c); any context
 *   buffer lock        the efbuff accounts (buff.c); any context
 *   fdb lock           writers of the learned addresses (bridge.c); BH
 *   ring locks         one record each (../common/ring.h); any context
 *
 * Hooks, ports and learned addresses are read under rcu_read_lock() with bottom
 * halves disabled, and a hook runs inside that. On kernels before 4.20, where
 * the flavours of RCU still differ, synchronize_rcu() waits for exactly this
 * section: after deregistering a hook and synchronize_rcu(), no CPU is in that
 * hook. Deregistering itself does not wait.
 */
#ifndef EFMP_H
#define EFMP_H

#include <linux/atomic.h>
#include <linux/netdevice.h>
#include <linux/percpu.h>
#include <linux/skbuff.h>
#include <linux/types.h>
#include "../../control/moxlab.h"
#include "../common/failpoint.h"
#include "../common/ring.h"
#include "efbuff.h"

/* The numbers that receive and output functions are registered at. */
#define EFMP_RECV_POINT 2
#define EFMP_OUTPUT_POINT 1

/* ---- What other modules import ---------------------------------------- */

/* The efbuff that this CPU has in a hook; bit 0 is a tag of the platform's. */
DECLARE_PER_CPU(unsigned long, efmp_cpu_buffer_cache);

/* Registration: any context, also under a spin lock. 0 or a negative number. */
int efmp_reg_module(void *descriptor);
int efmp_dereg_module(void *descriptor);
int efmp_reg_recv_pkt_func(u32 (*func)(void), u32 point);
int efmp_dereg_recv_pkt_func(u32 (*func)(void), u32 point);
int efmp_reg_output_pkt_func(u32 (*func)(void), u32 point);
int efmp_dereg_output_pkt_func(u32 (*func)(void), u32 point);

/* Sends it; owns it from the call on. Process or softirq, no lock held. */
int efmp_output_pkt(void *efbuff);

/* Any context. Null when there is no memory for it. */
void *efmp_buff_alloc_sw_with_owner(u32 length, u32 owner);
void *efmp_buff_clone_with_owner(void *efbuff, u32 owner);
void efmp_buff_free_sw_with_owner(void *efbuff, u32 owner);

/* Process context. */
void *efmp_get_service(u32 service_class, u32 instance);
int efmp_reg_serv_change_handler(void (*handler)(u32 event, void *record));
int efmp_unreg_serv_change_handler(void (*handler)(u32 event, void *record));

/* ---- misuse.c ---------------------------------------------------------- */

/* Reports a breach: a kernel warning, or an info line when it was announced. */
__printf(2, 3) void efmp_misuse(enum moxlab_misuse_kind kind, const char *fmt, ...);
int efmp_misuse_verb(struct moxlab_misuse *m);

/* ---- buff.c: efbuffs and their accounts -------------------------------- */

int efmp_buff_init(void);
void efmp_buff_exit(void);

/*
 * A new efbuff of @owner: header zeroed but for the MAC offset, @mac_offset, and
 * @room bytes behind that, which hold no frame yet. *@seq numbers it for the
 * calls below. Any context; null when there is no memory.
 */
struct efbuff *efmp_buff_new(u32 mac_offset, u32 room, u32 owner, u32 *seq);

/* Frees the platform's own. */
void efmp_buff_free(struct efbuff *b);

/*
 * Around a hook: from offer on, the module may take the buffer and free it at
 * once on another CPU. settle() says how it ended; false when the buffer is not
 * the platform's any more.
 */
void efmp_buff_offer(struct efbuff *b, u32 seq);
bool efmp_buff_settle(struct efbuff *b, u32 seq, bool taken);

/*
 * The module handed @b over: it is the platform's now. Its sequence number and
 * its bytes behind the header's start; false when it is no live efbuff.
 */
bool efmp_buff_adopt(struct efbuff *b, u32 *seq, u32 *size);

/* The public header as it is, or was when it was freed. False: out of reach. */
bool efmp_buff_peek(struct efbuff *b, u32 seq, u8 *header);

void efmp_buff_balance(struct moxlab_balance *balance);
int efmp_buff_read_live(struct moxlab_read *read);
void efmp_buff_settings(struct moxlab_settings *s);
extern struct failpoint efmp_alloc_fail, efmp_clone_fail;

/* A clone that is accounted as usual, whatever stands in for the exported call. */
void *efmp_buff_clone(void *efbuff, u32 owner);

/* ---- hooks.c: registered functions ------------------------------------- */

int efmp_hooks_init(void);
void efmp_hooks_exit(void);

enum efmp_verdict { EFMP_GO_ON, EFMP_FREED, EFMP_TAKEN };

/* One frame's way past the hooks. */
struct efmp_run {
	struct efbuff *buf;
	u32 seq;
	/* Which functions are to run: all, or the nth, or those so named. */
	u32 nth;
	const char *symbol;
	u32 (*call)(void); /* not null: this one only, registered or not */
	u32 tag;           /* enum moxlab_tag_mode, for this frame */
	/* What came of it. */
	u32 hooks_run;
	u32 answer;
	u32 answers[MOXLAB_ANSWERS];
	u32 decided_at;
};

/*
 * Offers the frame to the functions at @point, a MOXLAB_POINT_*, in the order of
 * their registration until one takes it or has it freed. Inside rcu_read_lock()
 * with bottom halves disabled.
 */
enum efmp_verdict efmp_hooks_run(struct efmp_run *run, u32 point);

/* A registered function, and what kind of registration it has. */
struct efmp_hook_func {
	u32 (*func)(void);
	u32 call; /* MOXLAB_REG_MODULE, _RECV or _OUTPUT */
	char symbol[MOXLAB_SYMBOL_LEN];
};

/* The first function at @point; false when there is none. */
bool efmp_hooks_first(u32 point, struct efmp_hook_func *first);
/* What an answer of it means. */
enum efmp_verdict efmp_hooks_verdict(const struct efmp_hook_func *hook, u32 answer);

/*
 * Returns when every hook that may have read what the caller changed before has
 * come back. May sleep. A grace period would do as well, but takes a second
 * where all CPUs of a virtual machine are busy.
 */
void efmp_hooks_wait(void);

extern struct failpoint efmp_reg_module_fail, efmp_reg_recv_fail, efmp_reg_output_fail;
extern u32 efmp_tag_mode;
int efmp_hooks_read(struct moxlab_read *read);

/* The registration log, which serv.c writes, too. */
extern struct ring efmp_reglog;
void efmp_symbol(const void *func, char *symbol);
void efmp_reglog_add(const struct moxlab_reglog_rec *what, const void *func);

/* ---- bridge.c: learned addresses --------------------------------------- */

struct efmp_port;
void efmp_fdb_learn(const u8 *mac, struct efmp_port *port);
struct efmp_port *efmp_fdb_find(const u8 *mac);
void efmp_fdb_flush(const struct efmp_port *port); /* null: all */
u32 efmp_fdb_count(void);

/* ---- port.c, host.c: where frames come in and leave --------------------- */

struct efmp_port {
	struct list_head list;
	struct net_device *dev; /* a reference is held */
	void *intfcb;
	u32 flags; /* MOXLAB_PORT_* */
	u16 wlan_id;
	u16 ap_wlan_id;
	u8 radio_id;
	bool (*xmit)(struct efmp_port *port, struct sk_buff *skb);
	atomic64_t rx;
	atomic64_t tx;
	atomic64_t tx_drop;
};

extern struct list_head efmp_ports; /* RCU; changed under rtnl */

int efmp_ports_init(void);
void efmp_ports_exit(void);
int efmp_port_add(struct moxlab_port *p);
int efmp_port_del(struct moxlab_port *p);
int efmp_ports_read(struct moxlab_read *read);
void efmp_ports_clear(void);
/* Inside rcu_read_lock(). */
struct efmp_port *efmp_port_by_ifindex(u32 ifindex);
struct efmp_port *efmp_port_by_block(const void *intfcb);
/* Under rtnl. Publish and withdraw a port whose fields are filled. */
int efmp_port_attach(struct efmp_port *port, u32 flags);
void efmp_port_detach(struct efmp_port *port);
void efmp_port_update(struct efmp_port *port);

int efmp_host_init(void);
void efmp_host_exit(void);
const u8 *efmp_host_mac(void);
struct efmp_port *efmp_host_port(void);

/* ---- pipeline.c: the path of a frame ----------------------------------- */

/* Consumes @skb, which starts at its MAC header. Bottom halves disabled. */
void efmp_pipeline_skb(struct efmp_port *port, struct sk_buff *skb);

/*
 * Fills what the platform sets for a frame of @len bytes at the MAC offset that
 * came in by the interface of block @src.
 */
void efmp_fill(struct efbuff *b, u32 len, void *src, const struct efmp_port *port);

/* Takes up to two VLAN tags off the frame into the header. Before efmp_fill(). */
u32 efmp_take_tags(struct efbuff *b, u32 len);

struct efmp_path {
	struct efmp_run run;
	struct efmp_port *in; /* null: from no port */
	bool dst_fixed;       /* the destination block is set already */
	u32 left_ports;
};

/* The whole path; the platform does not own the buffer afterwards. Inside
 * rcu_read_lock() with bottom halves disabled. A MOXLAB_OUT_*. */
u32 efmp_pipeline(struct efmp_path *path);

/* As efmp_output_pkt(), telling more: a MOXLAB_OUT_* in *@outcome. */
int efmp_send(struct efbuff *b, struct efmp_path *path, u32 *outcome);

void efmp_send_override(const struct moxlab_outcome_override *o);

/* ---- left.c: the record of what left ------------------------------------ */

/* Makes a copied header fit to be handed out, see moxlab.h. */
void efmp_header_for_user(u8 *header);

int efmp_left_init(void);
void efmp_left_exit(void);
void efmp_left_add(struct efbuff *b, u32 ifindex, u32 outcome, bool sent);
void efmp_left_enable(bool on);
extern struct ring efmp_left;

/* ---- serv.c ------------------------------------------------------------- */

int efmp_serv_verb(struct moxlab_service *s);
int efmp_serv_call_late(void);
/* May sleep. The @n-th change handler, from 0; false when there is none. */
bool efmp_serv_nth_handler(u32 n, struct moxlab_reg_rec *rec);
extern struct failpoint efmp_reg_serv_fail, efmp_get_service_fail;

/* ---- stats.c ------------------------------------------------------------ */

#define EFMP_COUNT_ROW(id, field, name) EFMP_COUNT_##id,
enum efmp_stat { /* in the order of struct moxlab_stats */
		 MOXLAB_COUNTERS(EFMP_COUNT_ROW) EFMP_POINT_FRAMES,
		 EFMP_POINT_TAKEN = EFMP_POINT_FRAMES + MOXLAB_POINT_COUNT,
		 EFMP_STATS = EFMP_POINT_TAKEN + MOXLAB_POINT_COUNT,
};

void efmp_count(u32 stat);
void efmp_stats_read(struct moxlab_stats *s);
void efmp_stats_clear(void);

/* ---- memory.c: the globals of the capture module and of this one ---------- */

bool efmp_memory_allowed(u64 address);
int efmp_memory(struct moxlab_memory *m);

/* Tests find these by name, in /proc/kallsyms. */
extern int moxlab_rnfp_result[2];
extern u32 moxlab_rnfp_calls[2];
extern u8 moxlab_last_freed[MOXLAB_HEADER_LEN];
int moxlab_rnfp(void *efbuff);
int moxlab_rnfp_wlan(void *efbuff);

/* ---- bench.c -------------------------------------------------------------- */

int efmp_bench(struct moxlab_bench *bench);

/* ---- measure.c, measure_stack.c -------------------------------------------- */

/* While it is on, the exported clone and free functions do only what follows. */
extern bool efmp_stub_on;
void *efmp_stub_clone(void);
void efmp_stub_free(void *efbuff);

int efmp_measure(struct moxlab_measure *measure);
int efmp_measure_stack(struct moxlab_measure *measure, const u8 *frame);

/* ---- latency.c -------------------------------------------------------------- */

int efmp_latency(struct moxlab_latency *latency);
void efmp_latency_stop(void);

/* ---- inject.c, ctl.c ------------------------------------------------------ */

int efmp_inject(struct moxlab_inject *in);
int efmp_ctl_init(void);
void efmp_ctl_exit(void);

/*
 * Hands records of what is there now to user space, one by one. Begin with
 * zeroed out fields; 0, -EMSGSIZE (the first did not fit), -EFAULT, or 1 when
 * it is full: stop, all is well. May sleep.
 */
int efmp_read_put(struct moxlab_read *read, struct moxlab_rec *rec, u32 size);

#endif /* EFMP_H */
