/* SPDX-License-Identifier: GPL-2.0-only */
/* Receive rings, as libpcap uses them. */
#include "compat/fake_module.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned kFrameSize = 256, kBlockSize = 4096, kBlocks = 2;
constexpr unsigned kFrames = kBlocks * (kBlockSize / kFrameSize);

Bytes numbered(int number, std::size_t size = 60)
{
	Bytes frame(size, 0x11);
	frame[0] = 0xff;
	std::fill_n(frame.begin(), 6, 0xff);
	frame[12] = 8, frame[13] = 6;
	frame[14] = static_cast<std::uint8_t>(number);
	frame[15] = static_cast<std::uint8_t>(number >> 8);
	return frame;
}

class Ring {
public:
	explicit Ring(int type = SOCK_RAW)
	{
		fd = socket(AF_PACKET, type, htons(3));
		module.accept();
		const int version = TPACKET_V2, reserve = 4;
		EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)), 0);
		EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_RESERVE, &reserve, sizeof(reserve)), 0);
		EXPECT_EQ(request(kBlockSize, kBlocks, kFrameSize, kFrames), 0);
		memory = static_cast<std::uint8_t *>(mmap(
			nullptr, kBlockSize * kBlocks, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
		EXPECT_NE(memory, MAP_FAILED);
	}
	~Ring()
	{
		if (memory)
			munmap(memory, kBlockSize * kBlocks);
		close(fd);
	}
	int request(unsigned block_size, unsigned blocks, unsigned frame_size, unsigned frames)
	{
		const tpacket_req req{ block_size, blocks, frame_size, frames };
		return setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &req, sizeof(req)) == 0 ? 0
											  : errno;
	}
	tpacket2_hdr *at(unsigned index)
	{
		const unsigned per_block = kBlockSize / kFrameSize;
		return reinterpret_cast<tpacket2_hdr *>(memory + index / per_block * kBlockSize +
							index % per_block * kFrameSize);
	}
	int wait(int ms = 20000)
	{
		pollfd set{ fd, POLLIN, 0 };
		const int result = poll(&set, 1, ms);
		return result == 1 ? set.revents : -result;
	}
	/** Number of the next frame, whose place is returned to the ring; -1 when none comes. */
	int take(int ms = 20000)
	{
		tpacket2_hdr *frame = at(next);
		if (!(frame->tp_status & TP_STATUS_USER) && wait(ms) != POLLIN)
			return -1;
		if (!(frame->tp_status & TP_STATUS_USER))
			return -1;
		const auto *data = reinterpret_cast<std::uint8_t *>(frame) + frame->tp_mac;
		const int number = data[14] | data[15] << 8;
		frame->tp_status = TP_STATUS_KERNEL;
		next = (next + 1) % kFrames;
		return number;
	}

	FakeModule module;
	int fd;
	std::uint8_t *memory;
	unsigned next = 0;
};

TEST(CompatRing, frame__as_the_kernel_lays_it_out)
{
	for (const int type : { SOCK_RAW, SOCK_DGRAM }) {
		Ring ring(type);
		mox_packet_ctrl_info record{};
		record.vlan = 100 << 4 | 5;
		ring.module.frame(numbered(7), kPort, record);
		ASSERT_EQ(ring.wait(), POLLIN);
		const tpacket2_hdr *frame = ring.at(0);
		const std::size_t size = type == SOCK_RAW ? 60 : 46;
		EXPECT_EQ(frame->tp_status,
			  static_cast<unsigned>(TP_STATUS_USER | TP_STATUS_VLAN_VALID |
						TP_STATUS_VLAN_TPID_VALID));
		EXPECT_EQ(frame->tp_len, size);
		EXPECT_EQ(frame->tp_snaplen, size);
		EXPECT_EQ(frame->tp_net, 80 + 4);
		EXPECT_EQ(frame->tp_mac, type == SOCK_RAW ? 80 + 4 - 14 : 80 + 4);
		EXPECT_EQ(frame->tp_vlan_tci, 5 << 13 | 100);
		EXPECT_EQ(frame->tp_sec, 1700000000u);
		EXPECT_EQ(frame->tp_nsec, 123456789u);
		const auto *bytes = reinterpret_cast<const std::uint8_t *>(frame);
		sockaddr_ll address;
		std::memcpy(&address, bytes + TPACKET_ALIGN(sizeof(*frame)), sizeof(address));
		EXPECT_EQ(address.sll_ifindex, static_cast<int>(kPort));
		EXPECT_EQ(address.sll_pkttype, PACKET_BROADCAST);
		EXPECT_EQ(ntohs(address.sll_protocol), 0x0806);
		const Bytes whole = numbered(7);
		EXPECT_EQ(Bytes(bytes + frame->tp_mac, bytes + frame->tp_mac + size),
			  Bytes(whole.end() - static_cast<long>(size), whole.end()));
	}
}

TEST(CompatRing, frames__in_order_around_the_ring)
{
	Ring ring;
	const int count =
		2000; // many turns; the sender is stopped by the full ring and the full descriptor
	std::thread sender([&] {
		for (int i = 0; i < count; ++i)
			ring.module.frame(numbered(i));
	});
	for (int i = 0; i < count; ++i)
		ASSERT_EQ(ring.take(), i);
	sender.join();
	EXPECT_EQ(ring.take(50), -1);
}

TEST(CompatRing, longer_frame__is_cut_to_its_place)
{
	Ring ring;
	ring.module.frame(numbered(1, 1514));
	ASSERT_EQ(ring.wait(), POLLIN);
	EXPECT_EQ(ring.at(0)->tp_len, 1514u);
	EXPECT_EQ(ring.at(0)->tp_snaplen, kFrameSize - 70);
	EXPECT_EQ(ring.at(1)->tp_status, static_cast<unsigned>(TP_STATUS_KERNEL));
}

TEST(CompatRing, poll__readable_while_the_program_has_a_frame)
{
	Ring ring;
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(ring.wait(100), 0);
	EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
	ring.module.frame(numbered(1));
	EXPECT_EQ(ring.wait(), POLLIN);
	EXPECT_EQ(ring.wait(0), POLLIN);
	EXPECT_EQ(ring.take(0), 1);
	EXPECT_EQ(ring.wait(0), 0);
	int pipes[2];
	ASSERT_EQ(pipe(pipes), 0);
	ASSERT_EQ(write(pipes[1], "x", 1), 1);
	pollfd set[] = { { ring.fd, POLLIN, 0 }, { pipes[0], POLLIN, 0 } };
	const timespec limit{ 20, 0 };
	EXPECT_EQ(ppoll(set, 2, &limit, nullptr), 1);
	EXPECT_EQ(set[0].revents, 0);
	EXPECT_EQ(set[1].revents, POLLIN);
	close(pipes[0]);
	close(pipes[1]);
}

TEST(CompatRing, program_unmaps__nothing_is_written_there)
{
	Ring ring;
	munmap(ring.memory, kBlockSize * kBlocks);
	ring.memory = nullptr;
	ring.module.frame(numbered(1));
	EXPECT_EQ(ring.wait(), POLLIN);
	EXPECT_EQ(ring.request(0, 0, 0, 0), 0);
	char byte;
	ring.module.frame(numbered(2));
	EXPECT_EQ(recv(ring.fd, &byte, 1, MSG_TRUNC), 60); // an ordinary socket again
}

TEST(CompatRing, vfork__a_child_that_closes_leaves_the_ring)
{
	Ring ring;
	const pid_t child = vfork();
	if (child == 0)
		_exit(close(ring.fd) == 0 ? 0 : 1);
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	ring.module.frame(numbered(7));
	EXPECT_EQ(ring.take(), 7);
}

TEST(CompatRing, requests__are_checked)
{
	Ring ring;
	EXPECT_EQ(ring.request(kBlockSize, kBlocks, kFrameSize, kFrames), EBUSY);
	const int version = TPACKET_V2;
	EXPECT_EQ(setsockopt(ring.fd, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)), -1);
	EXPECT_EQ(errno, EBUSY);
	ASSERT_EQ(ring.request(0, 0, 0, 0), 0);
	const struct {
		unsigned block_size, blocks, frame_size, frames;
		int error;
	} rows[] = { { 0, 1, 256, 16, EINVAL },    { 1000, 1, 256, 3, EINVAL },
		     { 4096, 1, 64, 64, EINVAL },  { 4096, 1, 250, 16, EINVAL },
		     { 4096, 1, 8192, 1, EINVAL }, { 4096, 1, 256, 17, EINVAL },
		     { 0, 0, 0, 1, EINVAL },       { 1 << 20, 65, 256, 65 * 4096, ENOMEM },
		     { 4096, 1, 256, 16, 0 } };
	for (const auto &row : rows)
		EXPECT_EQ(ring.request(row.block_size, row.blocks, row.frame_size, row.frames),
			  row.error)
			<< row.block_size << " " << row.frame_size << " " << row.frames;
	EXPECT_EQ(mmap(nullptr, 8192, PROT_READ, MAP_SHARED, ring.fd, 0), MAP_FAILED);
	EXPECT_EQ(errno, EINVAL);
}

TEST(CompatRing, versions__the_second_only)
{
	FakeModule module;
	const int fd = socket(AF_PACKET, SOCK_RAW, 0);
	module.accept();
	for (const int version : { TPACKET_V1, TPACKET_V2, TPACKET_V3 }) {
		const bool has = version == TPACKET_V2;
		int length = version;
		socklen_t size = sizeof(length);
		EXPECT_EQ(getsockopt(fd, SOL_PACKET, PACKET_HDRLEN, &length, &size), has ? 0 : -1);
		EXPECT_EQ(length, has ? static_cast<int>(sizeof(tpacket2_hdr)) : version);
		EXPECT_EQ(setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof(version)),
			  has ? 0 : -1);
	}
	close(fd);
}

} // namespace
