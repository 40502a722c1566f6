// SPDX-License-Identifier: GPL-2.0-only
// For tests of the operators' channel: requests as bytes, and the lines that came of them, to the byte.
#pragma once

#include <string>

#include "contract/control.h"
#include "support/cpus.h"
#include "support/fixture.h"
#include "support/genl.h"

namespace vm {

inline constexpr const char *kFamily = MOX_PACKET_GENL_NAME;
using contract::kSwitches;

/// The CPU that requests are sent from; the lines they cause bear it in their tag.
inline constexpr int kAskingCpu = 1;

/// Host-order words behind each other.
Bytes words(std::initializer_list<uint32_t> values);
/// A request's record: type and body.
Bytes record(uint16_t type, const Bytes &body = {});
/// A debug line as printed by the asking CPU.
std::string tagged(const std::string &text);

/// All lines of the module since the last call, as one text; level markers stay.
std::string said();

class ControlTest : public VmTest {
protected:
	void SetUp() override;
	void TearDown() override;

	/// The whole message of a request, cut behind the body.
	Bytes request(uint16_t type, const Bytes &body = {}, uint16_t flags = 0x01) const;
	/// Sends a request; when this returns it has been handled.
	void ask(uint16_t type, const Bytes &body = {}) { ask(client_, type, body); }
	void ask(GenlSocket &client, uint16_t type, const Bytes &body = {});
	void ask_debug(uint32_t type, uint32_t is_open)
	{
		ask(MOX_MSG_DEBUG, words({ type, is_open }));
	}
	/// The line that names the asking process.
	std::string asked_by(uint32_t port, const char *name = "vm_control") const;
	/// What a request prints behind the line that names the asking process, which must be the first (debugging is off).
	std::string answer(uint16_t type, const Bytes &body = {});
	/// What a request that is sent as these bytes prints.
	std::string printed(const Bytes &datagram);
	/// The error that the kernel answers to these bytes; 1 when it answers nothing.
	int refusal(const Bytes &datagram);

	static void debug(bool on) { lab::poke8("mox_packet_debug", 0, on); }
	static Bytes switches() { return lab::peek("mox_packet_debug", 0, kSwitches); }
	static uint32_t requests_taken() { return lab::peek32("g_packet_msg_recv"); }

	GenlSocket client_;
	uint16_t family_ = 0;
};

} // namespace vm
