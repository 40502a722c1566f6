/* SPDX-License-Identifier: MIT */
#include "relay/describe.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>

#include <algorithm>
#include <cstring>

namespace relay {
namespace {

constexpr std::size_t kMacs = 12; // both addresses
constexpr std::size_t kTag = 4;
constexpr std::uint16_t kTagType = 0x8100;
constexpr std::uint16_t kVlanMask = 0x0fff;

std::uint16_t read16(const std::uint8_t *at)
{
	return static_cast<std::uint16_t>(at[0] << 8 | at[1]);
}

/** As the kernel classifies an Ethernet frame. */
std::uint16_t protocol_of(std::span<const std::uint8_t> frame)
{
	const std::uint16_t type = read16(&frame[kMacs]);
	if (type >= ETH_P_802_3_MIN) // a smaller one is a length
		return type;
	const bool raw_ipx = frame.size() >= kLinkHeader + 2 &&
			     read16(&frame[kLinkHeader]) == 0xffff;
	return raw_ipx ? ETH_P_802_3 : ETH_P_802_2;
}

/** A packet without link header has its version in the first four bits. */
std::uint16_t protocol_of_packet(std::span<const std::uint8_t> packet)
{
	if (packet.empty())
		return 0;
	switch (packet[0] >> 4) {
	case 4:
		return ETH_P_IP;
	case 6:
		return ETH_P_IPV6;
	default:
		return 0;
	}
}

/** Moves the addresses towards the front and puts a tag behind them. */
std::span<std::uint8_t> with_tag(std::span<std::uint8_t> frame, std::uint16_t vlan)
{
	std::uint8_t *begin = frame.data() - kTag;
	std::memmove(begin, frame.data(), kMacs);
	begin[kMacs] = kTagType >> 8;
	begin[kMacs + 1] = kTagType & 0xff;
	begin[kMacs + 2] = static_cast<std::uint8_t>(vlan >> 8);
	begin[kMacs + 3] = static_cast<std::uint8_t>(vlan);
	return { begin, frame.size() + kTag };
}

std::uint8_t packet_type(const std::uint8_t *destination, std::int64_t now, Interfaces &interfaces)
{
	if (std::all_of(destination, destination + ETH_ALEN,
			[](auto byte) { return byte == 0xff; }))
		return PACKET_BROADCAST;
	if (destination[0] & 1)
		return PACKET_MULTICAST;
	return interfaces.is_own(destination, now) ? PACKET_HOST : PACKET_OTHERHOST;
}

} // namespace

Described describe(std::span<std::uint8_t> frame, const mox_packet_ctrl_info &control,
		   std::int64_t seconds, std::uint32_t nanoseconds, const Reception &reception,
		   Interfaces &interfaces)
{
	Described result;
	mox_wire_frame &head = result.head;
	head.magic = MOX_WIRE_MAGIC;
	head.seconds = seconds;
	head.nanoseconds = nanoseconds;
	head.ifindex = static_cast<std::int32_t>(reception.report_as ? reception.report_as
								     : control.pkt_ifx);
	head.hardware = ARPHRD_ETHER;
	if (const Interface *in = interfaces.find(static_cast<std::uint32_t>(head.ifindex),
						  seconds))
		head.hardware = in->hardware;

	const bool has_link = !(control.flags & MOX_RECV_NO_L2) && frame.size() >= kLinkHeader;
	std::uint16_t protocol;
	std::size_t link = 0;
	if (has_link) {
		head.packet = packet_type(frame.data(), seconds, interfaces);
		head.address_length = ETH_ALEN;
		std::memcpy(head.address, &frame[ETH_ALEN], ETH_ALEN);
		protocol = protocol_of(frame);
		// A header that the platform reports as longer than the frame cannot be taken off.
		link = control.l2_len ? std::min<std::size_t>(control.l2_len, frame.size())
				      : kLinkHeader;
		if (const auto inner = static_cast<std::uint16_t>(control.inner_vlan & kVlanMask);
		    inner && !reception.cooked) {
			frame = with_tag(frame, inner);
			protocol = kTagType;
		}
	} else {
		head.packet = PACKET_HOST;
		protocol = protocol_of_packet(frame);
	}
	if (reception.leaving || control.pkt_ifx == 0)
		head.packet = PACKET_OUTGOING;
	head.protocol = htons(protocol);

	// The record has the priority in its low bits and the id above.
	const auto tci = static_cast<std::uint16_t>((control.vlan & 7) << 13 | control.vlan >> 4);
	head.status = TP_STATUS_USER;
	if (tci) {
		head.status |= TP_STATUS_VLAN_VALID | TP_STATUS_VLAN_TPID_VALID;
		head.vlan_tci = tci;
		head.vlan_tpid = kTagType;
	}

	if (reception.cooked) {
		// The filter expects a link header of the usual length in front of the data.
		result.data = frame.subspan(link);
		head.network = 0;
	} else {
		result.data = frame;
		head.network = static_cast<std::uint16_t>(
			has_link ? std::min(kLinkHeader, frame.size()) : 0);
	}
	head.length = static_cast<std::uint32_t>(result.data.size());

	result.facts = { protocol,      head.packet, static_cast<std::uint32_t>(head.ifindex),
			 head.hardware, tci != 0,    head.vlan_tci,
			 head.vlan_tpid };
	return result;
}

bool protocol_matches(std::uint16_t bound, std::uint16_t frame)
{
	return (bound != ETH_P_802_2 && bound != ETH_P_802_3) || bound == frame;
}

} // namespace relay
