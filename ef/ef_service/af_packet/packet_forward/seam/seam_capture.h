/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The seam of the family for reading, mox_capture: requests, dumps, and the messages
 * that answer them. Rules as in seam.h.
 */
#ifndef SEAM_CAPTURE_H
#define SEAM_CAPTURE_H

#include "seam.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A request that is being handled, or a dump that goes on: for the answer's header. */
struct seam_request {
	struct net *net;
	u32 client; /* port of the requesting socket */
	u32 number; /* sequence number of the request */
	u32 flags;  /* NLM_F_MULTI in the messages of a dump */
	/* Where a text that explains an error goes, or null. */
	void *explanation;
};

/** Register the family: 0 or a negative errno. Process. */
int seam_capture_register(void);
/** Unregister; returns when no request is handled, and no dump goes on, any more. Process. */
void seam_capture_unregister(void);

/** Attach a text that lives as long as the module to an error. */
void seam_capture_explain(const struct seam_request *request, const char *text);

/** A buffer for one message of up to size bytes behind the headers, or null. Process. */
struct sk_buff *seam_capture_alloc(size_t size);
/** The same, GFP_ATOMIC. Any. */
struct sk_buff *seam_capture_alloc_atomic(size_t size);
void seam_capture_free(struct sk_buff *skb);
/** Send to the requesting socket, not waiting; takes the buffer. 0 or a negative errno. Any. */
int seam_capture_reply(const struct seam_request *request, struct sk_buff *skb);

/** Begin a message; null without room. */
void *seam_capture_begin(struct sk_buff *skb, const struct seam_request *request, u8 command);
/** Write the length of a message that is complete. */
void seam_capture_end(struct sk_buff *skb, void *message);
/** Remove a message that has no room. */
void seam_capture_cancel(struct sk_buff *skb, void *message);
/** Add an attribute; 0, or -EMSGSIZE without room. */
int seam_capture_put(struct sk_buff *skb, int type, size_t size, const void *data);
/** Bytes that the buffer still has room for. */
size_t seam_capture_room(const struct sk_buff *skb);
/** Begin an attribute that holds attributes; null without room. */
void *seam_capture_nest(struct sk_buff *skb, int type);
void seam_capture_nest_end(struct sk_buff *skb, void *nest);
void seam_capture_nest_cancel(struct sk_buff *skb, void *nest);

/* What a socket is, for those who list it. The socket stays meanwhile. Any. */
struct seam_sock_identity {
	u64 cookie;
	u32 inode;
	u32 uid;
	u32 netns;
	u32 type;
	u32 rcvbuf;
	u8 filtered;
	u8 stamped;
};
/** SO_COOKIE of a socket. Any. */
u64 seam_sk_cookie(struct sock *sk);
void seam_sock_identify(struct sock *sk, struct seam_sock_identity *identity);
/** The process id of a task, as the initial namespace numbers it. */
s32 seam_task_pid(const struct task_struct *task);
const char *seam_module_version(void);

/* ---- socket diagnosis ------------------------------------------------------------ */

struct netlink_callback;

/** Where a listing goes on, in the kernel's state of it; zero at its begin. */
struct seam_diag_place {
	u32 serial_low;
	u32 serial_high;
	u32 departures;
	void *link;
};
/** What a listing says of a socket besides what the kernel knows. */
struct seam_diag_socket {
	u32 ifindex;
	u32 location;
	u32 treatment;
	u16 protocol; /* host order */
	u8 running;
};
/** Register for family 17: 0, or -EBUSY when another handler is there. Process. */
int seam_diag_register(void);
/** Unregister; no listing begins any more. Process. */
void seam_diag_unregister(void);
/** Add a socket to a listing: 0, or -EMSGSIZE without room. */
int seam_diag_put(struct sk_buff *skb, struct netlink_callback *cb,
		  const struct seam_diag_socket *socket, struct sock *sk);

/* ---- what the kernel calls in the C++ units ------------------------------------ */

/** List the sockets of a namespace from a place on, as many as fit. Process. */
void mox_packet_diag_dump(struct sk_buff *skb, struct netlink_callback *cb, const struct net *ns,
			  struct seam_diag_place *at);

/** A request for one answer. attributes: size bytes behind the headers. */
int mox_capture_do(u8 command, const void *attributes, size_t size,
		   const struct seam_request *request);
/** A dump begins: its state in *state, or a negative errno. Process. */
int mox_capture_dump_start(u8 command, const void *attributes, size_t size,
			   const struct seam_request *request, void **state);
/**
 * Fill a buffer with the next messages. The buffer's length, 0 at the end, or a negative
 * errno. *sequence: not 0, and another number once what is dumped has changed. Process.
 */
int mox_capture_dump_fill(struct sk_buff *skb, void *state, const struct seam_request *request,
			  u32 *sequence);
/** A netlink socket of the initial namespace that may trace has been closed. Process. */
void mox_capture_client_gone(u32 client);
/** A dump ends. Process. */
void mox_capture_dump_done(void *state);

#ifdef __cplusplus
} /* extern "C" */
#endif
#endif
