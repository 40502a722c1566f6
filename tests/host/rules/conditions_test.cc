// SPDX-License-Identifier: GPL-2.0-only
// Classes of frames, of summaries that no parse leaves: each word of a class counts.
#include "rules/conditions.hpp"

#include <gtest/gtest.h>

using namespace mox;

namespace {

TEST(Conditions, ipv4_mcast_traffic__needs_ipv4)
{
	for (u32 flags : { u32{ pkt_flag::kIpv4 }, u32{ pkt_flag::kIpv6 }, 0u }) {
		pkt_info info{};
		info.flags = static_cast<u8>(flags);
		info.ip_proto = 17;
		info.ipv4_dst = __builtin_bswap32(0xE0000100u);
		EXPECT_EQ(ipv4_mcast_traffic(info), flags == pkt_flag::kIpv4) << flags;
	}
}

TEST(Conditions, ipv6_mcast_traffic__needs_ipv6_and_an_address)
{
	const u8 address[16] = { 0xff, 0x05 };
	for (u32 flags : { u32{ pkt_flag::kIpv4 }, u32{ pkt_flag::kIpv6 }, 0u })
		for (const u8 *dst : { address, static_cast<const u8 *>(nullptr) }) {
			pkt_info info{};
			info.flags = static_cast<u8>(flags);
			info.ipv6_dst = dst;
			EXPECT_EQ(ipv6_mcast_traffic(info), flags == pkt_flag::kIpv6 && dst)
				<< flags;
		}
}

TEST(Conditions, wlan_classes__need_both_flags)
{
	for (u32 flags = 0; flags < 2 * pkt_flag::kWps; flags++) {
		pkt_wlan_info info{};
		info.flags = flags;
		EXPECT_EQ(wlan_wps(info),
			  (flags & pkt_flag::kEapol) != 0 && (flags & pkt_flag::kWps) != 0)
			<< flags;
		EXPECT_EQ(wlan_mgmt(info),
			  (flags & pkt_flag::kWlan80211) != 0 && (flags & pkt_flag::kWlanMgmt) != 0)
			<< flags;
	}
}

} // namespace
