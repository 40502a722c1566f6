/* SPDX-License-Identifier: MIT */
/* The layout of the C API's records, which is part of its ABI: a program has it compiled in. */
#include "mox/mox.h"

#include <cstddef>

namespace {

constexpr std::size_t kWord = sizeof(void *);

#define PLACED(record, member, at) \
	static_assert(offsetof(struct record, member) == (at), #record "::" #member " has moved")

static_assert(sizeof(mox_control) == 48);
PLACED(mox_control, ifindex, 0);
PLACED(mox_control, origin_ifindex, 4);
PLACED(mox_control, l2_ifindex, 8);
PLACED(mox_control, flags, 12);
PLACED(mox_control, word28, 16);
PLACED(mox_control, ether_type, 20);
PLACED(mox_control, vlan, 22);
PLACED(mox_control, inner_vlan, 24);
PLACED(mox_control, l2_length, 26);
PLACED(mox_control, half38, 28);
PLACED(mox_control, wlan_id, 30);
PLACED(mox_control, ap_wlan_id, 32);
PLACED(mox_control, priority, 34);
PLACED(mox_control, radio_id, 35);
PLACED(mox_control, proxy_capture, 36);
PLACED(mox_control, reserved, 37);

static_assert(sizeof(mox_frame) == 4 * kWord + 80);
PLACED(mox_frame, buffer, 0);
PLACED(mox_frame, size, kWord);
PLACED(mox_frame, captured, 2 * kWord);
PLACED(mox_frame, length, 3 * kWord);
PLACED(mox_frame, seconds, 4 * kWord);
PLACED(mox_frame, nanoseconds, 4 * kWord + 8);
PLACED(mox_frame, ifindex, 4 * kWord + 12);
PLACED(mox_frame, flags, 4 * kWord + 16);
PLACED(mox_frame, reserved, 4 * kWord + 20);
PLACED(mox_frame, control, 4 * kWord + 32);

static_assert(sizeof(mox_address) == 16);
PLACED(mox_address, ifindex, 0);
PLACED(mox_address, ether_type, 4);
PLACED(mox_address, has_mac, 6);
PLACED(mox_address, mac, 7);
PLACED(mox_address, reserved, 13);

static_assert(sizeof(mox_send_control) == 48);
PLACED(mox_send_control, source_ifindex, 0);
PLACED(mox_send_control, origin_ifindex, 4);
PLACED(mox_send_control, l2_ifindex, 8);
PLACED(mox_send_control, destination_l2_ifindex, 12);
PLACED(mox_send_control, flags, 16);
PLACED(mox_send_control, word28, 20);
PLACED(mox_send_control, vlan, 24);
PLACED(mox_send_control, inner_vlan, 26);
PLACED(mox_send_control, half38, 28);
PLACED(mox_send_control, wlan_id, 30);
PLACED(mox_send_control, ap_wlan_id, 32);
PLACED(mox_send_control, radio_id, 34);
PLACED(mox_send_control, proxy_capture, 35);
PLACED(mox_send_control, reserved, 36);

static_assert(sizeof(mox_statistics) == 32);
PLACED(mox_statistics, frames, 0);
PLACED(mox_statistics, drops, 8);
PLACED(mox_statistics, total_frames, 16);
PLACED(mox_statistics, total_drops, 24);

static_assert(MOX_RAW == 0 && MOX_DATAGRAM == 1);
static_assert(MOX_FRAME_CONTROL == 1 && MOX_FRAME_STAMP == 2 && MOX_FRAME_TRUNCATED == 4 &&
	      MOX_FRAME_ETHERNET == 8);

#undef PLACED

} // namespace
