// SPDX-License-Identifier: GPL-2.0-only
#include "control/diag.hpp"

#include "base/log.hpp"
#include "base/socket_record.hpp"
#include "control/capture.hpp"
#include "socket/registry.hpp"

namespace mox {
namespace {

/* Sockets of one hold of the registry. */
constexpr u32 kSocketsOfHold = 64;

constinit u8 g_diag_up = 0;

struct Listing {
	sk_buff *skb;
	netlink_callback *callback;
	const net *ns;
	bool full;
};

/** False when the buffer is full. */
bool list_socket(void *context, mox_packet_sock *po)
{
	auto *listing = static_cast<Listing *>(context);
	sock *sk = sk_of(po);

	/* As all socket diagnosis: the sockets of the requester's network namespace. */
	if (seam_sk_net(sk) != listing->ns)
		return true;
	const seam_diag_socket socket = { load(po->ifindex), load(po->regular.location),
					  load(po->regular.treatment),
					  __builtin_bswap16(load(po->protocol)),
					  static_cast<u8>(rule_entered(po)) };
	listing->full = seam_diag_put(listing->skb, listing->callback, &socket, sk) != 0;
	return !listing->full;
}

} // namespace

void diag_init()
{
	if (g_diag_up)
		return;
	int error = seam_diag_register();
	if (error)
		mox_printk(MOX_KERN_INFO
			   "No socket diagnosis of family 17, errno %d: is packet_diag loaded?\n",
			   error);
	store(g_diag_up, static_cast<u8>(error == 0));
}

void diag_deinit()
{
	if (!g_diag_up)
		return;
	seam_diag_unregister();
	store(g_diag_up, u8{ 0 });
}

bool diag_up()
{
	return load(g_diag_up) != 0;
}

} // namespace mox

using namespace mox;

extern "C" void mox_packet_diag_dump(sk_buff *skb, netlink_callback *callback, const net *ns,
				     seam_diag_place *at)
{
	RegistryPlace place = { u64{ at->serial_high } << 32 | at->serial_low, at->departures,
				static_cast<list_head *>(at->link) };
	Listing listing = { skb, callback, ns, false };

	while (!registry_visit(&place, kSocketsOfHold, list_socket, &listing)) {
		if (listing.full || seam_fatal_signal_pending())
			break;
		seam_cond_resched();
	}
	*at = { static_cast<u32>(place.serial), static_cast<u32>(place.serial >> 32),
		place.departures, place.link };
}
