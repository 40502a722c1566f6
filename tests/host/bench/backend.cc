// SPDX-License-Identifier: GPL-2.0-only
// The kernel and the platform of the benchmark: as much as rules and their search need, and no
// more work than the kernel's own functions do. The locks are real ones, made of one atomic word;
// they switch no bottom halves. Only memory and the locks are used while rules are entered, only
// the reader's lock is used while time is measured.
#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

#include "locations/table.hpp"
#include "seam/seam.h"

namespace {

using Word = std::atomic<u32>;
static_assert(Word::is_always_lock_free);

// The word of a lock, which its initialiser has made one.
template <typename Lock> Word &word_of_lock(Lock *lock)
{
	static_assert(sizeof(Word) <= sizeof(Lock) && alignof(Word) <= alignof(Lock));
	return *std::launder(reinterpret_cast<Word *>(lock));
}

template <typename Lock> void make_word(Lock *lock)
{
	new (lock) Word(0);
}

// Of a read-write lock: the writer's bit, and what a reader adds.
constexpr u32 kWriter = 1;
constexpr u32 kReader = 2;

void wait_for_writer(Word &word)
{
	while (word.load(std::memory_order_acquire) & kWriter)
		std::this_thread::yield();
}

template <typename Lock> void take(Lock *lock)
{
	u32 none = 0;
	while (!word_of_lock(lock).compare_exchange_weak(none, kWriter,
							 std::memory_order_acquire)) {
		none = 0;
		std::this_thread::yield();
	}
}

template <typename Lock> void release(Lock *lock)
{
	word_of_lock(lock).fetch_sub(kWriter, std::memory_order_release);
}

// A call that no benchmark makes: what is measured would not be the module's work.
[[noreturn]] void unexpected()
{
	std::abort();
}

} // namespace

extern "C" {

// ---- locks and barriers -----------------------------------------------------------------------

void seam_lib_lock_init(packet_regular_lib *lib)
{
	make_word(&lib->lock);
	make_word(&lib->change_lock);
}

void seam_hook_lock_init(seam_spinlock *lock)
{
	make_word(lock);
}

void seam_read_lock(seam_rwlock *lock)
{
	Word &word = word_of_lock(lock);

	// As the kernel's: one atomic addition, unless there is a writer.
	while (__builtin_expect(word.fetch_add(kReader, std::memory_order_acquire) & kWriter, 0)) {
		word.fetch_sub(kReader, std::memory_order_relaxed);
		wait_for_writer(word);
	}
}

void seam_read_unlock(seam_rwlock *lock)
{
	word_of_lock(lock).fetch_sub(kReader, std::memory_order_release);
}

void seam_write_lock_bh(seam_rwlock *lock)
{
	take(lock);
}

void seam_write_unlock_bh(seam_rwlock *lock)
{
	release(lock);
}

void seam_spin_lock(seam_spinlock *lock)
{
	take(lock);
}

void seam_spin_unlock(seam_spinlock *lock)
{
	release(lock);
}

void seam_mutex_lock(seam_mutex *lock)
{
	take(lock);
}

void seam_mutex_unlock(seam_mutex *lock)
{
	release(lock);
}

void seam_smp_mb(void)
{
	std::atomic_thread_fence(std::memory_order_seq_cst);
}

void seam_smp_wmb(void)
{
	std::atomic_thread_fence(std::memory_order_release);
}

void seam_wait_for_hooks(void) {}

// ---- memory -----------------------------------------------------------------------------------

struct kmem_cache {
	size_t size;
};

kmem_cache *seam_cache_create(const char *, size_t size)
{
	return new kmem_cache{ size };
}

void seam_cache_destroy(kmem_cache *cache)
{
	delete cache;
}

void *seam_cache_alloc(kmem_cache *cache)
{
	return std::malloc(cache->size);
}

void seam_cache_free(kmem_cache *, void *object)
{
	std::free(object);
}

// The same seeds in each run: which values share a bucket must not change between two figures.
unsigned long long seam_total_memory(void)
{
	return 1ull << 32;
}
int seam_capable_net_admin(void)
{
	return 1;
}
u32 seam_random(void)
{
	static u32 state = 1;

	state = state * 1664525 + 1013904223;
	return state ^ state >> 15;
}

// ---- the task ---------------------------------------------------------------------------------

int seam_cpu(void)
{
	return 0;
}

void seam_cond_resched(void) {}

// ---- the platform -----------------------------------------------------------------------------

int mox_printk(const char *, ...)
{
	return 0;
}

void *lsm_get_intfcb(u32)
{
	unexpected();
}

// The receive functions, whose addresses the table of locations holds.
#define MOX_ROW(location, function) \
	u32 function(void)          \
	{                           \
		unexpected();       \
	}
MOX_RECEIVER_TABLE(MOX_ROW)
#undef MOX_ROW

int efmp_reg_module(void *)
{
	unexpected();
}

int efmp_dereg_module(void *)
{
	unexpected();
}

int efmp_reg_recv_pkt_func(efmp_pkt_func, u32)
{
	unexpected();
}

int efmp_dereg_recv_pkt_func(efmp_pkt_func, u32)
{
	unexpected();
}

int efmp_reg_output_pkt_func(efmp_pkt_func, u32)
{
	unexpected();
}

int efmp_dereg_output_pkt_func(efmp_pkt_func, u32)
{
	unexpected();
}

} // extern "C"
