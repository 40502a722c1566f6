// SPDX-License-Identifier: GPL-2.0-only
/*
 * mox_dprintk - the platform's logging function, for the lab: every line goes to
 * the kernel log and is kept, as formatted, in a ring that tests read.
 */
#include <linux/delay.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/printk.h>
#include "../common/ring.h"
#include "mox_dprintk.h"

#define LINES 2048

static struct ring lines = RING_INIT(lines);
static bool echo = true;

/* As slow as a serial console: microseconds that each line takes its caller. */
static unsigned int line_us;
module_param(line_us, uint, 0644);
MODULE_PARM_DESC(line_us, "microseconds that a line takes, as on a slow console");

/*
 * The text is formatted straight into its slot: callers may stand deep on a
 * small stack, and a slot is the only buffer that any context can have.
 */
static __printf(1, 0) int keep_line(const char *fmt, va_list args)
{
	unsigned long flags;
	struct moxlab_printk_rec *rec = ring_reserve(&lines, &flags);
	int length = vsnprintf(rec->text, MOXLAB_PRINTK_KEPT + 1, fmt, args);
	int level = printk_get_level(rec->text);
	u32 kept = min(length, MOXLAB_PRINTK_KEPT);

	rec->level = level >= '0' && level <= '7' ? level - '0' : 0xffffffff;
	rec->reserved = 0;
	if (level) {
		/* The marker is two bytes and no part of the line. */
		kept -= 2;
		length -= 2;
		memmove(rec->text, rec->text + 2, kept);
	}
	rec->text[kept] = '\0';
	rec->length = length;
	rec->kept = kept;
	ring_commit(&lines, sizeof(*rec) + kept + 1, flags);
	return length;
}

int mox_printk(const char *fmt, ...)
{
	va_list args;
	int length;

	va_start(args, fmt);
	length = keep_line(fmt, args);
	va_end(args);

	if (READ_ONCE(echo)) {
		va_start(args, fmt);
		length = vprintk(fmt, args);
		va_end(args);
	}
	if (READ_ONCE(line_us))
		udelay(min(READ_ONCE(line_us), 1000u));
	return length;
}
EXPORT_SYMBOL(mox_printk);

int mox_dprintk_lab_read(struct moxlab_read *read)
{
	return ring_read(&lines, read);
}
EXPORT_SYMBOL_GPL(mox_dprintk_lab_read);

void mox_dprintk_lab_clear(void)
{
	ring_clear(&lines);
}
EXPORT_SYMBOL_GPL(mox_dprintk_lab_clear);

void mox_dprintk_lab_set_echo(bool on)
{
	WRITE_ONCE(echo, on);
}
EXPORT_SYMBOL_GPL(mox_dprintk_lab_set_echo);

bool mox_dprintk_lab_echo(void)
{
	return READ_ONCE(echo);
}
EXPORT_SYMBOL_GPL(mox_dprintk_lab_echo);

static int __init mox_dprintk_init(void)
{
	return ring_alloc(&lines, LINES, sizeof(struct moxlab_printk_rec) + MOXLAB_PRINTK_KEPT + 1);
}

static void __exit mox_dprintk_exit(void)
{
	ring_free(&lines);
}

module_init(mox_dprintk_init);
module_exit(mox_dprintk_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Lab stand-in for the platform's logging function");
