/* SPDX-License-Identifier: GPL-2.0-only */
#include "filter_options.h"

#include "mox/error.h"

#include <arpa/inet.h>

#include <algorithm>

namespace moxctl {
namespace {

/** The two fields and flags that an address may go to: its text decides. */
struct AddressFields {
	const char *what;
	std::uint8_t (&ipv4)[4];
	std::uint8_t (&ipv6)[16];
	std::uint32_t ipv4_flag, ipv6_flag;
};

std::uint32_t put_address(const std::string &text, const AddressFields &to)
{
	if (inet_pton(AF_INET, text.c_str(), to.ipv4) == 1)
		return to.ipv4_flag;
	if (inet_pton(AF_INET6, text.c_str(), to.ipv6) == 1)
		return to.ipv6_flag;
	throw mox::UsageError(
		std::string(to.what) + " \"" + text +
		"\" is not valid; allowed: one whole IPv4 or IPv6 address, such as 10.0.0.1 or fe80::1 "
		"(the filter has no prefixes)");
}

std::uint32_t put_mac(const std::string &text, std::uint8_t (&to)[6], std::uint32_t flag)
{
	mox::MacAddress mac = mox::parse_mac(text);
	std::copy(mac.begin(), mac.end(), to);
	return flag;
}

} // namespace

mox_packet_filter make_filter(const FilterWords &words, const mox::InterfaceLookup &lookup)
{
	mox_packet_filter filter{};
	filter.enable = 1;
	if (!words.vlan.empty()) {
		filter.vid = mox::parse_number("VLAN id", words.vlan, 0, 0xfff);
		filter.flags |= MOX_FILTER_VID;
	}
	if (!words.src_mac.empty())
		filter.flags |= put_mac(words.src_mac, filter.src_mac, MOX_FILTER_SRC_MAC);
	if (!words.dst_mac.empty())
		filter.flags |= put_mac(words.dst_mac, filter.dst_mac, MOX_FILTER_DST_MAC);
	if (!words.src_if.empty()) {
		filter.src_intf = mox::parse_interface(words.src_if, lookup);
		filter.flags |= MOX_FILTER_SRC_INTF;
	}
	if (!words.dst_if.empty()) {
		filter.dst_intf = mox::parse_interface(words.dst_if, lookup);
		filter.flags |= MOX_FILTER_DST_INTF;
	}
	if (!words.src_ip.empty())
		filter.flags |= put_address(words.src_ip,
					    { "source address", filter.src_ipv4, filter.src_ipv6,
					      MOX_FILTER_SRC_IPV4, MOX_FILTER_SRC_IPV6 });
	if (!words.dst_ip.empty())
		filter.flags |= put_address(words.dst_ip, { "destination address", filter.dst_ipv4,
							    filter.dst_ipv6, MOX_FILTER_DST_IPV4,
							    MOX_FILTER_DST_IPV6 });

	constexpr std::uint32_t ipv4 = MOX_FILTER_SRC_IPV4 | MOX_FILTER_DST_IPV4;
	constexpr std::uint32_t ipv6 = MOX_FILTER_SRC_IPV6 | MOX_FILTER_DST_IPV6;
	if ((filter.flags & ipv4) && (filter.flags & ipv6))
		throw mox::UsageError(
			"--src-ip and --dst-ip are of two IP versions: no packet has both");
	if (filter.flags == 0 && !words.every_packet)
		throw mox::UsageError(
			"the filter has no criterion: give at least one of --vlan, --src-mac, --dst-mac, "
			"--src-if, --dst-if, --src-ip, --dst-ip; or --every-packet to match all");
	if (filter.flags != 0 && words.every_packet)
		throw mox::UsageError("--every-packet contradicts the other criteria");
	return filter;
}

} // namespace moxctl
