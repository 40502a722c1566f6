// SPDX-License-Identifier: GPL-2.0-only
// The forwarding platform for tests: efbuffs and interface blocks below 4 GiB,
// with owners, poisoned beyond what a hook may read; registrations with a log.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake {

// Set by tests; what efmp hands out has an owner at every moment.
enum class Owner { kPlatform, kHook, kModule };

struct Efbuff {
	uint32_t size; // of the whole allocation
	Owner owner;
	bool clone;
};

// An efbuff as efmp_output_pkt got it.
struct Sent {
	std::vector<uint8_t> header; // 256 bytes
	std::vector<uint8_t> frame;  // as long as the header has it
	template <typename T> T field(size_t at) const
	{
		T v;
		__builtin_memcpy(&v, header.data() + at, sizeof v);
		return v;
	}
};

struct Efmp {
	std::map<uint32_t, Efbuff> live;        // by address
	std::map<uint32_t, void *> interfaces;  // by ifindex
	std::vector<std::string> registrations; // "reg_module lev2", "dereg_output local 1", ...
	std::map<std::string, int> registered;  // how often each target stands registered
	uint64_t clones = 0, allocated = 0, freed = 0;

	// ---- sending
	uint16_t room_at = 288;       // offset 22 of a new efbuff
	uint32_t longest = 64 * 1024; // frame that a new efbuff can hold
	int outcome = 0;              // of efmp_output_pkt
	std::vector<Sent> sent;

	// ---- services, by class and instance
	std::map<std::pair<uint32_t, uint32_t>, void *> services;
	std::vector<std::string> service_calls; // "get 11 10", "reg", "unreg"
	void (*change_handler)(uint32_t, void *) = nullptr;
	// Change the table and call the handler.
	void publish(uint32_t service_class, uint32_t instance, void *entry);
	void withdraw(uint32_t service_class, uint32_t instance);
	// Call the handler only.
	void announce(uint32_t event, uint32_t service_class, uint32_t instance, void *entry);

	// An efbuff with that content (header and frame) that the platform owns. The
	// MAC and network offsets and the total length of the header decide what of
	// it may be read.
	void *efbuff(const std::vector<uint8_t> &content, Owner owner = Owner::kPlatform);
	void drop(void *efbuff); // the platform frees its own

	// An interface block; replaces an earlier one of that index.
	void *add_interface(uint32_t ifindex, const std::string &name, const uint8_t mac[6]);

	// Calls a hook as the platform does: bottom halves off, on that CPU, with the
	// efbuff in the CPU's word, tagged. After a "not taken" answer the efbuff is
	// the platform's again, after "taken" the module's.
	uint32_t call(uint32_t (*hook)(void), void *efbuff, uint32_t taken_answer = 3, int cpu = 0);

	void reset();
	void audit();
};

Efmp &efmp();

uint32_t word(const void *p); // an address as the platform's 32-bit word
void *pointer(uint32_t word);

} // namespace fake
