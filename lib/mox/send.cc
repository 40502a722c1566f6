/* SPDX-License-Identifier: MIT */
#include "mox/send.h"

#include "mox/error.h"

#include <string>

namespace mox {
namespace {

std::uint16_t vlan_id(const char *what, std::uint16_t value)
{
	if (value > MOX_SEND_VLAN_MASK)
		throw UsageError(std::string(what) + " " + std::to_string(value) +
				 " is not valid; allowed: 0 to " +
				 std::to_string(MOX_SEND_VLAN_MASK));
	return value;
}

} // namespace

mox_packet_ctrl_info SendControl::record() const
{
	mox_packet_ctrl_info record{};
	record.pkt_ifx = source_ifindex;
	record.pkt_origifx = origin_ifindex;
	record.pkt_l2ifx = l2_ifindex;
	record.pkt_dst_l2ifx = destination_l2_ifindex;
	record.vlan = vlan_id("VLAN id", vlan);
	record.inner_vlan = vlan_id("inner VLAN id", inner_vlan);
	record.flags = flags;
	record.word28 = word28;
	record.half38 = half38;
	record.wlan_id = wlan_id;
	record.ap_wlan_id = ap_wlan_id;
	record.radio_id = radio_id;
	if (proxy_capture) {
		record.flags |= MOX_SEND_PROXY_CAPTURE;
		record.proxy_capture = *proxy_capture;
	}
	return record;
}

} // namespace mox
