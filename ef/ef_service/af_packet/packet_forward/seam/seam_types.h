/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The embedded kernel types of the records that both languages share.
 *
 * C sees the kernel's own types. C++ sees storage of the same size and
 * alignment, taken from record_sizes.h, which the compiler that builds the
 * kernel part writes (seam_sizes.c). Both sides assert that they agree.
 */
#ifndef SEAM_TYPES_H
#define SEAM_TYPES_H

#ifndef __cplusplus

#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <net/sock.h>

typedef struct sock seam_sock;
typedef spinlock_t seam_spinlock;
typedef rwlock_t seam_rwlock;
typedef struct mutex seam_mutex;
typedef wait_queue_head_t seam_waitqueue;

#define SEAM_CAPABILITY(name)
#define SEAM_GUARDED_BY(lock)
#define SEAM_ACQUIRE(...)
#define SEAM_ACQUIRE_SHARED(...)
#define SEAM_RELEASE(...)
#define SEAM_RELEASE_SHARED(...)

#else

/*
 * The compiler's own names for the integer types: the C++ headers of a toolchain need a C
 * library for its float ABI, which may not be the kernel's.
 */
#if __STDC_HOSTED__
#include <cstddef>
#include <cstdint>
#else
using size_t = __SIZE_TYPE__;
using uintptr_t = __UINTPTR_TYPE__;
#ifndef offsetof
#define offsetof(type, member) __builtin_offsetof(type, member)
#endif
#endif

#include "record_sizes.h"

using u8 = __UINT8_TYPE__;
using u16 = __UINT16_TYPE__;
using u32 = __UINT32_TYPE__;
using u64 = __UINT64_TYPE__;
using s32 = __INT32_TYPE__;

/* clang checks these in the host build (-Wthread-safety); others skip them. */
#if defined(__clang__)
#define SEAM_ATTR(x) __attribute__((x))
#else
#define SEAM_ATTR(x)
#endif
#define SEAM_CAPABILITY(name) SEAM_ATTR(capability(name))
#define SEAM_SCOPED_CAPABILITY SEAM_ATTR(scoped_lockable)
#define SEAM_GUARDED_BY(lock) SEAM_ATTR(guarded_by(lock))
#define SEAM_ACQUIRE(...) SEAM_ATTR(acquire_capability(__VA_ARGS__))
#define SEAM_ACQUIRE_SHARED(...) SEAM_ATTR(acquire_shared_capability(__VA_ARGS__))
#define SEAM_RELEASE(...) SEAM_ATTR(release_capability(__VA_ARGS__))
#define SEAM_RELEASE_SHARED(...) SEAM_ATTR(release_shared_capability(__VA_ARGS__))
#define SEAM_RELEASE_GENERIC(...) SEAM_ATTR(release_generic_capability(__VA_ARGS__))
#define SEAM_REQUIRES(...) SEAM_ATTR(requires_capability(__VA_ARGS__))
#define SEAM_REQUIRES_SHARED(...) SEAM_ATTR(requires_shared_capability(__VA_ARGS__))
#define SEAM_NO_THREAD_SAFETY_ANALYSIS SEAM_ATTR(no_thread_safety_analysis)

/*
 * A variable that its constructor or the next call fills as far as it is read: kernels
 * that clear all variables need not clear this one for each frame.
 */
#if defined(__has_attribute)
#if __has_attribute(uninitialized)
#define SEAM_UNINITIALIZED __attribute__((uninitialized))
#endif
#endif
#ifndef SEAM_UNINITIALIZED
#define SEAM_UNINITIALIZED
#endif

struct sock;

/** The kernel's struct sock, at the start of every packet socket record. */
struct seam_sock {
	alignas(SEAM_SOCK_ALIGN) unsigned char opaque[SEAM_SOCK_SIZE];
};
struct SEAM_CAPABILITY("spinlock") seam_spinlock {
	alignas(SEAM_SPINLOCK_ALIGN) unsigned char opaque[SEAM_SPINLOCK_SIZE];
};
struct SEAM_CAPABILITY("rwlock") seam_rwlock {
	alignas(SEAM_RWLOCK_ALIGN) unsigned char opaque[SEAM_RWLOCK_SIZE];
};
struct SEAM_CAPABILITY("mutex") seam_mutex {
	alignas(SEAM_MUTEX_ALIGN) unsigned char opaque[SEAM_MUTEX_SIZE];
};
struct seam_waitqueue {
	alignas(SEAM_WAITQUEUE_ALIGN) unsigned char opaque[SEAM_WAITQUEUE_SIZE];
};

/** The kernel's circular doubly linked list link; an empty head points at itself. */
struct list_head {
	list_head *next;
	list_head *prev;
};

#endif
#endif
