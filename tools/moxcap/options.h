/* SPDX-License-Identifier: GPL-2.0-only */
/* moxcap's command line. */
#ifndef MOXCAP_OPTIONS_H
#define MOXCAP_OPTIONS_H

#include "decode.h"
#include "mox/capture_socket.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace moxcap {

struct Options {
	std::uint32_t location = PACKET_LEV2_LOC;
	std::uint32_t treatment = PACKET_COPY;
	std::vector<mox::Rule>
		rules; /**< in the order in which to add them, never empty unless protocol is given */
	std::string rule_text; /**< the same as typed, with the interface and the protocol */
	mox::SocketKind kind = mox::SocketKind::kRaw;
	std::uint16_t protocol = 0;  /**< host order, 0: none */
	std::uint32_t interface = 0; /**< index, 0: all */
	Layout layout = Layout::kEthernet;

	std::string label;
	std::string file;        /**< capture file, empty: none */
	bool vlan_tags = true;   /**< whether the file gets the tags that the platform took off */
	bool pcapng = false;     /**< its format; otherwise pcap */
	std::uint64_t count = 0; /**< frames to capture, 0: no end */
	std::optional<double> duration; /**< seconds */
	int snap = 65535;               /**< bytes read of a frame */
	int buffer = 0;                 /**< receive buffer, 0: the kernel's default */
	bool hex = false;
	bool quiet = false;
	bool counters = false;
};

/** A command line that ends the program at once: help (status 0, text for standard output) or an error. */
struct Ending {
	int status;
	std::string text;
};

/** Exit status of a wrong command line and of a refused system call. */
constexpr int kUsageStatus = 2, kSystemStatus = 1;

/**
 * Reads the command line. lookup resolves interface names. Returns nothing in the optional when options are
 * ready to be used.
 */
std::optional<Ending> read_options(int argc, const char *const *argv,
				   const mox::InterfaceLookup &lookup, Options &options);

} // namespace moxcap

#endif
