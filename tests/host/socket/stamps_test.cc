// SPDX-License-Identifier: GPL-2.0-only
// Sockets that ask for times of arrival: which calls look at the option, and what is given back.
#include "capture_fixture.h"
#include "receive/arrivals.hpp"
#include "socket/stamps.hpp"

namespace {

class Stamps : public SocketTest {
protected:
	static bool needed() { return arrivals_needed(seam_hook_cpu(0)); }
	static void read(Sock &s)
	{
		msghdr msg;
		(void)mox_packet_recvmsg(&s.socket, &msg, 100, 0x40);
	}
};

// The calls that look at the option, by name.
const struct {
	const char *name;
	void (*call)(Sock &s);
} kLooks[] = {
	{ "setsockopt", [](Sock &s) { EXPECT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0); } },
	{ "setsockopt that fails",
	  [](Sock &s) { EXPECT_EQ(s.setsockopt(PACKET_LOCATION, {}), -EINVAL); } },
	{ "bind", [](Sock &s) { EXPECT_EQ(s.bind(7), 0); } },
	{ "recvmsg",
	  [](Sock &s) {
		  msghdr msg;
		  EXPECT_EQ(mox_packet_recvmsg(&s.socket, &msg, 100, 0x40), -EAGAIN);
	  } },
	{ "poll", [](Sock &s) { mox_packet_poll(&s.socket); } },
};

TEST_F(Stamps, looked_at_by_each_call)
{
	for (const auto &on : kLooks)
		for (const auto &off : kLooks) {
			SCOPED_TRACE(std::string(on.name) + ", " + off.name);
			Sock s;
			ASSERT_EQ(s.create(), 0);
			on.call(s);
			EXPECT_FALSE(needed());
			s.sk->stamped = true;
			EXPECT_FALSE(needed()) << "the option alone changes nothing";
			on.call(s);
			EXPECT_TRUE(needed());
			EXPECT_EQ(s.po().stamped, 1);
			on.call(s);
			s.sk->stamped = false;
			EXPECT_TRUE(needed());
			off.call(s);
			EXPECT_FALSE(needed());
			EXPECT_EQ(s.po().stamped, 0);
		}
}

TEST_F(Stamps, release__gives_back_what_the_socket_needed)
{
	Sock one, two;
	ASSERT_EQ(one.create(), 0);
	ASSERT_EQ(two.create(), 0);
	for (Sock *s : { &one, &two }) {
		s->sk->stamped = true;
		read(*s);
	}
	EXPECT_TRUE(needed());
	ASSERT_EQ(one.release(), 0);
	EXPECT_TRUE(needed());
	// Whatever the option says by then.
	two.sk->stamped = false;
	ASSERT_EQ(two.release(), 0);
	EXPECT_FALSE(needed());
}

TEST_F(Stamps, release__of_a_socket_that_never_looked)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	s.sk->stamped = true;
	ASSERT_EQ(s.release(), 0);
	EXPECT_FALSE(needed());
	// Nothing is given back that was not needed.
	Sock other;
	ASSERT_EQ(other.create(), 0);
	other.sk->stamped = true;
	read(other);
	EXPECT_TRUE(needed());
}

TEST_F(Stamps, memory__without_it_the_next_look_tries_again)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	s.sk->stamped = true;
	kernel().fail(Fail::kVzalloc);
	read(s);
	EXPECT_FALSE(needed());
	EXPECT_EQ(s.po().stamped, 0);
	read(s);
	EXPECT_TRUE(needed());
	EXPECT_EQ(s.po().stamped, 1);
	// Counted once: off again with the first look.
	s.sk->stamped = false;
	read(s);
	EXPECT_FALSE(needed());
}

// Two threads look at one socket at once: the other one acts at each step of the locks.
TEST_F(Stamps, threads__that_look_at_once_count_once)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	for (bool wanted : { true, false }) {
		s.sk->stamped = wanted;
		int played = 0;
		kernel().at[Point::kLocking] = [&](const void *) {
			if (played++ == 0)
				on_other_cpu([&] { read(s); });
		};
		read(s);
		kernel().at.erase(Point::kLocking);
		EXPECT_GT(played, 0);
		EXPECT_EQ(needed(), wanted);
		EXPECT_EQ(s.po().stamped, wanted);
	}
}

TEST_F(Stamps, poll__of_a_released_socket)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	ASSERT_EQ(s.release(), 0);
	mox_packet_poll(&s.socket);
	EXPECT_FALSE(needed());
}

} // namespace
