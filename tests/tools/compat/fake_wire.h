/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What the relay of the tests exchanges with the test that plays the module: its "capture sockets" are connections to
 * a socket of the test.
 */
#ifndef FAKE_WIRE_H
#define FAKE_WIRE_H

#include "mox_packet.h"

#include <cstdint>

enum class FakeKind : std::uint32_t {
	kOption = 1, /**< to the test: a setsockopt, with its value */
	kSent = 2,   /**< to the test: a sendmsg: address of `option` bytes, then the frame */
	kFrame = 3,  /**< to the relay: FakeFrame, then the bytes */
	kDrops = 4,  /**< to the relay: `option` frames were dropped */
};

struct FakeHead {
	FakeKind kind;
	std::int32_t level;
	std::int32_t option;
};

struct FakeFrame {
	mox_packet_ctrl_info control;
	std::int64_t seconds;
	std::int64_t nanoseconds;
};

/** Names of variables: where the test listens (abstract); an errno for each send; "OPTION:ERRNO" for a setsockopt. */
inline constexpr const char *kFakeModule = "MOX_TEST_MODULE";
inline constexpr const char *kFakeSendError = "MOX_TEST_SEND_ERROR";
inline constexpr const char *kFakeOptionError = "MOX_TEST_OPTION_ERROR";
inline constexpr const char *kFakeSocketError = "MOX_TEST_SOCKET_ERROR";

/** The interfaces of the relay of the tests. */
inline constexpr std::uint32_t kPort = 3, kOtherPort = 4, kNoPort = 99;
inline constexpr std::uint8_t kPortMac[] = { 0x02, 0, 0, 0, 0, 0xaa };

#endif
