// SPDX-License-Identifier: GPL-2.0-only
/* getsockopt, getname and ioctl: what a process may query of its socket. */
#include "base/errors.hpp"
#include "base/socket_record.hpp"
#include "packet/efbuff.hpp"
#include "socket/address.hpp"
#include "base/counters.hpp"

namespace mox {
namespace {

/** Read and clear, as one block, the counters of the socket: the send counters go too. */
mox_packet_stats take_statistics(sock *sk)
{
	mox_packet_sock *po = po_of(sk);
	ReceiveQueueGuard guard(sk);

	u32 drops = load(po->filter_drops) + load(po->rcvbuf_full_drops) +
		    load(po->trim_fail_drops);
	u32 packets = load(po->recv_packets);
	clear_counters(po->counters);
	return { packets + drops, drops };
}

/** Hand out a reply, cut to the caller's length, and that length. 0 or -EFAULT. */
int reply(char *user_value, int *user_len, int len, const void *value, int size)
{
	if (len > size)
		len = size;
	if (seam_put_user_int(len, user_len))
		return err::kFault;
	return seam_copy_to_user(user_value, value, static_cast<size_t>(len));
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_getsockopt(struct socket *socket, int level, int option, char *user_value,
			  int *user_len)
{
	if (level != MOX_SOL_PACKET)
		return err::kNoProtoOpt;
	int len;
	if (seam_get_user_int(&len, user_len))
		return err::kFault;
	if (len < 0)
		return err::kInval;

	sock *sk = seam_socket_sk(socket);
	const mox_packet_sock *po = po_of(sk);
	int value;
	switch (option) {
	case MOX_PACKET_STATISTICS: {
		mox_packet_stats stats = take_statistics(sk);
		return reply(user_value, user_len, len, &stats, sizeof(stats));
	}
	case MOX_PACKET_AUXDATA:
		value = po_flag(po, PO_AUXDATA);
		break;
	case MOX_PACKET_ORIGDEV:
		value = po_flag(po, PO_ORIGDEV);
		break;
	default:
		return err::kNoProtoOpt;
	}
	return reply(user_value, user_len, len, &value, sizeof(value));
}

int mox_packet_getname(struct socket *socket, sockaddr *addr, int peer)
{
	if (peer)
		return err::kOpNotSupp;
	/* Once: another thread may bind meanwhile, and index and MAC are those of one interface. */
	const u32 ifindex = load(po_of(seam_socket_sk(socket))->ifindex);
	const void *intf = lsm_get_intfcb(ifindex);
	auto *name = reinterpret_cast<link_layer_address *>(addr);

	/* Also clears the packet type, which has no meaning here: the buffer is kernel stack. */
	*name = link_layer_address{};
	name->family = MOX_PACKET_FAMILY;
	name->ifindex = ifindex;
	if (!intf)
		return kAddressHead;
	name->address_len = 6;
	__builtin_memcpy(name->address, static_cast<const u8 *>(intf) + platform::intf::kMac, 6);
	return kAddressHead + 6;
}

int mox_packet_ioctl(struct socket *socket, unsigned int command, unsigned long arg)
{
	sock *sk = seam_socket_sk(socket);
	auto *user = reinterpret_cast<int *>(arg);

	switch (command) {
	case cmd::kOutQ:
		return seam_put_user_int(seam_sk_wmem(sk), user);
	case cmd::kInQ: {
		u32 len = 0;
		{
			ReceiveQueueGuard guard(sk);
			if (sk_buff *skb = seam_rcvq_peek(sk))
				len = seam_skb_len(skb);
		}
		return seam_put_user_int(static_cast<int>(len), user);
	}
	case cmd::kGetStamp:
		return seam_sock_get_timestamp(sk, user);
	case cmd::kGetStampNs:
		return seam_sock_get_timestampns(sk, user);
	default:
		return err::kNoIoctlCmd;
	}
}
} // extern "C"
