// SPDX-License-Identifier: GPL-2.0-only
/* Binding a socket to an interface and, optionally, one more protocol. */
#include "base/errors.hpp"
#include "base/log.hpp"
#include "packet/efbuff.hpp"
#include "rules/budget.hpp"
#include "rules/edit.hpp"
#include "rules/values.hpp"
#include "services/vsd.hpp"
#include "socket/address.hpp"
#include "socket/rule_change.hpp"
#include "socket/stamps.hpp"

namespace mox {
namespace {

constexpr int kShortestAddress = 20;

/** The checked interface of an address: 0 and its index, or a negative errno. */
int find_interface(u32 wanted, u32 *ifindex)
{
	*ifindex = 0;
	if (wanted == 0)
		return 0;
	u32 vsd = current_vsd();
	if (vsd != 0) {
		MOX_DEBUG("MOX-PACKET-BIND: get vsd id %d fail.\n", static_cast<int>(vsd));
		return err::kInval;
	}
	const void *intf = lsm_get_intfcb(wanted);
	if (!intf) {
		MOX_DEBUG("MOX-PACKET-BIND: Interface %d had not created\n",
			  static_cast<int>(wanted));
		return err::kNoDev;
	}
	*ifindex = field<u32>(intf, platform::intf::kIfindex);
	return 0;
}

/** Add the protocol to the socket's rule. 0 or a negative errno. */
int add_protocol(mox_packet_sock *po, u16 protocol)
{
	store(po->protocol, protocol);
	OwnedData data = make_data(PACKET_ETH_PROT_EQUAL, &protocol, sizeof(protocol));
	if (!data) {
		MOX_DEBUG("MOX-PACKET-DO-BIND: Alloc data failed\n");
		return err::kNoMem;
	}
	return add_data(move(data), &po->regular);
}

/** Charge the socket for the protocol's value, if its rule lacks it. 0 or -ENOMEM. */
int charge_protocol(mox_packet_sock *po, u16 protocol)
{
	const u8 value[REGULAR_VALUE_SIZE] = { static_cast<u8>(protocol),
					       static_cast<u8>(protocol >> 8) };
	const regular_item *item = mox_packet_search_item_from_regular(PACKET_ETH_PROT_EQUAL,
								       &po->regular);

	if (item && item_value(item, rule_value(PACKET_ETH_PROT_EQUAL, value)))
		return 0;
	return budget_charge(po, PACKET_ETH_PROT_EQUAL, 1);
}

/** The bind itself; the socket lock is held. 0 or a negative errno. */
int do_bind(mox_packet_sock *po, u32 ifindex, u16 protocol)
{
	int error = protocol != 0 ? charge_protocol(po, protocol) : 0;

	if (error)
		return error;
	change_rule<ChangeLock::kBind>(po, [&](seam_spinlock *lock) {
		SpinGuard guard(lock);
		store(po->ifindex, ifindex);
		if (protocol != 0)
			error = add_protocol(po, protocol);
		/* Without memory the socket stays out of the libraries until its next change. */
		return error ? ReEnter::kNever : ReEnter::kWithLocation;
	});
	if (error)
		budget_settle(po);
	return error;
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" int mox_packet_bind(struct socket *socket, sockaddr *addr, int addr_len)
{
	MOX_DEBUG("MOX-PACKET-BIND\n");
	stamps_look(po_of(seam_socket_sk(socket)));
	if (addr_len < kShortestAddress) {
		MOX_DEBUG("MOX-PACKET-BIND: Addr_len illegal\n");
		return err::kInval;
	}
	link_layer_address wanted;
	__builtin_memcpy(&wanted, addr, sizeof(wanted));
	if (wanted.family != MOX_PACKET_FAMILY) {
		MOX_DEBUG("MOX-PACKET-BIND: Sock family illegal\n");
		return err::kInval;
	}
	u32 ifindex;
	int error = find_interface(wanted.ifindex, &ifindex);
	if (error)
		return error;

	sock *sk = seam_socket_sk(socket);
	mox_packet_sock *po = po_of(sk);
	/* The socket lock keeps rule changes by setsockopt out, too. */
	SockGuard guard(sk);
	u16 protocol = wanted.protocol ? wanted.protocol : po->protocol;
	return do_bind(po, ifindex, protocol);
}
