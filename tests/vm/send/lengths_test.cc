// SPDX-License-Identifier: GPL-2.0-only
// Lengths from nothing to more than the platform has room for, data in pieces and data that cannot be read, and the other
// system calls that end in a send.
#include <cerrno>
#include <cstring>

#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/uio.h>
#include <unistd.h>

#include "support/send.h"

namespace {

using namespace vm;

/// The most that the lab's platform has room for.
constexpr size_t kRoom = MOXLAB_FRAME_MAX + 4096;
constexpr size_t kHeader = 14;

class Lengths : public SendTest {
protected:
	Send of(size_t length) const
	{
		Send send;
		send.data = counting(length);
		send.to(lab::kPortA, 6, 0x88b5);
		return send;
	}
};

/// What left, against the whole frame: the lab keeps the first bytes of a long one.
void expect_bytes(const moxlab::LeftFrame &left, const Bytes &frame)
{
	EXPECT_EQ(left.length, frame.size());
	EXPECT_EQ(left.bytes,
		  Bytes(frame.begin(),
			frame.begin() + std::min<size_t>(frame.size(), MOXLAB_LEFT_KEPT)));
}

TEST_F(Lengths, raw_frames_of_every_size)
{
	Socket socket(SOCK_RAW);
	for (size_t length :
	     { 0, 1, 6, 13, 14, 15, 59, 60, 64, 1514, 1518, 9000, 65535, int(kRoom) }) {
		SCOPED_TRACE(length);
		auto left = leaves(socket, of(length));
		expect_bytes(left, counting(length));
		EXPECT_EQ(left.header, plain_header(lab::kPortA, uint32_t(length)));
	}
}

TEST_F(Lengths, dgram_payloads_of_every_size)
{
	Socket socket(SOCK_DGRAM);
	for (size_t length : { 0, 1, 13, 14, 46, 1500, 9000, int(kRoom - kHeader) }) {
		SCOPED_TRACE(length);
		auto left = leaves(socket, of(length));
		Bytes frame(kPeerMac, kPeerMac + 6);
		frame.insert(frame.end(), kLocalMac[0], kLocalMac[0] + 6);
		frame.insert(frame.end(), { 0x88, 0xb5 });
		Bytes payload = counting(length);
		frame.insert(frame.end(), payload.begin(), payload.end());
		expect_bytes(left, frame);
		EXPECT_EQ(left.header, plain_header(lab::kPortA, uint32_t(length + kHeader)));
	}
}

TEST_F(Lengths, more_than_the_platform_has_room_for)
{
	struct Row {
		int type;
		size_t length;
	};
	// The last is the most that the kernel passes on of any length; 14 bytes more still fit its word.
	for (Row row : { Row{ SOCK_RAW, kRoom + 1 },
			 { SOCK_DGRAM, kRoom - kHeader + 1 },
			 { SOCK_RAW, 16u << 20 },
			 { SOCK_RAW, 0x7ffff000 },
			 { SOCK_DGRAM, 0x7ffff000 } }) {
		Socket socket(row.type);
		Send send = of(0);
		// Never looked at: the efbuff comes first.
		send.at = reinterpret_cast<void *>(0x10000);
		send.at_length = row.length;
		Trial trial = attempt(socket, send, true);
		EXPECT_EQ(trial.error, ENOMEM) << row.length;
		EXPECT_EQ(trial.counters, SendCounters{ .alloc_efbuff = 1 }) << row.length;
		EXPECT_TRUE(HasLine(trial.lines, "MOX-PACKET-SEND: alloc ebuff failed."));
		EXPECT_EQ(trial.allocated, 0u);
	}
}

TEST_F(Lengths, data_that_end_at_every_byte)
{
	long page = ::sysconf(_SC_PAGESIZE);
	auto *area = static_cast<uint8_t *>(::mmap(nullptr, size_t(2 * page),
						   PROT_READ | PROT_WRITE,
						   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(area, MAP_FAILED);
	ASSERT_EQ(::mprotect(area + page, size_t(page), PROT_NONE), 0);
	for (int type : { SOCK_RAW, SOCK_DGRAM }) {
		Socket socket(type);
		for (size_t there : { 0, 1, 4, 13, 14, 31, 59, 60 }) {
			Send send = of(0);
			Bytes bytes = counting(60);
			std::memcpy(area + page - there, bytes.data(), there);
			send.at = area + page - there;
			send.at_length = 60;
			Trial trial = attempt(socket, send);
			EXPECT_EQ(trial.error, there < 60 ? EFAULT : 0) << there;
			EXPECT_EQ(trial.counters, (there < 60 ? SendCounters{ .pkt_copy = 1 }
							      : SendCounters{ .sent = 1 }))
				<< there;
			EXPECT_EQ(trial.freed, there < 60 ? 1u : 0u) << there;
			EXPECT_EQ(trial.left.size(), there < 60 ? 0u : 1u) << there;
		}
	}
	::munmap(area, size_t(2 * page));
}

TEST_F(Lengths, data_in_pieces_are_one_frame)
{
	Socket socket(SOCK_RAW);
	ASSERT_EQ(socket.bind(lab::kPortA), 0);
	Bytes bytes = counting(60);
	iovec pieces[] = {
		{ &bytes[0], 1 }, { &bytes[1], 0 }, { &bytes[1], 13 }, { &bytes[14], 46 }
	};
	platform().record_left(true);
	ASSERT_EQ(::writev(socket.fd(), pieces, 4), 60);
	auto left = platform().left().all;
	ASSERT_EQ(left.size(), 1u);
	EXPECT_EQ(left[0].bytes, bytes);
}

TEST_F(Lengths, every_call_that_sends)
{
	Socket socket(SOCK_RAW);
	ASSERT_EQ(socket.bind(lab::kPortA), 0);
	Bytes bytes = counting(60);
	sockaddr_ll to{};
	to.sll_family = MOX_PACKET_FAMILY;
	to.sll_ifindex = int(lab::kPortB);
	platform().record_left(true);
	EXPECT_EQ(::write(socket.fd(), bytes.data(), 60), 60);
	EXPECT_EQ(::send(socket.fd(), bytes.data(), 60, 0), 60);
	EXPECT_EQ(::sendto(socket.fd(), bytes.data(), 60, 0, reinterpret_cast<sockaddr *>(&to),
			   sizeof to),
		  60);
	int file = ::memfd_create("frame", 0);
	ASSERT_GE(file, 0);
	ASSERT_EQ(::write(file, bytes.data(), 60), 60);
	off_t start = 0;
	EXPECT_EQ(::sendfile(socket.fd(), file, &start, 60), 60) << std::strerror(errno);
	::close(file);
	auto left = platform().left().all;
	ASSERT_EQ(left.size(), 4u);
	for (size_t n = 0; n < left.size(); ++n) {
		EXPECT_EQ(left[n].bytes, bytes) << n;
		EXPECT_EQ(left[n].ifindex, n == 2 ? lab::kPortB : lab::kPortA) << n;
	}
	EXPECT_EQ(SendCounters::of(socket), SendCounters{ .sent = 4 });
}

TEST_F(Lengths, several_messages_in_one_call_stop_at_the_first_that_fails)
{
	Socket socket(SOCK_RAW);
	Bytes bytes = counting(60);
	iovec vector{ bytes.data(), bytes.size() };
	sockaddr_ll to[3]{};
	mmsghdr messages[3]{};
	for (int n = 0; n < 3; ++n) {
		to[n].sll_ifindex = int(n == 2 ? lab::kNoSuchInterface : lab::kPortA);
		messages[n].msg_hdr.msg_name = &to[n];
		messages[n].msg_hdr.msg_namelen = sizeof to[n];
		messages[n].msg_hdr.msg_iov = &vector;
		messages[n].msg_hdr.msg_iovlen = 1;
	}
	EXPECT_EQ(::sendmmsg(socket.fd(), messages, 3, 0), 2);
	EXPECT_EQ(SendCounters::of(socket), (SendCounters{ .dstintf_ill = 1, .sent = 2 }));
}

} // namespace
