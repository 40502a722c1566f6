// SPDX-License-Identifier: GPL-2.0-only
#include "socket/family.hpp"

#include "base/counters.hpp"
#include "base/errors.hpp"
#include "base/log.hpp"
#include "base/module_state.hpp"
#include "base/restriction.hpp"
#include "base/socket_record.hpp"
#include "rules/budget.hpp"
#include "rules/edit.hpp"
#include "rules/filing.hpp"
#include "services/vsd.hpp"
#include "socket/registry.hpp"
#include "socket/rule_change.hpp"
#include "socket/stamps.hpp"

extern "C" {
constinit u8 mox_packet_family_init_ok = 0;
constinit u32 g_free_skb_num = 0;
}

namespace mox {
namespace {

constinit bool g_pernet_registered = false;

/**
 * Give a new socket the rule of the protocol it was created with: one
 * EtherType value, as passed. 0 or a negative errno.
 */
int start_with_protocol(mox_packet_sock *po)
{
	int error = budget_charge(po, PACKET_ETH_PROT_EQUAL, 1);
	if (error)
		return error;
	OwnedData data = make_data(PACKET_ETH_PROT_EQUAL, &po->protocol, sizeof(po->protocol));
	error = data ? add_data(move(data), &po->regular) : err::kNoMem;
	if (error) {
		budget_release(po);
		return error;
	}
	/* Running although no library has the rule: the location comes later. */
	po_set_running(po);
	return 0;
}

/** Fill a fresh record; the kernel's part is set up. 0 or a negative errno. */
int init_record(mox_packet_sock *po, int protocol)
{
	po->pid = seam_current_pid();
	seam_current_comm(po->process);
	po->protocol = static_cast<u16>(protocol);

	u32 vsd = current_vsd();
	if (vsd != 0) {
		MOX_DEBUG("Get vsd id %d fail\n", static_cast<int>(vsd));
		return err::kInval;
	}
	po->vsd = vsd;
	po->reserved = 0;
	po->dgram = seam_sk_type(sk_of(po)) == sock_type::kDgram;
	seam_po_locks_init(po);
	po->regular.owner = po;
	po->regular.treatment = PACKET_TREATMENT_NONE;
	po->regular.location = PACKET_NONE_LOC;
	list_init(&po->regular.items);
	list_init(&po->regular.lib_node);
	seam_smp_wmb();
	return po->protocol != 0 ? start_with_protocol(po) : 0;
}

/**
 * The list of sockets is guarded by its own namespace's mutex, and every
 * release holds the initial namespace's as well, whatever namespace the socket
 * is of: no socket is unlinked while that one is held.
 */
class ReleaseListGuard : Pinned {
public:
	explicit ReleaseListGuard(net *owner)
		: initial_(seam_init_net()), other_(owner == initial_ ? nullptr : owner)
	{
		seam_ns_lock(initial_);
		if (other_)
			seam_ns_lock_nested(other_);
	}
	~ReleaseListGuard()
	{
		if (other_)
			seam_ns_unlock(other_);
		seam_ns_unlock(initial_);
	}

private:
	net *initial_;
	net *other_;
};

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_family_init(void)
{
	if (mox_packet_family_init_ok)
		return 0;
	g_free_skb_num = 0;
	registry_init();
	int error = seam_proto_register();
	if (error) {
		mox_printk(MOX_KERN_INFO "PROTO-REGISTER return %d.\n", error);
		return error;
	}
	error = seam_family_register();
	if (error) {
		mox_printk(MOX_KERN_INFO "SOCK-REGISTER: return %d\n", error);
		seam_proto_unregister();
		return error;
	}
	/* The namespace init cannot fail; the result only decides whether to unregister. */
	g_pernet_registered = seam_pernet_register() == 0;
	mox_packet_family_init_ok = 1;
	return 0;
}

void mox_packet_family_deinit(void)
{
	if (!mox_packet_family_init_ok)
		return;
	if (g_pernet_registered)
		seam_pernet_unregister();
	g_pernet_registered = false;
	seam_family_unregister();
	seam_proto_unregister();
	mox_packet_family_init_ok = 0;
}

u8 mox_packet_family_had_init(void)
{
	return mox_packet_family_init_ok;
}

int mox_packet_net_init(net *net)
{
	seam_ns_list_init(net);
	return 0;
}

void mox_packet_net_exit(net *) {}

int mox_packet_create(net *net, struct socket *socket, int protocol, int)
{
	if (restriction_on() && !seam_capable_net_raw())
		return err::kPerm;
	MOX_DEBUG("PACKET-CREATE\n");
	int type = seam_socket_type(socket);
	if (type != sock_type::kDgram && type != sock_type::kRaw) {
		/* SOCK_PACKET is in the text only. */
		MOX_DEBUG("SOCK TYPE is not SOCK_DGRAM, SOCK_RAW or SOCK_PACKET\n");
		return err::kSockTNoSupport;
	}
	/*
	 * Until the last unit is up the load may still fail, and would leave
	 * an early socket without code: there is no family yet.
	 */
	if (!module_up())
		return err::kAfNoSupport;
	sock *sk = seam_sk_alloc(net);
	if (!sk) {
		MOX_DEBUG("Can not alloc sock\n");
		return err::kNoBufs;
	}
	seam_sock_setup(socket, sk);
	mox_packet_sock *po = po_of(sk);
	int error = init_record(po, protocol);
	if (error) {
		seam_socket_clear_sk(socket);
		seam_sock_put(sk);
		return error;
	}
	/* The kernel does not pin the namespace for a socket made this way. */
	seam_net_get(net);
	seam_ns_lock(net);
	seam_ns_list_add(net, sk);
	seam_prot_inuse_add(net, 1);
	seam_ns_unlock(net);
	registry_add(po);
	return 0;
}

int mox_packet_release(struct socket *socket)
{
	MOX_DEBUG("MOX-PACKET-RELEASE\n");
	sock *sk = seam_socket_sk(socket);
	if (!sk) {
		MOX_DEBUG("PACKET-RELEASE: EINVAL\n");
		return 0;
	}
	mox_packet_sock *po = po_of(sk);
	net *net = seam_sk_net(sk);
	{
		ReleaseListGuard guard(net);
		seam_ns_list_del(sk);
		seam_prot_inuse_add(net, -1);
	}
	stamps_release(po);
	/* Without its rule, and listed until the end. */
	ChangeNote note;
	{
		/* A dump of the rules that holds the socket reads its rule under this lock. */
		SockGuard guard(sk);
		if (po_flag(po, PO_RUNNING)) {
			mox_packet_remove_regular(&po->regular);
			po_clear_running(po);
		}
		mox_packet_empty_regular(&po->regular);
		budget_release(po);
	}
	seam_sock_orphan(sk);
	seam_socket_clear_sk(socket);
	const u32 unread = seam_rcvq_len(sk);
	bump(g_free_skb_num, static_cast<s32>(unread));
	seam_rcvq_purge(sk);
	count(socket_total(po, MOX_CAPTURE_COUNTERS_FREED_UNREAD), unread);
	registry_remove(po);
	seam_sock_put(sk);
	seam_net_put(net);
	return 0;
}

void mox_packet_sock_destruct(sock *sk)
{
	if (seam_sk_rmem(sk) != 0)
		seam_warn("a packet socket is freed with receive memory charged");
	/* The last put has taken the socket's own share already. */
	if (seam_sk_wmem_charged(sk) != 0)
		seam_warn("a packet socket is freed with send memory charged");
	if (!seam_sk_dead(sk))
		mox_printk(MOX_KERN_ERR "Attempt to release alive packet socket: %p\n", sk);
}
} // extern "C"
