// SPDX-License-Identifier: GPL-2.0-only
// For tests of the operators' side: requests as messages, and what came of them.
#pragma once

#include "control/requests.hpp"
#include "control/switches.hpp"
#include "packet/filter.hpp"
#include "base/report.hpp"
#include "control/dump_file.hpp"
#include "control/reports.hpp"
#include "socket_fixture.h"

using namespace mox;

// The port that requests come from.
inline constexpr u32 kClient = 0x12345;

class ControlTest : public SocketTest {
protected:
	// A whole message around a record; the lengths are those of the record unless given.
	static Bytes message(const Bytes &record, int nlmsg_len = -1, int nla_len = -1);
	// A record: type and body.
	static Bytes record(u16 type, const Bytes &body = {});
	static Bytes debug_body(u32 type, u32 is_open)
	{
		return u32_bytes(type) + u32_bytes(is_open);
	}

	// Hands a message to the module; its result.
	static int receive(const Bytes &message);
	// Sends a request with that type and body, cut behind the body.
	static void ask(u16 type, const Bytes &body = {})
	{
		EXPECT_EQ(receive(message(record(type, body))), 0);
	}

	// Everything logged since the last call, as one text.
	static std::string said();
	// The same without who asked for it; fails when that line is not the first.
	static std::string answer();

	// What a call prints.
	template <typename Call> static std::string printed(Call call)
	{
		kernel().log.clear();
		call();
		return said();
	}

	// What requests change: the debug switches, and the filter for frames.
	static std::vector<u8> switches();
	static std::vector<u8> filter_bytes();
};
