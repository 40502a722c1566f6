// SPDX-License-Identifier: GPL-2.0-only
// Rules of several conditions are refused before those of all sockets together could cost a frame more than the module
// allows. Half of that is for callers with CAP_NET_ADMIN.
#include <cerrno>
#include <memory>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "limits/measure.h"

namespace {

using namespace vm;

/// Instructions for a frame, and what a rule of two conditions of one value each is charged.
constexpr unsigned kFrameWork = 50000;
constexpr unsigned kTwoConditions = 24 + 2 * 10;
constexpr unsigned kAllowed = kFrameWork / kTwoConditions;
constexpr unsigned kAllowedUnprivileged = kFrameWork / 2 / kTwoConditions;

class Work : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		allow_files(kAllowed + 16);
	}
	/// Its source MAC is the frame's, its port is not.
	static Rule shared_mac() { return many(PACKET_SRC_MAC_EQUAL, 0, 1); }
	static Rule other_port() { return be16s(PACKET_IPv4_DEST_PORT_EQUAL, { 20000 }); }
	/// Sockets until a budget refuses the second condition of one; the error of that.
	static int fill(std::vector<std::unique_ptr<Socket>> &sockets)
	{
		for (;;) {
			auto socket = std::make_unique<Socket>();
			if (socket->error() || socket->add(shared_mac()))
				return -1;
			if (int error = socket->add(other_port()))
				return error;
			if (socket->treatment(PACKET_COPY) || socket->location(PACKET_LEV2_LOC))
				return -1;
			sockets.push_back(std::move(socket));
		}
	}
};

TEST_F(Work, rules_of_two_conditions_have_a_limit)
{
	std::vector<std::unique_ptr<Socket>> sockets;
	EXPECT_EQ(fill(sockets), ENOMEM);
	EXPECT_EQ(sockets.size(), kAllowed);
	// What is refused leaves the rule as it was, and in its library.
	Socket plain;
	ASSERT_EQ(plain.add(shared_mac()), 0);
	ASSERT_EQ(plain.treatment(PACKET_COPY), 0);
	ASSERT_EQ(plain.location(PACKET_LEV2_LOC), 0);
	EXPECT_EQ(plain.add(other_port()), ENOMEM);
	EXPECT_EQ(put(lab::Hook::Lev2, from_mac(frames::plain(), 0)), lab::kGoOn);
	EXPECT_EQ(plain.drain(), 1u);
	for (auto &socket : sockets)
		EXPECT_EQ(socket->drain(), 0u);
	// What a socket had is there for another one.
	sockets.pop_back();
	EXPECT_EQ(plain.add(other_port()), 0);
	sockets.clear();
	plain.close();
	EXPECT_EQ(fill(sockets), ENOMEM);
	EXPECT_EQ(sockets.size(), kAllowed);
}

TEST_F(Work, an_unprivileged_process_may_take_half)
{
	const pid_t child = ::fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		std::vector<std::unique_ptr<Socket>> sockets;
		if (::setgid(65534) || ::setuid(65534))
			::_exit(2);
		if (fill(sockets) != ENOMEM)
			::_exit(3);
		::_exit(sockets.size() == kAllowedUnprivileged ? 0 : 4);
	}
	int status = 0;
	ASSERT_EQ(::waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
