// SPDX-License-Identifier: GPL-2.0-only
#include "locations/table.hpp"

namespace mox {
namespace {

constexpr packet_module record(const char *name, efmp_pkt_func receive,
			       platform::record_numbers numbers)
{
	return { 0,
		 name,
		 { 0, receive, platform::kRecordMask, numbers.point, numbers.priority, 0 } };
}

constexpr bool table_complete()
{
	for (const Location &row : kLocationTable.rows)
		if (row.queue > CPU_QUEUES)
			return false;
	for (u32 location = 0; location <= kLastLocation; location++)
		if (location_row(location).reserved_intf)
			return false; /* location_sees() relies on it */
	for (u32 queue = 0; queue < CPU_QUEUES; queue++)
		if (location_row(queue_location(queue)).queue != queue)
			return false;
	return true;
}
static_assert(table_complete(), "every location has a row, every queue one location");
static_assert(location_row(PACKET_NONE_LOC).library == nullptr);

} // namespace

const char *location_name(u32 location)
{
	switch (location) {
	case PACKET_NONE_LOC:
		return "PACKET_NONE_LOC";
#define MOX_ROW(location, ...) \
	case location:         \
		return #location;
		MOX_LOCATION_TABLE(MOX_ROW, MOX_ROW)
#undef MOX_ROW
	default:
		return "Unknown";
	}
}

bool addressed_to_reserved(u32 location, const void *efbuff)
{
	u32 reserved = location_valid(location) ? location_row(location).reserved_intf : 0;

	return reserved == 0 ||
	       field<u32>(efbuff, platform::ef::kDstIntf) == word_of(lsm_get_intfcb(reserved));
}

} // namespace mox

extern "C" {
#define MOX_OWN(location, prefix, ...) \
	constinit packet_regular_lib g_##prefix##_packet_regular_lib{};
#define MOX_SHARED(...)
MOX_LOCATION_TABLE(MOX_OWN, MOX_SHARED)
#undef MOX_OWN
#undef MOX_SHARED

constinit packet_module g_lev2_packet_module = mox::record(
	"PACKET-LEV2-MODULE", mox_packet_lev2_rcv, platform::kLev2Record);
constinit packet_module g_ipv4_packet_module = mox::record(
	"PACKET-IPV4-MODULE", mox_packet_ipv4_rcv, platform::kIpv4Record);
constinit packet_module g_ipv6_packet_module = mox::record(
	"PACKET-IPV6-MODULE", mox_packet_ipv6_rcv, platform::kIpv6Record);
constinit packet_module g_wlan_packet_module = mox::record(
	"PACKET-WLAN-MODULE", mox_packet_wlan_in_rcv, platform::kWlanRecord);
}
