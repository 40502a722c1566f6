// SPDX-License-Identifier: GPL-2.0
/* The packet socket: from the kernel's sock to our record and back, references, state. */
#pragma once

#include "regular.hpp"
#include "sync.hpp"

/* The record begins with the kernel's sock: both addresses are the same. */
inline sock *sk_of(mox_packet_sock *po)
{
	return reinterpret_cast<sock *>(&po->sk);
}

inline mox_packet_sock *po_of(sock *sk)
{
	return reinterpret_cast<mox_packet_sock *>(sk);
}

/** A reference on a socket for a scope. */
class SockRef : Pinned {
public:
	explicit SockRef(mox_packet_sock *po) : sk_(sk_of(po)) { seam_sock_hold(sk_); }
	~SockRef() { seam_sock_put(sk_); }

private:
	sock *sk_;
};

inline bool po_flag(const mox_packet_sock *po, u8 flag)
{
	return (load(po->flags) & flag) != 0;
}

/*
 * The flags share a byte and have different locks (none, for PO_CTRL_INFO), so
 * a change must not lose another one's.
 */
inline void po_set_flag(mox_packet_sock *po, u8 flag)
{
	__atomic_fetch_or(&po->flags, flag, __ATOMIC_RELAXED);
}

inline void po_clear_flag(mox_packet_sock *po, u8 flag)
{
	__atomic_fetch_and(&po->flags, static_cast<u8>(~flag), __ATOMIC_RELAXED);
}

/** Mark the rule active; the mark holds a reference on the socket. */
inline void po_set_running(mox_packet_sock *po)
{
	seam_sock_hold(sk_of(po));
	po_set_flag(po, PO_RUNNING);
}

/** Undo po_set_running. The caller has a reference of its own. */
inline void po_clear_running(mox_packet_sock *po)
{
	seam_sock_put(sk_of(po));
	po_clear_flag(po, PO_RUNNING);
}

/** The link-layer address (sockaddr_ll). */
struct link_layer_address {
	u16 family;
	u16 protocol; /* network order */
	u32 ifindex;
	u16 hardware_type;
	u8 packet_type;
	u8 address_len;
	u8 address[8];
};
static_assert(sizeof(link_layer_address) == 20);

/** Bytes of the address before the hardware address. */
inline constexpr u32 kAddressHead = 12;

extern "C" {
/* Socket buffers freed by readers and at release. */
extern u32 g_free_skb_num;
extern u8 mox_packet_family_init_ok;

/** Register the protocol, the family and the namespace operations, once. 0 or a negative errno. */
int mox_packet_family_init(void);
/** Take all three back, if registered. No socket is left by then: each holds the module. */
void mox_packet_family_deinit(void);
u8 mox_packet_family_had_init(void);

/**
 * The socket's report. Its rule must stand still: the socket lock is held, or
 * the lock of the library that the rule is in. Any.
 */
void mox_packet_sock_dump(mox_packet_sock *po);
/** The rule's part of the report. */
void mox_packet_dump_regular(const packet_regular *regular);
/** The lines for a rule type and for a value of it. */
void mox_packet_dump_regular_type(u32 type);
void mox_packet_dump_regular_data(u32 type, const u8 *value);
}
