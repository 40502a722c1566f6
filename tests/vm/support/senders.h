// SPDX-License-Identifier: GPL-2.0-only
// A thread that sends, well and badly, and what its sockets' counters must say in the end.
#pragma once

#include <atomic>
#include <random>
#include <string>

#include "support/send.h"

namespace vm {

/// EtherType of what the senders send.
inline constexpr uint16_t kOurs = 0x88b7;

/// Payload whose every byte follows from its first four: number, length, then bytes made of both.
Bytes payload_of(uint32_t number, size_t length);
/// Whether the frame is one that payload_of() made, and nothing else in front of or behind it.
bool is_ours(const Bytes &frame);
bool has_our_type(const Bytes &frame);

/// The sockets of one sending thread, and what their counters must say in the end.
struct Sender {
	Socket raw{ SOCK_RAW }, dgram{ SOCK_DGRAM };
	SendCounters of_raw{}, of_dgram{};
	std::atomic<uint32_t> sends{ 0 }, refused{ 0 };
	std::string trouble;

	/// One send with that number in its payload, to a port, the tap or nowhere.
	void send_one(std::minstd_rand &random, uint32_t number, uint32_t tap);
};

} // namespace vm
