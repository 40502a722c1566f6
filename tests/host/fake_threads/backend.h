// SPDX-License-Identifier: GPL-2.0-only
// A second kernel for tests, made of real threads: locks are pthread locks, a CPU is
// a thread, and ThreadSanitizer watches. It keeps no books beyond counting, because a
// book-keeping lock would order what the module must order by itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <pthread.h>
#include <string>
#include <vector>

#include "seam/seam_control.h"

// Waits like the kernel's: a thread that holds it keeps others out for good.
struct PthreadLock {
	pthread_mutex_t mutex;
};

struct net {
	pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
	std::vector<struct sock *> list;
	std::atomic<int> refs{ 1 };
};

struct sk_buff {
	std::vector<uint8_t> room;
	uint32_t begin = 0, len = 0;
	std::atomic<uint32_t> users{ 1 };
	struct sock *owner = nullptr;
	alignas(8) uint8_t cb[48] = {};
};

struct socket {
	struct sock *sk = nullptr;
	int type = 3;
};

struct sock {
	std::atomic<uint32_t> refs;
	int type;
	bool dead;
	std::atomic<int> rmem;
	int rcvbuf;
	struct net *ns;
	bool listed;
	std::atomic<bool> stamped; // SO_TIMESTAMP
	pthread_mutex_t lock, queue_lock;
	std::deque<sk_buff *> *queue;
};
static_assert(sizeof(sock) <= SEAM_SOCK_SIZE);

struct msghdr {
	std::vector<uint8_t> data;
	void *name = nullptr;
	int namelen = 0;
	int flags = 0;
	const void *control = nullptr;
	size_t controllen = 0;
	std::vector<uint8_t> out; // what sendmsg sends
};

struct seam_uptr {
	const void *from;
};

struct genl_info {
	std::vector<uint8_t> message;
};

struct file {
	std::string content;
};

namespace threads {

// What exists at this moment; all zero at the end of a test.
struct Live {
	std::atomic<long> blocks, objects, caches, socks, skbs, efbuffs, tasks, files;
	std::atomic<size_t> dumped; // bytes in dump files that are closed again
};
Live &live();
net &init_net();

// The CPU that this thread is, and the efbuff that it processes.
void become_cpu(int cpu);

// An efbuff of the platform; given back with drop() unless a hook takes it.
void *efbuff(const std::vector<uint8_t> &content);
void drop(void *efbuff);

// Runs every hook that is registered at a location on a copy of the frame.
// Counts what hooks took.
void inject(uint32_t location, const std::vector<uint8_t> &content);
bool registered(uint32_t location);

uint32_t interface_word();

// Records of traces that readers have got, and buffers that have got a time of arrival.
std::atomic<long> &records();
std::atomic<long> &stamps();

// What efmp_output_pkt has got, and who follows the services.
std::atomic<long> &sent();
// Looks at each efbuff that leaves, in the sender's thread; set before anything runs.
extern void (*output_looks)(const uint8_t *efbuff);
using change_handler_func = void (*)(uint32_t event, void *service_record);
change_handler_func &change_handler();

sk_buff *skb_alloc(uint32_t len);
void *skb_put(sk_buff *skb, uint32_t len);

} // namespace threads
