/* SPDX-License-Identifier: GPL-2.0-only */
/* The command line as it was typed, before anything is looked up. */
#ifndef MOXSEND_WORDS_H
#define MOXSEND_WORDS_H

#include "options.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace moxsend {

/** The commands that make a frame, one per protocol. */
struct FrameWords {
	CLI::App *arp = nullptr;
	std::string arp_operation = "request";
	std::string sender_ip, target_ip, sender_mac, target_mac;

	CLI::App *eapol = nullptr;
	std::string eapol_kind = "start";
	std::string identity;
	unsigned eapol_id = 1, eapol_version = 2;

	CLI::App *lldp = nullptr;
	Lldp lldp_fields;
	std::vector<std::string> capabilities;
	std::string management_ip;

	bool any() const { return *arp || *eapol || *lldp; }
};

/** What the commands need of the rest of the line. */
struct FrameSurroundings {
	std::string interface_word; /**< as typed; empty: none */
	std::uint32_t interface = 0;
	std::optional<mox::MacAddress> to, from;
	bool header_used = true; /**< false: a datagram, whose source address the platform sets */
};

/** Adds the commands to the command line. */
void describe_frames(CLI::App &app, FrameWords &words);

/** The frame of the command that was given. Throws UsageError, and what machine throws. */
Bytes build_frame(const FrameWords &words, const FrameSurroundings &surroundings,
		  const Machine &machine);

} // namespace moxsend

#endif
