/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * moxlab_tables.h - what the control interface numbers, one row each, for the
 * platform's modules and for their client. A table is a macro that applies X to
 * each of its rows; moxlab.h makes the enums of them, the client its names. Where
 * a row has no number, its position from 0 is the number.
 */
#ifndef MOXLAB_TABLES_H
#define MOXLAB_TABLES_H

/* Points of the pipeline: X(id, name) */
#define MOXLAB_POINTS(X)                                                 \
	X(PIPELINE, "pipeline") /* all of it, from a port to leaving */  \
	X(RESV, "resv")         /* receive functions registered at 2 */  \
	X(WLAN_IN, "wlan-in")   /* module records with byte 12 = 0x06 */ \
	X(LEV2, "lev2")         /* ... 0x00 */                           \
	X(IPV4, "ipv4")         /* ... 0x02 */                           \
	X(IPV6, "ipv6")         /* ... 0x04 */                           \
	X(OUTPUT, "output")     /* output functions registered at 1 */   \
	X(SEND, "send")         /* efmp_output_pkt(), called as the module would */

/*
 * Fields of an efbuff's header that an injection can set, by their size:
 * X(field, bit of moxlab_inject.set, its value, offset in the header, conversion
 * from moxlab_inject's host order, option of "moxlab inject")
 */
#define MOXLAB_WORDS(X)                                                                        \
	X(flags, FLAGS, 0x00000010u, 32, , "--flags")                                          \
	X(wlan_flags, WLAN_FLAGS, 0x00000200u, 56, , "--wlan-flags")                           \
	X(send_flags, SEND_FLAGS, 0x00000400u, 60, , "--send-flags")                           \
	X(l2ifx, L2IFX, 0x00000800u, 64, , "--l2ifx")                                          \
	X(origifx, ORIGIFX, 0x00001000u, 68, , "--origifx")                                    \
	X(dst_l2ifx, DST_L2IFX, 0x00004000u, 76, , "--dst-l2ifx")                              \
	X(attr, ATTR, 0x00008000u, 96, , "--attr")                                             \
	/* At most MOXLAB_FRAME_MAX. Memory behind it is readable, whatever frame_len says. */ \
	X(total_len, TOTAL_LEN, 0x00080000u, 164, , "--total-length")                          \
	X(word172, WORD172, 0x00100000u, 172, , "--word172")

#define MOXLAB_HALVES(X)                                                               \
	X(l2_len, L2_LEN, 0x00000002u, 20, , "--l2-length")                            \
	/* 256 to 2048; the frame is put there */                                      \
	X(mac_offset, MAC_OFFSET, 0x00000004u, 22, , "--mac-offset")                   \
	X(net_offset, NET_OFFSET, 0x00000008u, 24, , "--net-offset") /* 256 to 4096 */ \
	X(vlan, VLAN, 0x00000020u, 18, htons, "--vlan")              /* tag control */ \
	X(inner_vlan, INNER_VLAN, 0x00000040u, 16, htons, "--inner-vlan")              \
	X(wlan_id, WLAN_ID, 0x00020000u, 146, , "--wlan-id")                           \
	X(ap_wlan_id, AP_WLAN_ID, 0x00040000u, 148, , "--ap-wlan-id")                  \
	X(half188, HALF188, 0x00800000u, 188, , "--half188")

#define MOXLAB_BYTES(X)                                         \
	X(kind, KIND, 0x00000001u, 40, , "--kind")              \
	X(reason, REASON, 0x01000000u, 43, , "--reason")        \
	X(proxy, PROXY, 0x00002000u, 72, , "--proxy")           \
	X(radio_id, RADIO_ID, 0x00010000u, 144, , "--radio-id") \
	X(code, CODE, 0x00200000u, 184, , "--code")             \
	X(sub_code, SUB_CODE, 0x00400000u, 185, , "--sub-code")

#define MOXLAB_FIELDS(X) MOXLAB_WORDS(X) MOXLAB_HALVES(X) MOXLAB_BYTES(X)

/* What became of an injected frame: X(id, name) */
#define MOXLAB_OUTCOMES(X)                                                              \
	X(NO_HOOK, "no-hook")     /* nothing is registered there; no code ran */        \
	X(WENT_ON, "went-on")     /* every function let it pass */                      \
	X(FREED, "freed")         /* a function answered 1: the platform freed it */    \
	X(TAKEN, "taken")         /* the module owns it */                              \
	X(LEFT, "left")           /* PIPELINE, SEND: it left by at least one port */    \
	X(NOWHERE, "nowhere")     /* PIPELINE, SEND: no port for it, or none took it */ \
	X(NO_MEMORY, "no-memory") /* no efbuff for it */

/* Platform calls that can be made to fail: X(id, name) */
#define MOXLAB_FAIL_CALLS(X)                                                    \
	X(ALLOC, "alloc")             /* efmp_buff_alloc_sw_with_owner: null */ \
	X(CLONE, "clone")             /* efmp_buff_clone_with_owner: null */    \
	X(REG_MODULE, "reg-module")   /* efmp_reg_module: value */              \
	X(REG_RECV, "reg-recv")       /* efmp_reg_recv_pkt_func: value */       \
	X(REG_OUTPUT, "reg-output")   /* efmp_reg_output_pkt_func: value */     \
	X(REG_SERV, "reg-serv")       /* efmp_reg_serv_change_handler: value */ \
	X(GET_SERVICE, "get-service") /* efmp_get_service: null */              \
	X(INTFCB, "intfcb")           /* lsm_get_intfcb: null */

/* What SERVICE does: X(id, name) */
#define MOXLAB_SERVICE_OPS(X)                                                     \
	/* make it known, or let its other entry point take over, then event 0 */ \
	X(PUBLISH, "publish")                                                     \
	X(WITHDRAW, "withdraw") /* make it unknown, then event 1 */               \
	X(EVENT, "event")       /* only the event as given, state unchanged */    \
	X(SET, "set")           /* only change what its calls return */           \
	X(QUERY, "query")       /* only read it */

/* Calls in the registration log: X(id, name) */
#define MOXLAB_REG_CALLS(X)             \
	X(REG_MODULE, "reg-module")     \
	X(DEREG_MODULE, "dereg-module") \
	X(REG_RECV, "reg-recv")         \
	X(DEREG_RECV, "dereg-recv")     \
	X(REG_OUTPUT, "reg-output")     \
	X(DEREG_OUTPUT, "dereg-output") \
	X(REG_SERV, "reg-serv")         \
	X(DEREG_SERV, "dereg-serv")

/* Breaches of the efbuff rules: X(id, name, text in the kernel's log) */
#define MOXLAB_MISUSE_KINDS(X)                                                                   \
	X(DOUBLE_FREE, "double-free", "double free")                                             \
	X(WRONG_OWNER, "wrong-owner", "wrong owner") /* freed by another than its owner */       \
	X(UNKNOWN, "unknown", "unknown efbuff")      /* an address that is no efbuff */          \
	X(OVERRUN, "overrun", "write past the end")                                              \
	X(AFTER_FREE, "after-free", "write after free")                                          \
	X(LEAK, "leak", "leak")                       /* alive at unload */                      \
	X(NOT_TAKEN, "not-taken", "freed, not taken") /* a hook let it pass, yet had freed it */ \
	X(BAD_ANSWER, "bad-answer", "answer without a meaning")                                  \
	X(BAD_HEADER, "bad-header", "bad header") /* sent with offsets outside the buffer */     \
	/* a hook returned with another preempt count, or a process sent while it held a lock */ \
	X(CONTEXT, "context", "changed context")                                                 \
	/* a drop service was called after its withdrawal had returned */                        \
	X(WITHDRAWN, "withdrawn", "withdrawn service")

/* Frames counted since load or since CLEAR_STATS: X(id, field, name) */
#define MOXLAB_COUNTERS(X)                                                                \
	X(SEEN, seen, "seen")                /* entered the pipeline by a port */         \
	X(INJECTED, injected, "injected")    /* injected, at whatever point */            \
	X(TAKEN, taken, "taken")             /* taken by hooks */                         \
	X(FREED, freed, "freed")             /* freed because a hook answered 1 */        \
	X(FORWARDED, forwarded, "forwarded") /* left by their destination port */         \
	X(FLOODED, flooded, "flooded")       /* left by every other port */               \
	X(NOWHERE, nowhere, "nowhere")       /* without a port to leave by */             \
	X(NO_MEMORY, no_memory, "no-memory") /* lost: no efbuff or skb */                 \
	X(MALFORMED, malformed, "malformed") /* too short or too long for the pipeline */ \
	X(SENDS, sends, "sends")             /* calls of efmp_output_pkt() */

/* Bit 0 of the per-CPU word: X(id, name) */
#define MOXLAB_TAG_MODES(X)                                       \
	X(ALTERNATE, "alternate") /* set for every other frame */ \
	X(NEVER, "never")                                         \
	X(ALWAYS, "always")

#endif /* MOXLAB_TABLES_H */
