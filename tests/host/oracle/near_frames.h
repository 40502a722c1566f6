// SPDX-License-Identifier: GPL-2.0-only
// Frames aimed at a rule: one that satisfies its conditions, and the same frame with one
// condition broken. Aimed only: what a frame matches is the reference's to say.
#pragma once

#include "choices.h"
#include "frames.h"
#include "rules.h"

namespace oracle {

// A frame field by field. Its layer-2 header has 32 bytes, so that an EtherType, LLC, ARP and
// EAPOL bytes stand beside any network header.
struct AimedFrame {
	static constexpr uint16_t kL2Len = 32;

	Meta meta;
	uint32_t ifindex = 7;
	std::array<uint8_t, 6> dst_mac{ 2, 0, 0, 0, 0, 1 }, src_mac{ 2, 0, 0, 0, 0, 1 };
	uint16_t eth_net = 0;           // as it lies in memory
	uint8_t byte14 = 0, byte15 = 0; // LLC, or the EAPOL version and type
	uint16_t word20_net = 0;        // SNAP type, or ARP operation
	uint8_t byte22 = 0, byte29 = 0; // 0xfe and 1: a Wi-Fi Simple Config exchange
	uint8_t proto = 17;
	uint16_t src_port_net = 0, dst_port_net = 0;
	uint8_t icmp6 = 0;
	bool multicast = false; // beyond the link
	bool link_local = false;

	Bytes bytes() const;
};

// Any frame over the tiny ranges of values that the rules have, too.
AimedFrame any_frame(Choices &rng);
// Makes the frame satisfy the condition, as far as what stands in it already allows.
void satisfy(AimedFrame &frame, const Item &item, Choices &rng);
// Changes the field that the condition reads.
void spoil(AimedFrame &frame, const Item &item, Choices &rng);

} // namespace oracle
