// SPDX-License-Identifier: GPL-2.0-only
// Where a test can act as the other CPU, and which calls it can make fail. What a test arms must
// happen before the test ends, or it fails: a test of an interleaving that never came proves
// nothing.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>

#include "contract/rules.h"

namespace fake {

// Name, and what happens at that point; the callback gets the address in brackets.
#define FAKE_POINTS(X)                                                                    \
	X(kLocking, "a lock is about to be taken [lock]")                                 \
	X(kLock, "a lock has just been taken [lock]")                                     \
	X(kUnlocking, "a lock is about to be dropped [lock]")                             \
	X(kUnlock, "a lock has just been dropped [lock, or the socket of a socket lock]") \
	X(kBarrier, "a full memory barrier")                                              \
	X(kStoreBarrier, "a store barrier")                                               \
	X(kGrace, "a wait for the hooks that run on other CPUs")                          \
	X(kWait, "the copy thread is about to look whether it may sleep [its word]")      \
	X(kWake, "the copy thread has been woken [wait queue]")                           \
	X(kStop, "the copy thread is about to be stopped [task]")                         \
	X(kSchedule, "the copy thread gives up the CPU")                                  \
	X(kCondResched, "a report offers the CPU to others")                              \
	X(kOrphan, "a socket has been orphaned [sock]")                                   \
	X(kSockPut, "a reference on a socket is about to be dropped [sock]")              \
	X(kDataReady, "a socket's data-ready callback ran [sock]")                        \
	X(kReceive, "a datagram is about to be taken off a receive queue [sock]")         \
	X(kCopyFromMsg, "data of a message have been read [msghdr]")                      \
	X(kOutput, "an efbuff has been handed to the platform [efbuff]")                  \
	X(kFindIntf, "an interface has been looked up [its index]")                       \
	X(kOpen, "the dump file is about to be opened")                                   \
	X(kWrite, "the dump file has been written to [file]")                             \
	X(kRegModule, "efmp_reg_module")                                                  \
	X(kDeregModule, "efmp_dereg_module")                                              \
	X(kRegRecv, "efmp_reg_recv_pkt_func")                                             \
	X(kDeregRecv, "efmp_dereg_recv_pkt_func")                                         \
	X(kRegOutput, "efmp_reg_output_pkt_func")                                         \
	X(kDeregOutput, "efmp_dereg_output_pkt_func")

// Name, and the call that fails.
#define FAKE_FAILURES(X)                                         \
	X(kDataAlloc, "allocation of a rule datum")              \
	X(kItemAlloc, "allocation of a rule item")               \
	X(kEntryAlloc, "allocation of a filter list entry")      \
	X(kCopyAlloc, "allocation of a match copy")              \
	X(kCacheCreate, "kmem_cache_create")                     \
	X(kKmalloc, "kmalloc")                                   \
	X(kVzalloc, "vzalloc")                                   \
	X(kCopyFromUser, "copy_from_user")                       \
	X(kCopyToUser, "copy_to_user")                           \
	X(kGetUser, "get_user")                                  \
	X(kPutUser, "put_user")                                  \
	X(kProtoRegister, "proto_register")                      \
	X(kFamilyRegister, "sock_register")                      \
	X(kPernetRegister, "register_pernet_subsys")             \
	X(kSkAlloc, "sk_alloc")                                  \
	X(kSkbAlloc, "alloc_skb")                                \
	X(kSkbClone, "skb_clone")                                \
	X(kSkbTrim, "pskb_trim")                                 \
	X(kRecvDatagram, "skb_recv_datagram")                    \
	X(kCopyDatagram, "copy of a datagram to user space")     \
	X(kThreadCreate, "kthread_create")                       \
	X(kLockKillable, "mutex_lock_killable")                  \
	X(kGenlRegister, "genl_register_family")                 \
	X(kGenlAlloc, "nlmsg_new")                               \
	X(kGenlPut, "genlmsg_put")                               \
	X(kNlaPut, "nla_put")                                    \
	X(kGenlUnicast, "genlmsg_unicast")                       \
	X(kCaptureRegister, "genl_register_family, for reading") \
	X(kDiagRegister, "sock_diag_register")                   \
	X(kCaptureAlloc, "genlmsg_new")                          \
	X(kCaptureReply, "genlmsg_unicast, for reading")         \
	X(kFileOpen, "filp_open")                                \
	X(kFileTruncate, "vfs_truncate")                         \
	X(kFileWrite, "kernel_write")                            \
	X(kRegServ, "efmp_reg_serv_change_handler")              \
	X(kClone, "efmp_buff_clone_with_owner")                  \
	X(kEfbuffAlloc, "efmp_buff_alloc_sw_with_owner")         \
	X(kRegModule, "efmp_reg_module")                         \
	X(kDeregModule, "efmp_dereg_module")                     \
	X(kRegRecv, "efmp_reg_recv_pkt_func")                    \
	X(kDeregRecv, "efmp_dereg_recv_pkt_func")                \
	X(kRegOutput, "efmp_reg_output_pkt_func")                \
	X(kDeregOutput, "efmp_dereg_output_pkt_func")

#define FAKE_ENUMERATOR(name, ...) name,
enum class Point { FAKE_POINTS(FAKE_ENUMERATOR) kCount };
enum class Fail { FAKE_FAILURES(FAKE_ENUMERATOR) kCount };
#undef FAKE_ENUMERATOR

// The failing allocation from one of the module's caches.
constexpr Fail alloc_of(contract::Cache cache)
{
	return static_cast<Fail>(static_cast<int>(Fail::kDataAlloc) + static_cast<int>(cache));
}

// What the tests have armed at the points.
class Interleavings {
public:
	using Act = std::function<void(const void *)>;

	class Slot {
	public:
		// Acts each time the point is reached, which must happen before the test ends or
		// takes it away again.
		Slot &operator=(Act act);

	private:
		friend class Interleavings;
		void end();

		Point point_{};
		Act act_;
		bool owed_ = false;       // a test waits for it
		unsigned generation_ = 0; // counts what was armed here
	};

	Interleavings();
	Slot &operator[](Point point) { return slots_[static_cast<size_t>(point)]; }
	// For who only looks on: the same, and it may as well never happen.
	void watch(Point point, Act act);
	void erase(Point point) { (*this)[point].end(); }
	void clear();
	void happen(Point point, const void *what);

private:
	std::array<Slot, static_cast<size_t>(Point::kCount)> slots_;
};

// Calls that fail.
class Failures {
public:
	// Makes the n-th call from now fail (1 is the next one).
	void arm(Fail call, int nth);
	// Takes back what has not come to pass, where that is what the test expects.
	void disarm(Fail call) { armed_.erase(call); }
	// One call: whether it was armed to fail.
	bool due(Fail call);
	uint64_t calls(Fail call) const;
	// Reports what was armed and never came to pass.
	void audit() const;

private:
	std::map<Fail, std::set<uint64_t>> armed_;
	std::map<Fail, uint64_t> calls_;
};

} // namespace fake
