// SPDX-License-Identifier: GPL-2.0-only
// Long reports are printed in batches, with the locks dropped between: how many, and what
// is printed of a list that changes meanwhile.
#include "control_fixture.h"

namespace {

Strings operator+(Strings a, const Strings &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

class LongReport : public ControlTest {
protected:
	void TearDown() override
	{
		socks.clear();
		ControlTest::TearDown();
	}
	// Sockets of processes "p0", "p1"... with one key for all.
	void open_sockets(int count)
	{
		for (; count; count--) {
			auto s = std::make_unique<Sock>();
			kernel().comm = "p" + std::to_string(socks.size());
			s->capture(PACKET_LEV2_LOC, PACKET_COPY);
			socks.push_back(std::move(s));
		}
		kernel().comm = "captured";
	}
	// The processes of the socket reports that were logged, in order.
	static Strings processes()
	{
		Strings names;
		for (const fake::Line &line : kernel().log)
			if (line.text.rfind("process:       ", 0) == 0)
				names.push_back(line.text.substr(15, line.text.size() - 16));
		kernel().log.clear();
		return names;
	}
	static Strings numbered(int from, int to)
	{
		Strings names;
		for (int i = from; i < to; i++)
			names.push_back("p" + std::to_string(i));
		return names;
	}
	// Everything that a call logs; no line while a lock is held, and the change lock only for
	// so many lines of text at a time.
	template <typename Call> static std::string unlocked(Call call)
	{
		kernel().log.clear();
		size_t before = 0;
		LockTrace trace;
		trace.look = [&](const std::string &step) {
			if (step == "+change")
				before = kernel().log.size();
			else if (step == "-change")
				EXPECT_EQ(kernel().log.size(), before) << "a line under the lock";
		};
		call();
		return said();
	}
	// Values of one type in the first socket's rule.
	void give_values(u32 count)
	{
		Bytes elements;
		for (u32 n = 0; n < count; n++)
			elements.insert(elements.end(), { u8(n), u8(n >> 8) });
		ASSERT_EQ(socks[0]->add(PACKET_IPv4_DEST_PORT_EQUAL, count, elements), 0);
	}

	std::vector<std::unique_ptr<Sock>> socks;
};

TEST_F(LongReport, sockets__any_number_in_order_and_no_line_under_the_lock)
{
	for (int count : { 0, 1, 3, 4, 5, 9, 100 }) {
		SCOPED_TRACE(count);
		open_sockets(count - socks.size());
		const int before = kernel().cond_rescheds, schedules = kernel().schedules;
		std::string text = unlocked(
			[] { mox_packet_show_regular_spec(12, 2, nullptr, 4711); });
		std::string wanted;
		for (auto &s : socks)
			wanted += printed([&] { mox_packet_sock_dump(&s->po()); });
		EXPECT_EQ(text, wanted);
		EXPECT_GE(kernel().cond_rescheds - before, count / 8)
			<< "the CPU is offered between";
		EXPECT_EQ(kernel().schedules, schedules) << "and not given up";
	}
}

TEST_F(LongReport, sockets__of_one_process_among_many)
{
	open_sockets(1000);
	mox_packet_show_regular_spec(11, 2, "p999", 0);
	EXPECT_EQ(processes(), numbered(999, 1000));
}

// A rule whose values fill many pages reads as a short one's.
TEST_F(LongReport, values__of_one_rule_in_parts)
{
	for (u32 count : { 1u, 63u, 64u, 65u, 2000u }) {
		SCOPED_TRACE(count);
		socks.clear();
		open_sockets(2);
		give_values(count);
		std::string wanted;
		for (const list_head *link : links(&g_lev2_packet_regular_lib.regulars))
			wanted += printed([&] {
				mox_packet_sock_dump(record_of<packet_regular,
							       offsetof(packet_regular, lib_node)>(
							     const_cast<list_head *>(link))
							     ->owner);
			});
		EXPECT_EQ(unlocked([] { mox_packet_show_regular_spec(12, 2, nullptr, 4711); }),
			  wanted);
	}
}

TEST_F(LongReport, filter_list__any_number_and_no_line_under_the_lock)
{
	open_sockets(200);
	give_values(500); // conditions of the copy
	std::string text = unlocked([] { pkt_show_filter_list(&g_lev2_packet_regular_lib); });
	std::string wanted =
		"filter regular list cnt: 1\nregular type:  PACKET_ALL\nregular data:  \n  match regulars:\n";
	for (const std::string &name : numbered(1, 200))
		wanted += "    process:      " + name + "\n    PACKET TREATMENT:   PACKET_COPY\n";
	wanted += "    process:      p0\n    PACKET TREATMENT:   PACKET_COPY\n"
		  "    regular type:  PACKET_IPv4_DEST_PORT_EQUAL\n";
	for (u32 n = 0; n < 500; n++)
		wanted += "    regular data:  " + std::to_string((n & 255) << 8 | n >> 8) + "  \n";
	EXPECT_EQ(text, wanted + "\n");
}

// Sockets that go between two pages: each that stays is reported, once.
TEST_F(LongReport, race__sockets_that_go)
{
	open_sockets(40);
	bool gone = false;
	kernel().at[Point::kCondResched] = [&](const void *) {
		if (gone)
			return;
		gone = true;
		// The next one, one further on, the last ones; and two that were reported.
		std::vector<std::unique_ptr<Sock>> stay;
		for (size_t n = 0; n < 20; n++)
			if (n > 1 && n != 12)
				stay.push_back(std::move(socks[n]));
		socks = std::move(stay);
	};
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	kernel().at.clear();
	Strings got = processes();
	ASSERT_GE(got.size(), 3u);
	EXPECT_EQ(got, numbered(0, 12) + numbered(13, 20));
}

// Sockets that come as fast as others are printed are not part of the report.
TEST_F(LongReport, race__sockets_that_come)
{
	open_sockets(40);
	int pages = 0;
	kernel().at[Point::kCondResched] = [&](const void *) {
		ASSERT_LT(pages++, 100) << "a report without an end";
		if (!kernel().holds(fake::LockKind::kChange))
			open_sockets(1);
	};
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	kernel().at.clear();
	EXPECT_EQ(processes(), numbered(0, 40));
	EXPECT_GT(pages, 4);
}

// A socket that is closed, or whose rule changes, while its values are printed: its report ends
// with all of its last lines, the next socket's follows, and nothing of it is read once it is gone.
TEST_F(LongReport, race__the_socket_that_is_printed)
{
	for (bool closed : { false, true }) {
		SCOPED_TRACE(closed);
		socks.clear();
		open_sockets(3);
		give_values(2000);
		bool done = false;
		kernel().at[Point::kCondResched] = [&](const void *) {
			if (done || kernel().holds(fake::LockKind::kChange) ||
			    !kernel().count_said("PACKET_IPv4_DEST_PORT_EQUAL"))
				return;
			done = true;
			if (closed)
				socks[0].reset();
			else
				on_other_cpu(
					[&] { socks[0]->set(PACKET_LOCATION, PACKET_NONE_LOC); });
		};
		kernel().log.clear();
		mox_packet_show_regular_spec(12, 2, nullptr, 4711);
		kernel().at.clear();
		EXPECT_TRUE(done);
		EXPECT_EQ(kernel().count_said("sk refcnt:"), 3u);
		EXPECT_EQ(kernel().count_said("PACKET TREATMENT:"), 3u);
		EXPECT_EQ(kernel().count_said("               "),
			  0u + kernel().count_said("  \n") - 1)
			<< "values";
		EXPECT_LT(kernel().count_said("               "), 1999u);
		// p0 changed its rule last and so stands at the end of the list.
		EXPECT_EQ(processes(), (Strings{ "p1", "p2", "p0" }));
	}
}

// The same in a namespace that goes with it.
TEST_F(LongReport, race__the_namespace_of_the_socket_that_is_printed)
{
	socks.push_back(std::make_unique<Sock>());
	ASSERT_EQ(socks[0]->create(kRaw, 0, &other_ns), 0);
	give_values(2000);
	ASSERT_EQ(socks[0]->set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(socks[0]->set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	const int refs = other_ns.refs;
	u32 freed = 0;
	kernel().at[Point::kSockPut] = [&](const void *of) {
		const auto *sk = static_cast<const sock *>(of);
		if (sk->refs > 1)
			return;
		freed++;
		EXPECT_EQ(sk->ns, &other_ns);
		EXPECT_EQ(other_ns.refs, refs) << "the kernel looks at it";
	};
	kernel().at[Point::kCondResched] = [&](const void *) {
		if (socks.empty() || kernel().holds(fake::LockKind::kChange) ||
		    !kernel().count_said("PACKET_IPv4_DEST_PORT_EQUAL"))
			return;
		socks.clear();
		EXPECT_EQ(other_ns.refs, refs) << "the report's";
	};
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	kernel().at.clear();
	EXPECT_EQ(freed, 1u);
	EXPECT_EQ(other_ns.refs, refs - 1);
}

// A key that goes while its rules are printed ends there, and the next key follows.
TEST_F(LongReport, race__the_key_that_is_printed)
{
	open_sockets(200);
	Sock other;
	ASSERT_EQ(other.create(), 0);
	ASSERT_EQ(other.add(PACKET_ARP_TYPE, 1, { 7, 0 }), 0);
	ASSERT_EQ(other.set(PACKET_TREATMENT, PACKET_COPY), 0);
	ASSERT_EQ(other.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	kernel().at[Point::kCondResched] = [&](const void *) {
		if (kernel().count_said("    process:"))
			socks.clear();
	};
	std::string text = printed([] { pkt_show_filter_list(&g_lev2_packet_regular_lib); });
	kernel().at.clear();
	EXPECT_NE(text.find("    process:      p0\n"), std::string::npos);
	EXPECT_EQ(text.find("    process:      p199\n"), std::string::npos);
	std::string next =
		"\nregular type:  PACKET_ARP_TYPE\nregular data:  7  \n  match regulars:\n";
	ASSERT_NE(text.find(next), std::string::npos);
	EXPECT_EQ(text.find("    process:", text.find(next)), text.find(next) + next.size());
}

// A local fetch rule goes in front of all rules of its key, also of those a report has not begun.
TEST_F(LongReport, race__a_local_fetch_rule_that_comes)
{
	open_sockets(100);
	std::vector<std::unique_ptr<Sock>> local;
	for (u32 treatment : { PACKET_COPY_LOCAL, PACKET_FETCH_LOCAL, PACKET_COPY_LOCAL }) {
		local.push_back(std::make_unique<Sock>());
		kernel().comm = "local" + std::to_string(local.size());
		local.back()->capture(PACKET_LEV2_LOC, treatment);
	}
	kernel().at[Point::kCondResched] = [&](const void *) {
		if (local.size() > 3 || kernel().holds(fake::LockKind::kChange) ||
		    !kernel().count_said("    process:"))
			return;
		EXPECT_EQ(kernel().count_said("    process:      local"), 0u) << "too late";
		local.push_back(std::make_unique<Sock>());
		kernel().comm = "late";
		local.back()->capture(PACKET_LEV2_LOC, PACKET_FETCH_LOCAL);
	};
	const std::string text = printed([] { pkt_show_filter_list(&g_lev2_packet_regular_lib); });
	kernel().at.clear();
	kernel().comm = "captured";
	ASSERT_EQ(local.size(), 4u);
	size_t at = text.find("    process:      p99\n");
	ASSERT_NE(at, std::string::npos);
	for (const char *name : { "local2", "local1", "local3" }) {
		at = text.find("    process:      " + std::string(name) + "\n", at);
		ASSERT_NE(at, std::string::npos) << name;
	}
}

// A socket that goes before its report has begun must not end that of the next one, whose values
// fill several pages.
TEST_F(LongReport, race__a_socket_that_goes_in_front_of_a_long_one)
{
	open_sockets(40);
	Bytes ports;
	for (u32 n = 0; n < 600; n++)
		ports.insert(ports.end(), { u8(n), u8(n >> 8) });
	// Every rule from the second on is long, so that the next one is, wherever a page ends.
	for (size_t n = 1; n < socks.size(); n++)
		ASSERT_EQ(socks[n]->add(PACKET_IPv4_DEST_PORT_EQUAL, 600, ports), 0);
	size_t gone = 0;
	kernel().at[Point::kCondResched] = [&](const void *) {
		// Between two pages, with the last socket printed to its end.
		const auto &log = kernel().log;
		if (gone || kernel().holds(fake::LockKind::kChange) || log.empty() ||
		    log.back().text.rfind("sk refcnt:", 0) != 0)
			return;
		gone = kernel().count_said("sk refcnt:");
		socks[gone].reset();
	};
	kernel().log.clear();
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	kernel().at.clear();
	ASSERT_GT(gone, 0u);
	EXPECT_EQ(kernel().count_said("  \n"), 600u * 38) << "every value of every long rule";
	EXPECT_EQ(processes(), numbered(0, gone) + numbered(gone + 1, 40));
}

TEST_F(LongReport, fatal_signal__ends_it)
{
	open_sockets(100);
	int pages = 0, last = 3;
	kernel().at[Point::kCondResched] = [&](const void *) { kernel().killed = ++pages == last; };
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	size_t sockets = processes().size();
	EXPECT_GT(sockets, 2u);
	EXPECT_LT(sockets, 100u);
	pages = 0;
	last = 1;
	kernel().killed = false;
	std::string text = printed([] { pkt_show_filter_list(&g_lev2_packet_regular_lib); });
	EXPECT_EQ(text.find("p99\n"), std::string::npos);
	kernel().at.clear();
	kernel().killed = false;
	// The next report finds nothing left of these.
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	EXPECT_EQ(processes(), numbered(0, 100));
}

} // namespace
