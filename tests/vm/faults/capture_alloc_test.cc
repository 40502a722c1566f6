// SPDX-License-Identifier: GPL-2.0-only
// Every allocation and user copy of a request to the family for reading, and of a socket dump, fails once: the kernel says
// so or does without, the next request is answered in full, and nothing stays behind.
#include <cerrno>
#include <cstring>
#include <set>

#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/failnth.h"
#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;

struct Request {
	const char *name;
	mox_capture_cmd command;
};

#define ROW(name, number, ...) { #name, mox_capture_cmd(number) },
const Request kRequests[] = { MOX_CAPTURE_CMD_TABLE(ROW) };
#undef ROW

class CaptureAlloc : public VmTest {
protected:
	void SetUp() override
	{
		if (!can_inject_failures())
			GTEST_SKIP() << "this kernel injects no failures; the checked one does";
		VmTest::SetUp();
		GenlSocket socket;
		family_ = genl_family_id(socket, MOX_CAPTURE_NAME);
		ASSERT_NE(family_, 0);
	}
	void TearDown() override
	{
		if (!IsSkipped())
			VmTest::TearDown();
	}
	static Bytes attributes_of(mox_capture_cmd command)
	{
		if (command == MOX_CAPTURE_CMD_RESTRICT)
			return capture_number(MOX_CAPTURE_REQUEST_RESTRICT, 0, 1);
		if (command == MOX_CAPTURE_CMD_TRACE_START)
			return capture_number(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x88b5, 2);
		return {};
	}
	/// Sends the message and reads what comes back, while the injector is armed; the errors of both.
	static std::set<int> exchange(GenlSocket &socket, const Bytes &message)
	{
		std::set<int> errors{ socket.send(message) };
		uint8_t answer[16384];
		ssize_t length;
		while ((length = ::recv(socket.fd(), answer, sizeof answer, MSG_DONTWAIT)) >= 0) {
			nlmsghdr head;
			if (size_t(length) < sizeof head + 4)
				break;
			std::memcpy(&head, answer, sizeof head);
			int error = 0;
			if (head.nlmsg_type == NLMSG_ERROR || head.nlmsg_type == NLMSG_DONE)
				std::memcpy(&error, answer + NLMSG_HDRLEN, sizeof error);
			errors.insert(-error);
		}
		if (errno != EAGAIN)
			errors.insert(errno);
		return errors;
	}

	uint16_t family_ = 0;
};

TEST_F(CaptureAlloc, each_request)
{
	Socket first = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5)),
	       second = capture(PACKET_IPv4_LOC, PACKET_FETCH, all());
	FailNth injector;
	for (const Request &request : kRequests) {
		SCOPED_TRACE(request.name);
		if (request.command == MOX_CAPTURE_CMD_TRACE)
			continue; // an event: nothing asks for it
		GenlMessage message;
		message.type = family_;
		message.cmd = request.command;
		message.flags = NLM_F_REQUEST | (is_dump(request.command) ? NLM_F_DUMP : NLM_F_ACK);
		message.payload = attributes_of(request.command);
		const Bytes bytes = message.bytes();
		std::set<int> errors;
		int injected = 0;
		for (unsigned nth = 1; nth < 100; ++nth) {
			GenlSocket socket;
			// A trace that is there is what the request for its end finds.
			if (request.command == MOX_CAPTURE_CMD_TRACE_STOP) {
				ASSERT_EQ(
					capture_request(MOX_CAPTURE_CMD_TRACE_START,
							attributes_of(MOX_CAPTURE_CMD_TRACE_START),
							&socket)
						.error,
					0);
			}
			injector.arm(nth);
			const std::set<int> of_this = exchange(socket, bytes);
			if (injector.disarm() != 0)
				break;
			++injected;
			errors.insert(of_this.begin(), of_this.end());
		}
		EXPECT_GT(injected, 1);
		EXPECT_LT(injected, 99) << "the request has no end";
		for (int error : errors)
			EXPECT_TRUE(error == 0 || error == ENOMEM || error == ENOBUFS ||
				    error == EFAULT)
				<< strerror(error);
		EXPECT_TRUE(errors.count(ENOMEM) || errors.count(ENOBUFS));
		GenlSocket socket;
		if (request.command == MOX_CAPTURE_CMD_TRACE_STOP) {
			EXPECT_EQ(capture_request(MOX_CAPTURE_CMD_TRACE_START,
						  attributes_of(MOX_CAPTURE_CMD_TRACE_START),
						  &socket)
					  .error,
				  0);
		}
		EXPECT_EQ(capture_request(request.command, attributes_of(request.command), &socket)
				  .error,
			  0)
			<< "the next one";
	}
	put(lab::Hook::Lev2, plain(0x88b5));
	EXPECT_EQ(first.drain(), 1u);
}

TEST_F(CaptureAlloc, a_trace_whose_records_find_no_memory)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	GenlSocket tracer;
	ASSERT_EQ(capture_request(MOX_CAPTURE_CMD_TRACE_START,
				  attributes_of(MOX_CAPTURE_CMD_TRACE_START), &tracer)
			  .error,
		  0);
	FailNth injector;
	int injected = 0;
	// The hook runs in the injecting call, without a sleep: what it cannot allocate it does without.
	for (unsigned nth = 1; nth < 100; ++nth, ++injected) {
		injector.arm(nth);
		try {
			lab::inject(lab::Hook::Lev2, plain(0x88b5));
		} catch (const std::exception &) {
			// The lab's own allocation.
		}
		if (injector.disarm() != 0)
			break;
	}
	EXPECT_GT(injected, 0);
	EXPECT_LT(injected, 99);
	ASSERT_TRUE(lab::settle());
	tracer.drain();
	socket.drain();
	put(lab::Hook::Lev2, plain(0x88b5));
	EXPECT_EQ(socket.drain(), 1u);
	EXPECT_TRUE(tracer.receive(3000)) << "and the next frame is traced";
}

TEST_F(CaptureAlloc, a_socket_dump)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	const int netlink = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
	ASSERT_GE(netlink, 0);
	Bytes message;
	put32(message, NLMSG_HDRLEN + 20);
	put16(message, SOCK_DIAG_BY_FAMILY);
	put16(message, NLM_F_REQUEST | NLM_F_DUMP);
	put32(message, 1);
	put32(message, 0);
	message.push_back(MOX_PACKET_FAMILY);
	message.resize(NLMSG_HDRLEN + 20);
	std::set<int> errors;
	auto dump = [&] {
		uint8_t answer[8192];
		size_t sockets = 0;
		if (::send(netlink, message.data(), message.size(), 0) < 0)
			errors.insert(errno);
		ssize_t length;
		while ((length = ::recv(netlink, answer, sizeof answer, MSG_DONTWAIT)) > 0) {
			nlmsghdr head;
			std::memcpy(&head, answer, sizeof head);
			sockets += head.nlmsg_type == SOCK_DIAG_BY_FAMILY;
		}
		if (length < 0 && errno != EAGAIN)
			errors.insert(errno);
		return sockets;
	};
	const int injected = with_each_failure(dump, [&](bool) {
		while (dump() != 0) {
			// What a failed dump has left to read comes first.
			uint8_t answer[8192];
			if (::recv(netlink, answer, sizeof answer, MSG_DONTWAIT | MSG_PEEK) < 0)
				break;
		}
	});
	EXPECT_GT(injected, 1);
	for (int error : errors)
		EXPECT_TRUE(error == ENOMEM || error == ENOBUFS || error == EFAULT ||
			    error == EBUSY)
			<< strerror(error);
	errors.clear();
	EXPECT_EQ(dump(), 1u);
	EXPECT_TRUE(errors.empty());
	::close(netlink);
}

} // namespace
