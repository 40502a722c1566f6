/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * lsm_ko.h - interface control blocks by interface index, and what the lab adds.
 */
#ifndef LSM_KO_H
#define LSM_KO_H

#include <linux/types.h>
#include "../../control/moxlab.h"

/* The two control-plane interfaces that every platform has. */
#define LSM_RESV_LEV2 4094
#define LSM_RESV_LEV3 4095

/* What other modules may read of a block: these fields at these offsets. */
struct lsm_intfcb {
	u32 ifindex; /* 0 */
	u8 mac[6];   /* 4 */
	u8 pad10[2];
	u32 link; /* 12: 1 up, 0 down */
	u8 pad16[316];
	char name[32]; /* 332: NUL-terminated */
	u8 pad364[4];
};

/*
 * The block of @ifindex, or null. Any context; never sleeps. The block stays
 * valid until this module is unloaded; its fields change under the reader.
 */
void *lsm_get_intfcb(u32 ifindex);

/* Lab only: the same, never made to fail. */
void *lsm_lab_find(u32 ifindex);
/* Lab only: creates or changes a block. May sleep. 0, -ENOMEM, -EINVAL, -ENOSPC. */
int lsm_lab_set(const struct moxlab_intf *intf);
/* Lab only: lsm_get_intfcb() finds it no more; it stays valid. 0 or -ENXIO. */
int lsm_lab_del(u32 ifindex);
/* Lab only: whether the block is a WLAN interface's. Null is none. */
bool lsm_lab_is_wlan(const void *intfcb);
/* Lab only: the @n-th block ever made, from 0. 0 or -ENOENT. */
int lsm_lab_nth(u32 n, struct moxlab_intf_rec *rec);
/* Lab only: make lsm_get_intfcb() find nothing for a while. */
void lsm_lab_fail(struct moxlab_fail *fail);

#endif /* LSM_KO_H */
