// SPDX-License-Identifier: GPL-2.0-only
// The order of random changes, frames and comparisons, and the comparison of both sides.
#include "dense_fixture.h"
#include "rules/budget.hpp"

#include <algorithm>

int DenseTest::given(const char *name, int otherwise)
{
	const char *text = getenv(name);
	return text ? atoi(text) : otherwise;
}

uint64_t DenseTest::given_seed()
{
	const char *text = getenv("SEED");
	return text ? strtoull(text, nullptr, 0) : std::random_device{}();
}

void DenseTest::SetUp()
{
	ModuleTest::SetUp();
	/* Thousands of rules that a frame nearly matches are what is compared here. */
	budget_init(~0u);
	reference.truesize = fake::truesize;
	reference.world.vsd = [this](int id) { return vsd[id]; };
	reference.world.lev2_block = fake::word(efmp().interfaces[4094]);
	reference.world.lev3_block = fake::word(efmp().interfaces[4095]);
	kernel().at.watch(Point::kDataReady, [this](const void *sk) { ready.push_back(sk); });
	kernel().fault = [this](Fail call) {
		if (call > Fail::kCopyAlloc && call != Fail::kSkbAlloc && call != Fail::kSkbClone)
			return false;
		taken.push_back(call);
		return shape.failing && ++taken_count[call] % 30 == 0;
	};
	reference.model.allocation = [this](oracle::Cache cache) {
		const Fail call = fake::alloc_of(cache);
		asked.push_back(call);
		return !shape.failing || ++asked_count[call] % 30 != 0;
	};
	reference.skb_allocation = [this] {
		asked.push_back(Fail::kSkbAlloc);
		return !shape.failing || ++asked_count[Fail::kSkbAlloc] % 30 != 0;
	};
	reference.skb_clone = [this] {
		asked.push_back(Fail::kSkbClone);
		return !shape.failing || ++asked_count[Fail::kSkbClone] % 30 != 0;
	};
}

// ---- comparison

void DenseTest::compare_calls()
{
	const auto &got = efmp().registrations;
	const auto &want = reference.model.calls;
	bool same = got.size() == want.size();
	for (size_t i = 0; same && i < want.size(); i++)
		same = got[i].size() == want[i].call.size() + 1 + want[i].target.size() &&
		       got[i].starts_with(want[i].call) && got[i].ends_with(want[i].target);
	EXPECT_TRUE(same) << "hook registrations";
	efmp().registrations.clear();
	reference.model.calls.clear();
	EXPECT_TRUE(taken == asked) << "allocations, or their order";
	taken.clear();
	asked.clear();
}

void DenseTest::compare_sockets()
{
	for (size_t id = 0; id < socks.size(); id++) {
		if (!there(id))
			continue;
		const oracle::Socket &want = reference.at(id);
		const mox_packet_sock &po = socks[id]->po();
		const bool same = same_rule(po.regular, want.regular, owners) &&
				  socks[id]->running() == want.running &&
				  socks[id]->refs() == (want.running ? 3u : 2u) &&
				  po.recv_packets == want.counters.recv_packets &&
				  po.filter_drops == 0 && po.rcvbuf_full_drops == 0 &&
				  po.trim_fail_drops == 0 &&
				  u32(socks[id]->sk->rmem) == want.rmem &&
				  socks[id]->queued() == want.queue.size();
		EXPECT_TRUE(same) << "socket " << id;
	}
}

void DenseTest::compare_library(u32 where)
{
	const packet_regular_lib *got = lib_of(where);
	const oracle::Library &want = *reference.model.library(where);
	if (!same_library(*got, want, owners)) {
		ADD_FAILURE() << "location " << where;
		EXPECT_EQ(text_of(*got, owners), text_of(want));
	}
}

void DenseTest::compare_counters()
{
	EXPECT_EQ(counters(), reference.model.counters);
	EXPECT_EQ(g_alloc_skb_num, reference.in_flight);
	EXPECT_EQ(g_packet_thread_debug.alloc_skb_failed, reference.skb_failures);
	EXPECT_EQ(g_packet_regular_data_alloc, g_packet_regular_data_free);
}

void DenseTest::compare()
{
	for (u32 where = 1; where <= contract::kLibraries; where++)
		compare_library(where);
	compare_counters();
	compare_sockets();
}

void DenseTest::compare_changed()
{
	for (u32 where = 1; where <= contract::kLibraries; where++) {
		if (!changed[contract::library(where)])
			continue;
		compare_library(where);
		verify_index(lib_of(where));
	}
	changed.reset();
	compare_counters();
	compare_sockets();
}

void DenseTest::compare_everything()
{
	compare();
	count_libraries();
	for (u32 where = 1; where <= contract::kLibraries; where++)
		verify_index(lib_of(where));
	changed.reset();
}

void DenseTest::count_libraries()
{
	for (const oracle::Library &lib : reference.model.libraries())
		for (const oracle::Entry &entry : lib.filter_list) {
			tally.crowded_entry += entry.match_list.size() +
						       entry.local_match_list.size() >
					       2;
			tally.two_lists += !entry.match_list.empty() &&
					   !entry.local_match_list.empty();
			tally.kept_empty += entry.match_list.empty() &&
					    entry.local_match_list.empty();
			tally.stray_key += !entry.value && contract::width(entry.type);
		}
}

// One change with its frames, and the comparison behind it when it is due.
void DenseTest::turn(int number, bool last)
{
	if (number % shape.fashion == 0)
		new_fashion();
	step();
	compare_calls();
	for (int f = 0; f < shape.frames; f++)
		frame();
	tally.steps = number;
	if (shape.changed_only && !last)
		compare_changed();
	else
		check_behind(number, last);
}

void DenseTest::check_behind(int number, bool last)
{
	if (last || number % shape.compare_every == 0) {
		for (int f = 0; f < shape.last_frames; f++)
			frame();
		compare_everything();
	}
	if (!shape.stray_keys && (number % shape.verify_every == 0 || shape.changed_only))
		verify_all();
	if (shape.stray_keys && number % 64 == 0) {
		clean_stray_keys();
		const int id = below(socks.size());
		// A short replay may not have opened it yet.
		if (there(id))
			release(id);
	}
}

void DenseTest::close_all()
{
	shape.failing = false;
	if (shape.stray_keys)
		clean_stray_keys();
	socks.clear();
}

void DenseTest::run(const char *name, Shape given_shape, uint64_t seed)
{
	given_shape.steps = given("STEPS", given_shape.steps);
	given_shape.rules = std::max(1, given("RULES", given_shape.rules));
	printf("SEED=%llu STEPS=%d RULES=%d %s\n", static_cast<unsigned long long>(seed),
	       given_shape.steps, given_shape.rules, name);
	fflush(stdout);
	rng.seed(seed);
	prepare(given_shape);
	for (int id = 0; id < shape.rules; id++)
		create(id);
	// Somewhat longer where something rare has not happened yet.
	int steps = shape.steps;
	for (int i = 1; i <= steps; i++) {
		turn(i, i == steps);
		if (i == steps && steps < 8 * shape.steps && !missing().empty())
			steps += shape.steps / 4 + 1;
		if (HasFailure()) {
			ADD_FAILURE() << "seed " << seed << " step " << i;
			break;
		}
	}
	if (!HasFailure())
		EXPECT_EQ(missing(), "") << "never happened";
	close_all();
}

int DenseTest::replay(const Shape &given_shape, const uint8_t *bytes, size_t size)
{
	rng.take_from(bytes, size);
	prepare(given_shape);
	int number = 0;
	bool last = false;
	while (!last) {
		last = rng.exhausted() || ++number == shape.steps;
		turn(number, last);
	}
	close_all();
	return number;
}
