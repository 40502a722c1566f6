// SPDX-License-Identifier: GPL-2.0-only
// Locks that record who holds them, and barriers.
#include <cstring>

#include "backlog.h"
#include "kernel.h"

namespace fake {

int max_backlog = kBacklogDefault;

namespace {

constexpr uint64_t kMagic = 0x6c6f636b6f6b2121;

const char *name(LockKind kind)
{
	static const char *const names[] = { "none",
					     "namespace list mutex",
					     "nested namespace list mutex",
					     "request mutex",
					     "dump mutex",
					     "socket lock",
					     "change lock",
					     "bind_lock",
					     "rule_lock",
					     "hook lock",
					     "library lock",
					     "queue lock",
					     "receive queue lock",
					     "mutex",
					     "registry mutex",
					     "mutex of closed sockets",
					     "tracer mutex",
					     "mutex of arrivals",
					     "tracer lock" };
	return names[static_cast<int>(kind)];
}

bool sleeping_kind(LockKind kind)
{
	return kind == LockKind::kNsMutex || kind == LockKind::kNsMutexNested ||
	       kind == LockKind::kRequest || kind == LockKind::kDump || kind == LockKind::kSock ||
	       kind == LockKind::kChange || kind == LockKind::kMutex ||
	       kind == LockKind::kRegistry || kind == LockKind::kClosed ||
	       kind == LockKind::kTracerMutex || kind == LockKind::kArrivals;
}

} // namespace

void Kernel::init_lock(void *storage, LockKind kind)
{
	auto *lock = static_cast<Lock *>(storage);
	*lock = Lock{ kMagic, kind, 0, 0, 0 };
}

void Kernel::may_sleep(const char *call)
{
	if (in_hook)
		breach(std::string(call) + " may sleep, in a hook");
	else if (bh_disabled)
		breach(std::string(call) + " may sleep, with bottom halves disabled");
	for (auto &[lock, kind] : held)
		if (!sleeping_kind(kind))
			breach(std::string(call) + " may sleep, under the " + name(kind));
}

void Kernel::take(Lock *lock, LockKind as, bool write, const char *call)
{
	if (lock->magic != kMagic)
		return breach(std::string(call) + " of a lock never initialised");
	event(Point::kLocking, lock);
	if (as == LockKind::kNone)
		as = lock->kind;
	if (sleeping_kind(as))
		may_sleep(call);
	for (auto &[other, kind] : held) {
		if (other == lock)
			breach(std::string(call) + ": the " + name(as) + " is held already");
		else if (kind >= as || (kind == LockKind::kBind && as == LockKind::kRule) ||
			 (kind == LockKind::kLib && as == LockKind::kQueue) ||
			 (kind == LockKind::kRequest && as == LockKind::kDump) ||
			 (kind == LockKind::kHook && as == LockKind::kLib && write))
			breach(std::string(call) + ": the " + name(as) + " after the " +
			       name(kind));
	}
	if (lock->writers || (write && lock->readers))
		breach(std::string(call) + ": the " + name(as) + " would never be free");
	(write ? lock->writers : lock->readers)++;
	lock->lines = 0;
	held.push_back({ lock, as });
	event(Point::kLock, lock);
}

void Kernel::drop(Lock *lock, bool write, const char *call)
{
	event(Point::kUnlocking, lock);
	for (size_t i = held.size(); i-- > 0;) {
		if (held[i].first != lock)
			continue;
		int &count = write ? lock->writers : lock->readers;
		if (count == 0)
			breach(std::string(call) + ": held the other way");
		else
			count--;
		held.erase(held.begin() + i);
		return;
	}
	breach(std::string(call) + " of a lock that is not held");
}

// A console is slow: what is logged under a lock that does not sleep holds the others up.
void Kernel::logging()
{
	constexpr int kLinesOfHold = 8;
	for (auto &[lock, kind] : held)
		if (!sleeping_kind(kind) && ++lock->lines > kLinesOfHold)
			breach("more than 8 lines under the " + std::string(name(kind)));
}

bool Kernel::holds(LockKind kind) const
{
	for (auto &[lock, k] : held)
		if (k == kind)
			return true;
	return false;
}

namespace {

Lock *as_lock(void *p)
{
	return static_cast<Lock *>(p);
}

void lock_bh(void *p, bool write, const char *call)
{
	kernel().bh_disabled++;
	kernel().take(as_lock(p), LockKind::kNone, write, call);
}

void unlock_bh(void *p, bool write, const char *call)
{
	kernel().drop(as_lock(p), write, call);
	if (kernel().bh_disabled-- == 0)
		breach(std::string(call) + " with bottom halves on");
	kernel().event(Point::kUnlock, p);
}

} // namespace
} // namespace fake

using fake::kernel;
using fake::Kernel;
using fake::LockKind;
using fake::Point;

static_assert(sizeof(fake::Lock) <= SEAM_SPINLOCK_SIZE && sizeof(fake::Lock) <= SEAM_RWLOCK_SIZE &&
	      sizeof(fake::Lock) <= SEAM_MUTEX_SIZE);

const int *const seam_max_backlog = &fake::max_backlog;

void seam_po_locks_init(mox_packet_sock *po)
{
	Kernel::init_lock(&po->bind_lock, LockKind::kBind);
	Kernel::init_lock(&po->pg_vec_lock, LockKind::kMutex);
	Kernel::init_lock(&po->rule_lock, LockKind::kRule);
}

void seam_lib_lock_init(packet_regular_lib *lib)
{
	Kernel::init_lock(&lib->lock, LockKind::kLib);
	Kernel::init_lock(&lib->change_lock, LockKind::kChange);
}
void seam_queue_lock_init(efbuff_queue *queue)
{
	Kernel::init_lock(&queue->lock, LockKind::kQueue);
}
void seam_hook_lock_init(seam_spinlock *lock)
{
	Kernel::init_lock(lock, LockKind::kHook);
}

void seam_request_mutex_init(seam_mutex *lock)
{
	Kernel::init_lock(lock, LockKind::kRequest);
}
void seam_dump_mutex_init(seam_mutex *lock)
{
	Kernel::init_lock(lock, LockKind::kDump);
}
void seam_registry_mutex_init(seam_mutex *lock)
{
	Kernel::init_lock(lock, LockKind::kRegistry);
}
void seam_closed_mutex_init(seam_mutex *lock)
{
	Kernel::init_lock(lock, LockKind::kClosed);
}
void seam_arrivals_mutex_init(seam_mutex *lock)
{
	Kernel::init_lock(lock, LockKind::kArrivals);
}
void seam_tracer_locks_init(seam_rwlock *lock, seam_mutex *mutex)
{
	Kernel::init_lock(lock, LockKind::kTracer);
	Kernel::init_lock(mutex, LockKind::kTracerMutex);
}

int seam_mutex_lock_killable(seam_mutex *lock)
{
	kernel().may_sleep("mutex_lock_killable");
	if (kernel().failing(fake::Fail::kLockKillable))
		return -EINTR;
	kernel().take(fake::as_lock(lock), LockKind::kNone, true, "mutex_lock_killable");
	return 0;
}

void seam_mutex_unlock(seam_mutex *lock)
{
	kernel().drop(fake::as_lock(lock), true, "mutex_unlock");
	kernel().event(Point::kUnlock, lock);
}

void seam_spin_lock(seam_spinlock *lock)
{
	kernel().take(fake::as_lock(lock), LockKind::kNone, true, "spin_lock");
}

void seam_spin_unlock(seam_spinlock *lock)
{
	kernel().drop(fake::as_lock(lock), true, "spin_unlock");
	kernel().event(Point::kUnlock, lock);
}

void seam_spin_lock_bh(seam_spinlock *lock)
{
	fake::lock_bh(lock, true, "spin_lock_bh");
}
void seam_spin_unlock_bh(seam_spinlock *lock)
{
	fake::unlock_bh(lock, true, "spin_unlock_bh");
}
void seam_read_lock(seam_rwlock *lock)
{
	if (!kernel().bh_disabled && !kernel().in_hook)
		fake::breach("read_lock with bottom halves on");
	kernel().take(fake::as_lock(lock), LockKind::kNone, false, "read_lock");
}
void seam_read_unlock(seam_rwlock *lock)
{
	kernel().drop(fake::as_lock(lock), false, "read_unlock");
	kernel().event(Point::kUnlock, lock);
}
void seam_read_lock_bh(seam_rwlock *lock)
{
	fake::lock_bh(lock, false, "read_lock_bh");
}
void seam_read_unlock_bh(seam_rwlock *lock)
{
	fake::unlock_bh(lock, false, "read_unlock_bh");
}
void seam_write_lock_bh(seam_rwlock *lock)
{
	fake::lock_bh(lock, true, "write_lock_bh");
}
void seam_write_unlock_bh(seam_rwlock *lock)
{
	fake::unlock_bh(lock, true, "write_unlock_bh");
}

void seam_mutex_lock(seam_mutex *lock)
{
	kernel().take(fake::as_lock(lock), LockKind::kNone, true, "mutex_lock");
}

void seam_lock_sock(sock *sk)
{
	kernel().take(&sk->lock, LockKind::kSock, true, "lock_sock");
}

void seam_release_sock(sock *sk)
{
	kernel().may_sleep("release_sock");
	kernel().drop(&sk->lock, true, "release_sock");
	kernel().event(Point::kUnlock, sk);
}

void seam_rcvq_lock(sock *sk)
{
	fake::lock_bh(&sk->queue_lock, true, "receive queue lock");
}
void seam_rcvq_unlock(sock *sk)
{
	fake::unlock_bh(&sk->queue_lock, true, "receive queue unlock");
}

void seam_ns_lock(net *ns)
{
	kernel().take(&ns->lock, LockKind::kNsMutex, true, "mutex_lock");
}

void seam_ns_lock_nested(net *ns)
{
	kernel().take(&ns->lock, LockKind::kNsMutexNested, true, "mutex_lock_nested");
}

void seam_ns_unlock(net *ns)
{
	kernel().drop(&ns->lock, true, "mutex_unlock");
	kernel().event(Point::kUnlock, &ns->lock);
}

void seam_smp_mb(void)
{
	kernel().event(Point::kBarrier);
}
void seam_smp_wmb(void)
{
	kernel().event(Point::kStoreBarrier);
}

void seam_wait_for_hooks(void)
{
	kernel().may_sleep("synchronize");
	kernel().journal.push_back("grace");
	kernel().event(Point::kGrace);
}
