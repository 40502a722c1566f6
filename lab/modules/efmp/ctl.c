// SPDX-License-Identifier: GPL-2.0-only
/*
 * ctl.c - /dev/moxlab: one ioctl a verb, see moxlab.h.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/rcupdate.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include "../lsm_ko/lsm_ko.h"
#include "../mox_dprintk/mox_dprintk.h"
#include "efmp.h"

int efmp_read_put(struct moxlab_read *read, struct moxlab_rec *rec, u32 size)
{
	u8 __user *to = u64_to_user_ptr(read->buf);

	rec->size = ALIGN(size, 8);
	if (rec->size > read->size - read->used)
		return read->count ? 1 : -EMSGSIZE;
	if (copy_to_user(to + read->used, rec, size) ||
	    clear_user(to + read->used + size, rec->size - size))
		return -EFAULT;
	read->used += rec->size;
	read->count++;
	read->next = rec->seq + 1;
	return 0;
}

static int read_intfs(struct moxlab_read *read)
{
	struct moxlab_intf_rec rec;
	u32 n = read->from ? read->from - 1 : 0;
	int err;

	while (!lsm_lab_nth(n, &rec)) {
		rec.rec.seq = ++n;
		err = efmp_read_put(read, &rec.rec, sizeof(rec));
		if (err)
			return err < 0 ? err : 0;
	}
	return 0;
}

static int read_left(struct moxlab_read *read)
{
	return ring_read(&efmp_left, read);
}

static int read_reglog(struct moxlab_read *read)
{
	return ring_read(&efmp_reglog, read);
}

static int (*const readers[MOXLAB_WHAT_COUNT])(struct moxlab_read *read) = {
	[MOXLAB_LEFT] = read_left,
	[MOXLAB_REGLOG] = read_reglog,
	[MOXLAB_PRINTK] = mox_dprintk_lab_read,
	[MOXLAB_REGS] = efmp_hooks_read,
	[MOXLAB_LIVE] = efmp_buff_read_live,
	[MOXLAB_PORTS] = efmp_ports_read,
	[MOXLAB_INTFS] = read_intfs,
};

static int do_read(void *arg)
{
	struct moxlab_read *read = arg;

	if (read->what >= MOXLAB_WHAT_COUNT)
		return -EINVAL;
	read->next = read->from;
	read->lost = 0;
	read->used = 0;
	read->count = 0;
	return readers[read->what](read);
}

static int do_clear(void *arg)
{
	const struct moxlab_clear *clear = arg;

	switch (clear->what) {
	case MOXLAB_LEFT:
		if (clear->enable > 1)
			return -EINVAL;
		efmp_left_enable(clear->enable);
		ring_clear(&efmp_left);
		return 0;
	case MOXLAB_REGLOG:
		ring_clear(&efmp_reglog);
		return 0;
	case MOXLAB_PRINTK:
		mox_dprintk_lab_clear();
		return 0;
	case MOXLAB_PORTS:
		efmp_ports_clear();
		return 0;
	}
	return -EINVAL;
}

static int do_inject(void *arg)
{
	return efmp_inject(arg);
}

static int do_port_add(void *arg)
{
	return efmp_port_add(arg);
}

static int do_port_del(void *arg)
{
	return efmp_port_del(arg);
}

static int do_intf_set(void *arg)
{
	return lsm_lab_set(arg);
}

static int do_intf_del(void *arg)
{
	return lsm_lab_del(((struct moxlab_intf *)arg)->ifindex);
}

static int do_fail(void *arg)
{
	static struct failpoint *const points[] = {
		[MOXLAB_FAIL_ALLOC] = &efmp_alloc_fail,
		[MOXLAB_FAIL_CLONE] = &efmp_clone_fail,
		[MOXLAB_FAIL_REG_MODULE] = &efmp_reg_module_fail,
		[MOXLAB_FAIL_REG_RECV] = &efmp_reg_recv_fail,
		[MOXLAB_FAIL_REG_OUTPUT] = &efmp_reg_output_fail,
		[MOXLAB_FAIL_REG_SERV] = &efmp_reg_serv_fail,
		[MOXLAB_FAIL_GET_SERVICE] = &efmp_get_service_fail,
	};
	struct moxlab_fail *fail = arg;

	if (fail->call == MOXLAB_FAIL_INTFCB)
		lsm_lab_fail(fail);
	else if (fail->call < ARRAY_SIZE(points))
		failpoint_arm(points[fail->call], fail);
	else
		return -EINVAL;
	return 0;
}

static int do_outcome(void *arg)
{
	const struct moxlab_outcome_override *o = arg;

	if (o->send > 1)
		return -EINVAL;
	efmp_send_override(o);
	return 0;
}

static int do_service(void *arg)
{
	return efmp_serv_verb(arg);
}

static int do_balance(void *arg)
{
	struct moxlab_balance *balance = arg;

	if (balance->owner > 255)
		return -EINVAL;
	efmp_buff_balance(balance);
	return 0;
}

static int do_misuse(void *arg)
{
	return efmp_misuse_verb(arg);
}

static int do_stats(void *arg)
{
	efmp_stats_read(arg);
	return 0;
}

static int do_clear_stats(void *arg)
{
	efmp_stats_clear();
	return 0;
}

static int do_settings(void *arg)
{
	struct moxlab_settings *s = arg;

	if (s->set) {
		if (s->tag_mode > MOXLAB_TAG_ALWAYS || s->redzone > 256 || !s->quarantine ||
		    s->quarantine > 4096 || s->hold_memory > 1 || s->printk_echo > 1)
			return -EINVAL;
		WRITE_ONCE(efmp_tag_mode, s->tag_mode);
		mox_dprintk_lab_set_echo(s->printk_echo);
	}
	efmp_buff_settings(s);
	s->abi = MOXLAB_ABI;
	s->tag_mode = READ_ONCE(efmp_tag_mode);
	s->printk_echo = mox_dprintk_lab_echo();
	return 0;
}

static int do_sync(void *arg)
{
	synchronize_rcu();
	return 0;
}

static int do_memory(void *arg)
{
	return efmp_memory(arg);
}

static int do_bench(void *arg)
{
	return efmp_bench(arg);
}

static int do_measure(void *arg)
{
	return efmp_measure(arg);
}

static int do_latency(void *arg)
{
	return efmp_latency(arg);
}

static int do_fdb_flush(void *arg)
{
	efmp_fdb_flush(NULL);
	return 0;
}

static const struct verb {
	unsigned int cmd;
	int (*run)(void *arg);
} verbs[] = {
	{ MOXLAB_INJECT, do_inject },       { MOXLAB_PORT_ADD, do_port_add },
	{ MOXLAB_PORT_DEL, do_port_del },   { MOXLAB_INTF_SET, do_intf_set },
	{ MOXLAB_INTF_DEL, do_intf_del },   { MOXLAB_FAIL, do_fail },
	{ MOXLAB_OUTCOME, do_outcome },     { MOXLAB_SERVICE, do_service },
	{ MOXLAB_READ, do_read },           { MOXLAB_CLEAR, do_clear },
	{ MOXLAB_BALANCE, do_balance },     { MOXLAB_MISUSE, do_misuse },
	{ MOXLAB_STATS, do_stats },         { MOXLAB_CLEAR_STATS, do_clear_stats },
	{ MOXLAB_SETTINGS, do_settings },   { MOXLAB_SYNC, do_sync },
	{ MOXLAB_FDB_FLUSH, do_fdb_flush }, { MOXLAB_MEMORY, do_memory },
	{ MOXLAB_BENCH, do_bench },         { MOXLAB_MEASURE, do_measure },
	{ MOXLAB_LATENCY, do_latency },
};

/* Runs a verb on a kernel copy of its structure, zeroed where nothing came in. */
static long run_verb(const struct verb *verb, void __user *user)
{
	unsigned int size = _IOC_SIZE(verb->cmd);
	void *arg = kzalloc(max(size, 8u), GFP_KERNEL);
	long err = 0;

	if (!arg)
		return -ENOMEM;
	if (_IOC_DIR(verb->cmd) & _IOC_WRITE && copy_from_user(arg, user, size))
		err = -EFAULT;
	if (!err)
		err = verb->run(arg);
	if (!err && _IOC_DIR(verb->cmd) & _IOC_READ && copy_to_user(user, arg, size))
		err = -EFAULT;
	kfree(arg);
	return err;
}

static long ctl_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	int i;

	for (i = 0; i < ARRAY_SIZE(verbs); i++)
		if (verbs[i].cmd == cmd)
			return run_verb(&verbs[i], (void __user *)arg);
	return -ENOTTY;
}

static const struct file_operations ctl_fops = {
	.owner = THIS_MODULE,
	.unlocked_ioctl = ctl_ioctl,
};

static struct miscdevice ctl_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "moxlab",
	.fops = &ctl_fops,
	.mode = 0600,
};

int efmp_ctl_init(void)
{
	return misc_register(&ctl_device);
}

void efmp_ctl_exit(void)
{
	misc_deregister(&ctl_device);
	efmp_latency_stop();
}
