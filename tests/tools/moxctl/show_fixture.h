// SPDX-License-Identifier: GPL-2.0-only
/* Commands that read reports from "mox_capture", and a module that has one of each. */
#pragma once

#include "commands_fixture.h"
#include "expect_error.h"
#include "fake_capture.h"

#include <nlohmann/json.hpp>

using nlohmann::json;

class Show : public Commands {
protected:
	FakeCapture module{ netlink };

	void SetUp() override
	{
		Commands::SetUp();
		module.entries = {
			{ MOX_CAPTURE_CMD_INFO, { sample_info() } },
			{ MOX_CAPTURE_CMD_LOCATIONS,
			  { sample_location(), sample_location(PACKET_LEV2_LOC, 0),
			    sample_location(PACKET_LEV2_LOC, 1) } },
			{ MOX_CAPTURE_CMD_SOCKETS, { sample_socket() } },
			{ MOX_CAPTURE_CMD_RULES, { sample_rule() } },
			{ MOX_CAPTURE_CMD_QUEUES, { sample_queue(0), sample_queue(1) } },
			{ MOX_CAPTURE_CMD_MEMORY, sample_memory() },
			{ MOX_CAPTURE_CMD_THREAD, { sample_thread() } },
		};
	}
	moxctl::Status show(Action action)
	{
		options.action = action;
		printed.clear();
		complaints.clear();
		return run();
	}
	json show_json(Action action)
	{
		options.json = true;
		EXPECT_EQ(show(action), moxctl::status_ok) << complaints;
		return json::parse(printed);
	}
	bool has(const std::string &text) const { return printed.find(text) != std::string::npos; }
};
