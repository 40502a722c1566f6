// SPDX-License-Identifier: GPL-2.0
// The forwarding platform for tests: efbuffs and interface blocks below 4 GiB,
// with owners, poisoned beyond what a hook may read; registrations with a log.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake {

// Set by tests; what efmp hands out belongs to somebody at every moment.
enum class Owner { kPlatform, kHook, kModule };

struct Efbuff {
    uint32_t size;  // of the whole allocation
    Owner owner;
    bool clone;
};

struct Efmp {
    std::map<uint32_t, Efbuff> live;           // by address
    std::map<uint32_t, void *> interfaces;     // by ifindex
    std::vector<std::string> registrations;    // "reg_module lev2", "dereg_output local 1", ...
    std::map<std::string, int> registered;     // how often each target stands registered
    uint64_t clones = 0, freed = 0;

    // An efbuff with that content (header and frame) that the platform owns. The
    // MAC and network offsets and the total length of the header decide what of
    // it may be read.
    void *efbuff(const std::vector<uint8_t> &content, Owner owner = Owner::kPlatform);
    void drop(void *efbuff);  // the platform frees its own

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

uint32_t word(const void *p);          // an address as the platform's 32-bit word
void *pointer(uint32_t word);

}  // namespace fake
