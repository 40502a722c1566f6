/* SPDX-License-Identifier: GPL-2.0-only */
/* mox-relay with sockets and interfaces of the test that started it. */
#include "compat/fake_wire.h"

#include "relay/program.h"

#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

class TestCalls : public mox::SocketCalls {
public:
	int socket(int, int, int) override
	{
		if (const char *error = std::getenv(kFakeSocketError))
			return fail(std::atoi(error));
		const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
		const char *name = std::getenv(kFakeModule);
		sockaddr_un address{};
		address.sun_family = AF_UNIX;
		std::strncpy(address.sun_path + 1, name ? name : "", sizeof(address.sun_path) - 2);
		const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
							   std::strlen(address.sun_path + 1));
		if (::connect(fd, reinterpret_cast<sockaddr *>(&address), length) != 0)
			return -1;
		return fd;
	}

	int setsockopt(int fd, int level, int option, const void *value, socklen_t length) override
	{
		if (level == SOL_SOCKET && option == SO_RCVBUF)
			std::memcpy(&receive_buffer_, value, sizeof(receive_buffer_));
		report({ FakeKind::kOption, level, option }, fd, value, length, nullptr, 0);
		int failing = 0, error = 0;
		const char *wanted = std::getenv(kFakeOptionError);
		if (wanted && std::sscanf(wanted, "%d:%d", &failing, &error) == 2 &&
		    failing == option)
			return fail(error);
		return 0;
	}

	int getsockopt(int fd, int level, int option, void *value, socklen_t *length) override
	{
		if (level == SOL_SOCKET && option == SO_RCVBUF) {
			const int doubled = 2 * receive_buffer_; // as the kernel does
			std::memcpy(value, &doubled, sizeof(doubled));
			return 0;
		}
		if (level != MOX_SOL_PACKET || option != MOX_PACKET_STATISTICS)
			return fail(ENOPROTOOPT);
		read_drops(fd);
		const mox_packet_stats stats{ drops_ + 1000, drops_ };
		drops_ = 0;
		std::memcpy(value, &stats, sizeof(stats));
		*length = sizeof(stats);
		return 0;
	}

	ssize_t recvmsg(int fd, msghdr *message, int flags) override
	{
		std::vector<std::uint8_t> bytes(70000);
		const ssize_t length = ::recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
		if (length <= 0)
			return length == 0 ? fail(EAGAIN) : -1;
		FakeHead kind;
		std::memcpy(&kind, bytes.data(), sizeof(kind));
		if (kind.kind == FakeKind::kDrops) {
			drops_ += static_cast<std::uint32_t>(kind.option);
			return recvmsg(fd, message, flags);
		}
		FakeFrame frame;
		std::memcpy(&frame, &bytes[sizeof(FakeHead)], sizeof(frame));
		const std::size_t from = sizeof(FakeHead) + sizeof(frame);
		const std::size_t size = static_cast<std::size_t>(length) - from;

		cmsghdr head{};
		head.cmsg_len = CMSG_LEN(2 * sizeof(long));
		head.cmsg_level = SOL_SOCKET;
		head.cmsg_type = SO_TIMESTAMPNS;
		const long stamp[2] = { static_cast<long>(frame.seconds),
					static_cast<long>(frame.nanoseconds) };
		auto *control = static_cast<std::uint8_t *>(message->msg_control);
		std::memcpy(control, &head, sizeof(head));
		std::memcpy(control + CMSG_LEN(0), stamp, sizeof(stamp));
		message->msg_controllen = CMSG_SPACE(sizeof(stamp));
		std::memcpy(control + message->msg_controllen, &frame.control,
			    sizeof(frame.control));

		const std::size_t copied = std::min(size, message->msg_iov[0].iov_len);
		std::memcpy(message->msg_iov[0].iov_base, &bytes[from], copied);
		return static_cast<ssize_t>(flags & MSG_TRUNC ? size : copied);
	}

	ssize_t sendmsg(int fd, const msghdr *message, int) override
	{
		report({ FakeKind::kSent, 0, static_cast<std::int32_t>(message->msg_namelen) }, fd,
		       message->msg_name, message->msg_namelen, message->msg_iov[0].iov_base,
		       message->msg_iov[0].iov_len);
		if (const char *error = std::getenv(kFakeSendError))
			return fail(std::atoi(error));
		return static_cast<ssize_t>(message->msg_iov[0].iov_len);
	}

private:
	static int fail(int error)
	{
		errno = error;
		return -1;
	}

	static void report(const FakeHead &head, int fd, const void *first,
			   std::size_t first_length, const void *second, std::size_t second_length)
	{
		iovec parts[] = { { const_cast<FakeHead *>(&head), sizeof(head) },
				  { const_cast<void *>(first), first_length },
				  { const_cast<void *>(second), second_length } };
		msghdr message{};
		message.msg_iov = parts;
		message.msg_iovlen = 3;
		(void)!::sendmsg(fd, &message, MSG_NOSIGNAL);
	}

	/** Takes what the test has said about drops off the head of the queue. */
	void read_drops(int fd)
	{
		FakeHead head;
		while (::recv(fd, &head, sizeof(head), MSG_DONTWAIT | MSG_PEEK) ==
			       static_cast<ssize_t>(sizeof(head)) &&
		       head.kind == FakeKind::kDrops) {
			(void)!::recv(fd, &head, sizeof(head), MSG_DONTWAIT);
			drops_ += static_cast<std::uint32_t>(head.option);
		}
	}

	int receive_buffer_ = 0;
	std::uint32_t drops_ = 0;
};

class TestInterfaces : public relay::InterfaceSource {
public:
	std::vector<relay::Interface> list() override
	{
		relay::Interface port{ kPort, ARPHRD_ETHER, {}, true };
		std::copy(std::begin(kPortMac), std::end(kPortMac), port.mac.begin());
		relay::Interface other = port;
		other.index = kOtherPort;
		other.mac[5] = 0xbb;
		return { port, other };
	}
};

} // namespace

int main(int argc, char **argv)
{
	TestCalls calls;
	TestInterfaces interfaces;
	return relay::relay_main(argc, argv, calls, interfaces);
}
