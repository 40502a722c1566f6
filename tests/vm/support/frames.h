// SPDX-License-Identifier: GPL-2.0-only
// Frames by hand: each builder returns the whole frame with the metadata that the platform would give it.
#pragma once

#include <array>
#include <cstdint>

#include "support/lab.h"

namespace frames {

using lab::Bytes;
using lab::Frame;
using Mac = std::array<uint8_t, 6>;

inline constexpr Mac kSrc = { 0x02, 0x00, 0x5e, 0x10, 0x00, 0x01 };
inline constexpr Mac kDst = { 0x02, 0x00, 0x5e, 0x10, 0x00, 0x02 };

/// Ethernet II frame around the payload; kind "other".
Frame ethernet(uint16_t type, Bytes payload, Mac dst = kDst, Mac src = kSrc);
/// An ordinary frame of the EtherType with the given total length (at least 14), its payload counting up.
Frame plain(uint16_t type = 0x88b5, size_t length = 60);
/// ARP with the operation field in host order.
Frame arp(uint16_t operation);
/// EAPOL frame of the packet type (byte 15 of the frame).
Frame eapol(uint8_t type, Bytes body = { 0, 0 });
/// 802.2 LLC/SNAP frame with the type in host order.
Frame snap(uint16_t type);

/// IPv4 header (and its options, when header_words is above 5) in front of the payload.
Frame ipv4(uint8_t protocol, Bytes payload, uint32_t destination = 0x0a000002,
	   unsigned header_words = 5);
Bytes udp(uint16_t source, uint16_t destination, size_t payload = 4);
Bytes tcp(uint16_t source, uint16_t destination);

using Addr6 = std::array<uint8_t, 16>;
Addr6 addr6(std::initializer_list<uint8_t> first_bytes, uint8_t last);
inline constexpr Addr6 kHost6 = { 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2 };
/// IPv6 header in front of the payload; the payload length is the true one unless claimed says otherwise.
Frame ipv6(uint8_t next, Bytes payload, Addr6 destination = kHost6, int claimed = -1);
Bytes icmpv6(uint8_t type);
/// Extension header (hop-by-hop, routing, destination options) of 8 * (units + 1) bytes in front of the rest.
Bytes extension(uint8_t next, uint8_t units, Bytes rest);
/// Authentication header: (units + 2) * 4 bytes.
Bytes authentication(uint8_t next, uint8_t units, Bytes rest);
/// Fragment header with the offset in 8-byte units.
Bytes fragment(uint8_t next, uint16_t offset_units, bool more, Bytes rest);

/// The same packet without its layer-2 header: the MAC header offset names the network header.
Frame without_l2(Frame frame);

/// 802.11 frame: data, or management.
Frame wlan80211(bool management);
/// The EAP exchange of Wi-Fi Simple Config, by the enrollee's identity or by the expanded type.
Frame wps_identity();
Frame wps_expanded();

Bytes operator+(Bytes left, const Bytes &right);

} // namespace frames
