// SPDX-License-Identifier: GPL-2.0-only
// The platform of the threaded tests: efbuffs in low memory, hooks that run while they
// are taken away, sends and the services' handler.
#include "backend.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform.h"
#include "locations/table.hpp"
#include "packet/info.hpp"
#include "rules/search.hpp"

using namespace mox;

namespace threads {
namespace {

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
							 MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT,
							 -1, 0));
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
	std::atomic<bool> on{ false };
};
Slot g_slots[] = {
	{ mox_packet_local_rcv, 1 },    { mox_packet_lev2_rcv, 2 }, { mox_packet_ipv4_rcv, 3 },
	{ mox_packet_ipv6_rcv, 4 },     { mox_packet_resv_rcv, 7 }, { mox_packet_wlan_in_rcv, 8 },
	{ mox_packet_wlan_out_rcv, 8 },
};

int mark(efmp_pkt_func func, bool on)
{
	for (Slot &s : g_slots)
		if (s.func == func)
			s.on.store(on, std::memory_order_release);
	return 0;
}

} // namespace

std::atomic<long> &sent()
{
	static std::atomic<long> count{ 0 };
	return count;
}

change_handler_func &change_handler()
{
	static change_handler_func handler = nullptr;
	return handler;
}

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
		static_cast<char *>(p)[12] = 1; // the link is up
		std::memcpy(static_cast<char *>(p) + 332, "eth7", 5);
		return p;
	}();
	return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block));
}

} // namespace threads

using namespace threads;

int mox_printk(const char *, ...)
{
	return 0;
}
void *lsm_get_intfcb(u32 ifindex)
{
	return ifindex == 7 ? reinterpret_cast<void *>(static_cast<uintptr_t>(interface_word()))
			    : nullptr;
}
int efmp_reg_module(void *d)
{
	return mark(static_cast<platform::descriptor *>(d)->receive, true);
}
int efmp_dereg_module(void *d)
{
	return mark(static_cast<platform::descriptor *>(d)->receive, false);
}
int efmp_reg_recv_pkt_func(efmp_pkt_func f, u32)
{
	return mark(f, true);
}
int efmp_dereg_recv_pkt_func(efmp_pkt_func f, u32)
{
	return mark(f, false);
}
int efmp_reg_output_pkt_func(efmp_pkt_func f, u32)
{
	return mark(f, true);
}
int efmp_dereg_output_pkt_func(efmp_pkt_func f, u32)
{
	return mark(f, false);
}

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

void efmp_buff_free_sw_with_owner(void *p, u32)
{
	drop(p);
}

int efmp_output_pkt(void *p)
{
	sent()++;
	if (output_looks)
		output_looks(static_cast<const uint8_t *>(p));
	drop(p);
	return 0;
}

// One handler; a test that publishes and withdraws calls it as the platform would.
void *efmp_get_service(u32, u32)
{
	return nullptr;
}
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

// What the seam asks about hooks.
hook_cpu *seam_hook_enter(void)
{
	hook_cpu *here = seam_hook_cpu(seam_cpu());
	here->efbuff = reinterpret_cast<unsigned long>(t_efbuff) | 1;
	return here;
}
hook_cpu *seam_hook_cpu(int cpu)
{
	static hook_cpu cpus[4];
	return &cpus[cpu];
}
int seam_next_possible_cpu(int cpu)
{
	return cpu + 1;
}
void seam_wait_for_hooks(void)
{
	pthread_rwlock_wrlock(&g_grace);
	pthread_rwlock_unlock(&g_grace);
}
