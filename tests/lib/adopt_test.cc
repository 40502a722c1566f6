// SPDX-License-Identifier: GPL-2.0-only
/* Descriptors that another part opened: adopted and released, in C and in C++. */
#include "expect_error.h"
#include "fixture.h"
#include "mox/error.h"

#include <cerrno>

namespace {

using Bytes = std::vector<std::uint8_t>;

class Adopt : public Handle {
protected:
	/** As a supervisor does. */
	int opened(int family = 17, int type = SOCK_RAW)
	{
		return calls.socket(family, type | SOCK_CLOEXEC, 0);
	}
};

TEST_F(Adopt, settings_take_effect_immediately)
{
	int fd = opened();
	s = mox::adopt_handle(fd, calls);
	ASSERT_NE(s, nullptr) << error();
	EXPECT_EQ(mox_fd(s), fd);
	EXPECT_TRUE(calls.options.empty()) << "what is set stays";
	EXPECT_EQ(mox_start(s), 0);
	EXPECT_TRUE(calls.options.empty());
	ASSERT_EQ(mox_add_rule(s, "eth=arp"), 0);
	ASSERT_EQ(mox_set_location(s, PACKET_LEV2_LOC), 0);
	EXPECT_EQ(calls.option_order(), (std::vector<int>{ MOX_PACKET_ADD_RULE, PACKET_LOCATION }));
	// The treatment is the supervisor's, so a new start leaves it.
	calls.options.clear();
	ASSERT_EQ(mox_stop(s), 0);
	ASSERT_EQ(mox_start(s), 0) << error();
	EXPECT_EQ(calls.option_order(), (std::vector<int>{ PACKET_LOCATION, PACKET_LOCATION }));
}

TEST_F(Adopt, control_records_are_found_without_knowing)
{
	Bytes buffer(64);
	mox_frame frame{};
	frame.buffer = buffer.data();
	frame.size = buffer.size();
	mox_packet_ctrl_info record{};
	record.pkt_ifx = 0xffffffff;
	for (bool on : { false, true }) {
		SCOPED_TRACE(on);
		std::uint32_t value = on;
		int fd = opened();
		calls.setsockopt(fd, 263, PACKET_CTRL_INFO, &value, sizeof(value));
		s = mox::adopt_handle(fd, calls);
		ASSERT_NE(s, nullptr) << error();
		calls.queue({ Bytes(20), record, {} });
		ASSERT_EQ(mox_receive(s, &frame, MOX_NO_WAIT), 1) << error();
		EXPECT_EQ(frame.flags, on ? static_cast<unsigned>(MOX_FRAME_CONTROL) : 0u);
		EXPECT_EQ(frame.control.ifindex, on ? 0xffffffff : 0u);
		mox_free(s);
		s = nullptr;
	}
}

TEST_F(Adopt, time_stamps_of_microseconds_are_read_as_well)
{
	Bytes buffer(64);
	mox_frame frame{};
	frame.buffer = buffer.data();
	frame.size = buffer.size();
	int on = 1, fd = opened();
	calls.setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof(on));
	s = mox::adopt_handle(fd, calls);
	ASSERT_NE(s, nullptr) << error();
	calls.queue({ Bytes(20), {}, { 1700000000, 123456789 }, true });
	ASSERT_EQ(mox_receive(s, &frame, MOX_NO_WAIT), 1) << error();
	EXPECT_EQ(frame.flags, static_cast<unsigned>(MOX_FRAME_STAMP));
	EXPECT_EQ(frame.seconds, 1700000000);
	EXPECT_EQ(frame.nanoseconds, 123456000u);
}

TEST_F(Adopt, what_is_no_capture_socket_stays_the_callers)
{
	struct {
		const char *what;
		int family;
		bool linux_packet_sockets;
		int domain_error, name_error, error;
		const char *text;
	} const cases[] = {
		{ "another family", AF_INET, false, 0, 0, EPROTONOSUPPORT, "family 2" },
		{ "Linux's own", 17, true, 0, 0, EPROTONOSUPPORT, "unload" },
		{ "no socket", 17, false, ENOTSOCK, 0, ENOTSOCK, "family 17 is needed" },
		{ "no name", 17, false, 0, ENOBUFS, ENOBUFS, "cannot adopt descriptor" },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		int fd = opened(each.family);
		calls.linux_packet_sockets = each.linux_packet_sockets;
		calls.domain_error = each.domain_error;
		calls.name_error = each.name_error;
		EXPECT_EQ(mox::adopt_handle(fd, calls), nullptr);
		EXPECT_EQ(errno, each.error);
		EXPECT_NE(error().find(each.text), std::string::npos) << error();
		EXPECT_TRUE(calls.is_open());
		calls.close(fd);
	}
	EXPECT_EQ(mox_adopt(-1), nullptr);
	EXPECT_EQ(errno, EBADF);
}

TEST_F(Adopt, release__keeps_the_descriptor_open)
{
	start("all");
	int fd = mox_fd(s);
	EXPECT_EQ(mox_release(s), fd);
	s = nullptr;
	EXPECT_TRUE(calls.is_open());
	calls.close(fd);

	make();
	EXPECT_EQ(mox_release(s), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_EQ(mox_open(s), 0) << "the handle is still there";
}

TEST_F(Adopt, free__closes_and_keeps_errno)
{
	start("all");
	errno = ENOSPC;
	mox_free(s);
	s = nullptr;
	EXPECT_EQ(errno, ENOSPC);
	EXPECT_FALSE(calls.is_open());
	mox_free(nullptr);
}

TEST_F(Adopt, cxx__kind_and_interface_are_the_sockets)
{
	// As getsockname has it: interface 5.
	calls.name = { 17, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0 };
	mox::CaptureSocket socket(mox::Adopted{ opened(17, SOCK_DGRAM) }, calls);
	EXPECT_EQ(socket.kind(), mox::SocketKind::kDatagram);
	EXPECT_EQ(socket.bound_to(), 5u);
	int fd = socket.release();
	EXPECT_EQ(fd, calls.descriptor());
	EXPECT_EQ(socket.fd(), -1);
	calls.close(fd);
}

TEST_F(Adopt, cxx__errors)
{
	int fd = opened(AF_UNIX);
	expect_error<mox::SocketError>([&] { mox::PacketSocket(mox::Adopted{ fd }, calls); },
				       { "cannot adopt descriptor", "family 1" });
	EXPECT_TRUE(calls.is_open());
	calls.close(fd);
}

} // namespace
