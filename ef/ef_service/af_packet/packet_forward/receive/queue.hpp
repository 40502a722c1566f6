// SPDX-License-Identifier: GPL-2.0-only
/*
 * The per-CPU queues between hooks and the copy thread. Many producers: the
 * hooks, each on its own CPU's queues. One consumer: the copy thread.
 *
 * A hook asks for room before it queues. What a queue holds counts until it is
 * freed, also while the copy thread delivers it.
 */
#pragma once

#include "base/sync.hpp"
#include "packet/efbuff.hpp"

extern "C" {
extern efbuff_queue g_cpu_pkt_que[CPU_QUEUE_SLOTS][CPU_QUEUES];
extern u8 mox_packet_sock_inited;

/** Empty every queue, once. 0. Process. */
int mox_packet_sock_init(void);
/** Free every queued efbuff, if the queues are up. Process. */
void mox_packet_sock_deinit(void);
/** Free one queue's efbuffs. Any. */
void mox_packet_efbuff_queue_deinit(efbuff_queue *queue);
}

namespace mox {

/** The most efbuffs that one queue holds, whatever the kernel's own limit is. */
inline constexpr s32 kQueueLimit = 2048;
/** The queues of a CPU hold so many times the limit of one of them. */
inline constexpr s32 kCpuQueues = 2;

/** What an efbuff adds to the number of those held, and to the number of copies among them. */
enum class Held : u32 { kTaken = 1, kCopy = 1 | 1 << 16 };

/**
 * How much is held: all efbuffs in the low half of a word, the copies among them
 * in the upper. Both words only grow, and wrap: the difference is what is held.
 * Two words, as each has a writer of its own.
 */
struct HeldCount {
	u32 queued; /* by hooks, with bottom halves off on the queue's CPU */
	u32 freed;  /* by whoever frees; atomically, as an unload and the copy thread may at once */
};
static_assert(kCpuQueues * kQueueLimit < 1 << 15, "a half of the word holds every count");

/** What one CPU's queues hold, each of them and together. */
struct alignas(128) CpuHeld {
	HeldCount queues[CPU_QUEUES];
	HeldCount all;
};

extern CpuHeld g_cpu_held[CPU_QUEUE_SLOTS];

/** How often held_now() reads anew what changes while it reads. */
inline constexpr u32 kHeldReads = 8;

/**
 * What a count holds, for any other CPU: without a lock, so by the last of kHeldReads it may be
 * what was queued meanwhile too many, and is never below what it was. Any context.
 */
inline u32 held_now(const HeldCount &count)
{
	u32 freed = load(count.freed);
	for (u32 reads = kHeldReads;; reads--) {
		/* What was freed was queued before. */
		seam_smp_mb();
		const u32 queued = load(count.queued);
		seam_smp_mb();
		const u32 now = load(count.freed);
		if (now == freed || reads == 0)
			return queued - freed;
		freed = now;
	}
}

/** The most efbuffs that one queue holds now. Negative numbers of the administrator's are 0. */
inline u32 queue_limit()
{
	const s32 limit = load(*seam_max_backlog);

	return limit < 0 ? 0 : limit > kQueueLimit ? kQueueLimit : static_cast<u32>(limit);
}

/** Whether one more is within a limit, of which copies may have half. */
inline bool held_below(u32 held, Held more, s32 limit)
{
	const s32 copies = static_cast<s32>(held >> 16);

	return static_cast<s32>(held & 0xFFFF) < limit &&
	       (more == Held::kTaken || copies < limit / 2);
}

/**
 * Count one more efbuff for a queue, if there is room: the queue has at most as
 * many as the kernel queues packets on a CPU, and no more than kQueueLimit; all
 * queues of a CPU twice that; copies half of each. False, and not counted,
 * otherwise. What is counted is appended, or counted back. On the queue's CPU,
 * bottom halves off.
 */
inline bool queue_admit(u32 cpu, u32 number, Held more)
{
	HeldCount &queue = g_cpu_held[cpu].queues[number];
	HeldCount &all = g_cpu_held[cpu].all;
	const u32 in_queue = load(queue.queued);
	const u32 in_all = load(all.queued);
	s32 limit = load(*seam_max_backlog);

	if (limit > kQueueLimit)
		limit = kQueueLimit;
	if (!held_below(in_queue - load(queue.freed), more, limit) ||
	    !held_below(in_all - load(all.freed), more, kCpuQueues * limit))
		return false;
	store(queue.queued, in_queue + static_cast<u32>(more));
	store(all.queued, in_all + static_cast<u32>(more));
	return true;
}

/** Number on its queue of the efbuff that was admitted last, modulo 2^16. Where it was admitted. */
inline u32 queue_last_number(u32 cpu, u32 number)
{
	return (load(g_cpu_held[cpu].queues[number].queued) - 1) & 0xFFFF;
}

/** Count back what was admitted and is not appended. On the queue's CPU, bottom halves off. */
void queue_count_back(u32 cpu, u32 number, Held less);

/** The link word of an efbuff. */
inline u32 *link_of(void *efbuff)
{
	static_assert(platform::ef::kLink == 0);
	return static_cast<u32 *>(efbuff);
}

/** A link word that ends the chain: the tag without an address. */
inline constexpr u32 kChainEnd = platform::kTag;

/** Bit of an efbuff's own link word: it is a copy. Efbuffs are aligned to 4 bytes. */
inline constexpr u32 kCopyMark = 2;

inline constexpr u32 kLinkBits = platform::kTag | kCopyMark;

/* Efbuffs of a chain that are counted back at once. */
inline constexpr u32 kFreedOfCount = 16;

/**
 * A chain of efbuffs taken off a queue; the holder owns every efbuff of it. What
 * next() returned counts as held until a later call, so each chain is followed
 * to its end.
 */
class EfbuffChain {
public:
	/** first: number of the first one on its queue. */
	EfbuffChain(void *head, u32 count, u32 first, HeldCount *queue, HeldCount *cpu)
		: head_(head), left_(count), behind_(first + count), queue_(queue), cpu_(cpu)
	{
	}
	/**
	 * The next efbuff, or null: after count of them or at the chain's end,
	 * whichever comes first. The one before must be freed by now; this one may
	 * be freed at once.
	 */
	void *next()
	{
		/* Atomic, so not for each: meanwhile a few count as held that are not. */
		if (left_ == 0 || !head_ || left_ % kFreedOfCount == 0)
			count_freed();
		if (left_ == 0 || !head_)
			return nullptr;
		left_--;
		void *efbuff = head_;
		const u32 link = *link_of(efbuff);
		head_ = address_of(link & ~kLinkBits);
		copy_ = link & kCopyMark;
		given_ += static_cast<u32>(copy_ ? Held::kCopy : Held::kTaken);
		return efbuff;
	}
	/** Whether what next() returned last is a copy: the platform kept the frame. */
	bool is_copy() const { return copy_ != 0; }
	/** Its number on its queue, of which queue_last_number() has the lower half. */
	u32 number() const { return behind_ - left_ - 1; }

private:
	void count_freed();

	void *head_;
	u32 left_;
	u32 behind_; /* number of the one behind the last */
	u32 copy_ = 0;
	u32 given_ = 0; /* Held of those that next() returned and that still count */
	HeldCount *queue_;
	HeldCount *cpu_;
};

/** Append an efbuff that was admitted; the queue then owns it. Bottom halves off: a hook. */
void queue_append(efbuff_queue *queue, void *efbuff, Held held);
/** The CPU of a queue, and its record. */
u32 queue_cpu(const efbuff_queue *queue);
inline const hook_cpu *queue_record(const efbuff_queue *queue)
{
	return seam_hook_cpu(static_cast<int>(queue_cpu(queue)));
}
/** The ledger of a queue's frames behind it. */
delivery_ledger *queue_ledger(const efbuff_queue *queue);

/** Take everything off a queue. Any context. */
EfbuffChain queue_detach(efbuff_queue *queue);

} // namespace mox
