// SPDX-License-Identifier: GPL-2.0-only
// Sending as a process does it: one sendmsg(2) with its parts, what came of it in the process, in the module's counters
// and texts, and in the platform.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <linux/if_packet.h>
#include <sys/socket.h>

#include "contract/sockets.h"
#include "moxlab.hpp"
#include "support/fixture.h"

namespace vm {

/// The lab's platform for what lab.h has no words for. One for the whole program.
const moxlab::Device &platform();

/// The parts of a sendmsg(2). A part that is not asked for is not there (a null pointer).
struct Send {
	Bytes data;
	const void *at = nullptr; ///< not null: the data are there instead,
	size_t at_length = 0;     ///< so many bytes of them

	size_t length() const { return at ? at_length : data.size(); }

	bool controlled = false;
	mox_packet_ctrl_info control{};
	size_t control_length = sizeof control;

	bool named = false;
	uint8_t name[sizeof(sockaddr_storage)]{};
	socklen_t name_length = sizeof(sockaddr_ll);

	int flags = 0;

	Send &with(const mox_packet_ctrl_info &record);
	/// An address: interface, destination MAC of `mac_length` bytes, protocol in host order.
	Send &to(uint32_t ifindex, uint8_t mac_length = 6, uint16_t protocol = 0);
	sockaddr_ll &address() { return reinterpret_cast<sockaddr_ll &>(name); }

	/// The frame's length, or -1 with errno, as the system call itself returns it.
	ssize_t by(int fd) const;
};

/// The destination of every name that Send::to() makes.
inline constexpr uint8_t kPeerMac[6] = { 0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0x01 };
/// What the local MAC service answers in these tests, from its first and from its second entry point.
inline constexpr uint8_t kLocalMac[2][6] = { { 0x02, 0x0c, 0xa1, 0, 0, 0x11 },
					     { 0x02, 0x0c, 0xa1, 0, 0, 0x22 } };

/// `length` bytes that count up from 0x20; a whole Ethernet frame from 14 on.
Bytes counting(size_t length);

/// A socket's send counters, in the order of its record. Reading changes nothing.
struct SendCounters {
	uint32_t sendmsg_ill = 0, macfunc_ill = 0, dstintf_ill = 0, srcintf_ill = 0, linkdown = 0,
		 alloc_efbuff = 0, pkt_copy = 0, ef_send = 0, sent = 0;

	bool operator==(const SendCounters &) const = default;
	SendCounters operator-(const SendCounters &before) const;
	/// One in that counter, none in the others.
	static SendCounters one(contract::Counter counter);
	static SendCounters of(Socket &socket);
};
void PrintTo(const SendCounters &counters, std::ostream *out);

/// One send and everything that came of it.
struct Trial {
	ssize_t result;                      ///< as sendmsg returns it
	int error;                           ///< errno, 0 when it succeeded
	SendCounters counters;               ///< what it added
	std::vector<std::string> lines;      ///< the debug lines; none unless asked for
	std::vector<moxlab::LeftFrame> left; ///< what left
	uint64_t allocated, given,
		freed; ///< efbuffs: asked for by the module, given to the platform, freed by it
};

/// The services that the platform publishes.
struct ServiceId {
	uint32_t service_class, instance;
};
inline constexpr ServiceId kLocalMacService{ 11, 10 }, kDropService{ 32, 0 },
	kDropWlanService{ 32, 3 };

void publish(ServiceId id, uint8_t entry = 0, int32_t result = 0, const uint8_t *mac = nullptr);
void withdraw(ServiceId id);
/// Only calls the handlers; a class and an instance that no service has are allowed.
void announce(uint32_t event, ServiceId id, uint8_t entry = 0);
moxlab_service service_state(ServiceId id, uint8_t entry = 0);

class SendTest : public VmTest {
protected:
	void SetUp() override;
	void TearDown() override;

	Trial attempt(Socket &socket, const Send &send, bool debug = false);
	/// As attempt(), for a send that succeeds and leaves by one interface: what left.
	moxlab::LeftFrame leaves(Socket &socket, const Send &send);
};

/// Fields of an efbuff's header.
uint16_t half_at(const Bytes &header, size_t offset);
uint32_t word_at(const Bytes &header, size_t offset);
/// The bytes that `header` would have if a 60-byte frame without anything special had been sent to `destination`.
Bytes plain_header(uint32_t destination, uint32_t length);

} // namespace vm
