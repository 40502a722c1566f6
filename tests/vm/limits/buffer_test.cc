// SPDX-License-Identifier: GPL-2.0-only
// How many frames a receive buffer holds, and how large a program may make it. The numbers that docs/daemons.md gives are
// printed here.
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>

#include <linux/sock_diag.h>
#include <sys/wait.h>
#include <unistd.h>

#include "limits/measure.h"

namespace {

using namespace vm;

int value_of(const std::string &setting)
{
	std::ifstream file("/proc/sys/net/core/" + setting);
	int value = 0;
	file >> value;
	return value;
}

class Buffer : public VmTest {
protected:
	static int room(Socket &socket)
	{
		int value = 0;
		socklen_t length = sizeof value;
		EXPECT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &value, &length), 0);
		return value;
	}
	/// The memory that the queued frames are charged with.
	static uint32_t charged(Socket &socket)
	{
		uint32_t words[SK_MEMINFO_VARS] = {};
		socklen_t length = sizeof words;
		EXPECT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, SO_MEMINFO, words, &length), 0);
		return words[SK_MEMINFO_RMEM_ALLOC];
	}
	/// Offers frames until one is dropped; the number that was queued.
	static uint32_t fill(Socket &socket, const lab::Frame &frame)
	{
		constexpr uint32_t kBatch = 200, kMost = 20'000;
		uint32_t offered = 0;
		for (; offered < kMost; offered += kBatch) {
			lab::inject_many(lab::Hook::Lev2, frame, kBatch, 0);
			EXPECT_TRUE(lab::settle());
			mox_packet_stats stats = socket.stats();
			if (stats.drops > 0)
				return offered + stats.packets - stats.drops;
		}
		ADD_FAILURE() << "not full after " << offered << " frames";
		return offered;
	}
};

TEST_F(Buffer, frames_that_the_default_and_the_largest_buffer_hold)
{
	struct Size {
		const char *name;
		int option, request; ///< 0: none, the default
		int room;
	};
	const int default_room = value_of("rmem_default"), most = value_of("rmem_max");
	const Size sizes[] = {
		{ "default", 0, 0, default_room },
		{ "net.core.rmem_max", SO_RCVBUF, most, 2 * most },
		{ "beyond net.core.rmem_max", SO_RCVBUF, 100 * most, 2 * most },
		{ "SO_RCVBUFFORCE", SO_RCVBUFFORCE, 1 << 20, 2 << 20 },
	};
	for (const Size &size : sizes)
		for (uint32_t length : { 60u, 590u, 1514u }) {
			SCOPED_TRACE(std::string(size.name) + ", " + std::to_string(length));
			Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
			if (size.option) {
				ASSERT_EQ(socket.option_raw(SOL_SOCKET, size.option, &size.request,
							    sizeof size.request),
					  0);
			}
			EXPECT_EQ(room(socket), size.room);
			lab::Frame frame = frames::plain(0x88b5, length);
			put(lab::Hook::Lev2, frame);
			const uint32_t each = charged(socket);
			EXPECT_GT(each, length);
			EXPECT_EQ(socket.drain(), 1u);
			socket.stats();

			// A frame that would make the buffer exactly full is one too many.
			const uint32_t held = fill(socket, frame);
			EXPECT_EQ(held, uint32_t(size.room - 1) / each);
			EXPECT_EQ(socket.drain(), held);
			std::printf(
				"[  MEASURED ] %s: SO_RCVBUF %d, %u bytes: %u each, %u frames\n",
				size.name, size.room, length, each, held);
		}
}

TEST_F(Buffer, more_than_rmem_max_needs_the_administrator)
{
	const int beyond = 4 * value_of("rmem_max");
	Socket socket;
	ASSERT_EQ(socket.option_raw(SOL_SOCKET, SO_RCVBUFFORCE, &beyond, sizeof beyond), 0);
	EXPECT_EQ(room(socket), 2 * beyond);

	pid_t child = ::fork();
	if (child == 0) {
		if (::setuid(65534))
			::_exit(99);
		::_exit(socket.option_raw(SOL_SOCKET, SO_RCVBUFFORCE, &beyond, sizeof beyond));
	}
	int status = 0;
	ASSERT_EQ(::waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), EPERM);
}

TEST_F(Buffer, a_trap_socket_without_room_forwards_nothing_either)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
	const int little = 1;
	ASSERT_EQ(socket.option_raw(SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	constexpr uint32_t kFrames = 100;
	EXPECT_EQ(lab::inject_many(lab::Hook::Lev2, frames::plain(), kFrames, 0), kFrames)
		<< "answers other than \"go on\"";
	ASSERT_TRUE(lab::settle());
	mox_packet_stats stats = socket.stats();
	EXPECT_EQ(stats.packets, kFrames);
	EXPECT_EQ(stats.packets - stats.drops, socket.drain());
	EXPECT_GT(stats.drops, kFrames / 2);
}

} // namespace
