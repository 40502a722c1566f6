// SPDX-License-Identifier: GPL-2.0
#include "backend.h"

#include <sys/mman.h>
#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "platform.h"
#include "receive.hpp"
#include "seam/seam_control.h"

namespace threads {
namespace {

thread_local int t_cpu = 0;
std::atomic<int> g_last_pid{0};
// A task of its own for each thread: the dump file is one task's.
thread_local const int t_pid = ++g_last_pid;
thread_local void *t_efbuff = nullptr;

// Hooks are readers, a grace period waits for all of them.
pthread_rwlock_t g_grace = PTHREAD_RWLOCK_INITIALIZER;

// Low memory in blocks of one size, so that freed efbuffs are soon used again.
class LowMemory {
public:
    static constexpr size_t kBlock = 1024;
    void *take()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!free_.empty()) {
            void *p = free_.back();
            free_.pop_back();
            return p;
        }
        if (!base_ || used_ + kBlock > kSize) {
            base_ = static_cast<char *>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0));
            if (base_ == MAP_FAILED)
                abort();
            used_ = 0;
        }
        used_ += kBlock;
        return base_ + used_ - kBlock;
    }
    void give(void *p)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        free_.push_back(p);
    }

private:
    static constexpr size_t kSize = 4u << 20;
    std::mutex mutex_;
    std::vector<void *> free_;
    char *base_ = nullptr;
    size_t used_ = 0;
};

LowMemory &low()
{
    static LowMemory memory;
    return memory;
}

// Functions by what registers them. Registering publishes what came before it; a hook
// may run for a while after it went.
struct Slot {
    efmp_pkt_func func;
    uint32_t location;
    std::atomic<bool> on{false};
};
Slot g_slots[] = {
    {mox_packet_local_rcv, 1}, {mox_packet_lev2_rcv, 2}, {mox_packet_ipv4_rcv, 3}, {mox_packet_ipv6_rcv, 4},
    {mox_packet_resv_rcv, 7}, {mox_packet_wlan_in_rcv, 8}, {mox_packet_wlan_out_rcv, 8},
};

int mark(efmp_pkt_func func, bool on)
{
    for (Slot &s : g_slots)
        if (s.func == func)
            s.on.store(on, std::memory_order_release);
    return 0;
}

void *take_block(size_t size, std::atomic<long> &count)
{
    count++;
    return std::calloc(1, size);
}

template <typename T>
pthread_mutex_t *mutex_of(T *storage)
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
WaitQueue *queue_of(seam_waitqueue *storage) { return reinterpret_cast<WaitQueue *>(storage); }

void free_skb(sk_buff *skb)
{
    if (--skb->users)
        return;
    if (skb->owner)
        skb->owner->rmem -= static_cast<int>(skb->room.size() + 576);
    live().skbs--;
    delete skb;
}

}  // namespace

Live &live()
{
    static Live the_live{};
    return the_live;
}

net &init_net()
{
    static net the_net;
    return the_net;
}

std::atomic<long> &sent()
{
    static std::atomic<long> count{0};
    return count;
}

change_handler_func &change_handler()
{
    static change_handler_func handler = nullptr;
    return handler;
}

void become_cpu(int cpu) { t_cpu = cpu; }

void *efbuff(const std::vector<uint8_t> &content)
{
    live().efbuffs++;
    void *p = low().take();
    std::memcpy(p, content.data(), std::min(content.size(), LowMemory::kBlock));
    return p;
}

void drop(void *efbuff)
{
    live().efbuffs--;
    low().give(efbuff);
}

void inject(uint32_t location, const std::vector<uint8_t> &content)
{
    for (Slot &s : g_slots) {
        if (s.location != location)
            continue;
        void *e = efbuff(content);
        // Whether the hook stands is asked where a grace period would see it run.
        pthread_rwlock_rdlock(&g_grace);
        t_efbuff = e;
        const uint32_t go_on = location == 7 ? ~0u : 0u;
        uint32_t answer = s.on.load(std::memory_order_acquire) ? s.func() : go_on;
        pthread_rwlock_unlock(&g_grace);
        if (answer != (location == 7 ? 0u : 3u))
            drop(e);
    }
}

bool registered(uint32_t location)
{
    for (Slot &s : g_slots)
        if (s.location == location && s.on)
            return true;
    return false;
}

void (*output_looks)(const uint8_t *efbuff) = nullptr;

uint32_t interface_word()
{
    static void *block = [] {
        void *p = low().take();
        std::memset(p, 0, LowMemory::kBlock);
        uint32_t index = 7;
        std::memcpy(p, &index, 4);
        static_cast<char *>(p)[12] = 1;  // the link is up
        std::memcpy(static_cast<char *>(p) + 332, "eth7", 5);
        return p;
    }();
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block));
}

}  // namespace threads

using namespace threads;

// ---- platform -----------------------------------------------------------------

int mox_printk(const char *, ...) { return 0; }
void *lsm_get_intfcb(u32 ifindex)
{
    return ifindex == 7 ? reinterpret_cast<void *>(static_cast<uintptr_t>(interface_word())) : nullptr;
}
int efmp_reg_module(void *d) { return mark(static_cast<platform::descriptor *>(d)->receive, true); }
int efmp_dereg_module(void *d) { return mark(static_cast<platform::descriptor *>(d)->receive, false); }
int efmp_reg_recv_pkt_func(efmp_pkt_func f, u32) { return mark(f, true); }
int efmp_dereg_recv_pkt_func(efmp_pkt_func f, u32) { return mark(f, false); }
int efmp_reg_output_pkt_func(efmp_pkt_func f, u32) { return mark(f, true); }
int efmp_dereg_output_pkt_func(efmp_pkt_func f, u32) { return mark(f, false); }

void *efmp_buff_clone_with_owner(void *from, u32)
{
    auto *p = static_cast<uint8_t *>(from);
    return efbuff(std::vector<uint8_t>(p, p + 1024));
}

void *efmp_buff_alloc_sw_with_owner(u32 length, u32)
{
    constexpr uint16_t kRoom = 288;
    if (length > 1024 - kRoom)
        return nullptr;
    void *p = efbuff(std::vector<uint8_t>(1024));
    std::memcpy(static_cast<char *>(p) + 22, &kRoom, 2);
    return p;
}

void efmp_buff_free_sw_with_owner(void *p, u32) { drop(p); }

int efmp_output_pkt(void *p)
{
    sent()++;
    if (output_looks)
        output_looks(static_cast<const uint8_t *>(p));
    drop(p);
    return 0;
}

// One handler; a test that publishes and withdraws calls it as the platform would.
void *efmp_get_service(u32, u32) { return nullptr; }
int efmp_reg_serv_change_handler(efmp_serv_change_func handler)
{
    change_handler() = handler;
    return 0;
}
int efmp_unreg_serv_change_handler(efmp_serv_change_func)
{
    change_handler() = nullptr;
    return 0;
}

// ---- processor, task, barriers ---------------------------------------------------

int seam_cpu(void) { return t_cpu; }
int seam_nr_cpu_ids(void) { return 4; }
int seam_next_present_cpu(int cpu) { return cpu + 1; }
unsigned long seam_current_efbuff(void) { return reinterpret_cast<unsigned long>(t_efbuff) | 1; }
s32 seam_current_pid(void) { return t_pid; }
void seam_current_comm(char name[16]) { std::memset(name, 0, 16); }
char *seam_cwd_path(char *buf, size_t) { return std::strcpy(buf, "/"); }
unsigned long seam_strtoul10(const char *text) { return std::strtoul(text, nullptr, 10); }
// Plain instructions: the barriers order memory, but they must not be taken for
// locks by the sanitizer.
void seam_smp_mb(void) { __asm__ volatile("mfence" ::: "memory"); }
void seam_smp_wmb(void) { __asm__ volatile("sfence" ::: "memory"); }
void seam_wait_for_hooks(void)
{
    pthread_rwlock_wrlock(&g_grace);
    pthread_rwlock_unlock(&g_grace);
}

// ---- locks --------------------------------------------------------------------------

void seam_po_locks_init(mox_packet_sock *po)
{
    pthread_mutex_init(mutex_of(&po->bind_lock), nullptr);
    pthread_mutex_init(mutex_of(&po->pg_vec_lock), nullptr);
    pthread_mutex_init(mutex_of(&po->rule_lock), nullptr);
}
void seam_lib_lock_init(packet_regular_lib *lib) { pthread_rwlock_init(rwlock_of(&lib->lock), nullptr); }
void seam_queue_lock_init(efbuff_queue *q) { pthread_mutex_init(mutex_of(&q->lock), nullptr); }
void seam_hook_lock_init(seam_spinlock *lock) { pthread_mutex_init(mutex_of(lock), nullptr); }
void seam_spin_lock(seam_spinlock *lock) { pthread_mutex_lock(mutex_of(lock)); }
void seam_spin_unlock(seam_spinlock *lock) { pthread_mutex_unlock(mutex_of(lock)); }
void seam_spin_lock_bh(seam_spinlock *lock) { pthread_mutex_lock(mutex_of(lock)); }
void seam_spin_unlock_bh(seam_spinlock *lock) { pthread_mutex_unlock(mutex_of(lock)); }
void seam_read_lock_bh(seam_rwlock *lock) { pthread_rwlock_rdlock(rwlock_of(lock)); }
void seam_read_unlock_bh(seam_rwlock *lock) { pthread_rwlock_unlock(rwlock_of(lock)); }
void seam_write_lock_bh(seam_rwlock *lock) { pthread_rwlock_wrlock(rwlock_of(lock)); }
void seam_write_unlock_bh(seam_rwlock *lock) { pthread_rwlock_unlock(rwlock_of(lock)); }
void seam_lock_sock(sock *sk) { pthread_mutex_lock(&sk->lock); }
void seam_release_sock(sock *sk) { pthread_mutex_unlock(&sk->lock); }
void seam_rcvq_lock(sock *sk) { pthread_mutex_lock(&sk->queue_lock); }
void seam_rcvq_unlock(sock *sk) { pthread_mutex_unlock(&sk->queue_lock); }
void seam_ns_lock(net *ns) { pthread_mutex_lock(&ns->mutex); }
void seam_ns_lock_nested(net *ns) { pthread_mutex_lock(&ns->mutex); }
void seam_ns_unlock(net *ns) { pthread_mutex_unlock(&ns->mutex); }

// ---- memory ----------------------------------------------------------------------------

struct kmem_cache {
    size_t size;
};

void *seam_kzalloc(size_t size) { return take_block(size, live().blocks); }
void seam_kfree(void *p)
{
    live().blocks--;
    std::free(p);
}
void *seam_vzalloc(size_t size) { return take_block(size, live().blocks); }
void seam_vfree(void *p) { seam_kfree(p); }
kmem_cache *seam_cache_create(const char *, size_t size)
{
    live().caches++;
    return new kmem_cache{size};
}
void seam_cache_destroy(kmem_cache *cache)
{
    live().caches--;
    delete cache;
}
void *seam_cache_alloc(kmem_cache *cache) { return take_block(cache->size, live().objects); }
void seam_cache_free(kmem_cache *, void *p)
{
    live().objects--;
    std::free(p);
}
int seam_copy_from_uptr(void *to, const seam_uptr *from, size_t len)
{
    std::memcpy(to, from->from, len);
    return 0;
}
int seam_copy_to_user(void *to, const void *from, size_t len)
{
    std::memcpy(to, from, len);
    return 0;
}
int seam_get_user_int(int *to, const int *from) { return *to = *from, 0; }
int seam_put_user_int(int value, int *to) { return *to = value, 0; }

// ---- family, namespaces, sockets -----------------------------------------------------------

int seam_proto_register(void) { return 0; }
void seam_proto_unregister(void) {}
int seam_family_register(void) { return 0; }
void seam_family_unregister(void) {}
int seam_pernet_register(void) { return 0; }
void seam_pernet_unregister(void) {}
void seam_ns_list_init(net *) {}
net *seam_init_net(void) { return &init_net(); }
net *seam_sk_net(sock *sk) { return sk->ns; }
void seam_net_get(net *ns) { ns->refs++; }
void seam_net_put(net *ns) { ns->refs--; }
void seam_ns_list_add(net *ns, sock *sk)
{
    ns->list.push_back(sk);
    sk->listed = true;
    sk->refs++;
}
void seam_ns_list_del(sock *sk)
{
    if (!sk->listed)
        return;
    std::erase(sk->ns->list, sk);
    sk->listed = false;
    sk->refs--;
}
void seam_prot_inuse_add(net *, int) {}

sock *seam_sk_alloc(net *ns)
{
    void *p = std::aligned_alloc(16, (sizeof(mox_packet_sock) + 15) & ~size_t{15});
    std::memset(p, 0, sizeof(mox_packet_sock));
    auto *sk = new (p) sock{};
    sk->refs = 1;
    sk->rcvbuf = 40000;
    sk->ns = ns;
    pthread_mutex_init(&sk->lock, nullptr);
    pthread_mutex_init(&sk->queue_lock, nullptr);
    sk->queue = new std::deque<sk_buff *>;
    live().socks++;
    return sk;
}
void seam_sock_setup(socket *socket, sock *sk)
{
    socket->sk = sk;
    sk->type = socket->type;
}
sock *seam_socket_sk(socket *socket) { return socket->sk; }
void seam_socket_clear_sk(socket *socket) { socket->sk = nullptr; }
int seam_socket_type(const socket *socket) { return socket->type; }
int seam_sk_type(const sock *sk) { return sk->type; }
void seam_sock_hold(sock *sk) { sk->refs++; }
void seam_sock_put(sock *sk)
{
    if (--sk->refs)
        return;
    mox_packet_sock_destruct(sk);
    delete sk->queue;
    std::free(sk);
    live().socks--;
}
u32 seam_sk_refcnt(const sock *sk) { return sk->refs; }
void seam_sock_orphan(sock *sk) { sk->dead = true; }
int seam_sk_dead(const sock *sk) { return sk->dead; }
int seam_sk_rmem(const sock *sk) { return sk->rmem; }
int seam_sk_wmem(const sock *) { return 0; }
u32 seam_sk_wmem_charged(const sock *) { return 0; }
int seam_sk_rcvbuf(const sock *sk) { return sk->rcvbuf; }
void seam_warn(const char *what)
{
    std::fprintf(stderr, "kernel warning: %s\n", what);
    std::abort();
}
void seam_sk_data_ready(sock *) {}
int seam_sock_get_timestamp(sock *, void *) { return 0; }
int seam_sock_get_timestampns(sock *, void *) { return 0; }
int seam_sk_has_filter(sock *) { return 0; }
int seam_sk_filter_trim_cap(sock *, sk_buff *, u32) { return 0; }

// ---- socket buffers ---------------------------------------------------------------------------

sk_buff *seam_skb_alloc(u32 len)
{
    auto *skb = new sk_buff;
    skb->room.resize(len);
    live().skbs++;
    return skb;
}
void *seam_skb_put(sk_buff *skb, u32 len)
{
    skb->len += len;
    return skb->room.data() + skb->len - len;
}
void *seam_skb_pull(sk_buff *skb, u32 len)
{
    if (len > skb->len)
        return nullptr;
    skb->begin += len;
    skb->len -= len;
    return skb->room.data() + skb->begin;
}
void seam_skb_set_meta(sk_buff *, u32, u32, u16) {}
void *seam_skb_cb(sk_buff *skb) { return skb->cb; }
u32 seam_skb_len(const sk_buff *skb) { return skb->len; }
u32 seam_skb_truesize(const sk_buff *skb) { return skb->room.size() + 576; }
u16 seam_skb_protocol(const sk_buff *) { return 0; }
int seam_skb_nonlinear(const sk_buff *) { return 0; }
int seam_skb_pskb_trim(sk_buff *, u32) { return 0; }
void seam_skb_cut(sk_buff *skb, u32 len) { skb->len = len; }
u32 seam_skb_users(const sk_buff *skb) { return skb->users; }
void seam_consume_skb(sk_buff *skb) { free_skb(skb); }
void seam_skb_set_owner_r(sk_buff *skb, sock *sk)
{
    skb->owner = sk;
    sk->rmem += static_cast<int>(skb->room.size() + 576);
}
void seam_skb_dst_drop(sk_buff *) {}
u32 seam_rcvq_len(const sock *sk)
{
    // Read without the lock in the kernel, too; one untorn word there.
    auto *lock = const_cast<pthread_mutex_t *>(&sk->queue_lock);
    pthread_mutex_lock(lock);
    u32 len = sk->queue->size();
    pthread_mutex_unlock(lock);
    return len;
}
u32 seam_writeq_len(const sock *) { return 0; }
sk_buff *seam_rcvq_peek(sock *sk) { return sk->queue->empty() ? nullptr : sk->queue->front(); }
void seam_rcvq_append(sock *sk, sk_buff *skb)
{
    pthread_mutex_lock(&sk->queue_lock);
    sk->queue->push_back(skb);
    pthread_mutex_unlock(&sk->queue_lock);
}
void seam_rcvq_purge(sock *sk)
{
    pthread_mutex_lock(&sk->queue_lock);
    std::deque<sk_buff *> all;
    all.swap(*sk->queue);
    pthread_mutex_unlock(&sk->queue_lock);
    for (sk_buff *skb : all)
        free_skb(skb);
}
sk_buff *seam_recv_datagram(sock *sk, int flags, int *error)
{
    sk_buff *skb = nullptr;
    pthread_mutex_lock(&sk->queue_lock);
    if (!sk->queue->empty()) {
        skb = sk->queue->front();
        if (flags & 2)
            skb->users++;
        else
            sk->queue->pop_front();
    }
    pthread_mutex_unlock(&sk->queue_lock);
    *error = skb ? 0 : -11;
    return skb;
}
void seam_free_datagram(sock *, sk_buff *skb) { free_skb(skb); }
int seam_copy_datagram(sk_buff *skb, msghdr *msg, size_t len)
{
    msg->data.assign(skb->room.begin() + skb->begin, skb->room.begin() + skb->begin + len);
    return 0;
}
void seam_recv_timestamp(msghdr *, sock *, sk_buff *) {}
void seam_msg_set_namelen(msghdr *, int) {}
void *seam_msg_name(msghdr *msg) { return msg->name; }
void seam_msg_add_flags(msghdr *msg, int flags) { msg->flags |= flags; }
void seam_msg_set_controllen(msghdr *, size_t) {}
void *seam_msg_control(msghdr *msg) { return const_cast<void *>(msg->control); }
int seam_msg_namelen(const msghdr *msg) { return msg->namelen; }
size_t seam_msg_controllen(const msghdr *msg) { return msg->controllen; }
int seam_copy_from_msg(void *to, msghdr *msg, size_t len)
{
    if (len > msg->out.size())
        return -14;
    std::memcpy(to, msg->out.data(), len);
    return 0;
}
int seam_msg_put_control(msghdr *, const void *, size_t) { return 0; }

// ---- the copy thread -----------------------------------------------------------------------------

struct task_struct {
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<bool> woken{false};
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
void seam_sleep_jiffies(long) { sched_yield(); }
void seam_schedule(void) { sched_yield(); }
task_struct *seam_thread_create(int (*body)(void *), void *, const char *)
{
    auto *task = new task_struct;
    task->body = body;
    live().tasks++;
    return task;
}
int seam_task_invalid(const task_struct *task) { return task == nullptr; }
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
int seam_thread_should_stop(void) { return t_task->stop; }

// ---- the control channel and the dump file --------------------------------------------------

int seam_scnprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int len = vsnprintf(buf, size, fmt, args);
    va_end(args);
    return std::min(len, static_cast<int>(size) - 1);
}
int seam_genl_register(void) { return 0; }
void seam_genl_unregister(void) {}
const void *seam_genl_message(const genl_info *info) { return info->message.data(); }
u32 seam_genl_client(const genl_info *) { return 1; }
sk_buff *seam_genl_alloc(void) { return seam_skb_alloc(36); }
void *seam_genl_put(sk_buff *skb, u32) { return seam_skb_put(skb, 20); }
int seam_genl_put_empty(sk_buff *skb, int) { return seam_skb_put(skb, 4), 0; }
void seam_genl_end(sk_buff *, void *) {}
int seam_genl_unicast(sk_buff *skb, u32) { return free_skb(skb), 0; }
void seam_genl_free(sk_buff *skb) { free_skb(skb); }
file *seam_file_open(const char *)
{
    live().files++;
    return new file;
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
