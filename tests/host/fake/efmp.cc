// SPDX-License-Identifier: GPL-2.0-only
#include "efmp.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include "contract/locations.h"
#include "kernel.h"
#include "platform.h"

// GCC defines the one, Clang has the other.
#ifndef __has_feature
#define __has_feature(name) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(at, size) ((void)(at), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(at, size) ((void)(at), (void)(size))
#endif

// Receive functions, as far as the program under test has them.
#define HOOK(name) extern "C" u32 name(void) __attribute__((weak))
HOOK(mox_packet_lev2_rcv);
HOOK(mox_packet_ipv4_rcv);
HOOK(mox_packet_ipv6_rcv);
HOOK(mox_packet_wlan_in_rcv);
HOOK(mox_packet_wlan_out_rcv);
HOOK(mox_packet_local_rcv);
HOOK(mox_packet_resv_rcv);

namespace fake {
namespace {

// All platform memory is one low arena: the module keeps platform addresses in
// 32-bit words. Freed efbuffs stay poisoned until the arena starts over.
class Arena {
public:
	Arena()
	{
		base_ = static_cast<uint8_t *>(
			mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
			     MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT | MAP_NORESERVE, -1, 0));
		if (base_ == MAP_FAILED)
			abort();
		ASAN_POISON_MEMORY_REGION(base_, kSize);
	}
	void *take(size_t size)
	{
		size = (size + 63) & ~size_t{ 63 };
		if (used_ + size + kGap > kSize)
			return nullptr;
		void *p = base_ + used_;
		used_ += size + kGap;
		return p;
	}
	void start_over()
	{
		ASAN_POISON_MEMORY_REGION(base_, used_);
		used_ = 0;
	}
	bool half_full() const { return used_ > kSize / 2; }

private:
	static constexpr size_t kSize = 96u << 20, kGap = 64;
	uint8_t *base_;
	size_t used_ = 0;
};

Arena &efbuff_arena()
{
	static Arena arena;
	return arena;
}

Arena &interface_arena()
{
	static Arena arena;
	return arena;
}

template <typename T> T read(const void *base, size_t at)
{
	T v;
	std::memcpy(&v, static_cast<const uint8_t *>(base) + at, sizeof v);
	return v;
}

// Opens exactly what the contract lets a module touch: the header but for the
// platform's own bytes, and the frame, of which at least 64 bytes from the MAC
// header and 24 from the network header.
void open_window(void *efbuff, uint32_t size)
{
	auto *p = static_cast<uint8_t *>(efbuff);
	auto open = [&](uint32_t from, uint32_t len) {
		if (from < size)
			ASAN_UNPOISON_MEMORY_REGION(p + from, std::min(len, size - from));
	};
	open(0, 256);
	uint32_t mac = read<uint16_t>(p, 22), net = read<uint16_t>(p, 24),
		 total = read<uint32_t>(p, 164);
	ASAN_POISON_MEMORY_REGION(p + 192, 64);
	if (mac >= 256)
		open(mac, std::max(total, 64u));
	if (net >= 256)
		open(net, 24);
}

std::string target(u32 (*func)(void))
{
	u32 (*const known[contract::kHookIds])(void) = {
		mox_packet_local_rcv,
		mox_packet_lev2_rcv,
		mox_packet_ipv4_rcv,
		mox_packet_ipv6_rcv,
		nullptr,
		nullptr,
		mox_packet_resv_rcv,
		mox_packet_wlan_in_rcv,
		mox_packet_wlan_out_rcv,
	};
	for (int id = 0; id < contract::kHookIds; id++)
		if (func && known[id] == func)
			return contract::kHooks[id].name;
	return "unknown";
}

// A registration, and the deregistration behind it in both lists of points.h.
int registration(const char *call, Point point, Fail fail, const std::string &target, bool on)
{
	const int off = on ? 0 : 1;
	efmp().registrations.push_back(std::string(on ? "reg_" : "dereg_") + call + " " + target);
	kernel().event(static_cast<Point>(static_cast<int>(point) + off));
	fail = static_cast<Fail>(static_cast<int>(fail) + off);
	if (kernel().failing(fail))
		return kernel().error_of(fail, -5);
	efmp().registered[target] = on;
	return 0;
}

} // namespace

Efmp &efmp()
{
	static Efmp the_efmp;
	return the_efmp;
}

uint32_t word(const void *p)
{
	auto v = reinterpret_cast<uintptr_t>(p);
	if (v >> 32)
		breach("platform address beyond 32 bits");
	return static_cast<uint32_t>(v);
}

void *pointer(uint32_t w)
{
	return reinterpret_cast<void *>(static_cast<uintptr_t>(w));
}

void *Efmp::efbuff(const std::vector<uint8_t> &content, Owner owner)
{
	if (live.empty() && efbuff_arena().half_full())
		efbuff_arena().start_over();
	uint32_t size = std::max<uint32_t>(content.size(), 512);
	void *p = efbuff_arena().take(size);
	if (!p) {
		ADD_FAILURE() << "efbuff arena exhausted";
		abort();
	}
	ASAN_UNPOISON_MEMORY_REGION(p, size);
	std::memset(p, 0xee, size);
	std::memcpy(p, content.data(), content.size());
	ASAN_POISON_MEMORY_REGION(p, size);
	open_window(p, size);
	live[word(p)] = { size, owner, false };
	return p;
}

void Efmp::drop(void *efbuff)
{
	auto it = live.find(word(efbuff));
	if (it == live.end() || it->second.owner != Owner::kPlatform)
		return breach("the platform's efbuff is not the platform's any more");
	ASAN_POISON_MEMORY_REGION(efbuff, it->second.size);
	live.erase(it);
}

void *Efmp::add_interface(uint32_t ifindex, const std::string &name, const uint8_t mac[6])
{
	void *p = interface_arena().take(384);
	ASAN_UNPOISON_MEMORY_REGION(p, 364);
	auto *b = static_cast<uint8_t *>(p);
	std::memset(b, 0, 364);
	std::memcpy(b, &ifindex, 4);
	std::memcpy(b + 4, mac, 6);
	b[12] = 1;
	std::memcpy(b + 332, name.c_str(), std::min<size_t>(name.size(), 31));
	interfaces[ifindex] = p;
	return p;
}

uint32_t Efmp::call(uint32_t (*hook)(void), void *efbuff, uint32_t taken_answer, int cpu)
{
	Kernel &k = kernel();
	auto it = live.find(word(efbuff));
	if (it == live.end() || it->second.owner != Owner::kPlatform) {
		breach("hook called on an efbuff that is not the platform's");
		return ~1u;
	}
	it->second.owner = Owner::kHook;
	int old_cpu = k.cpu;
	size_t locks = k.held.size();
	bool nested = k.in_hook;
	k.cpu = cpu;
	k.bh_disabled++;
	k.in_hook = true;
	k.cpu_efbuff[cpu] = word(efbuff) | 1u;
	uint32_t answer = hook();
	k.in_hook = nested;
	if (k.held.size() != locks)
		breach("hook returned with a lock held");
	if (--k.bh_disabled < 0)
		breach("hook returned with bottom halves on");
	k.cpu = old_cpu;
	it = live.find(word(efbuff));
	if (it == live.end()) {
		if (answer != taken_answer)
			breach("efbuff freed by a hook that did not take it");
		return answer;
	}
	it->second.owner = answer == taken_answer ? Owner::kModule : Owner::kPlatform;
	return answer;
}

void Efmp::reset()
{
	for (auto &[address, e] : live)
		ASAN_POISON_MEMORY_REGION(pointer(address), e.size);
	*this = Efmp{};
	efbuff_arena().start_over();
	interface_arena().start_over();
}

void Efmp::audit()
{
	for (auto &[address, e] : live)
		if (e.owner != Owner::kPlatform)
			ADD_FAILURE()
				<< "efbuff left with the module" << (e.clone ? " (a clone)" : "");
	if (change_handler)
		ADD_FAILURE() << "service change handler left registered";
	for (auto &[name, on] : registered)
		EXPECT_FALSE(on) << "hook " << name << " left registered";
}

} // namespace fake

using fake::breach;
using fake::efmp;
using fake::Fail;
using fake::kernel;
using fake::Owner;
using fake::Point;

void *lsm_get_intfcb(u32 ifindex)
{
	auto it = efmp().interfaces.find(ifindex);
	void *found = it == efmp().interfaces.end() ? nullptr : it->second;

	kernel().event(Point::kFindIntf, &ifindex);
	return found;
}

int efmp_reg_module(void *descriptor)
{
	return fake::registration(
		"module", Point::kRegModule, Fail::kRegModule,
		fake::target(static_cast<platform::descriptor *>(descriptor)->receive), true);
}

int efmp_dereg_module(void *descriptor)
{
	return fake::registration(
		"module", Point::kRegModule, Fail::kRegModule,
		fake::target(static_cast<platform::descriptor *>(descriptor)->receive), false);
}

static void check_point(u32 point, u32 wanted)
{
	if (point != wanted)
		breach("registration at point " + std::to_string(point));
}

int efmp_reg_recv_pkt_func(efmp_pkt_func func, u32 point)
{
	check_point(point, 2);
	return fake::registration("recv", Point::kRegRecv, Fail::kRegRecv, fake::target(func),
				  true);
}

int efmp_dereg_recv_pkt_func(efmp_pkt_func func, u32 point)
{
	check_point(point, 2);
	return fake::registration("recv", Point::kRegRecv, Fail::kRegRecv, fake::target(func),
				  false);
}

int efmp_reg_output_pkt_func(efmp_pkt_func func, u32 point)
{
	check_point(point, 1);
	return fake::registration("output", Point::kRegOutput, Fail::kRegOutput, fake::target(func),
				  true);
}

int efmp_dereg_output_pkt_func(efmp_pkt_func func, u32 point)
{
	check_point(point, 1);
	return fake::registration("output", Point::kRegOutput, Fail::kRegOutput, fake::target(func),
				  false);
}

void *efmp_buff_clone_with_owner(void *efbuff, u32 owner)
{
	auto it = efmp().live.find(fake::word(efbuff));
	if (it == efmp().live.end()) {
		breach("clone of no efbuff");
		return nullptr;
	}
	if (owner != 147)
		breach("clone with owner " + std::to_string(owner));
	if (kernel().failing(Fail::kClone))
		return nullptr;
	uint32_t size = it->second.size;
	std::vector<uint8_t> content(size);
	auto *from = static_cast<uint8_t *>(efbuff);
	ASAN_UNPOISON_MEMORY_REGION(from, size);
	std::memcpy(content.data(), from, size);
	ASAN_POISON_MEMORY_REGION(from, size);
	fake::open_window(from, size);
	void *copy = efmp().efbuff(content, Owner::kModule);
	efmp().live[fake::word(copy)].clone = true;
	efmp().clones++;
	return copy;
}

void *efmp_buff_alloc_sw_with_owner(u32 length, u32 owner)
{
	if (owner != 147)
		breach("efbuff allocated with owner " + std::to_string(owner));
	if (kernel().failing(Fail::kEfbuffAlloc) || length > efmp().longest)
		return nullptr;
	// What is not the header is what was there before.
	const uint16_t room = efmp().room_at;
	std::vector<uint8_t> content(room + std::max<size_t>(length, 64), 0xee);
	std::memset(content.data(), 0, 256);
	std::memcpy(content.data() + 22, &room, 2);
	std::memcpy(content.data() + 164, &length, 4); // for the window only
	void *p = efmp().efbuff(content, Owner::kModule);
	std::memset(static_cast<uint8_t *>(p) + 164, 0, 4);
	efmp().allocated++;
	return p;
}

int efmp_output_pkt(void *efbuff)
{
	auto it = efmp().live.find(fake::word(efbuff));
	if (it == efmp().live.end()) {
		breach("output of no efbuff");
		return 1;
	}
	if (it->second.owner != Owner::kModule)
		breach("output of an efbuff that is not the module's");
	if (!kernel().held.empty())
		breach("output with a lock held");
	const uint32_t size = it->second.size;
	auto *p = static_cast<uint8_t *>(efbuff);
	const uint32_t mac = fake::read<uint16_t>(p, 22), total = fake::read<uint32_t>(p, 164);
	if (mac != efmp().room_at)
		breach("the frame's place was moved");
	ASAN_UNPOISON_MEMORY_REGION(p, size);
	fake::Sent sent{ { p, p + 256 }, {} };
	if (mac + total > size)
		breach("the frame's length is beyond the efbuff");
	else
		sent.frame.assign(p + mac, p + mac + total);
	efmp().sent.push_back(sent);
	ASAN_POISON_MEMORY_REGION(p, size);
	efmp().live.erase(it);
	kernel().event(Point::kOutput, efbuff);
	return efmp().outcome;
}

void efmp_buff_free_sw_with_owner(void *efbuff, u32 owner)
{
	auto it = efmp().live.find(fake::word(efbuff));
	if (it == efmp().live.end())
		return breach("free of no efbuff, or a second free");
	if (owner != 147)
		breach("efbuff freed with owner " + std::to_string(owner));
	if (it->second.owner == Owner::kPlatform)
		breach("the module frees an efbuff of the platform");
	ASAN_POISON_MEMORY_REGION(efbuff, it->second.size);
	efmp().live.erase(it);
	efmp().freed++;
}
