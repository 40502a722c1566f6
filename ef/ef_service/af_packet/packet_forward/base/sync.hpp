// SPDX-License-Identifier: GPL-2.0-only
/*
 * Lock guards: the only way in which the units take a lock. A guard is bound
 * to its scope, so that no path can forget to unlock; a block of its own ends
 * a lock before the function ends. docs/locking.md has the order.
 */
#pragma once

#include "seam/seam.h"

namespace mox {

/** Base of every guard: neither copied nor moved. */
class Pinned {
protected:
	Pinned() = default;
	~Pinned() = default;

public:
	Pinned(const Pinned &) = delete;
	Pinned &operator=(const Pinned &) = delete;
};

/**
 * Spin lock of process context only (a socket's rule and bind locks, the hook lock),
 * or, of one that is taken elsewhere with SpinBhGuard, of a hook: bottom halves are
 * off there already.
 */
class SEAM_SCOPED_CAPABILITY SpinGuard : Pinned {
public:
	explicit SpinGuard(seam_spinlock *lock) SEAM_ACQUIRE(lock) : lock_(lock)
	{
		seam_spin_lock(lock);
	}
	~SpinGuard() SEAM_RELEASE() { seam_spin_unlock(lock_); }

private:
	seam_spinlock *lock_;
};

/** Spin lock that hooks take too: bottom halves off. */
class SEAM_SCOPED_CAPABILITY SpinBhGuard : Pinned {
public:
	explicit SpinBhGuard(seam_spinlock *lock) SEAM_ACQUIRE(lock) : lock_(lock)
	{
		seam_spin_lock_bh(lock);
	}
	~SpinBhGuard() SEAM_RELEASE() { seam_spin_unlock_bh(lock_); }

private:
	seam_spinlock *lock_;
};

/** Reader of a rule library: a hook, with bottom halves off. */
class SEAM_SCOPED_CAPABILITY ReadGuard : Pinned {
public:
	explicit ReadGuard(seam_rwlock *lock) SEAM_ACQUIRE_SHARED(lock) : lock_(lock)
	{
		seam_read_lock(lock);
	}
	~ReadGuard() SEAM_RELEASE_GENERIC() { seam_read_unlock(lock_); }

private:
	seam_rwlock *lock_;
};

/** Reader of a lock that hooks read, in any context. */
class SEAM_SCOPED_CAPABILITY BottomHalfReadGuard : Pinned {
public:
	explicit BottomHalfReadGuard(seam_rwlock *lock) SEAM_ACQUIRE_SHARED(lock) : lock_(lock)
	{
		seam_read_lock_bh(lock);
	}
	~BottomHalfReadGuard() SEAM_RELEASE_GENERIC() { seam_read_unlock_bh(lock_); }

private:
	seam_rwlock *lock_;
};

/** Writer of a rule library. */
class SEAM_SCOPED_CAPABILITY WriteGuard : Pinned {
public:
	explicit WriteGuard(seam_rwlock *lock) SEAM_ACQUIRE(lock) : lock_(lock)
	{
		seam_write_lock_bh(lock);
	}
	~WriteGuard() SEAM_RELEASE() { seam_write_unlock_bh(lock_); }

private:
	seam_rwlock *lock_;
};

/** A mutex: the holder may sleep. Process. */
class SEAM_SCOPED_CAPABILITY MutexGuard : Pinned {
public:
	explicit MutexGuard(seam_mutex *lock) SEAM_ACQUIRE(lock) : lock_(lock)
	{
		seam_mutex_lock(lock);
	}
	~MutexGuard() SEAM_RELEASE() { seam_mutex_unlock(lock_); }

private:
	seam_mutex *lock_;
};

/**
 * A mutex that may be waited for long: a caller that is killed meanwhile does
 * not get it, so the result must be tested. Process.
 */
class KillableGuard : Pinned {
public:
	explicit KillableGuard(seam_mutex *lock) SEAM_NO_THREAD_SAFETY_ANALYSIS
		: lock_(seam_mutex_lock_killable(lock) == 0 ? lock : nullptr)
	{
	}
	~KillableGuard() SEAM_NO_THREAD_SAFETY_ANALYSIS
	{
		if (lock_)
			seam_mutex_unlock(lock_);
	}
	/** Whether the mutex is held. */
	explicit operator bool() const { return lock_ != nullptr; }

private:
	seam_mutex *lock_;
};

/** The socket lock. */
class SockGuard : Pinned {
public:
	explicit SockGuard(struct sock *sk) : sk_(sk) { seam_lock_sock(sk); }
	~SockGuard() { seam_release_sock(sk_); }

private:
	struct sock *sk_;
};

/** A socket's receive-queue lock. */
class ReceiveQueueGuard : Pinned {
public:
	explicit ReceiveQueueGuard(struct sock *sk) : sk_(sk) { seam_rcvq_lock(sk); }
	~ReceiveQueueGuard() { seam_rcvq_unlock(sk_); }

private:
	struct sock *sk_;
};

/** A word that CPUs share without a lock: one untorn load, one untorn store. */
template <typename T> inline T load(const T &word)
{
	return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <typename T> inline void store(T &word, T value)
{
	__atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

/**
 * A pointer to memory that was filled before, for readers without a lock: who reads the
 * pointer sees what was filled.
 */
template <typename T> inline void publish(T *&pointer, T *value)
{
	__atomic_store_n(&pointer, value, __ATOMIC_RELEASE);
}

template <typename T> inline T *published(T *const &pointer)
{
	return __atomic_load_n(&pointer, __ATOMIC_ACQUIRE);
}

/**
 * Change a diagnostic counter. Not atomic, on purpose: an atomic update would
 * cost every packet, and a counter may drift when two CPUs change it at once.
 */
inline void bump(u32 &counter, s32 delta = 1)
{
	store(counter, load(counter) + static_cast<u32>(delta));
}

} // namespace mox
