// SPDX-License-Identifier: GPL-2.0-only
/* recvmsg: one queued packet, its source address and its control record. */
#include "base/counters.hpp"
#include "base/errors.hpp"
#include "base/socket_record.hpp"
#include "socket/address.hpp"
#include "socket/family.hpp"
#include "socket/stamps.hpp"

namespace mox {
namespace {

constexpr int kAllowedFlags = msg::kPeek | msg::kTrunc | msg::kDontWait;
/* Longer than the address; what is behind the address is zero. */
constexpr int kNameLen = 26;
/* PACKET_OTHERHOST, for every packet: the platform's classes are not the kernel's. */
constexpr u8 kOtherHost = SEAM_PACKET_OTHERHOST;

/**
 * Fill the caller's name buffer, if there is one. Without one the length must
 * stay 0: older kernels look at the caller's length again after this call, and
 * would copy as much of an unfilled buffer to user space.
 */
void fill_name(msghdr *msg, sk_buff *skb, const mox_packet_ctrl_info &ctrl)
{
	void *name = seam_msg_name(msg);

	seam_msg_set_namelen(msg, name ? kNameLen : 0);
	if (!name)
		return;
	link_layer_address addr{};
	addr.family = MOX_PACKET_FAMILY;
	addr.protocol = seam_skb_protocol(skb);
	addr.ifindex = ctrl.pkt_ifx;
	addr.packet_type = kOtherHost;
	__builtin_memset(name, 0, kNameLen);
	__builtin_memcpy(name, &addr, sizeof(addr));
}

/** Hand the packet out; the number of bytes for the caller, or a negative errno. */
int hand_out(sock *sk, sk_buff *skb, msghdr *msg, size_t len, int flags)
{
	u32 full = seam_skb_len(skb);
	size_t copied = full;

	if (copied > len) {
		copied = len;
		seam_msg_add_flags(msg, msg::kTrunc);
	}
	int error = seam_copy_datagram(skb, msg, copied);
	if (error)
		return error;
	seam_recv_timestamp(msg, sk, skb);

	const auto *ctrl = static_cast<const mox_packet_ctrl_info *>(seam_skb_cb(skb));
	fill_name(msg, skb, *ctrl);
	if (po_flag(po_of(sk), PO_CTRL_INFO)) {
		seam_msg_set_controllen(msg, sizeof(*ctrl));
		/* A control buffer that cannot be written loses the record, not the packet. */
		if (seam_msg_control(msg))
			(void)seam_msg_put_control(msg, ctrl, sizeof(*ctrl));
	}
	return static_cast<int>(flags & msg::kTrunc ? full : copied);
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" void mox_packet_poll(struct socket *socket)
{
	if (sock *sk = seam_socket_sk(socket))
		stamps_look(po_of(sk));
}

extern "C" int mox_packet_recvmsg(struct socket *socket, msghdr *msg, size_t len, int flags)
{
	sock *sk = seam_socket_sk(socket);
	if (!sk || (flags & ~kAllowedFlags))
		return err::kInval;
	stamps_look(po_of(sk));
	int error = 0;
	sk_buff *skb = seam_recv_datagram(sk, flags, &error);
	if (!skb)
		return error;
	if (!(flags & msg::kPeek))
		tally_shared<MOX_CAPTURE_COUNTERS_READ>(po_of(sk));
	int result = hand_out(sk, skb, msg, len, flags);
	/* Several readers count here without a lock; a packet that was only peeked at does not count. */
	if (seam_skb_users(skb) == 1)
		__atomic_fetch_add(&g_free_skb_num, 1u, __ATOMIC_RELAXED);
	seam_free_datagram(sk, skb);
	return result;
}
