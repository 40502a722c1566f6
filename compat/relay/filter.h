/* SPDX-License-Identifier: MIT */
/*
 * A program's classic BPF filter, run by libpcap's interpreter as the kernel would run it on an ordinary packet
 * socket: accepting a frame means receiving it, and the accepted length cuts it.
 *
 * The interpreter has no loads of what the kernel knows beside the frame (SKF_AD_*). So the frame stands behind a
 * block with these facts, and the filter is rewritten when it is attached: loads of the frame move by the block's
 * length, loads of a fact become loads of its place in the block.
 */
#ifndef MOX_RELAY_FILTER_H
#define MOX_RELAY_FILTER_H

#include <linux/filter.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace relay {

/** What a filter can load beside the frame; host byte order. */
struct FrameFacts {
	std::uint16_t protocol = 0;
	std::uint8_t packet = 0; /**< sll_pkttype */
	std::uint32_t ifindex = 0;
	std::uint16_t hardware = 0;
	bool tagged = false;
	std::uint16_t tci = 0;
	std::uint16_t tpid = 0;
};

/** Bytes that the caller leaves free in front of the frame (its layer-2 header included), for the block. */
inline constexpr std::size_t kFactsRoom = 32;
/** The layer-2 header that stands between the block and the data of a SOCK_DGRAM socket. */
inline constexpr std::size_t kLinkHeader = 14;

class Filter {
public:
	/**
	 * Rewrites and checks a program. cooked: for a socket whose frames begin with the network header. Returns 0, or
	 * the errno for the program and in reason what is wrong.
	 */
	int compile(std::span<const sock_filter> program, bool cooked, std::string &reason);

	/**
	 * Applies the filter to the data, in front of which kFactsRoom bytes are free (cooked: kFactsRoom and the
	 * kLinkHeader bytes of the header). Returns how many bytes the program receives, 0 for none.
	 */
	std::size_t run(std::span<std::uint8_t> data, const FrameFacts &facts) const;

private:
	std::vector<sock_filter> program_;
	std::size_t before_ = kFactsRoom; // bytes of the block before the data
};

} // namespace relay

#endif
