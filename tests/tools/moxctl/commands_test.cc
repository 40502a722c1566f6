/* SPDX-License-Identifier: GPL-2.0-only */
/* Switches, filters and reports as whole commands against a fake module. */
#include "commands_fixture.h"
#include "expect_error.h"

#include <nlohmann/json.hpp>

namespace {

TEST_F(Commands, look_up_and_request_to_the_byte)
{
	options.action = Action::kSwitches;
	options.switches = { 20 };
	options.is_open = true;
	EXPECT_EQ(run(), moxctl::status_ok);
	ASSERT_EQ(netlink.datagrams.size(), 2u);

	Bytes look_up;
	put<std::uint32_t>(look_up, 36);
	for (std::uint16_t word : { 16, 1 })
		put(look_up, word);
	put<std::uint32_t>(look_up, 1);
	put<std::uint32_t>(look_up, 4711);
	for (std::uint8_t byte : { 3, 1, 0, 0, 16, 0, 2, 0 })
		look_up.push_back(byte);
	for (char byte : { 'P', 'A', 'C', 'K', 'E', 'T', '_', 'G', 'E', 'N', 'L', '\0' })
		look_up.push_back(static_cast<std::uint8_t>(byte));
	EXPECT_EQ(netlink.datagrams[0], look_up);

	Bytes request;
	put<std::uint32_t>(request, 36);
	put<std::uint16_t>(request, 0x1b);
	put<std::uint16_t>(request, 5); // request, acknowledge
	put<std::uint32_t>(request, 2);
	put<std::uint32_t>(request, 4711);
	for (std::uint8_t byte : { 0, 1, 0, 0, 16, 0, 1, 0, 14, 0, 0, 0, 20, 0, 0, 0, 1, 0, 0, 0 })
		request.push_back(byte);
	EXPECT_EQ(netlink.datagrams[1], request);
	EXPECT_EQ(printed + complaints, "");
}

TEST_F(Commands, switches__are_sent_in_order_each_with_its_acknowledgement)
{
	options.action = Action::kSwitches;
	options.switches = { 0, 9, 18 };
	netlink.foreign_messages = true;
	EXPECT_EQ(run(), moxctl::status_ok);
	ASSERT_EQ(netlink.payloads.size(), 3u);
	EXPECT_EQ(netlink.payloads[2], (Bytes{ 14, 0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0 }));
}

TEST_F(Commands, a_filter_is_sent)
{
	options.action = Action::kFilter;
	EXPECT_EQ(run(), moxctl::status_ok);
	ASSERT_EQ(netlink.payloads.size(), 1u);
	EXPECT_EQ(netlink.payloads[0].size(), 76u);
}

TEST_F(Commands, show__prints_just_the_report)
{
	options.action = Action::kShowRules;
	will_print(all_reports());
	print("before\n");
	EXPECT_EQ(run(), moxctl::status_ok) << complaints;
	EXPECT_EQ(printed, all_reports());
	EXPECT_EQ(complaints, "");
	EXPECT_EQ(netlink.payloads, std::vector<Bytes>({ { 8, 0, 0, 0 } }));
}

TEST_F(Commands, show__every_kind)
{
	struct {
		Action action;
		std::uint32_t location;
		std::string text;
	} const cases[] = {
		{ Action::kShowRules, 2, lev2_report() },
		{ Action::kShowQueues, 0, queues_report() },
		{ Action::kShowMemory, 0, memory_report() },
		{ Action::kShowThread, 0, thread_report() },
		{ Action::kShowProcess, 0, "show process arpwatch regular:\n" + arpwatch_socket() },
	};
	for (const auto &each : cases) {
		options.action = each.action;
		options.location = each.location;
		options.process = "arpwatch";
		printed.clear();
		will_print(each.text);
		EXPECT_EQ(run(), moxctl::status_ok) << complaints;
		EXPECT_EQ(printed, each.text);
	}
}

TEST_F(Commands, show__as_json)
{
	options.action = Action::kShowMemory;
	options.json = true;
	will_print(memory_report());
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_EQ(nlohmann::json::parse(printed)["memory"]["skbs"]["alloc"], 50);
}

TEST_F(Commands, show__a_terminal_gets_no_control_characters)
{
	options.action = Action::kShowProcess;
	std::string text = arpwatch_socket();
	text.replace(text.find("arpwatch"), 8, "a\x1b[2J");
	will_print(text);
	EXPECT_EQ(run(), moxctl::status_ok);
	EXPECT_NE(printed.find("process:       a\\x1b[2J\n"), std::string::npos) << printed;
}

TEST_F(Commands, show__a_report_with_holes_is_printed_and_called_incomplete)
{
	options.action = Action::kShowRules;
	options.location = 2;
	netlink.on_request = [this](const Bytes &) {
		print("Deal message from 4711, moxctl.\n");
		for (const std::string &call :
		     printk_calls(queue_lines("PACKET_LEV2_LOC") + arpwatch_socket()))
			print(call);
		log.overwrite();
		sequence += 12;
		print("filter regular list cnt: 0\n");
	};
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_NE(complaints.find("overwrote 12 of its lines"), std::string::npos) << complaints;
	EXPECT_NE(complaints.find("log_buf_len"), std::string::npos) << complaints;
	EXPECT_NE(printed.find("arpwatch"), std::string::npos);

	options.json = true;
	printed.clear();
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_EQ(nlohmann::json::parse(printed)["complete"], false);
}

TEST_F(Commands, show__a_truncated_report_is_called_incomplete)
{
	options.action = Action::kShowRules;
	will_print(lev2_report());
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_NE(complaints.find("1 locations instead of 8"), std::string::npos) << complaints;
}

TEST_F(Commands, show__many_problems_are_cut_short)
{
	options.action = Action::kShowProcess;
	std::string text;
	for (int i = 0; i < 30; ++i)
		text += "process:       x\n";
	will_print(text);
	EXPECT_EQ(run(), moxctl::status_incomplete);
	EXPECT_NE(complaints.find("... and 20 more"), std::string::npos) << complaints;
}

TEST_F(Commands, show__a_log_that_overwrote_everything)
{
	options.action = Action::kShowRules;
	netlink.on_request = [this](const Bytes &) {
		log.overwrite();
		print("something much later\n");
	};
	expect_error<Failure>([this] { run(); }, { "overwrote", "log_buf_len", "moxctl tech" });
}

TEST_F(Commands, show__a_log_without_the_modules_lines)
{
	options.action = Action::kShowRules;
	expect_error<Failure>([this] { run(); }, { "no line of it", "mox_printk" });
}

TEST_F(Commands, show__without_the_right_to_read_the_log_nothing_is_asked)
{
	options.action = Action::kShowRules;
	log_error = EPERM;
	expect_error<Failure>([this] { run(); }, { "/dev/kmsg", "dmesg_restrict", "root" });
	// The one datagram is the look-up of the family for reading, which this module does not have.
	EXPECT_EQ(netlink.datagrams.size(), 1u);
	EXPECT_EQ(netlink.capture_look_ups, 1u);
	EXPECT_TRUE(netlink.payloads.empty());
}

TEST_F(Commands, show__a_log_that_breaks)
{
	options.action = Action::kShowRules;
	log.fail(EIO);
	expect_error<Failure>([this] { run(); }, { "/dev/kmsg", "Input/output error" });
}

TEST_F(Commands, the_note_is_said)
{
	options.action = Action::kFilter;
	options.note = "mind";
	run();
	EXPECT_EQ(complaints, "mind\n");
}

TEST_F(Commands, no_family)
{
	netlink.family_error = ENOENT;
	for (Action action : { Action::kShowRules, Action::kFilter, Action::kTech }) {
		options.action = action;
		expect_error<Failure>([this] { run(); }, { "PACKET_GENL", "mox_ef_socket.ko",
							   "initial network namespace" });
	}
	netlink.family_error = EPERM;
	expect_error<Failure>([this] { run(); }, { "PACKET_GENL", "Operation not permitted" });
}

TEST_F(Commands, a_family_without_an_id)
{
	options.action = Action::kFilter;
	netlink.family_answer = { 1, 2, 0, 0, 5, 0, 1, 0, 9, 0, 0, 0 };
	expect_error<Failure>([this] { run(); }, { "no id" });
	netlink.family_answer = { 1, 2, 0, 0 };
	expect_error<Failure>([this] { run(); }, { "no id" });
	netlink.family_answer = { 1, 2 };
	expect_error<Failure>([this] { run(); }, { "no id" });
}

TEST_F(Commands, a_refused_request)
{
	options.action = Action::kFilter;
	netlink.request_error = EPERM;
	expect_error<Failure>([this] { run(); }, { "refused", "Operation not permitted" });
	netlink.request_error = EOPNOTSUPP;
	expect_error<Failure>([this] { run(); }, { "refused", "own mox_ef_socket.ko" });
	netlink.request_error = ENOENT;
	expect_error<Failure>([this] { run(); }, { "no generic netlink family" });
}

TEST_F(Commands, no_acknowledgement_in_time)
{
	options.action = Action::kFilter;
	netlink.acknowledges = false;
	try {
		run();
		ADD_FAILURE() << "it ended";
	} catch (const Failure &failure) {
		EXPECT_EQ(failure.status(), moxctl::status_timeout);
	}
}

TEST_F(Commands, broken_messages_do_no_harm)
{
	options.action = Action::kFilter;
	for (std::size_t length = 1; length < 20; ++length)
		netlink.queue(Bytes(length, 0xff));
	netlink.queue(netlink_message(2, 0, 1, 0, {}));
	EXPECT_EQ(run(), moxctl::status_ok);
}

} // namespace
