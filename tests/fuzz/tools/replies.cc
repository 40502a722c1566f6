// SPDX-License-Identifier: GPL-2.0-only
// moxctl: any replies of the kernel to any of its commands, and what it prints of them.
#include <cstring>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "harness.h"
#include "mox_capture.h"
#include "netlink_message.h"
#include "printable.h"
#include "world.h"

namespace {

using namespace moxctl;

constexpr uint16_t kFamily = 33;
using Bytes = std::vector<uint8_t>;

// The kernel at the other end: answers the look-up of the family, then what the case has.
class CaseKernel : public NetlinkSocket {
public:
	explicit CaseKernel(fuzz::Input &input) : input_(input) {}

	uint32_t port() const override { return 77; }
	void send(std::span<const uint8_t> request) override
	{
		nlmsghdr head;
		memcpy(&head, request.data(), sizeof head);
		sequence_ = head.nlmsg_seq;
		command_ = request[NLMSG_HDRLEN];
		looked_up_ = head.nlmsg_type != GENL_ID_CTRL;
	}
	Bytes receive(Milliseconds) override
	{
		if (!looked_up_) {
			looked_up_ = true;
			if (const uint8_t how = input_.byte(); how % 16 != 15)
				return family();
		}
		if (input_.empty())
			return {};
		Bytes datagram;
		const unsigned messages = 1 + input_.below(3);
		for (unsigned i = 0; i < messages; i++) {
			const Bytes one = message();
			datagram.insert(datagram.end(), one.begin(), one.end());
		}
		datagram.shrink_to_fit();
		return datagram;
	}

private:
	Bytes family() const
	{
		Bytes attributes;
		const uint8_t id[2] = { kFamily, 0 };
		append_attribute(attributes, CTRL_ATTR_FAMILY_ID, id);
		return make_message({ GENL_ID_CTRL, 0, sequence_, port(), CTRL_CMD_NEWFAMILY, 1 },
				    attributes);
	}
	// A message of any content, with a head that is right most of the time.
	Bytes message()
	{
		const uint8_t how = input_.byte();
		const uint16_t types[] = { kFamily,     kFamily, kFamily, NLMSG_DONE,
					   NLMSG_ERROR, kFamily, kFamily, GENL_ID_CTRL };
		const uint8_t what = input_.byte();
		const Bytes payload = how & 8 ? attributes() : input_.bytes(input_.byte());
		Bytes out = make_message(
			{ types[how % 8], static_cast<uint16_t>(what & 128 ? what : 0),
			  how & 128 ? what : sequence_, port(), how & 64 ? what : command_, 1 },
			payload);
		if (how % 8 == NLMSG_DONE || how % 8 == 4) // without the second head
			out.erase(out.begin() + NLMSG_HDRLEN,
				  out.begin() + NLMSG_HDRLEN + GENL_HDRLEN);
		const uint32_t length = how & 16 && what < 64 ? what : uint32_t(out.size());
		memcpy(out.data(), &length, sizeof length);
		out.resize(NLMSG_ALIGN(out.size()));
		return out;
	}
	// A list of attributes, nested ones in some of them.
	Bytes attributes(unsigned depth = 0)
	{
		Bytes out;
		const unsigned count = input_.below(6);
		for (unsigned i = 0; i < count && !input_.empty(); i++) {
			const uint8_t how = input_.byte();
			const uint16_t type = input_.byte() % 64;
			if (how & 1 && depth < 2) {
				append_attribute(out, type, attributes(depth + 1));
				continue;
			}
			const uint8_t lengths[] = { 0, 1, 2, 4, 4, 8, 8, 16 };
			append_attribute(out, type, input_.bytes(lengths[how / 2 % 8]));
		}
		return out;
	}

	fuzz::Input &input_;
	uint32_t sequence_ = 0;
	uint8_t command_ = 0;
	bool looked_up_ = true;
};

class Lent : public NetlinkSocket {
public:
	explicit Lent(CaseKernel &kernel) : kernel_(kernel) {}
	uint32_t port() const override { return kernel_.port(); }
	void send(std::span<const uint8_t> request) override { kernel_.send(request); }
	Bytes receive(Milliseconds time) override { return kernel_.receive(time); }

private:
	CaseKernel &kernel_;
};

class NoLog : public KernelLog {
public:
	Read read(std::string &) override { return Read::kNone; }
	void wait() override {}
	void interrupt() override {}
};

/// Names may be UTF-8, of which a terminal takes C1 controls for its own.
void expect_safe_on_a_terminal(const std::string &text)
{
	std::string ascii;
	for (std::size_t i = 0; i < text.size(); ++i) {
		auto byte = [&](std::size_t at) { return static_cast<uint8_t>(text[at]); };
		if (byte(i) < 0x80)
			ascii += text[i];
		else if (byte(i) == 0xc2 && i + 1 < text.size() && byte(i + 1) < 0xa0)
			ADD_FAILURE() << "a C1 control at " << i << " of " << text;
	}
	expect_printable(ascii);
	// The library refuses to write what is not UTF-8.
	EXPECT_NO_THROW(nlohmann::json(text).dump()) << text;
}

/// Whether moxctl has --json for the action; the command line refuses it elsewhere.
bool has_json(Action action)
{
	return action != Action::kMetrics && action != Action::kRestrict &&
	       action != Action::kRestrictStatus && action != Action::kSwitches;
}

} // namespace

void fuzz_case(fuzz::Input input)
{
	constexpr Action kCommands[] = { Action::kShowSockets, Action::kShowRules,
					 Action::kShowLosses,  Action::kShowQueues,
					 Action::kShowMemory,  Action::kShowThread,
					 Action::kInfo,        Action::kMetrics,
					 Action::kWatch,       Action::kTrace,
					 Action::kRestrict,    Action::kRestrictStatus,
					 Action::kSwitches };
	Options options;
	options.action = kCommands[input.below(std::size(kCommands))];
	const uint8_t how = input.byte();
	options.json = how & 1 && has_json(options.action);
	options.all = how & 2;
	options.count = 2;
	options.timeout = 0;
	if (options.action == Action::kSwitches)
		options.switches = { 0, 1 };
	CaseKernel kernel(input);
	std::string printed, complaints;
	Milliseconds now{ 1000 };
	int rounds = 0;
	const World world{
		.open_netlink = [&] { return std::make_unique<Lent>(kernel); },
		.open_kernel_log = [] { return std::make_unique<NoLog>(); },
		.working_directory = [] { return std::string("/root"); },
		.root = {},
		.print = [&](const std::string &text) { printed += text; },
		.complain = [&](const std::string &line) { complaints += line + "\n"; },
		.interface_name = [](uint32_t index) { return index == 7 ? "port1" : ""; },
		.terminal = false,
		.stopped = [&] { return input.empty() || ++rounds > 8; },
		.sleep = [&](Milliseconds time) { now += time; },
		.clock = [&] { return now; },
	};
	bool whole = true;
	try {
		run_command(options, world);
	} catch (const Failure &failure) {
		whole = false;
		complaints += failure.what();
	}
	expect_safe_on_a_terminal(complaints);
	if (options.json && whole && !runs_until_stopped(options.action) && !printed.empty())
		EXPECT_TRUE(nlohmann::json::accept(printed)) << printed;
	if (!options.json && options.action != Action::kMetrics)
		expect_safe_on_a_terminal(printed);
}
