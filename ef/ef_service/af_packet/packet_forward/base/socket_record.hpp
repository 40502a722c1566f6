// SPDX-License-Identifier: GPL-2.0-only
/* The packet socket record: from the kernel's sock to it and back, references, flags. */
#pragma once

#include "base/sync.hpp"

namespace mox {

/* The record begins with the kernel's sock: both addresses are the same. */
inline sock *sk_of(mox_packet_sock *po)
{
	return reinterpret_cast<sock *>(&po->sk);
}

inline mox_packet_sock *po_of(sock *sk)
{
	return reinterpret_cast<mox_packet_sock *>(sk);
}

/**
 * A reference on a socket and on its namespace, which a socket in use has: its last put looks at
 * the namespace. Ends with put_socket_in_use. Any.
 */
inline void hold_socket_in_use(mox_packet_sock *po)
{
	seam_net_get(seam_sk_net(sk_of(po)));
	seam_sock_hold(sk_of(po));
}

/** Undo hold_socket_in_use; it may free the socket and the namespace. Process. */
inline void put_socket_in_use(mox_packet_sock *po)
{
	net *net = seam_sk_net(sk_of(po));

	seam_sock_put(sk_of(po));
	seam_net_put(net);
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
	/* Cleared while the reference still keeps the socket. */
	po_clear_flag(po, PO_RUNNING);
	seam_sock_put(sk_of(po));
}

} // namespace mox
