// SPDX-License-Identifier: GPL-2.0-only
// Naive matching: one condition after the other, no index.
#pragma once

#include <functional>

#include "packet.h"
#include "rules.h"

namespace oracle {

// What matching depends on beyond rules and packet: the vsd of an owner, and
// the addresses (as numbers) of the reserved interface blocks.
struct World {
	std::function<uint32_t(int owner)> vsd;
	uint32_t lev2_block = 0;
	uint32_t lev3_block = 0;
};

bool rule_match(const Packet &packet, const Regular &regular);
bool wlan_rule_match(const WlanPacket &packet, const Regular &regular);

// The first passing copy of the first passing key: its treatment, and where it stands.
struct Answer {
	uint32_t treatment = 0;
	const Entry *entry = nullptr;
	const Regular *copy = nullptr;
};
Answer fast_answer(const Packet &packet, const Library &library, const World &world);
Answer wlan_fast_answer(const WlanPacket &packet, const Library &library, const World &world);

// Its treatment alone, or 0.
uint32_t fast_filter(const Packet &packet, const Library &library, const World &world);
uint32_t wlan_fast_filter(const WlanPacket &packet, const Library &library, const World &world);

// Whether a rule of that location may look at the packet at all.
bool location_open(uint32_t location, const Packet &packet, const World &world);

} // namespace oracle
