// SPDX-License-Identifier: GPL-2.0-only
// Rules for tests of the library: rules outside of any socket, readings of what a
// library holds, and a verifier that recounts its lists.
#pragma once

#include <cstring>

#include "contract/locations.h"
#include "fake/fixture.h"
#include "locations/registration.hpp"
#include "packet/info.hpp"
#include "base/list.hpp"
#include "rules/ranges.hpp"
#include "base/log.hpp"
#include "oracle/model.h"
#include "rules/edit.hpp"
#include "rules/filing.hpp"
#include "rules/library.hpp"

using namespace mox;

using fake::efmp;
using fake::Fail;
using fake::kernel;
using fake::Point;

// The library of a location that has one.
inline packet_regular_lib *lib_of(u32 location)
{
	packet_regular_lib *const libs[contract::kLibraries] = {
		&g_local_packet_regular_lib, &g_lev2_packet_regular_lib,
		&g_ipv4_packet_regular_lib,  &g_ipv6_packet_regular_lib,
		&g_mpls_packet_regular_lib,  &g_trill_packet_regular_lib,
		&g_resv_packet_regular_lib,  &g_wlan_packet_regular_lib,
	};
	return libs[contract::library(location)];
}

// A rule as plain values, comparable.
struct RuleView {
	const mox_packet_sock *owner = nullptr;
	u32 treatment = 0, location = 0;
	std::vector<std::pair<u32, std::vector<oracle::Value>>> items;
	bool operator==(const RuleView &) const = default;
};

struct EntryView {
	u32 type = 0;
	oracle::Value value{};
	std::vector<RuleView> match, local;
	bool operator==(const EntryView &) const = default;
};

// Walks a list both ways; breaks in the links fail the test.
std::vector<const list_head *> links(const list_head *head);
RuleView view(const packet_regular &regular);
std::vector<RuleView> rules_in(const list_head *head);
std::vector<EntryView> entries_in(const packet_regular_lib *lib);

// Recounts what stands beside a library's lists, and its counts, against the lists. Quick: random
// tests call it behind every step.
void verify_index(const packet_regular_lib *lib);

// Compares the digests of a library's rules, for a frame, with their conditions.
void verify_digests(const pkt_info &info, const packet_regular_lib *lib);
void verify_digests(const pkt_wlan_info &info, const packet_regular_lib *lib);

// Recounts every list of a library and checks order and invariants.
void verify(const packet_regular_lib *lib);
void verify_all();

// What the module counts, in the reference's form.
oracle::Counters counters();

regular_data *datum(u32 type, const std::vector<u8> &value);

// A rule with an owner that is nothing but a zeroed record; in its library while
// added, emptied at the end.
class Rule {
public:
	Rule(u32 location, u32 treatment, s32 pid = 77);
	~Rule();
	Rule(const Rule &) = delete;
	Rule &operator=(const Rule &) = delete;

	packet_regular &regular() { return owner_->regular; }
	mox_packet_sock &owner() { return *owner_; }
	Rule &data(u32 type, const std::vector<u8> &value);
	Rule &del(u32 type, const std::vector<u8> &value);
	Rule &item(u32 type); // without data
	Rule &add();
	Rule &remove();

private:
	mox_packet_sock *owner_;
	bool added_ = false;
};

class RulesTest : public fake::KernelTest {
protected:
	void SetUp() override;
	void TearDown() override;
};
