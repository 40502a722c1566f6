/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * mox_dprintk.h - the platform's logging function, and what the lab adds to it.
 */
#ifndef MOX_DPRINTK_H
#define MOX_DPRINTK_H

#include <linux/compiler.h>
#include <linux/types.h>

struct moxlab_read;

/*
 * Prints like printk(): a leading KERN_ level marker and the kernel's format
 * extensions are honoured. Any context. Returns the number of characters.
 */
__printf(1, 2) int mox_printk(const char *fmt, ...);

/* Lab only: each call's text as one record. Reading may sleep. */
int mox_dprintk_lab_read(struct moxlab_read *read);
void mox_dprintk_lab_clear(void);
/* Lab only: whether lines also go to the kernel log. */
void mox_dprintk_lab_set_echo(bool echo);
bool mox_dprintk_lab_echo(void);

#endif /* MOX_DPRINTK_H */
