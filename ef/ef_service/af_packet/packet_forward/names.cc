// SPDX-License-Identifier: GPL-2.0
#include "names.hpp"

namespace {

constexpr const char *kLocations[] = {
	"PACKET_NONE_LOC",  "PACKET_LOCAL_LOC", "PACKET_LEV2_LOC",      "PACKET_IPv4_LOC",
	"PACKET_IPv6_LOC",  "PACKET_MPLS_LOC",  "PACKET_TRILL_LOC",     "PACKET_RESV_LOC",
	"PACKET_WLAN_LOC",  "PACKET_LEV2_RESV_LOC", "PACKET_LEV3_RESV_LOC",
};

constexpr const char *kTreatments[] = {
	"PACKET_TREATMENT_NONE", "PACKET_COPY",       "PACKET_FETCH",
	"PACKET_TRAP",           "PACKET_COPY_LOCAL", "PACKET_FETCH_LOCAL",
};

constexpr const char *kRuleTypes[] = {
	"PACKET_PACKET_CODE_EQUAL",    "PACKET_DEST_MAC_EQUAL",      "PACKET_SRC_MAC_EQUAL",
	"PACKET_ETH_PROT_EQUAL",       "PACKET_SNAP_ETH_TYPE_EQUAL", "PACKET_IPv4_PROT_EQUAL",
	"PACKET_IPv6_PROT_EQUAL",      "PACKET_IPv4_DEST_PORT_EQUAL", "PACKET_IPv4_SRC_PORT_EQUAL",
	"PACKET_IPv6_DEST_PORT_EQUAL", "PACKET_SRC_INTF_EQUAL",      "PACKET_ICMPV6_TYPE_EQUAL",
	"PACKET_IPv4_MCAST_TRAFFIC",   "PACKET_IPv6_MCAST_TRAFFIC",  "PACKET_EAPOL_TYPE_EQUAL",
	"PACKET_EAPOL_TYPE_WPS",       "PACKET_ALL",                 "PACKET_PID_T",
	"PACKET_WLAN_MGNT",            "PACKET_ARP_TYPE",
};
static_assert(sizeof(kRuleTypes) / sizeof(kRuleTypes[0]) == MOX_PACKET_RULE_TYPES);

template <size_t N>
const char *look_up(const char *const (&names)[N], u32 number, const char *otherwise)
{
	return number < N ? names[number] : otherwise;
}

} // namespace

const char *location_name(u32 location)
{
	return look_up(kLocations, location, "Unknown");
}

const char *treatment_name(u32 treatment)
{
	return look_up(kTreatments, treatment, "Unknown");
}

const char *rule_type_name(u32 type)
{
	return look_up(kRuleTypes, type, nullptr);
}
