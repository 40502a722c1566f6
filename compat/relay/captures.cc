/* SPDX-License-Identifier: MIT */
#include "relay/captures.h"

#include "mox/error.h"
#include "mox_packet.h"

#include <linux/if_ether.h>

#include <cerrno>

namespace relay {

bool protocol_is_open(std::uint16_t protocol)
{
	// The other numbers below are the kernel's marks for frames that no port of the platform has.
	return protocol >= ETH_P_802_3_MIN || protocol == 0 || protocol == ETH_P_ALL ||
	       protocol == ETH_P_802_3 || protocol == ETH_P_802_2;
}

Captures::Captures(const Settings &settings, mox::SocketCalls &calls)
	: settings_(settings), calls_(calls)
{
	captures_.reserve(settings.locations.size());
	for (const std::uint32_t location : settings.locations) {
		// Always with link header: SOCK_DGRAM frames have their source address in sll_addr.
		captures_.push_back(
			{ location, mox::CaptureSocket(mox::SocketKind::kRaw, 0, calls), {} });
		mox::CaptureSocket &socket = captures_.back().socket;
		socket.set_control_info(true);
		// SIOCGSTAMP returns the time of a frame that is already read, so each frame has to have one.
		socket.set_timestamps(true);
		socket.set_treatment(settings.treatment);
	}
}

std::vector<mox::Rule> Captures::rules_for(const Capture &capture, std::uint16_t protocol,
					   std::uint32_t ifindex) const
{
	std::vector<mox::Rule> rules;
	if (protocol >= ETH_P_802_3_MIN)
		rules.emplace_back(PACKET_ETH_PROT_EQUAL).add_number(protocol);
	rules.insert(rules.end(), settings_.rules.begin(), settings_.rules.end());
	// Where frames leave, the module has the interface that they came in on.
	if (ifindex && !settings_.any_interface && capture.location != PACKET_LOCAL_LOC)
		rules.emplace_back(PACKET_SRC_INTF_EQUAL).add_number(ifindex);
	return mox::in_filing_order(std::move(rules), false);
}

void Captures::select(std::uint16_t protocol, std::uint32_t ifindex)
{
	for (Capture &each : captures_)
		each.socket.set_location(PACKET_NONE_LOC);
	for (Capture &each : captures_) {
		for (const mox::Rule &rule : each.rules)
			each.socket.delete_rule(rule);
		each.rules.clear();
	}
	if (!protocol)
		return;
	for (Capture &each : captures_) {
		for (mox::Rule &rule : rules_for(each, protocol, ifindex)) {
			each.socket.add_rule(rule);
			each.rules.push_back(std::move(rule));
		}
	}
	for (Capture &each : captures_)
		each.socket.set_location(each.location);
}

int Captures::send(std::span<const std::uint8_t> frame, std::uint32_t ifindex)
{
	return captures_.front().socket.try_send({ frame, mox::SendAddress{ ifindex } });
}

std::uint32_t Captures::take_drops()
{
	std::uint32_t drops = 0;
	for (Capture &each : captures_)
		drops += each.socket.take_statistics().drops;
	return drops;
}

int Captures::set_receive_buffer(int bytes)
{
	for (Capture &each : captures_) {
		if (calls_.setsockopt(each.socket.fd(), SOL_SOCKET, SO_RCVBUF, &bytes,
				      sizeof(bytes)) != 0)
			return errno;
	}
	return 0;
}

int Captures::receive_buffer(int &bytes)
{
	socklen_t length = sizeof(bytes);
	return calls_.getsockopt(captures_.front().socket.fd(), SOL_SOCKET, SO_RCVBUF, &bytes,
				 &length) == 0
		       ? 0
		       : errno;
}

} // namespace relay
