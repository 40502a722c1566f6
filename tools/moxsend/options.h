/* SPDX-License-Identifier: GPL-2.0-only */
/* moxsend's command line. */
#ifndef MOXSEND_OPTIONS_H
#define MOXSEND_OPTIONS_H

#include "protocols.h"
#include "mox/packet_socket.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace moxsend {

struct Options {
	// What: the frames, or a capture file that holds them.
	std::vector<Bytes> frames;
	std::string hex_file; /**< empty: none; read later, "-" is standard input */
	std::string pcap_file;
	bool has_header =
		true;     /**< frames begin with their MAC header; false: with what follows it */
	bool pad = false; /**< with zeroes, to the shortest frame of Ethernet */

	// Where to, and how.
	mox::SocketKind kind = mox::SocketKind::kRaw;
	std::uint32_t interface = 0; /**< 0: the platform decides */
	bool bind = false; /**< name the interface by binding to it, and send without an address */
	std::optional<mox::MacAddress> to; /**< of a datagram; nothing: as in the frame's header */
	std::optional<std::uint16_t>
		ether_type; /**< of a datagram, host order; nothing: as in the frame's header */
	std::optional<mox_packet_ctrl_info> control;

	std::uint64_t count = 1; /**< how often to send everything, 0: without end */
	double rate = 0;         /**< frames a second, 0: as fast as it goes */
	bool continue_on_error = false;
	bool dry_run = false;
	bool progress = false;
	bool quiet = false;
	bool counters = false;
};

/** A command line that ends the program at once: help (status 0, text for standard output) or an error. */
struct Ending {
	int status;
	std::string text;
};

/** Exit status: a refused call or unreadable file; a wrong command line; some frames failed, the rest was sent. */
constexpr int kSystemStatus = 1, kUsageStatus = 2, kPartialStatus = 3;

/** What the command line needs of the machine. */
struct Machine {
	mox::InterfaceLookup interface_index;
	/** MAC address of a platform interface; may throw SocketError. */
	std::function<std::optional<mox::MacAddress>(std::uint32_t ifindex)> interface_mac;
};

/**
 * Reads the command line and makes the frames that it describes. Returns nothing in the optional when options are
 * ready to be used.
 */
std::optional<Ending> read_options(int argc, const char *const *argv, const Machine &machine,
				   Options &options);

} // namespace moxsend

#endif
