// SPDX-License-Identifier: GPL-2.0-only
// The control channel: the family's life, receiving, and each request that asks for a
// report or an answer. What changes something has its own tests (msg_switch_test.cc).
#include <functional>

#include "control_fixture.h"

namespace {

using Msg = ControlTest;

// Every type that the channel knows, the first beyond, and the last number.
const u16 kTypes[] = { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 65535 };

// ---- the family's life ------------------------------------------------------------

TEST_F(Msg, init__registers_once)
{
	EXPECT_EQ(mox_packet_msg_inited, 1);
	EXPECT_EQ(mox_packet_msg_init(), 0);
	EXPECT_EQ(kernel().calls(Fail::kGenlRegister), 1u);
	mox_packet_msg_deinit();
	EXPECT_EQ(mox_packet_msg_inited, 0);
	mox_packet_msg_deinit();
	EXPECT_EQ(kernel().journal, Strings{ "genl-" });
	EXPECT_EQ(mox_packet_msg_init(), 0);
	EXPECT_EQ(kernel().calls(Fail::kGenlRegister), 2u);
}

TEST_F(Msg, init__failure_is_printed_and_passed_back)
{
	mox_packet_msg_deinit();
	for (int error : { -17, -12, -1 }) {
		kernel().error[Fail::kGenlRegister] = error;
		kernel().fail(Fail::kGenlRegister);
		EXPECT_EQ(mox_packet_msg_init(), error);
		EXPECT_EQ(said(), "Failed to register generic netlink family, errno " +
					  std::to_string(error) + "\n");
		EXPECT_EQ(mox_packet_msg_inited, 0);
	}
	EXPECT_EQ(mox_packet_msg_init(), 0);
}

TEST_F(Msg, deinit__keeps_switches_and_filter)
{
	ask(14, debug_body(3, 1));
	ask(15, Bytes(72, 0x11));
	std::vector<u8> filter = filter_bytes();
	mox_packet_msg_deinit();
	EXPECT_EQ(mox_packet_debug[3], 1);
	EXPECT_EQ(filter_bytes(), filter);
	EXPECT_EQ(mox_packet_msg_init(), 0);
}

// ---- receiving ------------------------------------------------------------------------

TEST_F(Msg, recv__shorter_than_24_bytes_is_refused)
{
	const u32 before = g_packet_msg_recv;
	for (int len = 0; len < 24; len++) {
		SCOPED_TRACE(len);
		debug(false);
		EXPECT_EQ(receive(message({}, len)), -1);
		EXPECT_EQ(said(), "");
		debug();
		EXPECT_EQ(receive(message({}, len)), -1);
		EXPECT_EQ(said(), tagged("Netlink message length error.\n"));
	}
	EXPECT_EQ(g_packet_msg_recv, before);
}

TEST_F(Msg, recv__24_bytes_ask_for_type_0)
{
	const std::string wanted = printed([] { mox_packet_show_regular(0); });
	EXPECT_EQ(receive(message({})), 0);
	EXPECT_EQ(answer(), wanted);
}

// Whatever is cut off reads as zero, for every type and at every length.
TEST_F(Msg, recv__cut_at_every_length_means_zeros)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	Bytes body = debug_body(3, 1);
	body.resize(72, 0x41);
	for (u16 type : kTypes)
		for (int len = 24; len <= 100; len++) {
			SCOPED_TRACE("type " + std::to_string(type) + " length " +
				     std::to_string(len));
			Bytes whole = message(record(type, body));
			ASSERT_EQ(whole.size(), 100u);
			Bytes cut(whole.begin(), whole.begin() + len);
			const u32 cut_len = len;
			memcpy(&cut[0], &cut_len, 4);
			Bytes padded = cut;
			padded.resize(100, 0);
			padded[0] = 100;
			struct {
				std::string text;
				std::vector<u8> switches, filter;
				Strings registrations;
			} seen[2];
			for (int i = 0; i < 2; i++) {
				memset(mox_packet_debug, 0, sizeof mox_packet_debug);
				efmp().registrations.clear();
				kernel().log.clear();
				EXPECT_EQ(receive(i ? padded : cut), 0);
				seen[i] = { said(), switches(), filter_bytes(),
					    efmp().registrations };
			}
			EXPECT_EQ(seen[0].text, seen[1].text);
			EXPECT_EQ(seen[0].switches, seen[1].switches);
			EXPECT_EQ(seen[0].filter, seen[1].filter);
			EXPECT_EQ(seen[0].registrations, seen[1].registrations);
		}
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

// The attribute's type and length, and everything in the headers but the message's
// length, decide nothing.
TEST_F(Msg, recv__attribute_header_and_command_are_not_looked_at)
{
	for (int nla_len : { 0, 3, 4, 5, 100, 65535 }) {
		Bytes m = message(record(14, debug_body(5, 1)), -1, nla_len);
		m[16] = 0x77; // command
		m[17] = 0x66; // version
		m[18] = 0x55;
		m[22] = nla_len;
		m[23] = 0xc0; // nested, network order
		EXPECT_EQ(receive(m), 0);
		EXPECT_EQ(mox_packet_debug[5], 1);
		mox_packet_debug[5] = 0;
	}
}

TEST_F(Msg, recv__prints_the_attributes_length_and_counts)
{
	debug();
	const u32 before = g_packet_msg_recv;
	const struct {
		int nla_len, claimed;
	} cases[] = { { 0, -4 }, { 4, 0 }, { 8, 4 }, { 80, 76 }, { 65535, 65531 } };
	for (auto &c : cases) {
		EXPECT_EQ(receive(message(record(17), -1, c.nla_len)), 0);
		EXPECT_TRUE(kernel().said(
			tagged("Deal message, length:" + std::to_string(c.claimed) + ".\n")));
		kernel().log.clear();
	}
	EXPECT_EQ(g_packet_msg_recv, before + 5);
	debug(false);
	ask(17);
	EXPECT_EQ(answer(), "");
	EXPECT_EQ(g_packet_msg_recv, before + 6);
}

// A message may be longer than any record; the rest is left alone.
TEST_F(Msg, recv__longer_than_a_record)
{
	Bytes r = record(14, debug_body(7, 1));
	r.resize(4000, 0xff);
	EXPECT_EQ(receive(message(r)), 0);
	EXPECT_EQ(mox_packet_debug[7], 1);
}

// ---- dispatching ------------------------------------------------------------------------

TEST_F(Msg, deal__prints_who_asks_for_every_type_but_16)
{
	kernel().comm = "fifteen-letters";
	const std::string who = "Deal message from 74565, fifteen-letters.\n";
	for (u16 type : kTypes)
		for (bool on : { false, true }) {
			SCOPED_TRACE(type);
			memset(mox_packet_debug, 0, sizeof mox_packet_debug);
			debug(on);
			ask(type);
			EXPECT_EQ(kernel().count_said("Deal message from"), type == 16 ? 0u : 1u);
			EXPECT_EQ(kernel().said(who), type != 16);
			EXPECT_EQ(kernel().said(tagged("MSG TYPE " + std::to_string(type) +
						       ", client 74565\n")),
				  on);
			kernel().log.clear();
		}
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

TEST_F(Msg, deal__each_report)
{
	Sock s, t;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	t.capture(PACKET_RESV_LOC, PACKET_TRAP);
	const std::function<void()> reports[] = {
		[] { mox_packet_show_regular(0); },
		[] { mox_packet_show_regular(1); },
		[] { mox_packet_show_regular(2); },
		[] { mox_packet_show_regular(3); },
		[] { mox_packet_show_regular(4); },
		[] { mox_packet_show_regular(5); },
		[] { mox_packet_show_regular(6); },
		[] { mox_packet_show_regular(7); },
		[] {
			for (u32 i = 0; i < 8; i++) {
				mox_packet_show_regular(i);
				mox_printk("\n");
			}
		},
		[] {
			for (u32 location = 1; location <= 8; location++)
				mox_packet_show_cpu_queue(location);
		},
		[] { mox_packet_dump_mem(); },
		nullptr, // by process, below
		nullptr,
		[] { mox_packet_dump_thread(); },
	};
	for (u16 type = 0; type <= 13; type++) {
		if (!reports[type])
			continue;
		SCOPED_TRACE(type);
		std::string wanted = printed(reports[type]);
		EXPECT_GT(wanted.size(), 20u);
		ask(type);
		EXPECT_EQ(answer(), wanted);
	}
}

TEST_F(Msg, deal__unknown_types_do_nothing)
{
	for (u16 type : { u16(17), u16(18), u16(255), u16(256), u16(272), u16(65535) }) {
		debug(false);
		ask(type);
		EXPECT_EQ(answer(), "");
		debug();
		ask(type);
		EXPECT_TRUE(kernel().said(tagged("MSG TYPE ILLEGAL.\n")));
		EXPECT_EQ(kernel().log.size(), 4u);
		kernel().log.clear();
	}
}

// ---- processes -----------------------------------------------------------------------------

TEST_F(Msg, show_name__heading_and_the_sockets_of_that_name)
{
	Sock lldpd, other;
	kernel().comm = "lldpd";
	lldpd.capture(PACKET_LEV2_LOC, PACKET_COPY);
	kernel().comm = "lldpd2";
	other.capture(PACKET_LEV2_LOC, PACKET_COPY);
	kernel().comm = "captured";
	std::string wanted = printed([&] { mox_packet_sock_dump(&lldpd.po()); });
	ask(11, { 'l', 'l', 'd', 'p', 'd', 0, 'x', 'x' });
	EXPECT_EQ(answer(), "show process lldpd regular:\n" + wanted);
	// The end of the message ends the name as well.
	ask(11, { 'l', 'l', 'd', 'p', 'd' });
	EXPECT_EQ(answer(), "show process lldpd regular:\n" + wanted);
	ask(11, { 'L', 'l', 'd', 'p', 'd', 0 });
	EXPECT_EQ(answer(), "show process Lldpd regular:\n");
	ask(11, {});
	EXPECT_EQ(answer(), "show process  regular:\n");
}

// A name goes up to its NUL or the message's end and is compared whole: one that is longer
// than a process name can be is the name of no process.
TEST_F(Msg, show_name__is_compared_whole)
{
	Sock s;
	kernel().comm = "fifteen-letters";
	s.capture(PACKET_WLAN_LOC, PACKET_COPY);
	kernel().comm = "captured";
	const std::string report = printed([&] { mox_packet_sock_dump(&s.po()); });
	const std::string name = "fifteen-letters", body(72, 'x');
	const struct {
		std::string sent, heading;
		bool found;
	} cases[] = {
		{ name, name, true },
		{ name + std::string("\0junk", 5), name, true },
		{ name.substr(0, 14), name.substr(0, 14), false },
		{ name + "!", name + "!", false },
		{ name + "-and-more", name + "-and-more", false },
		{ name + body.substr(15), name + body.substr(15), false },
		// Longer than the record's body, up to the message's end.
		{ body, body, false },
		{ body + "beyond it", body + "beyond it", false },
	};
	for (auto &c : cases) {
		ask(11, Bytes(c.sent.begin(), c.sent.end()));
		EXPECT_EQ(answer(),
			  "show process " + c.heading + " regular:\n" + (c.found ? report : ""))
			<< c.sent;
	}
}

// The longest name that an attribute holds. The log cuts the heading long before its end.
TEST_F(Msg, show_name__of_any_length)
{
	for (size_t length : { 1023, 1024, 1025, 32767, 32768, 40000, 65000 }) {
		ask(11, Bytes(length, 'x'));
		const std::string shown(std::min<size_t>(length, 1024), 'x');
		EXPECT_EQ(answer(), "show process " + shown + " regular:\n") << length;
	}
}

TEST_F(Msg, show_pid__heading_and_the_sockets_of_that_process)
{
	Sock a, b, c;
	kernel().pid = 100;
	a.capture(PACKET_WLAN_LOC, PACKET_COPY);
	b.capture(PACKET_LOCAL_LOC, PACKET_FETCH);
	kernel().pid = 101;
	c.capture(PACKET_LOCAL_LOC, PACKET_COPY);
	std::string first = printed([&] { mox_packet_sock_dump(&b.po()); });
	std::string second = printed([&] { mox_packet_sock_dump(&a.po()); });
	ask(12, u32_bytes(100));
	EXPECT_EQ(answer(), "show process 100 regular:\n" + first + second)
		<< "in the order of the locations";
	ask(12, u32_bytes(99));
	EXPECT_EQ(answer(), "show process 99 regular:\n");
}

TEST_F(Msg, show_pid__zero_and_below)
{
	for (u32 pid : { 0u, 0xffffffffu, 0x80000000u }) {
		debug(false);
		ask(12, u32_bytes(pid));
		const std::string head = "show process " + std::to_string(static_cast<s32>(pid)) +
					 " regular:\n";
		EXPECT_EQ(answer(), head);
		debug();
		ask(12, u32_bytes(pid));
		EXPECT_TRUE(kernel().said(head));
		EXPECT_EQ(
			kernel().count_said(tagged("MOX-PACKET-SHOW-REGULAR-SPEC: pid is <= 0!\n")),
			8u);
		kernel().log.clear();
	}
}

// ---- the answer ----------------------------------------------------------------------------------

TEST_F(Msg, ask__answer_to_the_byte)
{
	debug();
	ask(16);
	ASSERT_EQ(kernel().answers.size(), 1u);
	EXPECT_EQ(kernel().answers[0].client, kClient);
	EXPECT_EQ(kernel().answers[0].message,
		  (Bytes{ 24,   0,    0, 0, 0x1f, 0, 0, 0, 0, 0, 0, 0,
			  0x45, 0x23, 1, 0, 0,    1, 0, 0, 4, 0, 1, 0 }));
	EXPECT_EQ(kernel().log.back().text, tagged("Ask msg success.\n"));
	debug(false);
	kernel().log.clear();
	ask(16);
	EXPECT_EQ(said(), "");
	EXPECT_EQ(kernel().answers.size(), 2u);
}

TEST_F(Msg, ask__each_failure)
{
	const struct {
		Fail call;
		int result;
		const char *line;
	} cases[] = {
		{ Fail::kGenlAlloc, -12, "Malloc skb fail.\n" },
		{ Fail::kGenlPut, -1, "Genlmsg_put fail.\n" },
		{ Fail::kNlaPut, -1, "Nla_put fail, ret -90.\n" },
		{ Fail::kGenlUnicast, -1, "Genlmsg_unicast fail, ret -111.\n" },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.line);
		debug(false);
		kernel().fail(c.call);
		EXPECT_EQ(pkt_ask_msg(kClient), c.result);
		EXPECT_EQ(said(), "");
		debug();
		kernel().fail(c.call);
		EXPECT_EQ(pkt_ask_msg(kClient), c.result);
		EXPECT_EQ(said(), tagged(c.line));
		kernel().fail(c.call);
		ask(16);
		EXPECT_FALSE(kernel().said(tagged("Ask msg success.\n")));
		kernel().log.clear();
		EXPECT_TRUE(kernel().skbs.empty()) << "the buffer is freed";
	}
	EXPECT_TRUE(kernel().answers.empty());
}

TEST_F(Msg, ask__is_sent_without_a_file)
{
	kernel().fail(Fail::kFileOpen);
	ask(16);
	EXPECT_EQ(kernel().answers.size(), 1u);
	kernel().fail(Fail::kVzalloc);
	ask(16);
	EXPECT_EQ(kernel().answers.size(), 2u);
}

// ---- taking turns --------------------------------------------------------------------

// Each request holds one mutex for as long as it lasts: dumps one, all others another. A
// requester that is killed before its turn leaves no trace.
TEST_F(Msg, turn__a_killed_requester_changes_nothing)
{
	debug(true);
	for (u16 type = 0; type <= 18; type++) {
		SCOPED_TRACE(type);
		const auto before = switches();
		const auto filter = filter_bytes();
		const u32 taken = g_packet_msg_recv;
		kernel().log.clear();
		kernel().fail(Fail::kLockKillable);
		EXPECT_EQ(receive(message(record(type, Bytes(72, 1)))), -4);
		EXPECT_EQ(said(), "");
		EXPECT_EQ(g_packet_msg_recv, taken);
		EXPECT_EQ(switches(), before);
		EXPECT_EQ(filter_bytes(), filter);
		EXPECT_TRUE(kernel().answers.empty());
		EXPECT_TRUE(kernel().disk.empty());
		mox_packet_request raw{};
		raw.msg_type = type;
		kernel().fail(Fail::kLockKillable);
		EXPECT_EQ(mox_packet_msg_deal(&raw, kClient), -4);
		EXPECT_EQ(said(), "");
	}
}

TEST_F(Msg, turn__the_mutex_is_held_from_the_first_line_to_the_last)
{
	debug(true);
	for (u16 type = 0; type <= 18; type++) {
		SCOPED_TRACE(type);
		using fake::LockKind;
		const LockKind mine = type == 16 ? LockKind::kDump : LockKind::kRequest;
		const LockKind other = type == 16 ? LockKind::kRequest : LockKind::kDump;
		size_t taken = 0, silent = 0;
		debug(true);
		kernel().log.clear();
		kernel().at[Point::kLock] = [&](const void *) {
			taken += kernel().held.size() == 1 && kernel().holds(mine);
			silent += taken == 1 && kernel().log.empty();
			EXPECT_FALSE(kernel().holds(other));
			EXPECT_TRUE(kernel().holds(mine));
		};
		kernel().at[Point::kUnlocking] = [&](const void *) {
			EXPECT_TRUE(kernel().holds(mine));
		};
		ask(type, Bytes(8));
		kernel().at.clear();
		EXPECT_EQ(taken, 1u);
		EXPECT_GT(silent, 0u);
		EXPECT_NE(said(), "");
		EXPECT_FALSE(kernel().holds(mine));
	}
	memset(mox_packet_debug, 0, sizeof(mox_packet_debug));
}

// A requester that is killed during a report does not print the rest of it.
TEST_F(Msg, killed__the_rest_of_a_report_is_not_printed)
{
	for (u16 type : { 8, 16 }) {
		SCOPED_TRACE(type);
		ask(type, u32_bytes(4711));
		const size_t whole = said().size() + kernel().writes.size();
		kernel().writes.clear();
		int locks = 0;
		kernel().at[Point::kUnlock] = [&](const void *) {
			if (++locks == 6)
				kernel().killed = true;
		};
		ask(type, u32_bytes(4711));
		kernel().at.clear();
		kernel().killed = false;
		EXPECT_GE(locks, 6);
		const size_t part = said().size() + kernel().writes.size();
		kernel().writes.clear();
		EXPECT_LT(part, whole);
		EXPECT_GT(part, 0u);
	}
}

} // namespace
