/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The seam: what the C++ units may ask of the kernel, and what the kernel's
 * tables call in them. Plain types only; a kernel object crosses as a pointer
 * to an incomplete type. Each function wraps one kernel facility and takes no
 * decision; only the code behind it distinguishes kernel versions.
 *
 * "Process" below: may sleep, so no spin lock may be held and bottom halves
 * must be on. "Any": never sleeps.
 */
#ifndef SEAM_H
#define SEAM_H

#include "../mox_ef_socket.h"

#ifdef __cplusplus
extern "C" {
#endif

struct kmem_cache;
struct msghdr;
struct net;
struct sk_buff;
struct sock;
struct sockaddr;
struct socket;
struct task_struct;

/** A setsockopt argument: a user pointer in the kernel's form of the day. */
struct seam_uptr;

/* ---- the processor and the task ------------------------------------------- */

/** Number of the CPU that runs the caller. Any. */
int seam_cpu(void);
/** Next present CPU after cpu (-1: the first), or a number >= seam_nr_cpu_ids(). Any. */
int seam_next_present_cpu(int cpu);
/** Number of possible CPU ids. Any. */
int seam_nr_cpu_ids(void);
/** Next possible CPU after cpu (-1: the first), or a number >= seam_nr_cpu_ids(). Any. */
int seam_next_possible_cpu(int cpu);
/** This CPU's record, with efbuff set to efmp_cpu_buffer_cache. Bottom halves disabled. */
struct hook_cpu *seam_hook_enter(void);
/** The record of a possible CPU. Any. */
struct hook_cpu *seam_hook_cpu(int cpu);
/** Nanoseconds of the monotonic clock, and since the epoch. Any. */
u64 seam_monotonic_ns(void);
u64 seam_real_ns(void);
/** Ticks of the kernel's clock, of 1 to 10 ms. Any. */
u32 seam_clock_ticks(void);
/** The current task's id. Process. */
s32 seam_current_pid(void);
/** The current task's command name, NUL-terminated, the rest zero. Process. */
void seam_current_comm(char name[16]);
/**
 * The current working directory, rendered somewhere inside buf (size bytes).
 * Returns the start of the text, or null when it does not fit or cannot be
 * rendered. Process.
 */
char *seam_cwd_path(char *buf, size_t size);
/** The decimal number at the start of text, 0 when there is none, wrapping. Any. */
unsigned long seam_strtoul10(const char *text);

/**
 * net.core.netdev_max_backlog: how many packets the kernel queues on a CPU. Any
 * value, negative ones included; an administrator may change it at any time.
 */
extern const int *const seam_max_backlog;

/* ---- barriers ------------------------------------------------------------- */

/** Full memory barrier between CPUs. Any. */
void seam_smp_mb(void);
/** Store barrier between CPUs. Any. */
void seam_smp_wmb(void);
/** Wait until every hook that runs now, on any CPU, has returned. Process. */
void seam_wait_for_hooks(void);

/* ---- locks ---------------------------------------------------------------- */

/* One initialiser per kind of lock, so that lockdep gives each kind its class. */
void seam_po_locks_init(struct mox_packet_sock *po);
void seam_lib_lock_init(struct packet_regular_lib *lib);
void seam_queue_lock_init(struct efbuff_queue *queue);
void seam_hook_lock_init(seam_spinlock *lock);
void seam_request_mutex_init(seam_mutex *request_mutex);
void seam_dump_mutex_init(seam_mutex *dump_mutex);
void seam_registry_mutex_init(seam_mutex *registry_mutex);
void seam_closed_mutex_init(seam_mutex *closed_mutex);
void seam_arrivals_mutex_init(seam_mutex *arrivals_mutex);
void seam_tracer_locks_init(seam_rwlock *tracer_lock, seam_mutex *tracer_mutex);

void seam_spin_lock(seam_spinlock *lock) SEAM_ACQUIRE(lock);
void seam_spin_unlock(seam_spinlock *lock) SEAM_RELEASE(lock);
void seam_spin_lock_bh(seam_spinlock *lock) SEAM_ACQUIRE(lock);
void seam_spin_unlock_bh(seam_spinlock *lock) SEAM_RELEASE(lock);
/** A reader with bottom halves off: a hook. */
void seam_read_lock(seam_rwlock *lock) SEAM_ACQUIRE_SHARED(lock);
void seam_read_unlock(seam_rwlock *lock) SEAM_RELEASE_SHARED(lock);
void seam_read_lock_bh(seam_rwlock *lock) SEAM_ACQUIRE_SHARED(lock);
void seam_read_unlock_bh(seam_rwlock *lock) SEAM_RELEASE_SHARED(lock);
void seam_write_lock_bh(seam_rwlock *lock) SEAM_ACQUIRE(lock);
void seam_write_unlock_bh(seam_rwlock *lock) SEAM_RELEASE(lock);
/** Process. */
void seam_mutex_lock(seam_mutex *lock) SEAM_ACQUIRE(lock);
/** 0, or -EINTR, and not taken, when the caller is killed before. Process. */
int seam_mutex_lock_killable(seam_mutex *lock);
void seam_mutex_unlock(seam_mutex *lock) SEAM_RELEASE(lock);
/** The socket lock (lock_sock, release_sock). Process. */
void seam_lock_sock(struct sock *sk);
void seam_release_sock(struct sock *sk);

/* ---- memory --------------------------------------------------------------- */

/** size bytes, not zeroed, GFP_KERNEL, or null. Process. */
void *seam_kmalloc(size_t size);
void seam_kfree(void *block);
/** size zeroed, virtually contiguous bytes, or null. Process. */
void *seam_vzalloc(size_t size);
void seam_vfree(void *block);
/** A slab cache of objects of size bytes (no alignment, flags, constructor), or null. Process. */
struct kmem_cache *seam_cache_create(const char *name, size_t size);
void seam_cache_destroy(struct kmem_cache *cache);
/** An object, not zeroed, GFP_ATOMIC, or null. Any. */
void *seam_cache_alloc(struct kmem_cache *cache);
void seam_cache_free(struct kmem_cache *cache, void *object);
/** Bytes of memory that the machine has. Process. */
unsigned long long seam_total_memory(void);
/** Whether the current task holds CAP_NET_ADMIN. Process. */
int seam_capable_net_admin(void);
/** The same of CAP_NET_RAW. */
int seam_capable_net_raw(void);
/** A number that cannot be predicted from outside of the kernel. Any. */
u32 seam_random(void);

/* ---- user memory ---------------------------------------------------------- */

/** Copy len bytes from a setsockopt argument; 0 or -EFAULT. What could not be read is zero. Process. */
int seam_copy_from_uptr(void *to, const struct seam_uptr *from, size_t len);
/** The same from byte number at of the argument on. Process. */
int seam_copy_from_uptr_at(void *to, const struct seam_uptr *from, size_t at, size_t len);
/** Copy len bytes to user space; 0 or -EFAULT. Process. */
int seam_copy_to_user(void *user_to, const void *from, size_t len);
/** Read or write one int of user space; 0 or -EFAULT. Process. */
int seam_get_user_int(int *to, const int *user_from);
int seam_put_user_int(int value, int *user_to);

/* ---- registration of the family -------------------------------------------- */

/** proto_register(&mox_packet_proto, 0): 0 or a negative errno. Process. */
int seam_proto_register(void);
void seam_proto_unregister(void);
/** sock_register(&mox_packet_family_ops): 0 or a negative errno. Process. */
int seam_family_register(void);
/** sock_unregister(17). Process. */
void seam_family_unregister(void);
/** register_pernet_subsys(&mox_packet_net_ops): 0 or a negative errno. Process. */
int seam_pernet_register(void);
void seam_pernet_unregister(void);

/* ---- network namespaces ----------------------------------------------------- */

/** Initialise the namespace's packet-list mutex and empty its list. Process. */
void seam_ns_list_init(struct net *net);
/** The initial namespace. */
struct net *seam_init_net(void);
/** The namespace that a socket lives in. */
struct net *seam_sk_net(struct sock *sk);
/** Take or drop a reference on a namespace. */
void seam_net_get(struct net *net);
void seam_net_put(struct net *net);
/** The namespace's packet-list mutex; "nested" when another namespace's is held. Process. */
void seam_ns_lock(struct net *net);
void seam_ns_lock_nested(struct net *net);
void seam_ns_unlock(struct net *net);
/** Link sk at the head of the list, with a reference. Under the mutex. */
void seam_ns_list_add(struct net *net, struct sock *sk);
/** Unlink sk, if it is on a list, and drop the list's reference. Under the mutex. */
void seam_ns_list_del(struct sock *sk);
/** sock_prot_inuse_add for mox_packet_proto. Any. */
void seam_prot_inuse_add(struct net *net, int delta);

/* ---- sockets ----------------------------------------------------------------- */

/** A zeroed packet socket record of net (sk_alloc, GFP_KERNEL, kern 1), or null. Process. */
struct sock *seam_sk_alloc(struct net *net);
/** Tie sk to socket: state, operations table, sock_init_data, destructor, family. Process. */
void seam_sock_setup(struct socket *socket, struct sock *sk);
struct sock *seam_socket_sk(struct socket *socket);
void seam_socket_clear_sk(struct socket *socket);
/** SOCK_RAW, SOCK_DGRAM and so on. */
int seam_socket_type(const struct socket *socket);
int seam_sk_type(const struct sock *sk);
void seam_sock_hold(struct sock *sk);
/** Drop a reference; frees the socket with the last one. Any. */
void seam_sock_put(struct sock *sk);
u32 seam_sk_refcnt(const struct sock *sk);
void seam_sock_orphan(struct sock *sk);
/** Whether sk is marked dead. */
int seam_sk_dead(const struct sock *sk);
/** Receive memory charged; send memory in use (less the socket's own 1). */
int seam_sk_rmem(const struct sock *sk);
int seam_sk_wmem(const struct sock *sk);
/** Send memory as charged, the socket's own 1 included while the socket lives. */
u32 seam_sk_wmem_charged(const struct sock *sk);
/** A kernel warning with a backtrace. Any. */
void seam_warn(const char *what);

/** The receive queue's own lock, bottom halves off. */
void seam_rcvq_lock(struct sock *sk);
void seam_rcvq_unlock(struct sock *sk);
u32 seam_rcvq_len(const struct sock *sk);
u32 seam_writeq_len(const struct sock *sk);
/** The first queued buffer, or null; not taken. Under the queue's lock. */
struct sk_buff *seam_rcvq_peek(struct sock *sk);
/** Free all queued buffers. Any. */
void seam_rcvq_purge(struct sock *sk);
#define SEAM_OFFER_FULL 0   /* the buffer's truesize would fill the receive buffer */
#define SEAM_OFFER_QUEUED 1 /* the socket has the buffer */
#define SEAM_OFFER_FILTER 2 /* a socket filter is attached, which has not seen the buffer */
/**
 * Charge a buffer, which has no owner and no route yet, to the socket's receive memory
 * (sock_rfree returns the charge), append it, and call the socket's data-ready
 * callback; or do nothing, and return why. filtered: the filter has seen it. Any.
 */
int seam_rcvq_offer(struct sock *sk, struct sk_buff *skb, int filtered);
/** Whether a socket filter is attached. Any. */
int seam_sk_filtered(const struct sock *sk);
/** 1 when the program asked for times of arrival, SO_TIMESTAMP and the like, else 0. Any. */
int seam_sk_stamped(const struct sock *sk);

/** SIOCGSTAMP and SIOCGSTAMPNS: 0 or a negative errno. Process. */
int seam_sock_get_timestamp(struct sock *sk, void *user_to);
int seam_sock_get_timestampns(struct sock *sk, void *user_to);

/* ---- socket buffers ------------------------------------------------------------ */

/** A frame that a buffer is made of. */
struct seam_frame {
	const void *data; /* from the MAC header */
	u32 len;
	u32 net_offset; /* of the network header */
	u32 ifindex;    /* it came in on */
	u16 vlan_id;
	void *cb; /* out: the 48 bytes of the buffer's control block */
};
/** A buffer with a copy of a frame and no device, GFP_ATOMIC, or null. Any. */
struct sk_buff *seam_skb_of_frame(struct seam_frame *frame);
/** Another buffer with the same data and control block, GFP_ATOMIC, or null. Any. */
struct sk_buff *seam_skb_clone(struct sk_buff *skb);
/** Remove len bytes from the front; null, and nothing done, when there are fewer. */
void *seam_skb_pull(struct sk_buff *skb, u32 len);
/** The 48 bytes of the buffer's control block. */
void *seam_skb_cb(struct sk_buff *skb);
u32 seam_skb_len(const struct sk_buff *skb);
u16 seam_skb_protocol(const struct sk_buff *skb);
int seam_skb_nonlinear(const struct sk_buff *skb);
/** ___pskb_trim: 0 or a negative errno. Any. */
int seam_skb_pskb_trim(struct sk_buff *skb, u32 len);
/** Cut a linear buffer to len bytes. */
void seam_skb_cut(struct sk_buff *skb, u32 len);
/** Set a buffer's time of arrival, in nanoseconds since the epoch. */
void seam_skb_set_time(struct sk_buff *skb, u64 time);
/** Number of references. */
u32 seam_skb_users(const struct sk_buff *skb);
void seam_consume_skb(struct sk_buff *skb);
/** sk_filter_trim_cap: 0 when the filter accepts, negative when it rejects. Any. */
int seam_sk_filter_trim_cap(struct sock *sk, struct sk_buff *skb, u32 cap);

/* ---- recvmsg --------------------------------------------------------------------- */

/** One datagram, or null with *error set. flags: MSG_*. Process. */
struct sk_buff *seam_recv_datagram(struct sock *sk, int flags, int *error);
void seam_free_datagram(struct sock *sk, struct sk_buff *skb);
/** Copy len bytes from the buffer's start to the message: 0 or a negative errno. Process. */
int seam_copy_datagram(struct sk_buff *skb, struct msghdr *msg, size_t len);
/** Timestamps and Wi-Fi status as the kernel's datagram sockets report them. Process. */
void seam_recv_timestamp(struct msghdr *msg, struct sock *sk, struct sk_buff *skb);
void seam_msg_set_namelen(struct msghdr *msg, int len);
/** The kernel's copy of the name buffer (at least 128 bytes), or null. */
void *seam_msg_name(struct msghdr *msg);
void seam_msg_add_flags(struct msghdr *msg, int flags);
void seam_msg_set_controllen(struct msghdr *msg, size_t len);
/** The caller's control buffer, or null; for sendmsg and at most seam_msg_controllen bytes, the kernel's copy. */
void *seam_msg_control(struct msghdr *msg);
/** Store len bytes at the control buffer, raw: 0 or -EFAULT. Process. */
int seam_msg_put_control(struct msghdr *msg, const void *from, size_t len);

/* ---- sendmsg --------------------------------------------------------------------- */

/** Bytes of the name and of the control buffer. */
int seam_msg_namelen(const struct msghdr *msg);
size_t seam_msg_controllen(const struct msghdr *msg);
/** Copy the next len bytes of the message's data: 0 or -EFAULT, when not all can be read. Process. */
int seam_copy_from_msg(void *to, struct msghdr *msg, size_t len);

/* ---- the copy thread --------------------------------------------------------------- */

/** Initialise g_packet_thread_top's wait queue. */
void seam_waitqueue_init(void);
/**
 * Sleep interruptibly until *word is not 0 or the thread is asked to stop.
 * 0, or a negative errno when a signal came first. Process.
 */
int seam_wait_interruptible(seam_waitqueue *queue, const u32 *word);
/** Wake one interruptible waiter. Any. */
void seam_wake_up(seam_waitqueue *queue);
/** Sleep interruptibly for a number of jiffies. Process. */
void seam_sleep_jiffies(long jiffies);
/** Call the scheduler, whether or not another task is due. Process. */
void seam_schedule(void);
/** Whether the current task is being killed. Any. */
int seam_fatal_signal_pending(void);
/** Whether another task is due. Any. */
int seam_need_resched(void);
/** Let another task run, if one is due. Process. */
void seam_cond_resched(void);
/** A new thread, not yet running, or an error pointer. Process. */
struct task_struct *seam_thread_create(int (*body)(void *), void *argument, const char *name);
/** Whether a task pointer is null or an error. */
int seam_task_invalid(const struct task_struct *task);
/** Ask for SCHED_NORMAL with a priority; the kernel's answer is not passed on. Any. */
void seam_thread_set_normal(struct task_struct *task, int priority);
void seam_thread_wake(struct task_struct *task);
/** Ask the thread to stop and wait for its end. Process. */
void seam_thread_stop(struct task_struct *task);
int seam_thread_should_stop(void);

extern struct packet_thread_top g_packet_thread_top;

/* ---- what the kernel calls in the C++ units ------------------------------------------ */

int mox_packet_init(void);
void mox_packet_exit(void);
int mox_packet_create(struct net *net, struct socket *socket, int protocol, int kern);
int mox_packet_net_init(struct net *net);
void mox_packet_net_exit(struct net *net);
void mox_packet_sock_destruct(struct sock *sk);
int mox_packet_release(struct socket *socket);
int mox_packet_bind(struct socket *socket, struct sockaddr *addr, int addr_len);
int mox_packet_getname(struct socket *socket, struct sockaddr *addr, int peer);
int mox_packet_ioctl(struct socket *socket, unsigned int cmd, unsigned long arg);
int mox_packet_setsockopt(struct socket *socket, int level, int option,
			  const struct seam_uptr *value, unsigned int len);
int mox_packet_getsockopt(struct socket *socket, int level, int option, char *user_value,
			  int *user_len);
/** A program waits for frames, or asks whether there are any. Process. */
void mox_packet_poll(struct socket *socket);
int mox_packet_sendmsg(struct socket *socket, struct msghdr *msg, size_t len);
int mox_packet_recvmsg(struct socket *socket, struct msghdr *msg, size_t len, int flags);

#ifdef __cplusplus
} /* extern "C" */
#endif
#endif
