/* SPDX-License-Identifier: GPL-2.0-only */
/* What a frame is, in a few words. */
#ifndef MOXCAP_DECODE_H
#define MOXCAP_DECODE_H

#include "mox/values.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace moxcap {

/** How the bytes of a frame begin. */
enum class Layout {
	kEthernet, /**< with an Ethernet header */
	kNetwork,  /**< with the network header; the EtherType comes from the control record */
	kWlan,     /**< with an 802.11 header */
};

struct Description {
	std::optional<mox::MacAddress> source;
	std::optional<mox::MacAddress> destination;
	std::string protocol; /**< such as "ARP who-has 10.0.0.2 tell 10.0.0.1" */
};

/**
 * Describes a frame, of which bytes may be only the beginning. ether_type (host order) is used with
 * Layout::kNetwork; 0 leaves it to the version in an IP header. Reads no byte outside bytes, and says "cut short"
 * where a header is not all there.
 */
Description describe(std::span<const std::uint8_t> bytes, Layout layout,
		     std::uint16_t ether_type = 0);

/** A MAC address in lower-case pairs with colons. */
std::string shown(const mox::MacAddress &mac);

} // namespace moxcap

#endif
