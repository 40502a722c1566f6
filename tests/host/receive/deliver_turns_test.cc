// SPDX-License-Identifier: GPL-2.0-only
// Delivery: how much of it goes on before others get the change lock or the CPU.
#include "module_fixture.h"

#include "fake/backlog.h"

#include <climits>
#include <deque>

namespace {

using namespace packets;

class Turns : public ModuleTest {
protected:
	void TearDown() override
	{
		kernel().at.clear();
		sockets.clear();
		ModuleTest::TearDown();
	}
	// So many sockets of which each gets every frame.
	void capture(size_t count)
	{
		while (sockets.size() < count) {
			Sock &s = sockets.emplace_back();
			s.capture(PACKET_LEV2_LOC, PACKET_COPY);
			s.sk->rcvbuf = INT_MAX;
		}
	}
	// Delivers frames that wait in a queue.
	void deliver(int frames)
	{
		for (int i = 0; i < frames; i++)
			enqueue(&g_cpu_pkt_que[0][kQueueLev2],
				efmp().efbuff(efbuff({}, lldp), fake::Owner::kModule));
		holds = 0;
		kernel().at.watch(Point::kLock, [&](const void *lock) {
			holds += lock == &g_lev2_packet_regular_lib.change_lock;
		});
		kernel().cond_rescheds = 0;
		mox_packet_thread_active(PACKET_LEV2_LOC);
		drain();
	}

	const ::Bytes lldp = eth(0x88cc) + ::Bytes(46, 0x5c);
	std::deque<Sock> sockets;
	int holds = 0;
};

// A frame is one unit of work, each socket that it is offered to another one. The lock is let go
// of after 2,048 of them, or after a multiple of 4 when another task is due.
TEST_F(Turns, hold__of_the_change_lock)
{
	const struct {
		size_t sockets;
		bool due;
		int frames, holds;
	} rows[] = {
		{ 0, true, 1, 1 },  { 0, true, 4, 1 },    { 0, true, 5, 2 },    { 0, true, 8, 2 },
		{ 0, true, 9, 3 },  { 0, false, 9, 1 },   { 1, true, 2, 1 },    { 1, true, 3, 2 },
		{ 1, true, 8, 4 },  { 1, false, 8, 1 },   { 2, true, 4, 1 },    { 2, true, 8, 2 },
		{ 2, true, 9, 3 },  { 2, false, 683, 1 }, { 2, false, 684, 2 }, { 3, true, 8, 8 },
		{ 3, false, 8, 1 }, { 3, false, 512, 1 }, { 3, false, 513, 2 },
	};
	for (auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.sockets << " sockets, " << row.frames
						<< " frames, due " << row.due);
		capture(row.sockets);
		kernel().need_resched = row.due;
		deliver(row.frames);
		EXPECT_EQ(holds, row.holds);
		EXPECT_EQ(kernel().cond_rescheds, row.holds) << "the CPU is offered behind each";
	}
}

// Sockets of one frame: others get the CPU behind each 64th that is not the last.
TEST_F(Turns, frame__of_many_sockets)
{
	const struct {
		size_t sockets;
		int offers;
	} rows[] = { { 1, 0 }, { 63, 0 }, { 64, 0 }, { 65, 1 }, { 128, 1 }, { 129, 2 } };
	for (auto &row : rows) {
		SCOPED_TRACE(row.sockets);
		capture(row.sockets);
		deliver(1);
		EXPECT_EQ(kernel().cond_rescheds, 1 + row.offers);
		EXPECT_EQ(holds, 1);
	}
}

} // namespace
