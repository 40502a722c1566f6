/* SPDX-License-Identifier: GPL-2.0-only */
/* What socket(), bind() and the environment make of a socket: its rules. */
#include "compat/preload_fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

using namespace preload;

TEST(CompatPreload, socket__captures_by_its_protocol)
{
	const struct {
		int protocol;
		const char *expected;
	} rows[] = {
		{ 0, " @0" }, { kAll, " @0 +16 @2" }, { kArp, " @0 +3:8.6 @2" }, { 4, " @0 +16 @2" }
	};
	for (const auto &row : rows) {
		FakeModule module;
		const int fd = open_socket(module, SOCK_RAW, row.protocol);
		const auto options = module.options();
		EXPECT_EQ(rules(options), row.expected);
		EXPECT_TRUE(std::any_of(options.begin(), options.end(), [](const auto &each) {
			return each.option == PACKET_TREATMENT && each.value.at(0) == PACKET_COPY;
		}));
		EXPECT_EQ(close(fd), 0);
		EXPECT_TRUE(module.is_closed()); // the relay ends with the descriptor
	}
}

TEST(CompatPreload, socket__refusals)
{
	FakeModule module;
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(5)), -1);
	EXPECT_EQ(errno, EPROTONOSUPPORT);
	setenv("MOX_LOCATION", "moon", 1);
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, EINVAL);
	unsetenv("MOX_LOCATION");
	setenv(kFakeSocketError, std::to_string(EPERM).c_str(), 1);
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, EPERM);
	unsetenv(kFakeSocketError);
	setenv(kFakeOptionError, "11:12", 1);
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, ENOMEM);
	unsetenv(kFakeOptionError);
	setenv("MOX_RELAY", "/nonexistent/mox-relay", 1);
	testing::internal::CaptureStderr();
	EXPECT_EQ(socket(AF_PACKET, SOCK_RAW, htons(kAll)), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_NE(testing::internal::GetCapturedStderr().find(
			  "cannot run /nonexistent/mox-relay: No such"),
		  std::string::npos);
}

TEST(CompatPreload, socket__leaves_no_child_and_no_descriptor)
{
	FakeModule module;
	const int before = dup(0);
	close(before);
	for (int i = 0; i < 3; ++i) {
		const int fd = open_socket(module, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK);
		EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
		EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
		EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
		EXPECT_EQ(errno, ECHILD);
		char byte;
		EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
		EXPECT_EQ(errno, EAGAIN);
		close(fd);
	}
	const int fd = open_socket(module);
	EXPECT_FALSE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
	EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
	close(fd);
}

TEST(CompatPreload, bind__replaces_the_rules)
{
	FakeModule module;
	const int fd = open_socket(module, SOCK_RAW, 0);
	module.options();
	const auto try_bind = [&](const sockaddr_ll &to) {
		return bind(fd, plain(to), sizeof(to)) == 0 ? 0 : errno;
	};
	EXPECT_EQ(try_bind(address(kPort, kAll)), 0);
	EXPECT_EQ(rules(module.options()), " @0 +10:3.0.0.0 @2");
	EXPECT_EQ(try_bind(address(kPort, kArp)), 0);
	EXPECT_EQ(rules(module.options()), " @0 -10:3.0.0.0 +3:8.6 +10:3.0.0.0 @2");
	EXPECT_EQ(try_bind(address(0, 0)), 0); // the protocol stays
	EXPECT_EQ(rules(module.options()), " @0 -3:8.6 -10:3.0.0.0 +3:8.6 @2");

	EXPECT_EQ(try_bind(address(kNoPort, kAll)), ENODEV);
	EXPECT_EQ(try_bind(address(kPort, 5)), EINVAL);
	sockaddr_ll other = address(kPort);
	other.sll_family = AF_INET;
	EXPECT_EQ(try_bind(other), EINVAL);
	EXPECT_EQ(bind(fd, plain(other), 12), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(rules(module.options()), "");
	close(fd);
}

TEST(CompatPreload, environment__location_treatment_interfaces_rules)
{
	FakeModule module;
	setenv("MOX_LOCATION", "ipv4,local", 1);
	setenv("MOX_TREATMENT", "trap", 1);
	setenv("MOX_RULES", "ipproto=udp", 1);
	const int fd = open_socket(module, SOCK_RAW, 0x800);
	module.accept();
	EXPECT_EQ(rules(module.options(0)), " @0 +3:8.0 +5:17 @3");
	EXPECT_EQ(rules(module.options(1)), " @0 +3:8.0 +5:17 @1");
	const sockaddr_ll to = address(kPort);
	ASSERT_EQ(bind(fd, plain(to), sizeof(to)), 0);
	EXPECT_EQ(rules(module.options(0)), " @0 -3:8.0 -5:17 +3:8.0 +5:17 +10:3.0.0.0 @3");
	EXPECT_EQ(rules(module.options(1)), " @0 -3:8.0 -5:17 +3:8.0 +5:17 @1");

	// What leaves is reported as of the bound interface, which programs compare.
	module.frame(frame_of(0x800), 0, {}, 1);
	sockaddr_ll from{};
	socklen_t length = sizeof(from);
	Bytes buffer(100);
	ASSERT_EQ(recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from),
			   &length),
		  60);
	EXPECT_EQ(from.sll_pkttype, PACKET_OUTGOING);
	EXPECT_EQ(from.sll_ifindex, static_cast<int>(kPort));
	const int on = 1;
	ASSERT_EQ(setsockopt(fd, SOL_PACKET, 23 /* PACKET_IGNORE_OUTGOING */, &on, sizeof(on)), 0);
	module.frame(frame_of(0x800), 0, {}, 1);
	EXPECT_FALSE(readable(fd, 100));
	close(fd);
}

TEST(CompatPreload, interfaces_any__no_rule_and_the_platforms_output)
{
	FakeModule module;
	setenv("MOX_INTERFACES", "any", 1);
	const int fd = open_socket(module, SOCK_RAW, kArp);
	const sockaddr_ll to = address(kPort);
	ASSERT_EQ(bind(fd, plain(to), sizeof(to)), 0);
	EXPECT_EQ(rules(module.options()), " @0 +3:8.6 @2 @0 -3:8.6 +3:8.6 @2");
	const Bytes frame = frame_of(kArp);
	EXPECT_EQ(write(fd, frame.data(), frame.size()), 60);
	const auto sent = module.sent();
	ASSERT_EQ(sent.size(), 1u);
	EXPECT_EQ(sent[0].address.at(4), 0);
	close(fd);
}

} // namespace
