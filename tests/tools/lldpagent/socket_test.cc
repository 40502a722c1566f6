/* SPDX-License-Identifier: GPL-2.0-only */
/* The calls that the agent makes, their order, and how it handles the answers. */
#include "samples.h"
#include "socket.h"

#include "mox/error.h"
#include "mox_packet.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <set>

namespace {

using lldp::Bytes;

/** A kernel that records every call and answers as the test sets it. */
class FakeCalls : public mox::SocketCalls {
public:
	~FakeCalls() override { EXPECT_TRUE(open.empty()) << "a socket was left open"; }

	struct Option {
		int fd, level, option;
		Bytes value;
	};
	int socket_error = 0, bind_error = 0, name_error = 0, send_error = 0, receive_error = 0,
	    failing_option = 0;
	std::uint8_t address_length = 6;
	bool linux_packet_sockets = false;

	std::set<int> open;
	std::vector<std::array<int, 3>> opened;
	std::map<int, Bytes> bound;
	std::vector<Option> options;
	std::vector<std::pair<int, Bytes>> sent;
	std::deque<std::pair<std::uint32_t, Bytes>> queue;

	int socket(int family, int type, int protocol) override
	{
		opened.push_back({ family, type, protocol });
		if (socket_error)
			return fail(socket_error);
		int fd = 100 + static_cast<int>(opened.size());
		open.insert(fd);
		return fd;
	}
	int bind(int fd, const sockaddr *address, socklen_t length) override
	{
		auto bytes = reinterpret_cast<const std::uint8_t *>(address);
		bound[fd].assign(bytes, bytes + length);
		return bind_error ? fail(bind_error) : 0;
	}
	int getsockname(int fd, sockaddr *address, socklen_t *length) override
	{
		if (name_error)
			return fail(name_error);
		auto bytes = reinterpret_cast<std::uint8_t *>(address);
		bytes[11] = address_length;
		std::uint8_t mac[6] = { 2, 0, 0, 0, bound[fd].at(4), 0xff };
		std::memcpy(bytes + 12, mac, sizeof(mac));
		*length = 18;
		return 0;
	}
	int setsockopt(int fd, int level, int option, const void *value, socklen_t length) override
	{
		auto bytes = static_cast<const std::uint8_t *>(value);
		options.push_back({ fd, level, option, Bytes(bytes, bytes + length) });
		return option == failing_option ? fail(ENOMEM) : 0;
	}
	int getsockopt(int, int, int option, void *, socklen_t *) override
	{
		return option == 10 && linux_packet_sockets ? 0 : fail(ENOPROTOOPT);
	}
	ssize_t recvmsg(int, msghdr *message, int flags) override
	{
		EXPECT_EQ(flags, MSG_DONTWAIT | MSG_TRUNC);
		EXPECT_GE(message->msg_controllen, sizeof(mox_packet_ctrl_info));
		EXPECT_GE(message->msg_namelen, 26u);
		if (receive_error)
			return fail(receive_error);
		if (queue.empty())
			return fail(EAGAIN);
		auto [ifindex, frame] = queue.front();
		queue.pop_front();
		mox_packet_ctrl_info control{};
		control.pkt_ifx = ifindex;
		std::memcpy(message->msg_control, &control, sizeof(control));
		message->msg_controllen = 0;
		std::size_t copied = std::min(frame.size(), message->msg_iov[0].iov_len);
		std::memcpy(message->msg_iov[0].iov_base, frame.data(), copied);
		return static_cast<ssize_t>(frame.size());
	}
	ssize_t sendmsg(int fd, const msghdr *message, int) override
	{
		EXPECT_EQ(message->msg_name, nullptr);
		EXPECT_EQ(message->msg_control, nullptr);
		EXPECT_EQ(message->msg_iovlen, 1u);
		if (send_error)
			return fail(send_error);
		auto bytes = static_cast<const std::uint8_t *>(message->msg_iov[0].iov_base);
		sent.push_back({ fd, Bytes(bytes, bytes + message->msg_iov[0].iov_len) });
		return static_cast<ssize_t>(message->msg_iov[0].iov_len);
	}
	int close(int fd) override
	{
		EXPECT_EQ(open.erase(fd), 1u);
		return 0;
	}

private:
	static int fail(int error)
	{
		errno = error;
		return -1;
	}
};

const std::vector<lldp::Port> ports{ { 3, "port1" }, { 0x01020304, "port2" } };

template <typename Action> std::string refusal(Action action)
{
	try {
		action();
	} catch (const mox::SocketError &error) {
		return error.what();
	}
	return "nothing was refused";
}

TEST(listener, options_in_their_order_to_the_byte)
{
	FakeCalls calls;
	lldp::Listener listener(ports, calls);
	ASSERT_EQ(calls.opened.size(), 1u);
	EXPECT_EQ(calls.opened[0], (std::array<int, 3>{ 17, SOCK_RAW | SOCK_CLOEXEC, 0 }));

	struct {
		int option;
		const char *value; // little-endian
	} const expected[] = {
		{ 11, "0100 0600 0100 0180c200000e" },
		{ 11, "0300 0200 0100 88cc" },
		{ 11, "0a00 0400 0200 03000000 04030201" },
		{ 16, "01000000" },
		{ 15, "02000000" },
		{ 17, "07000000" },
	};
	ASSERT_EQ(calls.options.size(), std::size(expected));
	for (std::size_t i = 0; i < std::size(expected); ++i) {
		EXPECT_EQ(calls.options[i].level, 263);
		EXPECT_EQ(calls.options[i].option, expected[i].option) << i;
		EXPECT_EQ(calls.options[i].value, from_hex(expected[i].value)) << i;
	}
	EXPECT_TRUE(calls.bound.empty()) << "binding restricts nothing";
}

TEST(listener, receive__frame_and_interface_out_of_the_control_record)
{
	FakeCalls calls;
	lldp::Listener listener(ports, calls);
	calls.queue.push_back({ 0x01020304, { 1, 2, 3 } });
	calls.queue.push_back({ 3, Bytes(20, 9) });
	std::uint8_t buffer[8];
	auto first = listener.receive(buffer);
	ASSERT_TRUE(first);
	EXPECT_EQ(first->ifindex, 0x01020304u);
	EXPECT_EQ(Bytes(first->frame.begin(), first->frame.end()), (Bytes{ 1, 2, 3 }));
	auto second = listener.receive(buffer);
	ASSERT_TRUE(second);
	EXPECT_EQ(second->frame.size(), 8u) << "no more than there is room for";
	EXPECT_FALSE(listener.receive(buffer));
	calls.receive_error = EINTR;
	EXPECT_FALSE(listener.receive(buffer));
	calls.receive_error = EBADF;
	EXPECT_NE(refusal([&] { listener.receive(buffer); }).find("cannot receive"),
		  std::string::npos);
}

TEST(listener, errors__say_what_and_the_remedy)
{
	struct {
		int error;
		const char *part;
	} const cases[] = {
		{ EAFNOSUPPORT, "mox_ef_socket.ko" },
		{ EINVAL, "/data/var/run/vsd/" },
		{ EPERM, "no privilege" },
		{ ENOBUFS, "No buffer space" },
	};
	for (const auto &each : cases) {
		FakeCalls calls;
		calls.socket_error = each.error;
		EXPECT_NE(refusal([&] { lldp::Listener listener(ports, calls); }).find(each.part),
			  std::string::npos)
			<< each.part;
	}
	FakeCalls other;
	other.linux_packet_sockets = true;
	EXPECT_NE(refusal([&] { lldp::Listener listener(ports, other); }).find("Linux's own"),
		  std::string::npos);
	struct {
		int option;
		const char *part;
	} const options[] = {
		{ 11, "cannot add rule PACKET_DEST_MAC_EQUAL" },
		{ 15, "cannot set treatment PACKET_FETCH" },
		{ 16, "cannot switch control information" },
		{ 17, "cannot set location PACKET_RESV_LOC" },
	};
	for (const auto &each : options) {
		FakeCalls calls;
		calls.failing_option = each.option;
		std::string text = refusal([&] { lldp::Listener listener(ports, calls); });
		EXPECT_NE(text.find(each.part), std::string::npos) << text;
		EXPECT_EQ(calls.options.back().option, each.option) << "it goes no further";
	}
}

TEST(senders, one_bound_socket_for_each_port_and_never_a_location)
{
	FakeCalls calls;
	lldp::Senders senders(ports, calls);
	ASSERT_EQ(calls.opened.size(), 2u);
	EXPECT_EQ(calls.bound[101], from_hex("1100 0000 03000000 0000 00 00 0000000000000000"));
	EXPECT_EQ(calls.bound[102], from_hex("1100 0000 04030201 0000 00 00 0000000000000000"));
	EXPECT_TRUE(calls.options.empty());
	EXPECT_EQ(senders.macs(),
		  (std::vector<lldp::Mac>{ { 2, 0, 0, 0, 3, 0xff }, { 2, 0, 0, 0, 4, 0xff } }));

	Bytes frame(60, 1);
	EXPECT_EQ(senders.send(0x01020304, frame), 0);
	ASSERT_EQ(calls.sent.size(), 1u);
	EXPECT_EQ(calls.sent[0].first, 102);
	EXPECT_EQ(calls.sent[0].second, frame);
	EXPECT_EQ(senders.send(4, frame), ENXIO);
	calls.send_error = ENETDOWN;
	EXPECT_EQ(senders.send(3, frame), ENETDOWN);
}

TEST(senders, errors__name_the_interface)
{
	{
		FakeCalls calls;
		calls.bind_error = ENODEV;
		std::string text = refusal([&] { lldp::Senders senders(ports, calls); });
		EXPECT_NE(text.find("port1: cannot bind to interface 3"), std::string::npos)
			<< text;
		EXPECT_NE(text.find("no interface of this index"), std::string::npos) << text;
	}
	{
		FakeCalls calls;
		calls.name_error = ENOBUFS;
		EXPECT_NE(refusal([&] { lldp::Senders senders(ports, calls); }).find("interface 3"),
			  std::string::npos);
	}
	{
		FakeCalls calls;
		calls.address_length = 0;
		EXPECT_NE(refusal([&] {
				  lldp::Senders senders(ports, calls);
			  }).find("port1: interface 3 has no MAC address"),
			  std::string::npos);
	}
}

} // namespace
