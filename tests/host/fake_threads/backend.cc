// SPDX-License-Identifier: GPL-2.0-only
// The threaded tests' processor, locks, memory, copy thread and control channel.
#include "backend.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform.h"
#include "locations/table.hpp"
#include "packet/info.hpp"
#include "rules/search.hpp"
#include "seam/seam_control.h"

using namespace mox;

namespace threads {
namespace {

thread_local int t_cpu = 0;
std::atomic<int> g_last_pid{ 0 };
// A task of its own for each thread: the dump file is one task's.
thread_local const int t_pid = ++g_last_pid;

void *take_block(size_t size, std::atomic<long> &count)
{
	count++;
	return std::calloc(1, size);
}

template <typename T> pthread_mutex_t *mutex_of(T *storage)
{
	static_assert(sizeof(pthread_mutex_t) <= sizeof(T));
	return reinterpret_cast<pthread_mutex_t *>(storage);
}

pthread_rwlock_t *rwlock_of(seam_rwlock *storage)
{
	static_assert(sizeof(pthread_rwlock_t) <= sizeof(seam_rwlock));
	return reinterpret_cast<pthread_rwlock_t *>(storage);
}

struct WaitQueue {
	pthread_mutex_t mutex;
	pthread_cond_t cond;
};
static_assert(sizeof(WaitQueue) <= SEAM_WAITQUEUE_SIZE);
WaitQueue *queue_of(seam_waitqueue *storage)
{
	return reinterpret_cast<WaitQueue *>(storage);
}

} // namespace

Live &live()
{
	static Live the_live{};
	return the_live;
}

void become_cpu(int cpu)
{
	t_cpu = cpu;
}

} // namespace threads

using namespace threads;

// ---- processor, task, barriers ---------------------------------------------------

static const int kBacklog = 300;
const int *const seam_max_backlog = &kBacklog;

int seam_cpu(void)
{
	return t_cpu;
}
int seam_nr_cpu_ids(void)
{
	return 4;
}
int seam_next_present_cpu(int cpu)
{
	return cpu + 1;
}
s32 seam_current_pid(void)
{
	return t_pid;
}
void seam_current_comm(char name[16])
{
	std::memset(name, 0, 16);
}
char *seam_cwd_path(char *buf, size_t)
{
	return std::strcpy(buf, "/");
}
unsigned long seam_strtoul10(const char *text)
{
	return std::strtoul(text, nullptr, 10);
}
// Plain instructions: the barriers order memory, but they must not be taken for
// locks by the sanitizer.
void seam_smp_mb(void)
{
	__asm__ volatile("mfence" ::: "memory");
}
void seam_smp_wmb(void)
{
	__asm__ volatile("sfence" ::: "memory");
}

// ---- locks --------------------------------------------------------------------------

void seam_po_locks_init(mox_packet_sock *po)
{
	pthread_mutex_init(mutex_of(&po->bind_lock), nullptr);
	pthread_mutex_init(mutex_of(&po->pg_vec_lock), nullptr);
	pthread_mutex_init(mutex_of(&po->rule_lock), nullptr);
}
void seam_lib_lock_init(packet_regular_lib *lib)
{
	pthread_rwlock_init(rwlock_of(&lib->lock), nullptr);
	pthread_mutex_init(mutex_of(&lib->change_lock), nullptr);
	pthread_mutex_init(mutex_of(&lib->change_lock) + 1, nullptr);
}
// The kernel hands a mutex to who waits longest for it. Here who waits at the second one is next.
void seam_mutex_lock(seam_mutex *lock)
{
	static_assert(sizeof(seam_mutex) >= 2 * sizeof(pthread_mutex_t));
	pthread_mutex_lock(mutex_of(lock) + 1);
	pthread_mutex_lock(mutex_of(lock));
	pthread_mutex_unlock(mutex_of(lock) + 1);
}
void seam_mutex_unlock(seam_mutex *lock)
{
	pthread_mutex_unlock(mutex_of(lock));
}
unsigned long long seam_total_memory(void)
{
	return 1ull << 32;
}
int seam_capable_net_admin(void)
{
	return 1;
}
int seam_capable_net_raw(void)
{
	return 1;
}
u32 seam_random(void)
{
	return 0x9e3779b9;
}
void seam_queue_lock_init(efbuff_queue *q)
{
	pthread_mutex_init(mutex_of(&q->lock), nullptr);
}
void seam_hook_lock_init(seam_spinlock *lock)
{
	pthread_mutex_init(mutex_of(lock), nullptr);
}
void seam_request_mutex_init(seam_mutex *lock)
{
	pthread_mutex_init(mutex_of(lock), nullptr);
}
void seam_dump_mutex_init(seam_mutex *lock)
{
	pthread_mutex_init(mutex_of(lock), nullptr);
}
void seam_registry_mutex_init(seam_mutex *lock)
{
	pthread_mutex_init(mutex_of(lock), nullptr);
}
void seam_closed_mutex_init(seam_mutex *lock)
{
	pthread_mutex_init(mutex_of(lock), nullptr);
}
void seam_arrivals_mutex_init(seam_mutex *lock)
{
	pthread_mutex_init(mutex_of(lock), nullptr);
}
void seam_tracer_locks_init(seam_rwlock *lock, seam_mutex *mutex)
{
	pthread_rwlock_init(rwlock_of(lock), nullptr);
	pthread_mutex_init(mutex_of(mutex), nullptr);
}
void seam_read_lock_bh(seam_rwlock *lock)
{
	pthread_rwlock_rdlock(rwlock_of(lock));
}
void seam_read_unlock_bh(seam_rwlock *lock)
{
	pthread_rwlock_unlock(rwlock_of(lock));
}
u64 seam_monotonic_ns(void)
{
	using namespace std::chrono;
	return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}
u64 seam_real_ns(void)
{
	return 1700000000000000000 + seam_monotonic_ns();
}
// As with 250 ticks a second.
u32 seam_clock_ticks(void)
{
	return static_cast<u32>(seam_monotonic_ns() / 4000000);
}
int seam_mutex_lock_killable(seam_mutex *lock)
{
	return pthread_mutex_lock(mutex_of(lock)), 0;
}
void seam_spin_lock(seam_spinlock *lock)
{
	pthread_mutex_lock(mutex_of(lock));
}
void seam_spin_unlock(seam_spinlock *lock)
{
	pthread_mutex_unlock(mutex_of(lock));
}
void seam_spin_lock_bh(seam_spinlock *lock)
{
	pthread_mutex_lock(mutex_of(lock));
}
void seam_spin_unlock_bh(seam_spinlock *lock)
{
	pthread_mutex_unlock(mutex_of(lock));
}
void seam_read_lock(seam_rwlock *lock)
{
	pthread_rwlock_rdlock(rwlock_of(lock));
}
void seam_read_unlock(seam_rwlock *lock)
{
	pthread_rwlock_unlock(rwlock_of(lock));
}
void seam_write_lock_bh(seam_rwlock *lock)
{
	pthread_rwlock_wrlock(rwlock_of(lock));
}
void seam_write_unlock_bh(seam_rwlock *lock)
{
	pthread_rwlock_unlock(rwlock_of(lock));
}
void seam_lock_sock(sock *sk)
{
	pthread_mutex_lock(&sk->lock);
}
void seam_release_sock(sock *sk)
{
	pthread_mutex_unlock(&sk->lock);
}
void seam_rcvq_lock(sock *sk)
{
	pthread_mutex_lock(&sk->queue_lock);
}
void seam_rcvq_unlock(sock *sk)
{
	pthread_mutex_unlock(&sk->queue_lock);
}
void seam_ns_lock(net *ns)
{
	pthread_mutex_lock(&ns->mutex);
}
void seam_ns_lock_nested(net *ns)
{
	pthread_mutex_lock(&ns->mutex);
}
void seam_ns_unlock(net *ns)
{
	pthread_mutex_unlock(&ns->mutex);
}

// ---- memory ----------------------------------------------------------------------------

struct kmem_cache {
	size_t size;
};

void *seam_kmalloc(size_t size)
{
	return take_block(size, live().blocks);
}
void seam_kfree(void *p)
{
	if (!p)
		return;
	live().blocks--;
	std::free(p);
}
void *seam_vzalloc(size_t size)
{
	return take_block(size, live().blocks);
}
void seam_vfree(void *p)
{
	seam_kfree(p);
}
kmem_cache *seam_cache_create(const char *, size_t size)
{
	live().caches++;
	return new kmem_cache{ size };
}
void seam_cache_destroy(kmem_cache *cache)
{
	live().caches--;
	delete cache;
}
void *seam_cache_alloc(kmem_cache *cache)
{
	return take_block(cache->size, live().objects);
}
void seam_cache_free(kmem_cache *, void *p)
{
	live().objects--;
	std::free(p);
}
int seam_copy_from_uptr(void *to, const seam_uptr *from, size_t len)
{
	return seam_copy_from_uptr_at(to, from, 0, len);
}
int seam_copy_from_uptr_at(void *to, const seam_uptr *from, size_t at, size_t len)
{
	std::memcpy(to, static_cast<const char *>(from->from) + at, len);
	return 0;
}
int seam_copy_to_user(void *to, const void *from, size_t len)
{
	std::memcpy(to, from, len);
	return 0;
}
int seam_get_user_int(int *to, const int *from)
{
	return *to = *from, 0;
}
int seam_put_user_int(int value, int *to)
{
	return *to = value, 0;
}

// ---- the copy thread -----------------------------------------------------------------------------

struct task_struct {
	std::thread thread;
	std::atomic<bool> stop{ false };
	std::atomic<bool> woken{ false };
	int (*body)(void *);
};

namespace {
thread_local task_struct *t_task = nullptr;
}

void seam_waitqueue_init(void)
{
	WaitQueue *q = queue_of(&g_packet_thread_top.wait_queue);
	pthread_mutex_init(&q->mutex, nullptr);
	pthread_cond_init(&q->cond, nullptr);
}
int seam_wait_interruptible(seam_waitqueue *queue, const u32 *word)
{
	WaitQueue *q = queue_of(queue);
	pthread_mutex_lock(&q->mutex);
	while (!__atomic_load_n(word, __ATOMIC_RELAXED) && !t_task->stop)
		pthread_cond_wait(&q->cond, &q->mutex);
	pthread_mutex_unlock(&q->mutex);
	return 0;
}
void seam_wake_up(seam_waitqueue *queue)
{
	WaitQueue *q = queue_of(queue);
	pthread_mutex_lock(&q->mutex);
	pthread_cond_signal(&q->cond);
	pthread_mutex_unlock(&q->mutex);
}
void seam_sleep_jiffies(long)
{
	sched_yield();
}
void seam_schedule(void)
{
	sched_yield();
}
extern "C" int seam_fatal_signal_pending(void)
{
	return 0;
}
extern "C" int seam_need_resched(void)
{
	return 1;
}
extern "C" void seam_cond_resched(void)
{
	sched_yield();
}
task_struct *seam_thread_create(int (*body)(void *), void *, const char *)
{
	auto *task = new task_struct;
	task->body = body;
	live().tasks++;
	return task;
}
int seam_task_invalid(const task_struct *task)
{
	return task == nullptr;
}
void seam_thread_set_normal(task_struct *, int) {}
void seam_thread_wake(task_struct *task)
{
	if (task->woken.exchange(true))
		return;
	task->thread = std::thread([task] {
		t_task = task;
		task->body(nullptr);
	});
}
void seam_thread_stop(task_struct *task)
{
	task->stop = true;
	seam_wake_up(&g_packet_thread_top.wait_queue);
	task->thread.join();
	delete task;
	live().tasks--;
}
int seam_thread_should_stop(void)
{
	return t_task->stop;
}

// ---- the control channel and the dump file --------------------------------------------------

int seam_scnprintf(char *buf, size_t size, const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	int len = vsnprintf(buf, size, fmt, args);
	va_end(args);
	return std::min(len, static_cast<int>(size) - 1);
}
int seam_genl_register(void)
{
	return 0;
}
void seam_genl_unregister(void) {}
const void *seam_genl_message(const genl_info *info)
{
	return info->message.data();
}
int seam_genl_from_admin(const sk_buff *)
{
	return 1;
}
u32 seam_genl_client(const genl_info *)
{
	return 1;
}
sk_buff *seam_genl_alloc(void)
{
	return threads::skb_alloc(36);
}
void *seam_genl_put(sk_buff *skb, u32)
{
	return threads::skb_put(skb, 20);
}
int seam_genl_put_empty(sk_buff *skb, int)
{
	return threads::skb_put(skb, 4), 0;
}
void seam_genl_end(sk_buff *, void *) {}
int seam_genl_unicast(sk_buff *skb, u32)
{
	return seam_consume_skb(skb), 0;
}
void seam_genl_free(sk_buff *skb)
{
	seam_consume_skb(skb);
}
file *seam_file_open(const char *)
{
	live().files++;
	return new file;
}
int seam_file_is_regular(const file *)
{
	return 1;
}
u32 seam_file_links(const file *)
{
	return 1;
}
int seam_file_empty(const file *f)
{
	return f->content.empty();
}
int seam_file_truncate(file *f)
{
	return f->content.clear(), 0;
}
long seam_file_write(file *f, const void *from, size_t len)
{
	f->content.append(static_cast<const char *>(from), len);
	return len;
}
void seam_file_close(file *f)
{
	live().files--;
	live().dumped += f->content.size();
	delete f;
}
