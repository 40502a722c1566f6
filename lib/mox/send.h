/* SPDX-License-Identifier: MIT */
/*
 * One frame to send: its bytes, its destination interface and its control record.
 *
 * SendControl has the fields that a sender sets. A received record must not be passed to sendmsg as it is: its VLAN
 * ids are in other bits.
 */
#ifndef MOX_SEND_H
#define MOX_SEND_H

#include "mox/export.h"
#include "mox/values.h"
#include "mox_packet.h"

#include <cstdint>
#include <optional>
#include <span>

namespace mox {

/** The address of a send. */
struct SendAddress {
	std::uint32_t ifindex =
		0; /**< destination interface, 0: the platform decides, whatever bind said */
	std::uint16_t ether_type =
		0; /**< host order; of a datagram's header, 0: the protocol of the socket */
	std::optional<MacAddress> mac =
		std::nullopt; /**< destination of a datagram's header; nothing else reads it */
};

/** The fields of the control record that sendmsg reads; 0 leaves a field to the platform. */
struct SendControl {
	std::uint32_t source_ifindex = 0; /**< must exist on the platform */
	std::uint32_t origin_ifindex = 0;
	std::uint32_t l2_ifindex = 0;
	std::uint32_t destination_l2_ifindex = 0;
	std::uint16_t vlan = 0;       /**< VLAN id, up to 4095 */
	std::uint16_t inner_vlan = 0; /**< id of the second tag, up to 4095 */
	std::uint32_t flags = 0;      /**< enum mox_packet_send_flags */
	std::uint32_t word28 = 0;     /**< passed through to the platform */
	std::uint16_t half38 = 0;     /**< passed through to the platform */
	std::uint16_t wlan_id = 0;
	std::uint16_t ap_wlan_id = 0;
	std::uint8_t radio_id = 0;
	std::optional<std::uint8_t>
		proxy_capture; /**< sets MOX_SEND_PROXY_CAPTURE too; without that flag it is not read */

	/** The record as sendmsg reads it. Throws UsageError for a VLAN id that does not fit. */
	MOX_API mox_packet_ctrl_info record() const;
};

/** One frame to send. The bytes must stay valid until the send returns. */
struct SendRequest {
	std::span<const std::uint8_t>
		bytes; /**< from the MAC header on; for a datagram socket from behind it */
	std::optional<SendAddress> to =
		std::nullopt; /**< nothing: by the interface of the bind, if any */
	std::optional<mox_packet_ctrl_info> control = std::nullopt;
};

} // namespace mox

#endif
