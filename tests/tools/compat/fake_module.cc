/* SPDX-License-Identifier: GPL-2.0-only */
#include "compat/fake_module.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {
constexpr int kPatienceMs = 20000;
}

FakeModule::FakeModule()
{
	static int number = 0;
	const std::string name = "mox-test/" + std::to_string(getpid()) + "/" +
				 std::to_string(++number);
	listener_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	std::memcpy(address.sun_path + 1, name.data(), name.size());
	const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
						   name.size());
	EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), length), 0);
	EXPECT_EQ(::listen(listener_, 16), 0);
	setenv(kFakeModule, name.c_str(), 1);
	setenv("MOX_RELAY", FAKE_RELAY, 1);
	for (const char *unset :
	     { kFakeSendError, kFakeOptionError, kFakeSocketError, "MOX_LOCATION", "MOX_TREATMENT",
	       "MOX_INTERFACES", "MOX_RULES", "MOX_COMPAT", "MOX_COMPAT_CONF" })
		unsetenv(unset);
}

FakeModule::~FakeModule()
{
	for (const Capture &each : captures_)
		::close(each.fd);
	::close(listener_);
}

std::size_t FakeModule::accept()
{
	pollfd wait{ listener_, POLLIN, 0 };
	EXPECT_EQ(::poll(&wait, 1, kPatienceMs), 1);
	captures_.push_back({ ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), {}, {} });
	return captures_.size() - 1;
}

void FakeModule::read(std::size_t capture)
{
	Capture &from = captures_.at(capture);
	std::vector<std::uint8_t> bytes(140000);
	ssize_t length;
	while ((length = ::recv(from.fd, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
		FakeHead head;
		ASSERT_GE(length, static_cast<ssize_t>(sizeof(head)));
		std::memcpy(&head, bytes.data(), sizeof(head));
		const auto *data = bytes.data() + sizeof(head);
		const auto *end = bytes.data() + length;
		if (head.kind == FakeKind::kOption)
			from.options.push_back({ head.level, head.option, { data, end } });
		else
			from.sent.push_back(
				{ { data, data + head.option }, { data + head.option, end } });
	}
}

std::vector<FakeModule::Option> FakeModule::options(std::size_t capture)
{
	read(capture);
	return std::exchange(captures_[capture].options, {});
}

std::vector<FakeModule::Sent> FakeModule::sent(std::size_t capture)
{
	read(capture);
	return std::exchange(captures_[capture].sent, {});
}

void FakeModule::frame(const std::vector<std::uint8_t> &bytes, std::uint32_t in,
		       const mox_packet_ctrl_info &record, std::size_t capture)
{
	const FakeHead head{ FakeKind::kFrame, 0, 0 };
	FakeFrame frame{ record, 1700000000, 123456789 };
	frame.control.pkt_ifx = in;
	frame.control.l2_len = 14;
	std::vector<std::uint8_t> message(sizeof(head) + sizeof(frame));
	std::memcpy(message.data(), &head, sizeof(head));
	std::memcpy(&message[sizeof(head)], &frame, sizeof(frame));
	message.insert(message.end(), bytes.begin(), bytes.end());
	EXPECT_EQ(::send(captures_.at(capture).fd, message.data(), message.size(), MSG_NOSIGNAL),
		  static_cast<ssize_t>(message.size()));
}

void FakeModule::drops(int count, std::size_t capture)
{
	const FakeHead head{ FakeKind::kDrops, 0, count };
	EXPECT_EQ(::send(captures_.at(capture).fd, &head, sizeof(head), MSG_NOSIGNAL),
		  static_cast<ssize_t>(sizeof(head)));
}

bool FakeModule::is_closed(std::size_t capture)
{
	read(capture);
	pollfd wait{ captures_.at(capture).fd, POLLRDHUP, 0 };
	return ::poll(&wait, 1, kPatienceMs) == 1 && wait.revents & (POLLRDHUP | POLLHUP);
}
