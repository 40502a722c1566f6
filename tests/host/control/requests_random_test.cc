// SPDX-License-Identifier: GPL-2.0-only
// Requests without sense: any bytes, any length, any order.
#include <random>

#include "control_fixture.h"

namespace {

class MsgRandom : public ControlTest {
protected:
	u32 below(u32 n) { return rng() % n; }

	Bytes any_request()
	{
		Bytes r(below(101));
		// Half of them nearly make sense.
		const bool sense = below(2);
		for (u8 &b : r)
			b = sense && below(3) ? 0 : rng();
		if (r.size() >= 2 && below(8)) {
			r[0] = below(18);
			r[1] = 0;
		}
		if (r.size() >= 8 && below(2)) {
			r[4] = below(30);
			r[5] = r[6] = r[7] = 0;
		}
		return message(r, below(4) ? -1 : int(below(25 + r.size())),
			       below(2) ? -1 : int(below(65536)));
	}
	void any_circumstances()
	{
		static const char *const cwds[] = { "/root", "/data/var/run/vsd/3/x",
						    "/data/var/run/vsd/999" };
		kernel().cwd = cwds[below(3)];
		kernel().cwd_renders = below(10);
		killed_waiting = false;
		kernel().fault = [this](Fail call) {
			const bool fails = below(50) == 0;
			killed_waiting = killed_waiting || (fails && call == Fail::kLockKillable);
			return fails;
		};
	}

	std::mt19937 rng;
	bool killed_waiting = false;
};

TEST_F(MsgRandom, a_hundred_thousand_requests)
{
	const unsigned seed = getenv("SEED") ? strtoul(getenv("SEED"), nullptr, 0)
					     : std::random_device{}();
	const unsigned steps = getenv("STEPS") ? strtoul(getenv("STEPS"), nullptr, 0) : 100000;
	printf("SEED=%u MsgRandom\n", seed);
	rng.seed(seed);
	Sock a, b;
	a.capture(PACKET_LEV2_LOC, PACKET_COPY);
	b.capture(PACKET_WLAN_LOC, PACKET_TRAP);
	u32 accepted = 0;
	const u32 before = g_packet_msg_recv;
	for (unsigned step = 0; step < steps; step++) {
		Bytes request = any_request();
		u32 len;
		memcpy(&len, request.data(), 4);
		any_circumstances();
		const int result = receive(request);
		ASSERT_EQ(result, len < 24         ? -1
				  : killed_waiting ? -4
						   : 0)
			<< "SEED=" << seed << ", step " << step;
		kernel().fault = nullptr;
		accepted += len >= 24 && !killed_waiting;
		ASSERT_EQ(mox_packet_debug[9], 0);
		ASSERT_EQ(mox_packet_debug[18], 0);
		ASSERT_EQ(g_tech_dump, 0);
		ASSERT_TRUE(kernel().open_files.empty());
		ASSERT_TRUE(kernel().skbs.empty());
		ASSERT_TRUE(kernel().blocks.empty());
		ASSERT_FALSE(HasFailure()) << "SEED=" << seed << ", step " << step;
		if (step % 64 == 0) {
			kernel().log.clear();
			kernel().answers.clear();
			efmp().registrations.clear();
		}
		// A frame now and then, with whatever filter and switches there are.
		if (below(16) == 0) {
			packets::Meta m;
			m.kind = below(2) ? 1 : 27;
			m.source = port;
			m.dest = below(2) ? port : 0;
			frame(1 + below(8), m,
			      packets::eth(0x0800) +
				      packets::ipv4(17, { 10, 0, 0, 1 }, packets::ports(1, 2)));
			fake::read_all(a.sk);
			fake::read_all(b.sk);
		}
	}
	EXPECT_EQ(g_packet_msg_recv - before, accepted);
	EXPECT_GT(accepted, steps / 2);
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	ask(14, debug_body(27, 0));
	EXPECT_TRUE(hooked("lev2"));
	EXPECT_TRUE(hooked("wlan"));
	a.release();
	b.release();
	drain();
}

} // namespace
