// SPDX-License-Identifier: GPL-2.0-only
// Sockets of the reference: what the socket calls do to a regular, and what
// delivery gives to whom.
#pragma once

#include <deque>
#include <map>
#include <memory>

#include "model.h"

namespace oracle {

struct SocketCounters {
	uint32_t filter_drops = 0, rcvbuf_full_drops = 0, trim_fail_drops = 0, recv_packets = 0;
	bool operator==(const SocketCounters &) const = default;
};

struct Received {
	uint32_t length = 0;       // as queued: without the layer-2 header for SOCK_DGRAM
	uint32_t frame_offset = 0; // of the first queued byte in the frame
	uint32_t ifindex = 0;
	uint32_t truesize = 0;
};

struct Socket {
	int type = 3;
	uint32_t vsd = 0;
	bool running = false;
	uint16_t protocol = 0;
	uint32_t ifindex = 0;
	uint32_t rmem = 0;
	uint32_t rcvbuf = 212992;
	bool has_filter = false;
	int verdict = 0; // of the kernel's filter call: 0 accepts
	bool trim_fails = false;
	Regular regular;
	SocketCounters counters;
	std::deque<Received> queue;
};

class Sockets {
public:
	Model model;
	World world;
	// True size the kernel gives a buffer made for that many bytes.
	std::function<uint32_t(uint32_t)> truesize = [](uint32_t n) { return n; };
	// Whether a socket buffer can be allocated: for a socket, or for several of one frame.
	std::function<bool()> skb_allocation = [] { return true; };
	// Whether one can be cloned: for each of several sockets.
	std::function<bool()> skb_clone = [] { return true; };
	uint32_t skb_failures = 0;
	uint32_t in_flight = 0; // buffers made and not dropped by delivery
	uint32_t released = 0;  // buffers purged at release

	Sockets();
	Socket &at(int id) { return *sockets_.at(id); }
	bool has(int id) const { return sockets_.count(id) != 0; }

	// 0 or -ENOMEM; the id names the socket from then on.
	int create(int id, int type, uint16_t protocol);
	void release(int id);
	int bind(int id, uint32_t ifindex, uint16_t protocol);
	int set_treatment(int id, uint32_t treatment);
	int set_location(int id, uint32_t location);
	// elements: count strides, as they lie behind the record's head.
	int add_rule(int id, uint32_t type, uint32_t count, const std::vector<uint8_t> &elements);
	int del_rule(int id, uint32_t type, uint32_t count, const std::vector<uint8_t> &elements);

	// Delivers one frame of a location's queue; the ids of the sockets that
	// matched, in order, whether or not they kept it.
	std::vector<int> deliver(uint32_t location, const Packet &packet, uint32_t total,
				 uint32_t l2);
	std::vector<int> deliver_wlan(const WlanPacket &packet, uint32_t total, uint32_t l2);

private:
	void stop(Socket &s);
	void start(Socket &s);
	int edit(int id, bool add, uint32_t type, uint32_t count,
		 const std::vector<uint8_t> &elements);
	bool hand_over(Socket &s, bool shared, uint32_t total, uint32_t l2, uint32_t ifindex);
	std::vector<int> offer(const std::vector<const Regular *> &matching, bool traps,
			       uint32_t total, uint32_t l2, uint32_t ifindex);

	std::map<int, std::unique_ptr<Socket>> sockets_;
};

} // namespace oracle
