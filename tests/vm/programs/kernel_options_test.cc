// SPDX-License-Identifier: GPL-2.0-only
// Options that daemons know from other sockets: which do nothing here, and which do something.
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <linux/sock_diag.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;

/// A kernel control message of the next frame; its payload.
struct ControlMessage {
	int level, type;
	Bytes data;
};

class KernelOptions : public VmTest {
protected:
	static std::vector<ControlMessage> control_of_next_frame(Socket &socket)
	{
		uint8_t byte;
		alignas(8) uint8_t control[256];
		iovec vector{ &byte, 1 };
		msghdr message{};
		message.msg_iov = &vector;
		message.msg_iovlen = 1;
		message.msg_control = control;
		message.msg_controllen = sizeof control;
		EXPECT_EQ(raw_recvmsg(socket.fd(), &message, MSG_DONTWAIT), 1);
		std::vector<ControlMessage> messages;
		for (cmsghdr *head = CMSG_FIRSTHDR(&message); head;
		     head = CMSG_NXTHDR(&message, head))
			messages.push_back(
				{ head->cmsg_level, head->cmsg_type,
				  Bytes(CMSG_DATA(head),
					reinterpret_cast<uint8_t *>(head) + head->cmsg_len) });
		return messages;
	}
};

TEST_F(KernelOptions, timestamping_has_software_receive_times_only)
{
	struct Row {
		const char *name;
		int flags;
		bool stamped;
	};
	const Row rows[] = {
		{ "software", SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE, true },
		{ "hardware", SOF_TIMESTAMPING_RX_HARDWARE | SOF_TIMESTAMPING_RAW_HARDWARE, false },
		{ "generated, but not reported", SOF_TIMESTAMPING_RX_SOFTWARE, false },
	};
	for (const Row &row : rows) {
		SCOPED_TRACE(row.name);
		Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
		ASSERT_EQ(socket.option_raw(SOL_SOCKET, SO_TIMESTAMPING, &row.flags,
					    sizeof row.flags),
			  0);
		// The option takes effect with the next call that the family sees.
		ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
		timespec before{}, after{};
		clock_gettime(CLOCK_REALTIME, &before);
		put(lab::Hook::Lev2, frames::plain());
		clock_gettime(CLOCK_REALTIME, &after);
		::usleep(1'200'000);
		auto messages = control_of_next_frame(socket);
		ASSERT_EQ(messages.size(), row.stamped ? 1u : 0u);
		if (!row.stamped)
			continue;
		EXPECT_EQ(messages[0].level, SOL_SOCKET);
		// Three times: software, an unused one, hardware; of two words or two long words each.
		const size_t word = messages[0].data.size() / 6;
		auto number = [&](size_t n) {
			int64_t value = 0;
			std::memcpy(&value, &messages[0].data[n * word], word);
			return value;
		};
		EXPECT_GE(number(0), before.tv_sec);
		EXPECT_LE(number(0), after.tv_sec) << "when the hook saw it, not when it was read";
		EXPECT_EQ(number(4), 0) << "hardware";
	}
}

TEST_F(KernelOptions, no_times_of_sends)
{
	Socket socket(SOCK_RAW);
	const int flags = SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
	ASSERT_EQ(socket.option_raw(SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof flags), 0);
	sockaddr_ll to{};
	to.sll_family = MOX_PACKET_FAMILY;
	to.sll_ifindex = int(lab::kPortA);
	const Bytes frame = frames::plain().bytes;
	ASSERT_EQ(::sendto(socket.fd(), frame.data(), frame.size(), 0,
			   reinterpret_cast<sockaddr *>(&to), sizeof to),
		  ssize_t(frame.size()));
	uint8_t byte;
	EXPECT_EQ(::recv(socket.fd(), &byte, 1, MSG_ERRQUEUE | MSG_DONTWAIT), -1);
	EXPECT_EQ(errno, EINVAL) << "MSG_ERRQUEUE is no flag of this family";
}

TEST_F(KernelOptions, the_overflow_count_is_accepted_and_never_delivered)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	const int on = 1, little = 1;
	ASSERT_EQ(socket.option_raw(SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on), 0);
	ASSERT_EQ(socket.option_raw(SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	lab::inject_many(lab::Hook::Lev2, frames::plain(), 50, 0);
	ASSERT_TRUE(lab::settle());
	EXPECT_TRUE(control_of_next_frame(socket).empty());
	uint32_t words[SK_MEMINFO_VARS] = {};
	socklen_t length = sizeof words;
	ASSERT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, SO_MEMINFO, words, &length), 0);
	EXPECT_EQ(words[SK_MEMINFO_DROPS], 0u) << "the kernel's counter does not move either";
	EXPECT_GT(socket.stats().drops, 0u) << "PACKET_STATISTICS has them";
}

/// The first call that each of these programs makes and that is refused here.
TEST_F(KernelOptions, refusals_by_which_common_programs_end)
{
	struct Row {
		const char *program;
		int option;
		int error;
	};
	const Row rows[] = {
		{ "tcpdump: setsockopt (PACKET_ADD_MEMBERSHIP)", PACKET_ADD_MEMBERSHIP, EINVAL },
		{ "dhclient: Failed to set auxiliary packet data", PACKET_AUXDATA, EINVAL },
		{ "hostapd: Failed to add multicast group membership", PACKET_ADD_MEMBERSHIP,
		  EINVAL },
	};
	for (const Row &row : rows) {
		SCOPED_TRACE(row.program);
		Socket socket(SOCK_RAW, htons(3));
		packet_mreq membership{};
		membership.mr_ifindex = int(lab::kPortA);
		membership.mr_type = PACKET_MR_PROMISC;
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, row.option, &membership,
					    sizeof membership),
			  row.error);
	}
}

} // namespace
