/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The preload's functions, which this program has in itself, with a relay of its own process and the test as the
 * module: frames, addresses and rules as text.
 */
#pragma once

#include "compat/fake_module.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace preload {

using Bytes = std::vector<std::uint8_t>;

inline constexpr int kArp = 0x0806;
inline constexpr int kAll = 3;

inline Bytes frame_of(std::uint16_t type, std::size_t size = 60, std::uint8_t last_mac_byte = 0xaa)
{
	Bytes frame{ 2, 0, 0, 0, 0, last_mac_byte, 2, 0, 0, 0, 0, 0x99 };
	frame.push_back(static_cast<std::uint8_t>(type >> 8));
	frame.push_back(static_cast<std::uint8_t>(type));
	while (frame.size() < size)
		frame.push_back(static_cast<std::uint8_t>(frame.size()));
	return frame;
}

inline sockaddr_ll address(std::uint32_t ifindex, std::uint16_t protocol = 0, bool with_mac = false)
{
	sockaddr_ll to{};
	to.sll_family = AF_PACKET;
	to.sll_protocol = htons(protocol);
	to.sll_ifindex = static_cast<int>(ifindex);
	if (with_mac) {
		to.sll_halen = 6;
		std::memset(to.sll_addr, 0xff, 6);
	}
	return to;
}

inline const sockaddr *plain(const sockaddr_ll &address)
{
	return reinterpret_cast<const sockaddr *>(&address);
}

/** Whether a frame comes within ms. */
inline bool readable(int fd, int ms = 20000)
{
	pollfd wait{ fd, POLLIN, 0 };
	return poll(&wait, 1, ms) == 1 && wait.revents & POLLIN;
}

/** Rule records of options 11 and 12 as "+type:value" and "-type:value"; locations as "@n"; others left out. */
inline std::string rules(const std::vector<FakeModule::Option> &options)
{
	std::string text;
	for (const auto &each : options) {
		if (each.level != MOX_SOL_PACKET)
			continue;
		const auto u16 = [&](std::size_t at) {
			return static_cast<unsigned>(each.value.at(at) | each.value.at(at + 1)
										 << 8);
		};
		if (each.option == PACKET_LOCATION)
			text += " @" + std::to_string(each.value.at(0));
		if (each.option != MOX_PACKET_ADD_RULE && each.option != MOX_PACKET_DEL_RULE)
			continue;
		text += each.option == MOX_PACKET_ADD_RULE ? " +" : " -";
		text += std::to_string(u16(0));
		for (std::size_t i = 6; i < each.value.size(); ++i)
			text += (i == 6 ? ":" : ".") + std::to_string(each.value[i]);
	}
	return text;
}

inline int open_socket(FakeModule &module, int type = SOCK_RAW, int protocol = kAll)
{
	const int fd = socket(AF_PACKET, type, htons(static_cast<std::uint16_t>(protocol)));
	EXPECT_GE(fd, 0) << std::strerror(errno);
	module.accept();
	return fd;
}

} // namespace preload
