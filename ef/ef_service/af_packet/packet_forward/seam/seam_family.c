// SPDX-License-Identifier: GPL-2.0-only
/* The tables that the kernel registers, and the trampolines from its signatures. */
#include <linux/if_packet.h>
#include <linux/module.h>
#include <linux/net.h>
#include <net/net_namespace.h>
#include <net/sock.h>

#include "seam.h"
#include "seam_compat.h"
#include "seam_uptr.h"

struct proto mox_packet_proto = {
	.name = "PACKET",
	.owner = THIS_MODULE,
	.obj_size = sizeof(struct mox_packet_sock),
};

static int seam_setsockopt(struct socket *sock, int level, int option, SEAM_OPTVAL value,
			   unsigned int len)
{
	struct seam_uptr uptr = { .value = value };

	return mox_packet_setsockopt(sock, level, option, &uptr, len);
}

static int seam_getsockopt(struct socket *sock, int level, int option, char __user *value,
			   int __user *len)
{
	return mox_packet_getsockopt(sock, level, option, (char __force *)value,
				     (int __force *)len);
}

static int seam_bind(struct socket *sock, SEAM_BIND_ADDR *addr, int length)
{
	return mox_packet_bind(sock, (struct sockaddr *)addr, length);
}

static __poll_t seam_poll(struct file *file, struct socket *sock, struct poll_table_struct *wait)
{
	mox_packet_poll(sock);
	return datagram_poll(file, sock, wait);
}

const struct proto_ops mox_packet_ops = { .family = PF_PACKET,
					  .owner = THIS_MODULE,
					  .release = mox_packet_release,
					  .bind = seam_bind,
					  .connect = sock_no_connect,
					  .socketpair = sock_no_socketpair,
					  .accept = sock_no_accept,
					  .getname = mox_packet_getname,
					  .poll = seam_poll,
					  .ioctl = mox_packet_ioctl,
					  SEAM_GETTSTAMP.listen = sock_no_listen,
					  .shutdown = sock_no_shutdown,
					  .setsockopt = seam_setsockopt,
					  .getsockopt = seam_getsockopt,
					  .sendmsg = mox_packet_sendmsg,
					  .recvmsg = mox_packet_recvmsg,
					  .mmap = sock_no_mmap,
					  SEAM_SENDPAGE };

const struct net_proto_family mox_packet_family_ops = {
	.family = PF_PACKET,
	.create = mox_packet_create,
	.owner = THIS_MODULE,
};

struct pernet_operations mox_packet_net_ops = {
	.init = mox_packet_net_init,
	.exit = mox_packet_net_exit,
};

int seam_proto_register(void)
{
	/* The public header repeats these for programs without kernel headers. */
	BUILD_BUG_ON(MOX_PACKET_FAMILY != PF_PACKET);
	BUILD_BUG_ON(MOX_SOL_PACKET != SOL_PACKET);
	BUILD_BUG_ON(MOX_PACKET_STATISTICS != PACKET_STATISTICS);
	BUILD_BUG_ON(MOX_PACKET_AUXDATA != PACKET_AUXDATA);
	BUILD_BUG_ON(MOX_PACKET_ORIGDEV != PACKET_ORIGDEV);
	BUILD_BUG_ON(sizeof(struct mox_packet_stats) != sizeof(struct tpacket_stats));
	return proto_register(&mox_packet_proto, 0);
}

void seam_proto_unregister(void)
{
	proto_unregister(&mox_packet_proto);
}

int seam_family_register(void)
{
	return sock_register(&mox_packet_family_ops);
}

void seam_family_unregister(void)
{
	sock_unregister(PF_PACKET);
}

int seam_pernet_register(void)
{
	return register_pernet_subsys(&mox_packet_net_ops);
}

void seam_pernet_unregister(void)
{
	unregister_pernet_subsys(&mox_packet_net_ops);
}

void seam_ns_list_init(struct net *net)
{
	mutex_init(&net->packet.sklist_lock);
	INIT_HLIST_HEAD(&net->packet.sklist);
}

struct net *seam_init_net(void)
{
	return &init_net;
}

struct net *seam_sk_net(struct sock *sk)
{
	return sock_net(sk);
}

void seam_net_get(struct net *net)
{
	get_net(net);
}

void seam_net_put(struct net *net)
{
	put_net(net);
}

void seam_ns_lock(struct net *net)
{
	mutex_lock(&net->packet.sklist_lock);
}

void seam_ns_lock_nested(struct net *net)
{
	mutex_lock_nested(&net->packet.sklist_lock, SINGLE_DEPTH_NESTING);
}

void seam_ns_unlock(struct net *net)
{
	mutex_unlock(&net->packet.sklist_lock);
}

void seam_ns_list_add(struct net *net, struct sock *sk)
{
	sk_add_node(sk, &net->packet.sklist);
}

void seam_ns_list_del(struct sock *sk)
{
	sk_del_node_init(sk);
}

void seam_prot_inuse_add(struct net *net, int delta)
{
	/* Before 5.17 the kernel's own counter requires a caller that stays on its CPU. */
	preempt_disable();
	sock_prot_inuse_add(net, &mox_packet_proto, delta);
	preempt_enable();
}

struct sock *seam_sk_alloc(struct net *net)
{
	BUILD_BUG_ON(offsetof(struct mox_packet_sock, sk) != 0);
	return sk_alloc(net, PF_PACKET, GFP_KERNEL, &mox_packet_proto, 1);
}

void seam_sock_setup(struct socket *socket, struct sock *sk)
{
	socket->state = SS_UNCONNECTED;
	socket->ops = &mox_packet_ops;
	sock_init_data(socket, sk);
	sk->sk_destruct = mox_packet_sock_destruct;
	sk->sk_family = PF_PACKET;
}
