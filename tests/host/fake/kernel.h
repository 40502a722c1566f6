// SPDX-License-Identifier: GPL-2.0-only
// A kernel for tests: every seam function on plain memory, strict about
// contexts and locks, and accounting for everything that it hands out.
//
// A breach (sleeping under a spin lock, an unlock without a lock, a double free,
// a reference too many) is a test failure at once; what is left at the end of a
// test is one at teardown.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <array>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "points.h"
#include "seam/seam_capture.h"
#include "seam/seam_control.h"

namespace fake {

// Kinds of locks, in the order in which they may be taken: a lock may be taken
// only while every lock held is of an earlier kind. Besides, bind and rule lock are
// never held together, nor library and queue lock, and a library is only read under
// the hook lock. docs/locking.md has the reasons.
enum class LockKind {
	kNone,
	kNsMutex,
	kNsMutexNested,
	kRequest,
	kDump,
	kSock,
	kChange,
	kBind,
	kRule,
	kHook,
	kLib,
	kQueue,
	kReceiveQueue,
	kMutex,
	kRegistry,
	kClosed,
	kTracerMutex,
	kArrivals,
	kTracer,
};

struct Lock {
	uint64_t magic;
	LockKind kind;
	int readers;
	int writers;
	int lines; // logged while it is held
};

struct Line {
	int level = -1;   // of the leading level marker, -1 without one
	std::string text; // rendered, without the marker
};

// User memory: bytes from fault_at on cannot be touched.
class UserBuf {
public:
	explicit UserBuf(size_t size, uint8_t fill = 0);
	explicit UserBuf(const std::vector<uint8_t> &content);
	~UserBuf();
	UserBuf(const UserBuf &) = delete;
	UserBuf &operator=(const UserBuf &) = delete;

	uint8_t *data() { return bytes.data(); }
	template <typename T> T get(size_t at = 0) const
	{
		T v;
		__builtin_memcpy(&v, bytes.data() + at, sizeof v);
		return v;
	}
	template <typename T> void put(size_t at, T v)
	{
		__builtin_memcpy(bytes.data() + at, &v, sizeof v);
	}

	std::vector<uint8_t> bytes;
	size_t fault_at = SIZE_MAX;
	size_t span =
		0; // so far from the first byte on an access faults instead of failing the test
};

struct Kernel {
	// ---- the caller's circumstances, set by tests
	int cpu = 0;
	std::set<int> present_cpus{ 0, 1 };
	int cpu_ids = 4;
	int32_t pid = 4711;
	std::string comm = "captured";
	std::string cwd = "/root";
	bool cwd_renders = true;
	bool in_hook = false;
	bool nonlinear_skbs = false;             // new buffers are fragmented
	bool killed = false;                     // a fatal signal is pending
	std::map<int, unsigned long> cpu_efbuff; // efmp_cpu_buffer_cache
	std::array<hook_cpu, CPU_QUEUE_SLOTS> hook_cpus{};
	uint64_t monotonic_ns = 1000000000, real_ns = 1700000000000000000;
	uint32_t clock_ticks = 0;

	// ---- socket diagnosis
	struct Listed {
		struct sock *sk;
		seam_diag_socket socket;
	};
	bool diag_registered = false;
	uint32_t diag_room = ~0u; // sockets that still fit into the listing
	std::vector<Listed> diag_listed;

	// ---- faults (points.h)
	// Asked at every fallible call; true makes it fail.
	std::function<bool(Fail)> fault;
	// Makes the n-th call from now fail (1 is the next one).
	void fail(Fail call, int nth = 1) { failures_.arm(call, nth); }
	void disarm(Fail call) { failures_.disarm(call); }
	bool failing(Fail call);
	uint64_t calls(Fail call) const { return failures_.calls(call); }
	std::map<Fail, int> error; // errno of a failing registration
	int error_of(Fail call, int otherwise) const;

	// ---- the other CPU: acts at an exact point of the code under test (points.h)
	Interleavings at;
	void event(Point point, const void *what = nullptr) { at.happen(point, what); }

	// ---- what the module did
	std::vector<Line> log;
	std::vector<std::string> journal; // registrations, grace periods, threads, in order
	std::vector<std::string> warnings;
	int wakeups = 0;
	int schedules = 0;
	static constexpr uint64_t kTotalMemory = 1ull << 32;
	uint64_t total_memory = kTotalMemory;
	bool net_admin = true;        // the current task holds CAP_NET_ADMIN
	bool opener_net_admin = true; // so does who opened its netlink socket
	bool net_raw = true;          // the same of CAP_NET_RAW
	bool need_resched = true;     // another task is due
	int cond_rescheds = 0;
	std::vector<std::pair<size_t, size_t>> user_reads; // of setsockopt arguments: from, bytes
	std::vector<size_t> vzallocs;                      // bytes of each vzalloc
	std::vector<long> sleeps;

	// ---- sockets
	int inuse = 0; // of the module's protocol, over all namespaces
	bool proto_registered = false, family_registered = false, pernet_registered = false;

	// ---- the control channel and the dump file
	bool genl_registered = false;
	struct Answer {
		uint32_t client;
		std::vector<uint8_t> message;
	};
	std::vector<Answer> answers;             // sent over netlink
	std::map<std::string, std::string> disk; // what files hold, by path
	struct Place {
		bool regular = true;
		uint32_t links = 1;
	};
	std::map<std::string, Place> places; // what there is at a path, other than a plain file
	std::vector<size_t> writes;          // bytes of each write
	std::set<struct ::file *> open_files;

	// ---- the family for reading
	bool capture_registered = false;
	std::vector<Answer> capture_answers;   // messages that were sent to a requesting socket
	uint64_t last_cookie = 0x100000000ull; // of a socket

	// ---- threads: the body runs when a test calls run_thread()
	bool thread_stop_asked = false;
	// How the thread's sleeps end, one after the other: each returns the wait's result.
	// When the list is empty, the thread is asked to stop.
	std::deque<std::function<int()>> wait_script;
	int run_thread(); // runs the body until it ends; returns its result

	// ---- locks
	int bh_disabled = 0;
	std::vector<std::pair<Lock *, LockKind>> held;
	void take(Lock *lock, LockKind as, bool write, const char *call);
	void drop(Lock *lock, bool write, const char *call);
	bool holds(LockKind kind) const;
	void logging(); // a line is being logged
	void may_sleep(const char *call);
	static void init_lock(void *storage, LockKind kind);

	// ---- accounting
	std::unordered_map<void *, const char *> blocks; // kzalloc and vzalloc
	std::set<struct ::kmem_cache *> caches;
	std::set<struct ::sk_buff *> skbs;
	std::set<struct ::sock *> socks;
	std::set<struct ::task_struct *> tasks;
	std::vector<UserBuf *> user;
	bool user_touch(const void *at, size_t len, size_t *reachable);

	void reset();
	void audit();

	// The captured log as one string, and whether a line stands in it.
	std::string text() const;
	bool said(const std::string &line) const;
	size_t count_said(const std::string &part) const;

private:
	Failures failures_;
};

Kernel &kernel();

// A breach of the kernel's or the platform's rules: fails the running test.
void breach(const std::string &what);

// Socket buffers of the fakes themselves: null without memory; where the added bytes begin.
struct ::sk_buff *skb_alloc(uint32_t len);
void *skb_put(struct ::sk_buff *skb, uint32_t len);

// A socket buffer without content that has room for so many bytes.
struct ::sk_buff *skb_with_room(size_t room);
// Frees a buffer that holds whole messages, or none.
void skb_forget(struct ::sk_buff *skb, const char *call);

// printf as the kernel has it.
std::string render(const char *format, va_list args);

} // namespace fake

// ---- the kernel's objects, as the fakes see them ------------------------------

struct net {
	std::string name;
	fake::Lock lock{};
	bool list_ready = false;
	std::vector<struct sock *> list;
	int refs = 1;
	int inuse = 0;
	uint32_t inode = 4026531840;
};

struct sk_buff {
	std::vector<uint8_t> room;
	uint32_t begin = 0, len = 0;
	uint32_t truesize = 0;
	uint32_t users = 1;
	bool nonlinear = false;
	uint32_t mac = ~0u, network = ~0u;
	uint32_t iif = 0;
	uint16_t vlan = 0;
	uint64_t time = 0; // of arrival
	uint16_t protocol = 0;
	alignas(8) uint8_t cb[48];
	struct sock *owner = nullptr;
	bool has_dev = true;
	// Where the netlink message begins that is being written, and behind it the nested
	// attributes that are.
	std::vector<uint32_t> open;

	const uint8_t *data() const { return room.data() + begin; }
};

struct socket {
	struct sock *sk = nullptr;
	int type = 3;
	bool ops_set = false;
};

// Lives at the start of the module's packet socket record.
struct sock {
	uint32_t magic;
	uint32_t refs;
	int type;
	bool set_up, dead, locked;
	int rmem, wmem, rcvbuf;
	struct net *ns, *listed;
	fake::Lock lock, queue_lock;
	std::deque<sk_buff *> *queue;
	std::deque<sk_buff *> *write_queue;
	bool has_filter;
	int verdict; // what the kernel's filter call answers
	uint32_t data_ready;
	size_t object_size;
	uint64_t cookie; // 0: not asked for yet
	uint32_t inode, uid;
	bool stamped;
};
static_assert(sizeof(sock) <= SEAM_SOCK_SIZE);

struct msghdr {
	void *name = nullptr;
	int namelen = -1;
	std::vector<uint8_t> data; // what was copied
	size_t data_fault_at = SIZE_MAX;
	int flags = 0;
	void *control = nullptr;
	size_t controllen = 0;
	int timestamps = 0;
	std::vector<uint8_t> out; // what sendmsg sends; cannot be read from out_fault_at on
	size_t out_fault_at = SIZE_MAX;
	size_t out_at = 0;
};

struct task_struct {
	int (*body)(void *);
	void *argument;
	std::string name;
	bool ran = false;
	int wakes = 0;
	int priority = -1;
	int pid = 815;
};

struct genl_info {
	std::vector<uint8_t> message; // from the netlink header on
	uint32_t client = 0;
};

struct file {
	std::string path;
	size_t at = 0;
};

struct kmem_cache {
	std::string name;
	size_t size;
	std::set<void *> objects;
};

struct seam_uptr {
	fake::UserBuf *buf;
	size_t offset = 0;
};

namespace fake {

struct net &init_net();
// Truesize of a buffer of len bytes, as the fake allocates it.
uint32_t truesize(uint32_t len);

} // namespace fake
