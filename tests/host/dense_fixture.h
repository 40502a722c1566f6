// SPDX-License-Identifier: GPL-2.0-only
// The module beside the reference with rules that collide all the time: tiny ranges of values,
// every type in every place, and frames aimed at a rule that miss it by one condition at most.
#pragma once

#include <bitset>
#include <random>

#include "library_compare.h"
#include "module_fixture.h"
#include "oracle/near_frames.h"
#include "oracle/sockets.h"

class DenseTest : public ModuleTest {
protected:
	struct Shape {
		int rules = 8;
		int steps = 4000;
		int frames = 4;        // behind each step
		int compare_every = 1; // steps
		int verify_every = 1;  // steps; the recount is slower than the comparison
		int last_frames = 0;   // behind each comparison, besides
		// Values are taken from a range this many times as large, mostly.
		u32 spread = 1;
		int fashion = 100;    // steps with the same location and types crowded
		bool failing = false; // one of thirty allocations of each cache
		// Behind each step only the libraries that it can have changed are compared, and
		// everything at the end.
		bool changed_only = false;
		// Data-less items of types with a value come first as well. Withdrawal does not
		// find their keys again, so no rule may be released.
		bool stray_keys = false;
	};

	void SetUp() override;
	// SEED, STEPS and RULES of the environment come first. Prints one line.
	void run(const char *name, Shape shape, uint64_t seed);
	// The steps that the bytes choose, shape.steps at most: how many there were.
	int replay(const Shape &shape, const uint8_t *bytes, size_t size);
	static uint64_t given_seed();
	static int given(const char *name, int otherwise);

	// What happened, so that nothing passes because nothing did.
	struct Tally {
		std::array<u32, contract::kTypes> key_answered{}, item_answered{};
		std::array<u32, contract::kTypes> key_offered{}, item_offered{};
		std::array<u32, contract::kTreatments> answered{}, offered{}, filed{};
		std::array<u32, contract::kLocationCount> offered_at{};
		u32 steps = 0, frames = 0, hits = 0, offers = 0, unwanted = 0;
		u32 aimed_passed = 0, aimed_missed = 0; // a frame with one condition broken
		u32 aimed_whole = 0;
		u32 fetch_behind_traps = 0, fetch_before_traps = 0;
		u32 wildcard_eth = 0, wildcard_snap = 0, icmp_zero = 0, arp_narrow = 0;
		u32 other_vsd = 0, closed_location = 0, dataless_item = 0, stray_key = 0;
		u32 trap_ends = 0, toggles = 0, crowded_entry = 0, two_lists = 0, kept_empty = 0;
	};
	Tally tally;

private:
	u32 below(u32 n) { return static_cast<u32>(rng.below(n)); }
	bool there(int id) const { return socks[id] != nullptr; }
	const oracle::Regular &rule_of(int id) { return reference.at(id).regular; }

	Bytes element(u32 type);
	u32 value_index(u32 type);
	u32 rule_type(int id);
	u32 some_type(u32 where);
	u32 location();
	void new_fashion();

	void prepare(const Shape &shape);
	void turn(int number, bool last);
	void check_behind(int number, bool last);
	void close_all();

	// One change each: the same to both sides.
	void create(int id);
	void release(int id);
	void set_treatment(int id, u32 treatment);
	void set_location(int id, u32 location);
	void edit(int id);
	void add_type(int id);
	void del_type(int id);
	void bind(int id);
	void toggle(int id);
	void add_dataless(int id);
	void strip_dataless(int id);
	void clean_stray_keys();
	void step();

	// One frame through the fast filter and delivery of both sides.
	void frame();
	void through_hook(const HookTraits &hook, void *efbuff, u32 treatment);
	u32 filter_and_deliver(const HookTraits &hook, void *efbuff);
	void count_answer(const oracle::Answer &answer, const oracle::Packet &packet, bool wlan);
	void count_offers(u32 location, const std::vector<int> &offered);

	void compare();
	void compare_changed();
	void compare_everything();
	void compare_library(u32 location);
	void compare_counters();
	void compare_sockets();
	void compare_calls();
	void count_libraries();
	std::string missing() const;

	Shape shape;
	oracle::Choices rng;
	oracle::Sockets reference;
	std::vector<std::unique_ptr<Sock>> socks;
	Owners owners;
	std::vector<u32> vsd;
	std::map<u32, u32> interfaces; // words of the blocks, by index
	std::vector<Fail> taken, asked;
	std::map<Fail, u32> taken_count, asked_count;
	std::bitset<contract::kLibraries> changed; // libraries, since the last comparison
	std::vector<const void *> ready;           // sockets whose data-ready callback ran
	u32 home = 0; // the crowded location, and what is in fashion there
	std::array<u32, 3> favourites{};
	u32 fashions = 0;
};
