/* SPDX-License-Identifier: MIT */
/*
 * The socket options of a program's packet socket that do not depend on the capture sockets, and how each is answered.
 */
#ifndef MOX_RELAY_OPTIONS_H
#define MOX_RELAY_OPTIONS_H

#include "relay/captures.h"
#include "relay/filter.h"
#include "relay/interfaces.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace relay {

/** What socket() was called with. */
struct SocketIdentity {
	bool cooked;            /**< SOCK_DGRAM */
	std::uint16_t protocol; /**< host order */
};

/** An answer: 0 or an errno, the value of a get, and a line for standard error, if the program should have one. */
struct Answer {
	int error = 0;
	std::vector<std::uint8_t> value = {};
	std::string text = {};
};

class Options {
public:
	Options(const SocketIdentity &identity, Captures &captures, Interfaces &interfaces)
		: identity_(identity), captures_(captures), interfaces_(interfaces)
	{
	}

	Answer set(int level, int option, std::span<const std::uint8_t> value);
	Answer get(int level, int option);

	/** Bits of enum mox_wire_frame_flags. */
	std::uint32_t frame_flags() const { return frame_flags_; }
	const std::optional<Filter> &filter() const { return filter_; }
	bool ignores_outgoing() const { return ignore_outgoing_; }
	/** A frame that the filter accepted, and whether it could be passed to the program. */
	void count(bool passed)
	{
		++packets_;
		drops_ += !passed;
	}

private:
	Answer set_packet(int option, std::span<const std::uint8_t> value);
	Answer set_socket(int option, std::span<const std::uint8_t> value);
	Answer attach(std::span<const std::uint8_t> value);
	Answer membership(std::span<const std::uint8_t> value);
	Answer statistics();
	void set_frame_flag(std::uint32_t flag, bool on, std::uint32_t instead_of);
	std::string once(const std::string &text);

	const SocketIdentity identity_;
	Captures &captures_;
	Interfaces &interfaces_;
	std::uint32_t frame_flags_ = 0;
	std::optional<Filter> filter_;
	bool filter_locked_ = false;
	bool origdev_ = false;
	bool ignore_outgoing_ = false;
	int copy_threshold_ = 0;
	std::uint32_t packets_ = 0, drops_ = 0; // since the last statistics
	std::vector<std::string> said_;
};

} // namespace relay

#endif
