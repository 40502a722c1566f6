// SPDX-License-Identifier: GPL-2.0-only
/*
 * hooks.c - the functions that other modules register, and running them.
 *
 * A function may be registered and deregistered under the caller's spin lock, so
 * nothing here sleeps or waits: entries come from a pool, leave their list at
 * once, and return to the pool after a grace period.
 */
#include <linux/delay.h>
#include <linux/module.h>
#include <linux/preempt.h>
#include <linux/rculist.h>
#include <linux/slab.h>
#include "efmp.h"

#define POOL 32
#define ELSEWHERE 0 /* list of what is registered at points that no frame passes */

struct hook {
	struct list_head node; /* in its point's list, or in the pool */
	struct rcu_head rcu;
	u32 (*func)(void);
	const void *descriptor; /* null for receive and output functions */
	u32 call;               /* MOXLAB_REG_MODULE, _RECV or _OUTPUT */
	u32 point;
	atomic_t runs;
	bool pooled;
	char symbol[MOXLAB_SYMBOL_LEN];
};

/* The record a module registers. Bytes not named here are the platform's. */
struct descriptor {
	u32 word0;
	u32 (*func)(void);
	u32 word8;
	u8 point; /* 12: where in the pipeline */
	u8 byte13;
	u16 half14;
};

DEFINE_PER_CPU(unsigned long, efmp_cpu_buffer_cache);
EXPORT_PER_CPU_SYMBOL(efmp_cpu_buffer_cache);

static DEFINE_PER_CPU(u32, tag_turn);
/* Counts a CPU's runs of hooks, in and out: odd while it is in one. */
static DEFINE_PER_CPU(u32, hook_turns);
u32 efmp_tag_mode = MOXLAB_TAG_ALTERNATE;

/* Indexed by MOXLAB_POINT_*; each in the order of registration. */
static struct list_head lists[MOXLAB_POINT_COUNT];
static struct hook pool_memory[POOL];
static LIST_HEAD(pool);
static DEFINE_SPINLOCK(hook_lock); /* writers of the lists, and the pool */

struct failpoint efmp_reg_module_fail = FAILPOINT_INIT(efmp_reg_module_fail);
struct failpoint efmp_reg_recv_fail = FAILPOINT_INIT(efmp_reg_recv_fail);
struct failpoint efmp_reg_output_fail = FAILPOINT_INIT(efmp_reg_output_fail);
struct ring efmp_reglog = RING_INIT(efmp_reglog);

/* "function [module]" becomes "function". */
void efmp_symbol(const void *func, char *symbol)
{
	char *blank;

	snprintf(symbol, MOXLAB_SYMBOL_LEN, "%ps", func);
	blank = strchr(symbol, ' ');
	if (blank)
		*blank = '\0';
}

void efmp_reglog_add(const struct moxlab_reglog_rec *what, const void *func)
{
	unsigned long flags;
	struct moxlab_reglog_rec *rec = ring_reserve(&efmp_reglog, &flags);

	*rec = *what;
	memset(rec->symbol, 0, sizeof(rec->symbol));
	efmp_symbol(func, rec->symbol);
	ring_commit(&efmp_reglog, sizeof(*rec), flags);
}

static u32 list_index(u32 call, u32 point)
{
	if (call == MOXLAB_REG_RECV)
		return point == EFMP_RECV_POINT ? MOXLAB_POINT_RESV : ELSEWHERE;
	if (call == MOXLAB_REG_OUTPUT)
		return point == EFMP_OUTPUT_POINT ? MOXLAB_POINT_OUTPUT : ELSEWHERE;
	switch (point) {
	case 0x00:
		return MOXLAB_POINT_LEV2;
	case 0x02:
		return MOXLAB_POINT_IPV4;
	case 0x04:
		return MOXLAB_POINT_IPV6;
	case 0x06:
		return MOXLAB_POINT_WLAN_IN;
	}
	return ELSEWHERE;
}

/* Under hook_lock. */
static struct hook *find(u32 call, const void *descriptor, const void *func, u32 point)
{
	struct hook *h;

	list_for_each_entry(h, &lists[list_index(call, point)],
			    node) if (h->call == call && h->descriptor == descriptor &&
				      h->func == func && h->point == point) return h;
	return NULL;
}

static void hook_back(struct rcu_head *rcu)
{
	struct hook *h = container_of(rcu, struct hook, rcu);
	unsigned long flags;

	if (!h->pooled) {
		kfree(h);
		return;
	}
	spin_lock_irqsave(&hook_lock, flags);
	list_add_tail(&h->node, &pool);
	spin_unlock_irqrestore(&hook_lock, flags);
}

/* Under hook_lock. Allocates only when many entries wait for their grace period. */
static struct hook *hook_get(void)
{
	struct hook *h = list_first_entry_or_null(&pool, struct hook, node);

	if (h)
		list_del(&h->node);
	else
		h = kzalloc(sizeof(*h), GFP_ATOMIC | __GFP_NOWARN);
	return h;
}

static int add(u32 call, const void *descriptor, u32 (*func)(void), u32 point, u32 *changed)
{
	unsigned long flags;
	struct hook *h;
	int err = 0;

	if (!func)
		return -EINVAL;
	spin_lock_irqsave(&hook_lock, flags);
	if (find(call, descriptor, func, point))
		goto out;
	h = hook_get();
	if (!h) {
		err = -ENOMEM;
		goto out;
	}
	h->func = func;
	h->descriptor = descriptor;
	h->call = call;
	h->point = point;
	atomic_set(&h->runs, 0);
	efmp_symbol(func, h->symbol);
	list_add_tail_rcu(&h->node, &lists[list_index(call, point)]);
	*changed = 1;
out:
	spin_unlock_irqrestore(&hook_lock, flags);
	return err;
}

static u32 del(u32 call, const void *descriptor, u32 (*func)(void), u32 point)
{
	unsigned long flags;
	struct hook *h;

	spin_lock_irqsave(&hook_lock, flags);
	h = find(call, descriptor, func, point);
	if (h)
		list_del_rcu(&h->node);
	spin_unlock_irqrestore(&hook_lock, flags);
	if (h)
		call_rcu(&h->rcu, hook_back);
	return h ? 1 : 0;
}

static void describe(struct moxlab_reglog_rec *rec, const struct descriptor *d)
{
	rec->point = d->point;
	rec->word0 = d->word0;
	rec->word8 = d->word8;
	rec->byte13 = d->byte13;
	rec->half14 = d->half14;
}

int efmp_reg_module(void *descriptor)
{
	struct moxlab_reglog_rec rec = { .call = MOXLAB_REG_MODULE };
	const struct descriptor *d = descriptor;

	BUILD_BUG_ON(offsetof(struct descriptor, func) != 4);
	BUILD_BUG_ON(offsetof(struct descriptor, point) != 12);
	BUILD_BUG_ON(sizeof(struct descriptor) != 16);

	if (!d)
		return -EINVAL;
	describe(&rec, d);
	if (!failpoint_hit(&efmp_reg_module_fail, &rec.result))
		rec.result = add(MOXLAB_REG_MODULE, d, d->func, d->point, &rec.changed);
	efmp_reglog_add(&rec, d->func);
	return rec.result;
}
EXPORT_SYMBOL(efmp_reg_module);

int efmp_dereg_module(void *descriptor)
{
	struct moxlab_reglog_rec rec = { .call = MOXLAB_DEREG_MODULE };
	const struct descriptor *d = descriptor;

	if (!d)
		return -EINVAL;
	describe(&rec, d);
	rec.changed = del(MOXLAB_REG_MODULE, d, d->func, d->point);
	efmp_reglog_add(&rec, d->func);
	return 0;
}
EXPORT_SYMBOL(efmp_dereg_module);

static int reg_func(u32 call, struct failpoint *fail, u32 (*func)(void), u32 point)
{
	struct moxlab_reglog_rec rec = { .call = call, .point = point };

	if (!failpoint_hit(fail, &rec.result))
		rec.result = add(call, NULL, func, point, &rec.changed);
	efmp_reglog_add(&rec, func);
	return rec.result;
}

static int dereg_func(u32 call, u32 logged, u32 (*func)(void), u32 point)
{
	struct moxlab_reglog_rec rec = { .call = logged, .point = point };

	rec.changed = del(call, NULL, func, point);
	efmp_reglog_add(&rec, func);
	return 0;
}

int efmp_reg_recv_pkt_func(u32 (*func)(void), u32 point)
{
	return reg_func(MOXLAB_REG_RECV, &efmp_reg_recv_fail, func, point);
}
EXPORT_SYMBOL(efmp_reg_recv_pkt_func);

int efmp_dereg_recv_pkt_func(u32 (*func)(void), u32 point)
{
	return dereg_func(MOXLAB_REG_RECV, MOXLAB_DEREG_RECV, func, point);
}
EXPORT_SYMBOL(efmp_dereg_recv_pkt_func);

int efmp_reg_output_pkt_func(u32 (*func)(void), u32 point)
{
	return reg_func(MOXLAB_REG_OUTPUT, &efmp_reg_output_fail, func, point);
}
EXPORT_SYMBOL(efmp_reg_output_pkt_func);

int efmp_dereg_output_pkt_func(u32 (*func)(void), u32 point)
{
	return dereg_func(MOXLAB_REG_OUTPUT, MOXLAB_DEREG_OUTPUT, func, point);
}
EXPORT_SYMBOL(efmp_dereg_output_pkt_func);

/*
 * What an answer means. Receive functions answer the other way round: 0 takes
 * the frame and all ones let it pass.
 */
static enum efmp_verdict verdict_of(u32 call, const char *symbol, u32 answer)
{
	bool recv = call == MOXLAB_REG_RECV;

	switch (answer) {
	case 0:
		return recv ? EFMP_TAKEN : EFMP_GO_ON;
	case 1:
		return EFMP_FREED;
	case 3:
		return EFMP_TAKEN;
	case 0xffffffff:
		if (recv)
			return EFMP_GO_ON;
	}
	efmp_misuse(MOXLAB_MISUSE_BAD_ANSWER, "%s answered 0x%x", symbol, answer);
	return EFMP_GO_ON;
}

/* Bit 0 of the per-CPU word, which a hook has to clear before it looks. */
static u32 next_tag(u32 mode)
{
	switch (mode) {
	case MOXLAB_TAG_NEVER:
		return 0;
	case MOXLAB_TAG_ALWAYS:
		return 1;
	}
	return this_cpu_inc_return(tag_turn) & 1;
}

static u32 call_hook(struct hook *h, struct efmp_run *run)
{
	unsigned long outer = this_cpu_read(efmp_cpu_buffer_cache);
	int context = preempt_count();
	u32 answer;

	this_cpu_write(efmp_cpu_buffer_cache, (unsigned long)run->buf | next_tag(run->tag));
	atomic_inc(&h->runs);
	answer = h->func();
	/* A hook may itself send, and so come by here again on this CPU. */
	this_cpu_write(efmp_cpu_buffer_cache, outer);

	if (preempt_count() != context || irqs_disabled()) {
		efmp_misuse(
			MOXLAB_MISUSE_CONTEXT,
			"%s: called with preempt count 0x%x, came back with 0x%x, interrupts %s",
			h->symbol, context, preempt_count(), irqs_disabled() ? "off" : "on");
		preempt_count_set(context);
		local_irq_enable();
	}
	return answer;
}

static enum efmp_verdict run_hook(struct hook *h, struct efmp_run *run)
{
	enum efmp_verdict verdict;
	u32 answer;

	efmp_buff_offer(run->buf, run->seq);
	answer = call_hook(h, run);
	verdict = verdict_of(h->call, h->symbol, answer);

	if (run->hooks_run < MOXLAB_ANSWERS)
		run->answers[run->hooks_run] = answer;
	run->hooks_run++;
	run->answer = answer;

	/* False with a frame that the hook should have left alone: it is gone. */
	if (!efmp_buff_settle(run->buf, run->seq, verdict == EFMP_TAKEN))
		return EFMP_TAKEN;
	if (verdict == EFMP_FREED)
		efmp_buff_free(run->buf);
	return verdict;
}

/* A function that need not be registered, answering as those at @point do. */
static enum efmp_verdict run_unregistered(struct efmp_run *run, u32 point)
{
	struct hook once = {
		.func = run->call,
		.call = point == MOXLAB_POINT_RESV ? MOXLAB_REG_RECV : MOXLAB_REG_MODULE,
	};

	strcpy(once.symbol, "an unregistered function");
	return run_hook(&once, run);
}

static enum efmp_verdict run_registered(struct efmp_run *run, u32 point)
{
	enum efmp_verdict verdict = EFMP_GO_ON;
	struct hook *h;
	u32 n = 0;

	list_for_each_entry_rcu(h, &lists[point], node)
	{
		n++;
		if (run->nth && run->nth != n)
			continue;
		if (run->symbol && strcmp(run->symbol, h->symbol))
			continue;
		verdict = run_hook(h, run);
		if (verdict != EFMP_GO_ON)
			break;
	}
	return verdict;
}

static enum efmp_verdict run_hooks(struct efmp_run *run, u32 point)
{
	/* A hook that sends comes by here again on its CPU. */
	bool outermost = !(this_cpu_read(hook_turns) & 1);
	enum efmp_verdict verdict;

	if (outermost) {
		this_cpu_inc(hook_turns);
		/* Seen as in a hook before anything that the hook reads. */
		smp_mb();
	}
	verdict = run->call ? run_unregistered(run, point) : run_registered(run, point);
	if (outermost) {
		smp_mb();
		this_cpu_inc(hook_turns);
	}
	return verdict;
}

void efmp_hooks_wait(void)
{
	int cpu;

	/* A CPU that is in no hook now reads what was written before. */
	smp_mb();
	for_each_possible_cpu(cpu)
	{
		u32 turn = READ_ONCE(per_cpu(hook_turns, cpu));

		while (turn & 1 && READ_ONCE(per_cpu(hook_turns, cpu)) == turn)
			usleep_range(50, 500);
	}
}

enum efmp_verdict efmp_hooks_run(struct efmp_run *run, u32 point)
{
	u32 before = run->hooks_run;
	enum efmp_verdict verdict = run_hooks(run, point);

	if (run->hooks_run != before)
		efmp_count(EFMP_POINT_FRAMES + point);
	if (verdict != EFMP_GO_ON)
		run->decided_at = point;
	if (verdict == EFMP_TAKEN) {
		efmp_count(EFMP_POINT_TAKEN + point);
		efmp_count(EFMP_COUNT_TAKEN);
	} else if (verdict == EFMP_FREED) {
		efmp_count(EFMP_COUNT_FREED);
	}
	return verdict;
}

bool efmp_hooks_first(u32 point, struct efmp_hook_func *first)
{
	unsigned long flags;
	struct hook *h;

	spin_lock_irqsave(&hook_lock, flags);
	h = list_first_entry_or_null(&lists[point], struct hook, node);
	if (h) {
		first->func = h->func;
		first->call = h->call;
		memcpy(first->symbol, h->symbol, sizeof(first->symbol));
	}
	spin_unlock_irqrestore(&hook_lock, flags);
	return h;
}

enum efmp_verdict efmp_hooks_verdict(const struct efmp_hook_func *hook, u32 answer)
{
	return verdict_of(hook->call, hook->symbol, answer);
}

/* The @n-th registered function over all points. */
static bool nth(u32 n, struct moxlab_reg_rec *rec)
{
	unsigned long flags;
	struct hook *h;
	bool found = false;
	int i;

	spin_lock_irqsave(&hook_lock, flags);
	for (i = 0; i < MOXLAB_POINT_COUNT && !found; i++) {
		list_for_each_entry(h, &lists[i], node)
		{
			if (n--)
				continue;
			rec->call = h->call;
			rec->point = h->point;
			rec->runs = atomic_read(&h->runs);
			memcpy(rec->symbol, h->symbol, sizeof(rec->symbol));
			found = true;
			break;
		}
	}
	spin_unlock_irqrestore(&hook_lock, flags);
	/* Change handlers are listed behind the hooks. */
	return found || efmp_serv_nth_handler(n, rec);
}

int efmp_hooks_read(struct moxlab_read *read)
{
	struct moxlab_reg_rec rec;
	u32 n = read->from ? read->from - 1 : 0;

	for (;;) {
		int err;

		memset(&rec, 0, sizeof(rec));
		if (!nth(n, &rec))
			return 0;
		rec.rec.seq = ++n;
		err = efmp_read_put(read, &rec.rec, sizeof(rec));
		if (err)
			return err < 0 ? err : 0;
	}
}

int efmp_hooks_init(void)
{
	int i;

	for (i = 0; i < MOXLAB_POINT_COUNT; i++)
		INIT_LIST_HEAD(&lists[i]);
	for (i = 0; i < POOL; i++) {
		pool_memory[i].pooled = true;
		list_add_tail(&pool_memory[i].node, &pool);
	}
	return ring_alloc(&efmp_reglog, 4096, sizeof(struct moxlab_reglog_rec));
}

/*
 * Every module that imports the registration functions is unloaded by now. An entry that it
 * left behind would call into freed text, were there still frames.
 */
void efmp_hooks_exit(void)
{
	struct hook *h, *next;
	int i;

	/* The entries on their way back to the pool are ours. */
	rcu_barrier();
	for (i = 0; i < MOXLAB_POINT_COUNT; i++)
		list_for_each_entry_safe(h, next, &lists[i], node)
		{
			WARN(1, "efmp: %s is still registered at unload\n", h->symbol);
			if (!h->pooled)
				kfree(h);
		}
	ring_free(&efmp_reglog);
}
