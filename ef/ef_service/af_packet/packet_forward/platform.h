/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Everything that the forwarding platform decides: symbols, numbers and byte
 * offsets. An integrator with another platform changes this file only.
 *
 * The records are those of a 32-bit little-endian platform: a pointer inside
 * an efbuff is a 32-bit word.
 */
#ifndef MOX_PLATFORM_H
#define MOX_PLATFORM_H

#ifndef __cplusplus
#include <linux/percpu.h>
#include <linux/types.h>

/* The address of the efbuff that a CPU is processing, with a tag in bit 0. */
DECLARE_PER_CPU(unsigned long, efmp_cpu_buffer_cache);
#else
#include "seam/seam_types.h"
extern "C" {
#endif

/* A hook: called with bottom halves disabled; the packet is this CPU's current efbuff. */
typedef u32 (*efmp_pkt_func)(void);
typedef void (*efmp_serv_change_func)(u32 event, void *service_record);

/** Log a line. Takes printk's formats and level markers. Any context. */
int mox_printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/** The control block of an interface, or null. Any context; the block stays until the platform goes. */
void *lsm_get_intfcb(u32 ifindex);

/* Registration: never sleep; 0 on success. Registering twice is harmless. */
int efmp_reg_module(void *descriptor);
int efmp_dereg_module(void *descriptor);
int efmp_reg_recv_pkt_func(efmp_pkt_func func, u32 point);
int efmp_dereg_recv_pkt_func(efmp_pkt_func func, u32 point);
int efmp_reg_output_pkt_func(efmp_pkt_func func, u32 point);
int efmp_dereg_output_pkt_func(efmp_pkt_func func, u32 point);

/**
 * A new efbuff with room for length bytes of frame, or null. Any context; the
 * caller owns it. Its header is zero but for ef::kMacOffset, where the room begins.
 */
void *efmp_buff_alloc_sw_with_owner(u32 length, u32 owner);
/** A full copy of an efbuff, header and frame, or null. Any context; the caller owns it. */
void *efmp_buff_clone_with_owner(void *efbuff, u32 owner);
/** Give an efbuff back. Any context. */
void efmp_buff_free_sw_with_owner(void *efbuff, u32 owner);
/**
 * Send an efbuff. The outcome's number: what is not the platform's "drop" and
 * not beyond its last one has been accepted. No lock held; the platform owns
 * the efbuff from the call on, whatever the outcome.
 */
int efmp_output_pkt(void *efbuff);

/** The entry point of a published service, or null. Process. */
void *efmp_get_service(u32 service_class, u32 instance);
/** Follow the services: 0 on success. The handler may be called in any context. Process. */
int efmp_reg_serv_change_handler(efmp_serv_change_func handler);
int efmp_unreg_serv_change_handler(efmp_serv_change_func handler);

#ifdef __cplusplus
} /* extern "C" */

namespace platform {

/** The owner number of every efbuff that this module holds. */
inline constexpr u32 kOwner = 0x93;

/** Points of the receive-side and the output-side registrations. */
inline constexpr u32 kRecvPoint = 2;
inline constexpr u32 kOutputPoint = 1;

/** Interface numbers of the reserved control-plane interfaces. */
inline constexpr u32 kLev2ResvIntf = 4094;
inline constexpr u32 kLev3ResvIntf = 4095;

/** What a hook answers; receive functions (RESV) have a convention of their own. */
inline constexpr u32 kGoOn = 0;
inline constexpr u32 kDrop = 1;
inline constexpr u32 kTaken = 3;
inline constexpr u32 kRecvTaken = 0;
inline constexpr u32 kRecvGoOn = 0xFFFFFFFFu;

/** Bit 0 of an efbuff address in the per-CPU word and in link words is a tag. */
inline constexpr u32 kTag = 1;

namespace intf {
inline constexpr u32 kIfindex = 0; /* u32 */
inline constexpr u32 kMac = 4;     /* 6 bytes */
inline constexpr u32 kLink = 12;   /* u32: 1 up */
inline constexpr u32 kName = 332;  /* char[32] */
} // namespace intf

namespace ef {
inline constexpr u32 kLink = 0;           /* u32 */
inline constexpr u32 kSrcIntf = 4;        /* pointer */
inline constexpr u32 kDstIntf = 8;        /* pointer */
inline constexpr u32 kVlan = 16;          /* 2 x u16, network order: inner, outer */
inline constexpr u32 kInnerTag = 16;      /* the first of them */
inline constexpr u32 kOuterTag = 18;      /* the second */
inline constexpr u32 kL2Len = 20;         /* u16 */
inline constexpr u32 kMacOffset = 22;     /* u16 */
inline constexpr u32 kNetOffset = 24;     /* u16 */
inline constexpr u32 kFlags = 32;         /* u32 */
inline constexpr u32 kKind = 40;          /* u8 */
inline constexpr u32 kForwardReason = 43; /* u8 */
inline constexpr u32 kWlanFlags = 56;     /* u32 */
inline constexpr u32 kSendFlags = 60;     /* u32 */
inline constexpr u32 kL2Ifx = 64;         /* u32 */
inline constexpr u32 kOrigIfx = 68;       /* u32 */
inline constexpr u32 kProxyCapture = 72;  /* u8 */
inline constexpr u32 kDstL2Ifx = 76;      /* u32 */
inline constexpr u32 kAttr = 96;          /* u32 */
inline constexpr u32 kRadioId = 144;      /* u8 */
inline constexpr u32 kWlanId = 146;       /* u16 */
inline constexpr u32 kApWlanId = 148;     /* u16 */
inline constexpr u32 kTotalLen = 164;     /* u32, from the MAC header */
inline constexpr u32 kWord172 = 172;      /* u32 */
inline constexpr u32 kCode = 184;         /* u8 code, u8 sub-code */
inline constexpr u32 kHalf188 = 188;      /* u16 */

/* ef::kFlags */
inline constexpr u32 kFlagTrace = 0x4000;
inline constexpr u32 kFlag40000 = 0x40000;
inline constexpr u32 kFlag80 = 0x80;

/* ef::kSendFlags */
inline constexpr u32 kSendVxlanEncap = 0x1;
inline constexpr u32 kSendBlock = 0x2;
inline constexpr u32 kSend4 = 0x4;
inline constexpr u32 kSendNoAcl = 0x8;
inline constexpr u32 kSendProxyCapture = 0x10;
inline constexpr u32 kSend20 = 0x20;
inline constexpr u32 kSend40 = 0x40;
inline constexpr u32 kSend80 = 0x80;

/* ef::kWlanFlags */
inline constexpr u32 kWlan80211 = 0x40000;
inline constexpr u32 kWlanMgmt = 0x8000;
inline constexpr u32 kWlan800000 = 0x800000;

/* ef::kKind */
inline constexpr u8 kKindIpv4 = 1;
inline constexpr u8 kKind2 = 2;
inline constexpr u8 kKindIpv6 = 27;

/* ef::kForwardReason, as written for a packet that is taken */
inline constexpr u8 kReasonOther = 1;
inline constexpr u8 kReasonIp = 7;
inline constexpr u8 kReasonKind2 = 13;

/* VLAN word as a little-endian u32: the id bits of the outer tag (bytes 18-19). */
inline constexpr u32 kVlanIdMask = 0xFF0F0000u;
} // namespace ef

/** What efmp_output_pkt answers. */
namespace outcome {
inline constexpr int kDrop = 1;
inline constexpr int kHighest = 7;
} // namespace outcome

/** A service of the platform. */
struct service {
	u32 service_class;
	u32 instance;
};
inline constexpr service kLocalMacService{ 11, 10 };
inline constexpr service kDropService{ 32, 0 };
inline constexpr service kWlanDropService{ 32, 3 };

/** What a change handler gets; pointers and numbers are 32-bit words. */
struct service_record {
	void *entry;
	u32 service_class;
	u32 instance;
};
static_assert(sizeof(void *) != 4 || sizeof(service_record) == 12, "platform service record");

/** Events of a change handler. */
inline constexpr u32 kServiceAvailable = 0;
inline constexpr u32 kServiceWithdrawn = 1;

/** What the module records say of themselves; the platform owns the meaning. */
struct record_numbers {
	u8 point;
	u8 priority;
};
inline constexpr u32 kRecordMask = 0xFFFFFFFFu;
inline constexpr record_numbers kLev2Record{ 0x00, 0x17 };
inline constexpr record_numbers kIpv4Record{ 0x02, 0x14 };
inline constexpr record_numbers kIpv6Record{ 0x04, 0x0A };
inline constexpr record_numbers kWlanRecord{ 0x06, 0x06 };

/** The part of a module record that efmp_reg_module gets. */
struct descriptor {
	u32 link; /* the platform's own */
	efmp_pkt_func receive;
	u32 mask;
	u8 point;
	u8 priority;
	u16 reserved;
};
static_assert(sizeof(void *) != 4 || sizeof(descriptor) == 16, "platform descriptor");

} // namespace platform
#endif
#endif
