// SPDX-License-Identifier: GPL-2.0-only
// Sockets, namespaces and the family's registration.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernel.h"
#include "ledger.h"

using fake::breach;
using fake::Fail;
using fake::kernel;
using fake::LockKind;
using fake::Point;

// Called only where the program under test has them: a test of the rule library
// need not link the socket family.
extern "C" __attribute__((weak)) int mox_packet_net_init(struct net *);
extern "C" __attribute__((weak)) void mox_packet_net_exit(struct net *);
extern "C" __attribute__((weak)) void mox_packet_sock_destruct(struct sock *);

namespace fake {

namespace {

constexpr uint32_t kSockMagic = 0x736f636b;
constexpr int kRcvBuf = 212992;

int registration(const char *call, Fail fail, bool &flag, const std::string &journal)
{
	kernel().may_sleep(call);
	if (kernel().failing(fail)) {
		kernel().journal.push_back(journal + " fails");
		return kernel().error_of(fail, -EEXIST);
	}
	if (flag)
		breach(std::string(call) + " twice");
	kernel().journal.push_back(journal);
	flag = true;
	return 0;
}

void unregistration(const char *call, bool &flag, const std::string &journal)
{
	kernel().may_sleep(call);
	if (!flag)
		breach(std::string(call) + " of what is not registered");
	kernel().journal.push_back(journal);
	flag = false;
}

void check(const struct sock *sk, const char *call)
{
	if (!kernel().socks.count(const_cast<struct sock *>(sk)))
		breach(std::string(call) + " on a freed socket");
}

} // namespace
} // namespace fake

int seam_proto_register(void)
{
	return fake::registration("proto_register", Fail::kProtoRegister, kernel().proto_registered,
				  "proto+");
}

void seam_proto_unregister(void)
{
	fake::unregistration("proto_unregister", kernel().proto_registered, "proto-");
}

int seam_family_register(void)
{
	return fake::registration("sock_register", Fail::kFamilyRegister,
				  kernel().family_registered, "family+");
}

void seam_family_unregister(void)
{
	fake::unregistration("sock_unregister", kernel().family_registered, "family-");
}

int seam_pernet_register(void)
{
	int result = fake::registration("pernet_register", Fail::kPernetRegister,
					kernel().pernet_registered, "pernet+");
	if (result == 0 && mox_packet_net_init)
		mox_packet_net_init(&fake::init_net());
	return result;
}

void seam_pernet_unregister(void)
{
	fake::unregistration("pernet_unregister", kernel().pernet_registered, "pernet-");
	if (mox_packet_net_exit)
		mox_packet_net_exit(&fake::init_net());
}

void seam_ns_list_init(net *ns)
{
	fake::Kernel::init_lock(&ns->lock, LockKind::kNsMutex);
	ns->list.clear();
	ns->list_ready = true;
	kernel().journal.push_back("ns " + ns->name);
}

net *seam_init_net(void)
{
	return &fake::init_net();
}
net *seam_sk_net(sock *sk)
{
	return sk->ns;
}
void seam_net_get(net *ns)
{
	ns->refs++;
}

void seam_net_put(net *ns)
{
	if (--ns->refs < 0)
		breach("namespace reference dropped once too often");
}

void seam_ns_list_add(net *ns, sock *sk)
{
	if (!ns->list_ready)
		breach("namespace list not initialised");
	if (!kernel().holds(LockKind::kNsMutex) && !kernel().holds(LockKind::kNsMutexNested))
		breach("namespace list changed without its mutex");
	if (sk->listed)
		breach("socket listed twice");
	ns->list.insert(ns->list.begin(), sk);
	sk->listed = ns;
	sk->refs++;
}

void seam_ns_list_del(sock *sk)
{
	if (!sk->listed)
		return;
	bool locked = false;
	for (auto &[lock, kind] : kernel().held)
		locked = locked || lock == &sk->listed->lock;
	if (!locked)
		breach("socket unlisted without its namespace's mutex");
	std::erase(sk->listed->list, sk);
	sk->listed = nullptr;
	sk->refs--;
}

void seam_prot_inuse_add(net *ns, int delta)
{
	ns->inuse += delta;
	kernel().inuse += delta;
}

sock *seam_sk_alloc(net *ns)
{
	kernel().may_sleep("sk_alloc");
	if (kernel().failing(Fail::kSkAlloc))
		return nullptr;
	size_t size = sizeof(mox_packet_sock);
	// Low memory is not needed here: no platform word ever holds a socket.
	void *p = std::aligned_alloc(16, (size + 15) & ~size_t{ 15 });
	std::memset(p, 0, size);
	auto *sk = new (p) sock{};
	sk->magic = fake::kSockMagic;
	sk->refs = 1;
	sk->ns = ns;
	sk->rcvbuf = fake::kRcvBuf;
	sk->object_size = size;
	sk->queue = new std::deque<sk_buff *>;
	sk->write_queue = new std::deque<sk_buff *>;
	kernel().socks.insert(sk);
	return sk;
}

void seam_sock_setup(socket *socket, sock *sk)
{
	socket->sk = sk;
	socket->ops_set = true;
	sk->type = socket->type;
	sk->set_up = true;
	fake::Kernel::init_lock(&sk->lock, LockKind::kSock);
	fake::Kernel::init_lock(&sk->queue_lock, LockKind::kReceiveQueue);
}

sock *seam_socket_sk(socket *socket)
{
	return socket->sk;
}
void seam_socket_clear_sk(socket *socket)
{
	socket->sk = nullptr;
}
int seam_socket_type(const socket *socket)
{
	return socket->type;
}
int seam_sk_type(const sock *sk)
{
	return sk->type;
}

void seam_sock_hold(sock *sk)
{
	fake::check(sk, "sock_hold");
	if (sk->refs == 0)
		breach("sock_hold on a socket without references");
	sk->refs++;
}

void seam_sock_put(sock *sk)
{
	fake::check(sk, "sock_put");
	kernel().event(Point::kSockPut, sk);
	if (--sk->refs)
		return;
	if (sk->set_up && mox_packet_sock_destruct)
		mox_packet_sock_destruct(sk);
	if (sk->listed)
		breach("socket freed while on its namespace's list");
	if (!sk->queue->empty())
		breach("socket freed with buffers queued");
	if (sk->set_up)
		fake::audit_socket(reinterpret_cast<mox_packet_sock *>(sk), 0);
	kernel().socks.erase(sk);
	delete sk->queue;
	delete sk->write_queue;
	std::free(sk);
}

u32 seam_sk_refcnt(const sock *sk)
{
	return sk->refs;
}

void seam_sock_orphan(sock *sk)
{
	fake::check(sk, "sock_orphan");
	sk->dead = true;
	kernel().event(Point::kOrphan, sk);
}

int seam_sk_dead(const sock *sk)
{
	return sk->dead;
}
int seam_sk_rmem(const sock *sk)
{
	return sk->rmem;
}

// One share is the socket's own; the last put has taken it when the destructor runs.
u32 seam_sk_wmem_charged(const sock *sk)
{
	return sk->wmem + (sk->refs ? 1 : 0);
}
int seam_sk_wmem(const sock *sk)
{
	return static_cast<int>(seam_sk_wmem_charged(sk)) - 1;
}

void seam_warn(const char *what)
{
	kernel().warnings.push_back(what);
}

int seam_sock_get_timestamp(sock *, void *user_to)
{
	int32_t stamp[2] = { 17, 4 };
	return seam_copy_to_user(user_to, stamp, sizeof stamp);
}

int seam_sock_get_timestampns(sock *, void *user_to)
{
	int32_t stamp[2] = { 17, 9 };
	return seam_copy_to_user(user_to, stamp, sizeof stamp);
}

int seam_sk_filter_trim_cap(sock *sk, sk_buff *, u32 cap)
{
	if (cap != 1)
		breach("socket filter run with a cap of " + std::to_string(cap));
	if (!sk->has_filter)
		breach("socket filter run without one");
	return sk->verdict;
}
