/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * efbuff.h - the efbuff as every module of the platform sees it, on 32-bit
 * little-endian kernels. Check with efbuff_check_layout().
 */
#ifndef EFMP_EFBUFF_H
#define EFMP_EFBUFF_H

#include <linux/build_bug.h>
#include <linux/stddef.h>
#include <linux/types.h>
#include "../../control/moxlab.h"

#define EFBUFF_HEADER 256 /* then the frame's memory, in the same allocation */

/* Whatever a frame's length, so many bytes can be read from its headers on. */
#define EFBUFF_MAC_READABLE 64
#define EFBUFF_NET_READABLE 24

/* Where the platform puts a frame: 2 modulo 4, so that IP headers are aligned. */
#define EFBUFF_FRAME (EFBUFF_HEADER + 2)

#define EFBUFF_KIND_IPV4 1
#define EFBUFF_KIND_LEV2 2 /* an Ethernet frame that carries no IP */
#define EFBUFF_KIND_IPV6 27

#define EFBUFF_WLAN_80211 0x40000 /* bit of wlan_flags */

struct efbuff {
	u32 link;       /* 0: queue link word, the holder's */
	void *src_intf; /* 4 */
	void *dst_intf; /* 8: null when none */
	u32 word12;
	__be16 inner_vlan; /* 16: tag control */
	__be16 vlan;       /* 18: tag control */
	u16 l2_len;        /* 20: 0 when there is no layer-2 header */
	u16 mac_offset;    /* 22: from the start of the efbuff */
	u16 net_offset;    /* 24: from the start of the efbuff */
	u16 half26;
	u32 word28;
	u32 flags; /* 32 */
	u32 word36;
	u8 kind; /* 40 */
	u8 bytes41[2];
	u8 reason; /* 43: forward reason */
	u32 words44[3];
	u32 wlan_flags; /* 56 */
	u32 send_flags; /* 60 */
	u32 l2ifx;      /* 64 */
	u32 origifx;    /* 68 */
	u8 proxy;       /* 72 */
	u8 bytes73[3];
	u32 dst_l2ifx; /* 76 */
	u32 words80[4];
	u32 attr; /* 96 */
	u32 words100[11];
	u8 radio_id; /* 144 */
	u8 byte145;
	u16 wlan_id;    /* 146 */
	u16 ap_wlan_id; /* 148 */
	u16 half150;
	u32 words152[3];
	u32 total_len; /* 164: from the MAC header on */
	u32 word168;
	u32 word172; /* 172 */
	u32 words176[2];
	u8 code;     /* 184 */
	u8 sub_code; /* 185 */
	u16 half186;
	u16 half188; /* 188 */
	u16 half190;
	/* From here on, at MOXLAB_HEADER_LEN, the platform's own. */
	u32 vlan_tags; /* 192: tags taken off the frame, 0 to 2. A tag with
			      * id and priority 0 leaves no other trace */
	u32 words196[15];
};

static inline void efbuff_check_layout(void)
{
#define AT(field, offset) BUILD_BUG_ON(offsetof(struct efbuff, field) != (offset))
	AT(link, 0);
	AT(src_intf, 4);
	AT(dst_intf, 8);
	AT(vlan_tags, MOXLAB_HEADER_LEN);
#define FIELD_AT(field, id, bit, offset, convert, option) AT(field, offset);
	MOXLAB_FIELDS(FIELD_AT)
#undef FIELD_AT
#undef AT
	BUILD_BUG_ON(sizeof(struct efbuff) != EFBUFF_HEADER);
}

static inline u8 *efbuff_mac(struct efbuff *b)
{
	return (u8 *)b + b->mac_offset;
}

#endif /* EFMP_EFBUFF_H */
