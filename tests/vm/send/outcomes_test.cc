// SPDX-License-Identifier: GPL-2.0-only
// What the platform answers to a send, and what is printed about it.
#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/prctl.h>
#include <thread>

#include "support/send.h"

namespace {

using namespace vm;

class Outcomes : public SendTest {
protected:
	Send send(uint32_t flags = 0) const
	{
		Send send;
		send.data = counting(60);
		send.with({}).to(lab::kPortA);
		send.control.flags = flags;
		return send;
	}
};

/// An outcome; the name that goes with it when it is a failure, null when it is a success.
struct Outcome {
	int32_t number;
	const char *failure;
};
// Only the named drop and what is beyond the last name are failures: daemons count on a negative answer being none.
constexpr Outcome kOutcomes[] = {
	{ INT_MIN, nullptr }, { -9, nullptr },   { -1, nullptr },       { 0, nullptr },
	{ 1, "drop" },        { 2, nullptr },    { 3, nullptr },        { 4, nullptr },
	{ 5, nullptr },       { 6, nullptr },    { 7, nullptr },        { 8, "(null)" },
	{ 9, "(null)" },      { 255, "(null)" }, { INT_MAX, "(null)" },
};

TEST_F(Outcomes, each_number_whether_the_frame_left_or_not)
{
	for (Outcome outcome : kOutcomes)
		for (bool really_sent : { false, true })
			for (bool debug_send : { false, true }) {
				SCOPED_TRACE(std::to_string(outcome.number) +
					     (really_sent ? " sent" : " freed") +
					     (debug_send ? " debug" : ""));
				Socket socket(SOCK_RAW);
				platform().override_outcome(outcome.number, 1, really_sent);
				Trial trial = attempt(socket, send(debug_send ? MOX_SEND_DEBUG : 0),
						      true);
				EXPECT_EQ(trial.error, outcome.failure ? ENETUNREACH : 0);
				EXPECT_EQ(trial.result, outcome.failure ? -1 : 60);
				EXPECT_EQ(trial.counters,
					  (outcome.failure ? SendCounters{ .ef_send = 1 }
							   : SendCounters{ .sent = 1 }));
				EXPECT_EQ(trial.left.size(), really_sent ? 1u : 0u);
				EXPECT_EQ(trial.given, 1u);
				EXPECT_EQ(trial.freed, 0u)
					<< "the platform's from the call on, success or failure";
				EXPECT_EQ(platform().balance(0).live_all, 0u);
				std::string text =
					std::string("MOX-PACKET-SEND: process vm_send send ") +
					(debug_send ? "debug " : "") + "pkt %p in vsd 0" +
					(outcome.failure
						 ? std::string(", fail: ") + outcome.failure + "."
						 : " success.");
				EXPECT_TRUE(HasLineLike(trial.lines, text));
				EXPECT_FALSE(HasLineLike(
					trial.lines,
					"MOX-PACKET-SEND: process vm_send send debug pkt fail: %u."))
					<< "that line is for failures before the platform is asked";
			}
}

TEST_F(Outcomes, the_platforms_own_answers)
{
	struct Row {
		Bytes destination;
		const char *what;
	};
	for (const Row &row : { Row{ { 0xff, 0xff, 0xff, 0xff, 0xff, 0xff }, "broadcast" },
				{ { 0x01, 0x80, 0xc2, 0, 0, 0x0e }, "resv broadcast" },
				{ { 0x01, 0, 0x5e, 0x7f, 0, 1 }, "multicast" },
				{ { 0x02, 0, 0, 0, 0, 1 }, "normal" } }) {
		Socket socket(SOCK_RAW);
		Send one = send();
		std::copy(row.destination.begin(), row.destination.end(), one.data.begin());
		EXPECT_EQ(leaves(socket, one).ifindex, lab::kPortA) << row.what;
	}
}

/// What a debug send prints when it fails before the platform is asked: the errno it returns, sign included.
TEST_F(Outcomes, a_debug_send_reports_its_errno)
{
	struct Row {
		void (*break_it)(Send &send);
		const char *text;
	};
	for (Row row :
	     { Row{ [](Send &s) { s.name_length = 19; }, "fail: -22." },
	       { [](Send &) { lab::fail(lab::Fail::Alloc, 1); }, "fail: -12." },
	       { [](Send &s) { s.at = reinterpret_cast<void *>(8), s.at_length = 60; },
		 "fail: -14." },
	       { [](Send &s) { s.address().sll_ifindex = int(lab::kNoSuchInterface); },
		 "fail: -6." },
	       { [](Send &s) { s.address().sll_ifindex = int(lab::kPortDown); }, "fail: -100." },
	       { [](Send &s) { s.control.pkt_ifx = lab::kNoSuchInterface; }, "fail: -6." } })
		for (bool debug_send : { false, true }) {
			Socket socket(SOCK_RAW);
			Send one = send(debug_send ? MOX_SEND_DEBUG : 0);
			row.break_it(one);
			Trial trial = attempt(socket, one, true);
			EXPECT_EQ(trial.result, -1);
			std::string text =
				std::string("MOX-PACKET-SEND: process vm_send send debug pkt ") +
				row.text;
			EXPECT_EQ(bool(HasLine(trial.lines, text)), debug_send) << text;
		}
}

TEST_F(Outcomes, all_lines_of_a_send_in_order)
{
	Send one = send(~0u);
	one.control.pkt_ifx = lab::kPortB;
	one.control.pkt_origifx = 11;
	one.control.pkt_l2ifx = 12;
	one.control.pkt_dst_l2ifx = 13;
	one.control.inner_vid = 0xabc7;
	one.control.ex_inner_vlan = 0xdef;
	one.control.wlan_id = 0x21;
	one.control.ap_wlan_id = 0x43;
	one.control.radio_id = 0x65;
	Socket socket(SOCK_RAW);
	const std::vector<std::string> beginning = {
		"MOX-PACKET-SEND: process vm_send send pkt, len 60.",
		"MOX-PACKET-SEND: ctrl pkt_ifx:212, pkt_origifx:11, pkt_l2ifx:12, pkt_dst_l2ifx:13",
		"MOX-PACKET-SEND: ctrl eth_info.inner_vid:0xabc, ex_inner_vlan:0xdef.",
		"MOX-PACKET-SEND: ctrl wlan_id:0x21, ap_wlan_id:0x43, radio_id:0x65.",
	};
	std::vector<std::string> wanted = beginning;
	for (const char *line :
	     { "MOX-PACKET-SEND: send src intf: port-b, dst intf: port-a.",
	       "MOX-PACKET-SEND: vxlan encap flag.", "MOX-PACKET-SEND: block send.",
	       "MOX-PACKET-SEND: not match acl.", "MOX-PACKET-SEND: proxy capture packet, resend.",
	       "MOX-PACKET-SEND: process vm_send send debug pkt %p in vsd 0 success." })
		wanted.push_back(line);
	EXPECT_TRUE(LinesAre(attempt(socket, one, true).lines, wanted));

	one.address().sll_ifindex = 0;
	EXPECT_TRUE(HasLine(attempt(socket, one, true).lines,
			    "MOX-PACKET-SEND: send src intf: port-b, dst intf: no dst."));
}

TEST_F(Outcomes, a_send_without_control_record_prints_little)
{
	Socket socket(SOCK_RAW);
	Send one;
	one.data = counting(60);
	one.to(lab::kPortA);
	EXPECT_TRUE(LinesAre(attempt(socket, one, true).lines,
			     { "MOX-PACKET-SEND: process vm_send send pkt, len 60.",
			       "MOX-PACKET-SEND: process vm_send send pkt %p in vsd 0 success." }));
}

TEST_F(Outcomes, each_flags_line_comes_with_its_flag_alone)
{
	Socket socket(SOCK_RAW);
	for (int bit = 0; bit < 32; ++bit) {
		Trial trial = attempt(socket, send(1u << bit), true);
		for (const contract::SendFlag &f : contract::kSendFlags)
			if (f.line) {
				EXPECT_EQ(bool(HasLine(trial.lines,
						       std::string("MOX-PACKET-SEND: ") + f.line)),
					  f.flag == 1u << bit)
					<< "bit " << bit << ": " << f.line;
			}
	}
}

} // namespace
