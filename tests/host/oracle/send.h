// SPDX-License-Identifier: GPL-2.0-only
// One send of the reference: from a message to an errno, a counter, lines and the
// efbuff that leaves.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "contract/sockets.h"

namespace oracle {

struct SendInterface {
	uint32_t word; // its block, as an efbuff holds it
	std::string name;
	bool up;
};

// The state of the world at a send.
struct SendWorld {
	uint32_t vsd = 0; // of the sender
	bool debugging = false;
	uint32_t longest = 65536; // frame that the platform has an efbuff for
	uint16_t room_at = 288;
	std::optional<std::vector<uint8_t>> local_mac; // absent: no such service
	int local_mac_result = 0;
	std::map<uint32_t, SendInterface> interfaces;
	int outcome = 0;
};

struct SendSocket {
	bool datagram = false;
	uint32_t bound = 0;
	uint16_t protocol = 0; // as its two bytes lie in memory
	std::string process;
};

struct SendMessage {
	std::optional<std::vector<uint8_t>> name, control;
	std::vector<uint8_t> data;
	size_t readable = SIZE_MAX; // of the data, before it faults
};

struct SendResult {
	int result = 0;
	contract::Counter counter = contract::kSendPackets;
	bool left = false;           // the platform got it
	std::vector<uint8_t> header; // 256 bytes of the efbuff, if it left
	std::vector<uint8_t> frame;
	std::vector<std::string> lines; // without tag; "<efbuff>" where its address stands
};

SendResult send(const SendWorld &world, const SendSocket &socket, const SendMessage &message);

} // namespace oracle
