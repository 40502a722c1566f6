// SPDX-License-Identifier: GPL-2.0-only
/* Processors, barriers and locks. docs/locking.md describes each lock. */
#include <linux/cpumask.h>
#include <linux/jiffies.h>
#include <linux/ktime.h>
#include <linux/percpu.h>
#include <linux/rcupdate.h>
#include <linux/smp.h>

#include "../platform.h"
#include "seam.h"
#include "seam_compat.h"

#if defined(CONFIG_64BIT) || !defined(__LITTLE_ENDIAN)
#error "The platform's records exist on 32-bit little-endian kernels only: build for ARMv7"
#endif

static DEFINE_PER_CPU_ALIGNED(struct hook_cpu, mox_hook_cpu);

const int *const seam_max_backlog = &SEAM_MAX_BACKLOG;

int seam_cpu(void)
{
	return raw_smp_processor_id();
}

int seam_next_present_cpu(int cpu)
{
	return cpumask_next(cpu, cpu_present_mask);
}

int seam_nr_cpu_ids(void)
{
	BUILD_BUG_ON(NR_CPUS > CPU_QUEUE_SLOTS);
	return nr_cpu_ids;
}

int seam_next_possible_cpu(int cpu)
{
	return cpumask_next(cpu, cpu_possible_mask);
}

struct hook_cpu *seam_hook_enter(void)
{
	struct hook_cpu *here = this_cpu_ptr(&mox_hook_cpu);

	here->efbuff = this_cpu_read(efmp_cpu_buffer_cache);
	return here;
}

struct hook_cpu *seam_hook_cpu(int cpu)
{
	return per_cpu_ptr(&mox_hook_cpu, cpu);
}

u64 seam_monotonic_ns(void)
{
	return ktime_get_ns();
}

u64 seam_real_ns(void)
{
	return ktime_get_real_ns();
}

u32 seam_clock_ticks(void)
{
	return (u32)jiffies;
}

void seam_smp_mb(void)
{
	smp_mb();
}

void seam_smp_wmb(void)
{
	smp_wmb();
}

void seam_wait_for_hooks(void)
{
	seam_compat_wait_for_hooks();
}

void seam_po_locks_init(struct mox_packet_sock *po)
{
	spin_lock_init(&po->bind_lock);
	mutex_init(&po->pg_vec_lock);
	spin_lock_init(&po->rule_lock);
}

void seam_lib_lock_init(struct packet_regular_lib *lib)
{
	rwlock_init(&lib->lock);
	mutex_init(&lib->change_lock);
}

void seam_queue_lock_init(struct efbuff_queue *queue)
{
	spin_lock_init(&queue->lock);
}

void seam_hook_lock_init(seam_spinlock *lock)
{
	spin_lock_init(lock);
}

/* The parameters' names are those of the lock classes. */
void seam_request_mutex_init(seam_mutex *request_mutex)
{
	mutex_init(request_mutex);
}

void seam_registry_mutex_init(seam_mutex *registry_mutex)
{
	mutex_init(registry_mutex);
}

void seam_closed_mutex_init(seam_mutex *closed_mutex)
{
	mutex_init(closed_mutex);
}

void seam_arrivals_mutex_init(seam_mutex *arrivals_mutex)
{
	mutex_init(arrivals_mutex);
}

void seam_tracer_locks_init(seam_rwlock *tracer_lock, seam_mutex *tracer_mutex)
{
	rwlock_init(tracer_lock);
	mutex_init(tracer_mutex);
}

void seam_dump_mutex_init(seam_mutex *dump_mutex)
{
	mutex_init(dump_mutex);
}

void seam_spin_lock(seam_spinlock *lock)
{
	spin_lock(lock);
}

void seam_spin_unlock(seam_spinlock *lock)
{
	spin_unlock(lock);
}

void seam_spin_lock_bh(seam_spinlock *lock)
{
	spin_lock_bh(lock);
}

void seam_spin_unlock_bh(seam_spinlock *lock)
{
	spin_unlock_bh(lock);
}

void seam_read_lock(seam_rwlock *lock)
{
	read_lock(lock);
}

void seam_read_unlock(seam_rwlock *lock)
{
	read_unlock(lock);
}

void seam_read_lock_bh(seam_rwlock *lock)
{
	read_lock_bh(lock);
}

void seam_read_unlock_bh(seam_rwlock *lock)
{
	read_unlock_bh(lock);
}

void seam_write_lock_bh(seam_rwlock *lock)
{
	write_lock_bh(lock);
}

void seam_write_unlock_bh(seam_rwlock *lock)
{
	write_unlock_bh(lock);
}

void seam_mutex_lock(seam_mutex *lock)
{
	mutex_lock(lock);
}

int seam_mutex_lock_killable(seam_mutex *lock)
{
	return mutex_lock_killable(lock);
}

void seam_mutex_unlock(seam_mutex *lock)
{
	mutex_unlock(lock);
}

void seam_lock_sock(struct sock *sk)
{
	lock_sock(sk);
}

void seam_release_sock(struct sock *sk)
{
	release_sock(sk);
}
