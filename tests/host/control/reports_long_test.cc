// SPDX-License-Identifier: GPL-2.0
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
	// How often the library's lock was taken for reading by a call.
	template <typename Call> static int looks(Call call)
	{
		LockTrace trace;
		call();
		return std::count(trace.steps.begin(), trace.steps.end(), "+lib");
	}

	std::vector<std::unique_ptr<Sock>> socks;
};

TEST_F(LongReport, sockets__eight_in_the_log_under_one_lock)
{
	const struct {
		int sockets, looks;
	} cases[] = { { 0, 1 }, { 1, 1 }, { 8, 1 }, { 9, 2 }, { 16, 2 }, { 17, 3 }, { 100, 13 } };
	auto report = [] { mox_packet_show_regular_spec(12, 2, nullptr, 4711); };
	for (auto &c : cases) {
		SCOPED_TRACE(c.sockets);
		open_sockets(c.sockets - socks.size());
		const int before = kernel().cond_rescheds, schedules = kernel().schedules;
		EXPECT_EQ(looks(report), c.looks);
		EXPECT_EQ(kernel().cond_rescheds - before, c.looks - 1)
			<< "the CPU is offered between";
		EXPECT_EQ(kernel().schedules, schedules) << "and not given up";
		EXPECT_EQ(processes(), numbered(0, c.sockets));
	}
}

// Only what is printed counts: looking for one process among many is one look.
TEST_F(LongReport, sockets__that_are_passed_over_cost_nothing)
{
	open_sockets(100);
	EXPECT_EQ(looks([] { mox_packet_show_regular_spec(11, 2, "p99", 0); }), 1);
	EXPECT_EQ(processes(), numbered(99, 100));
}

TEST_F(LongReport, filter_list__64_blocks_in_the_log_under_one_lock)
{
	open_sockets(200); // one head, 200 rules, one end, and the count
	std::string text;
	EXPECT_EQ(looks([&] {
			  text = printed([] { pkt_show_filter_list(&g_lev2_packet_regular_lib); });
		  }),
		  4);
	std::string wanted =
		"filter regular list cnt: 1\nregular type:  PACKET_ALL\nregular data:  \n  match regulars:\n";
	for (const std::string &name : numbered(0, 200))
		wanted += "    process:      " + name + "\n    PACKET TREATMENT:   PACKET_COPY\n";
	EXPECT_EQ(text, wanted + "\n");
}

// Sockets that go between two batches: nothing is printed that is not there, and others
// may be left out when sockets in front of them go.
TEST_F(LongReport, race__sockets_that_go)
{
	open_sockets(40);
	bool gone = false;
	kernel().at[Point::kCondResched] = [&](const void *) {
		if (gone)
			return;
		gone = true;
		socks.erase(socks.begin(), socks.begin() + 2);
		socks.resize(20);
	};
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	kernel().at.clear();
	EXPECT_EQ(processes(), numbered(0, 8) + numbered(10, 22));
}

// Sockets that come as fast as others are printed: the report ends where the list ended.
TEST_F(LongReport, race__sockets_that_come)
{
	open_sockets(40);
	int batches = 0;
	kernel().at[Point::kCondResched] = [&](const void *) {
		ASSERT_LT(batches++, 100) << "a report without an end";
		open_sockets(20);
	};
	mox_packet_show_regular_spec(12, 2, nullptr, 4711);
	kernel().at.clear();
	EXPECT_EQ(processes(), numbered(0, 40));
	EXPECT_EQ(batches, 4);
}

} // namespace
