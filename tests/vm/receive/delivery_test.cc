// SPDX-License-Identifier: GPL-2.0-only
// From the queue to the socket: what a frame becomes, and the three ways a socket loses one.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include <linux/filter.h>
#include <sys/utsname.h>

#include "support/cpus.h"
#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

class Delivery : public VmTest {
protected:
	Socket socket_of(int type = SOCK_RAW)
	{
		return capture(PACKET_LEV2_LOC, PACKET_COPY, all(), type);
	}

	/// Attaches a classic filter program.
	static void attach(Socket &socket, std::vector<sock_filter> program)
	{
		sock_fprog filter{ static_cast<unsigned short>(program.size()), program.data() };
		ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_ATTACH_FILTER, &filter,
				       sizeof filter),
			  0)
			<< strerror(errno);
	}
};

TEST_F(Delivery, raw_sockets_get_the_frame_and_dgram_sockets_what_is_behind_layer_2)
{
	Socket raw = socket_of(), dgram = socket_of(SOCK_DGRAM);
	Frame frame = ipv4(17, udp(1, 2));
	put(Hook::Lev2, frame);
	EXPECT_EQ(raw.receive()->bytes, frame.bytes);
	EXPECT_EQ(dgram.receive()->bytes, Bytes(frame.bytes.begin() + 14, frame.bytes.end()));
}

TEST_F(Delivery, the_layer_2_length_is_the_platforms_word)
{
	Socket dgram = socket_of(SOCK_DGRAM);
	for (uint16_t l2_len : { 0, 8, 14, 18, 24, 59 }) {
		Frame frame = plain(0x88b5, 60);
		frame.l2_len = l2_len;
		put(Hook::Lev2, frame);
		EXPECT_EQ(dgram.receive()->bytes,
			  Bytes(frame.bytes.begin() + l2_len, frame.bytes.end()))
			<< l2_len;
	}
}

TEST_F(Delivery, a_layer_2_length_beyond_the_frame_does_no_harm)
{
	Socket raw = socket_of(), dgram = socket_of(SOCK_DGRAM);
	Frame frame = plain(0x88b5, 60);
	frame.l2_len = 200;
	put(Hook::Lev2, frame);
	EXPECT_EQ(raw.receive()->bytes.size(), 60u);
	auto cut = dgram.receive();
	ASSERT_TRUE(cut);
	EXPECT_LE(cut->bytes.size(), 60u);
}

// Of the platform's id a filter reads the number, and whether the kernel's own mark is set.
TEST_F(Delivery, what_a_filter_reads_of_the_vlan)
{
	utsname kernel{};
	ASSERT_EQ(::uname(&kernel), 0);
	unsigned major = 0, minor = 0;
	ASSERT_EQ(std::sscanf(kernel.release, "%u.%u", &major, &minor), 2);
	// Later kernels have no mark beside the number.
	const bool marks = major > 6 || (major == 6 && minor >= 2);
	for (uint16_t id : { 0, 1, 100, 4094 })
		for (bool number : { true, false }) {
			SCOPED_TRACE(std::to_string(id) + (number ? ", number" : ", mark"));
			Socket socket = socket_of();
			// Drops what has it.
			const int what = number ? SKF_AD_VLAN_TAG : SKF_AD_VLAN_TAG_PRESENT;
			attach(socket,
			       { BPF_STMT(BPF_LD | BPF_W | BPF_ABS, uint32_t(SKF_AD_OFF + what)),
				 BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number ? id : 1u, 0, 1),
				 BPF_STMT(BPF_RET | BPF_K, 0xffff), BPF_STMT(BPF_RET | BPF_K, 0) });
			Frame frame = plain(0x88b5, 60);
			frame.vlan_tci = id;
			put(Hook::Lev2, frame);
			EXPECT_EQ(socket.receive().has_value(), !(number || (marks && id != 0)));
		}
}

TEST_F(Delivery, frames_of_every_size)
{
	Socket socket = socket_of();
	for (size_t length : { 14u, 15u, 59u, 60u, 61u, 64u, 1514u, 1518u, 2048u, 4000u, 9014u }) {
		Frame frame = plain(0x88b5, length);
		put(Hook::Lev2, frame);
		auto packet = socket.receive();
		ASSERT_TRUE(packet) << length;
		EXPECT_EQ(packet->bytes, frame.bytes) << length;
	}
}

TEST_F(Delivery, short_frames_are_matched_on_the_bytes_they_were_given_room_for)
{
	Socket socket = socket_of();
	for (size_t length : { 1u, 6u, 13u }) {
		Frame frame = plain();
		frame.bytes.resize(length);
		EXPECT_EQ(put(Hook::Lev2, frame), lab::kGoOn);
		auto packet = socket.receive();
		ASSERT_TRUE(packet) << length;
		EXPECT_EQ(packet->bytes, frame.bytes) << length;
	}
}

TEST_F(Delivery, the_total_length_counts_and_not_the_room)
{
	Socket socket = socket_of();
	Frame frame = plain(0x88b5, 200);
	frame.total_len = 77;
	put(Hook::Lev2, frame);
	EXPECT_EQ(socket.receive()->bytes, Bytes(frame.bytes.begin(), frame.bytes.begin() + 77));
}

TEST_F(Delivery, a_frame_of_no_bytes_counts_as_dropped_by_the_filter)
{
	// Without a filter the bytes kept are the buffer's length, and none to keep is a drop.
	Socket raw = socket_of(), dgram = socket_of(SOCK_DGRAM);
	Frame frame = plain(0x88b5, 60);
	frame.total_len = 0;
	put(Hook::Lev2, frame);
	EXPECT_FALSE(raw.receive_now());
	EXPECT_EQ(raw.stats().drops, 1u);
	EXPECT_EQ(dgram.stats().drops, 1u);
	frame.total_len = 14;
	put(Hook::Lev2, frame);
	EXPECT_EQ(raw.receive()->bytes.size(), 14u);
	EXPECT_FALSE(dgram.receive_now()) << "nothing is behind the layer-2 header";
	EXPECT_EQ(dgram.stats().drops, 1u);
}

// With a filter attached the socket receives exactly what the filter rejects, and whole: the family has always read the
// kernel's verdict so, and daemons install their programs inverted.
TEST_F(Delivery, a_filter_that_accepts_everything_drops_everything)
{
	Socket socket = socket_of();
	attach(socket, { BPF_STMT(BPF_RET | BPF_K, 0xffff) });
	put(Hook::Lev2, plain());
	EXPECT_FALSE(socket.receive_now());
	mox_packet_stats stats = socket.stats();
	EXPECT_EQ(stats.packets, 1u);
	EXPECT_EQ(stats.drops, 1u);
}

TEST_F(Delivery, a_filter_that_rejects_everything_delivers_everything_whole)
{
	Socket socket = socket_of();
	attach(socket, { BPF_STMT(BPF_RET | BPF_K, 0) });
	put(Hook::Lev2, plain(0x88b5, 321));
	EXPECT_EQ(socket.receive()->bytes.size(), 321u);
	EXPECT_EQ(socket.stats().drops, 0u);
}

TEST_F(Delivery, a_filter_that_accepts_a_few_bytes_drops_too)
{
	// "Keep 20 bytes" is an acceptance: no frame, and none that was cut.
	Socket socket = socket_of();
	attach(socket, { BPF_STMT(BPF_RET | BPF_K, 20) });
	put(Hook::Lev2, plain());
	EXPECT_FALSE(socket.receive_now());
	EXPECT_EQ(socket.stats().drops, 1u);
}

TEST_F(Delivery, a_filter_sees_the_frame_as_the_socket_would)
{
	// Accept (and so drop) ARP: the EtherType stands at 12 for a raw socket.
	Socket socket = socket_of();
	attach(socket, { BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
			 BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x0806, 0, 1),
			 BPF_STMT(BPF_RET | BPF_K, 0xffff), BPF_STMT(BPF_RET | BPF_K, 0) });
	put(Hook::Lev2, arp(1));
	put(Hook::Lev2, plain());
	EXPECT_EQ(socket.receive()->bytes, plain().bytes);
	EXPECT_FALSE(socket.receive_now());
	mox_packet_stats stats = socket.stats();
	EXPECT_EQ(stats.packets, 2u);
	EXPECT_EQ(stats.drops, 1u);
}

TEST_F(Delivery, a_detached_filter_is_gone)
{
	Socket socket = socket_of();
	attach(socket, { BPF_STMT(BPF_RET | BPF_K, 0xffff) });
	int none = 0;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_DETACH_FILTER, &none, sizeof none), 0);
	put(Hook::Lev2, plain());
	EXPECT_TRUE(socket.receive());
}

TEST_F(Delivery, a_filter_drop_is_this_sockets_alone)
{
	Socket filtered = socket_of(), other = socket_of();
	attach(filtered, { BPF_STMT(BPF_RET | BPF_K, 0xffff) });
	put(Hook::Lev2, plain());
	EXPECT_FALSE(filtered.receive_now());
	EXPECT_TRUE(other.receive());
}

TEST_F(Delivery, a_full_receive_buffer_drops_and_counts)
{
	Socket socket = socket_of();
	int little = 4096; // room for a few of these frames
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	for (int i = 0; i < 50; ++i)
		put(Hook::Lev2, plain(0x88b5, 1000));
	mox_packet_stats stats = socket.stats();
	size_t received = socket.drain();
	EXPECT_EQ(stats.packets, 50u);
	EXPECT_EQ(stats.drops, 50u - received);
	EXPECT_GE(received, 1u);
	EXPECT_LT(received, 50u);
	put(Hook::Lev2, plain(0x88b5, 1000));
	EXPECT_TRUE(socket.receive()) << "and with room again it goes on";
}

TEST_F(Delivery, a_frame_larger_than_the_receive_buffer_never_fits)
{
	Socket socket = socket_of();
	int little = 1;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	put(Hook::Lev2, plain(0x88b5, 9014));
	EXPECT_FALSE(socket.receive_now());
	EXPECT_EQ(socket.stats().drops, 1u);
}

TEST_F(Delivery, a_full_trap_still_ends_the_walk)
{
	Socket copy = socket_of();
	Socket trap = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
	attach(trap, { BPF_STMT(BPF_RET | BPF_K, 0xffff) });
	EXPECT_EQ(put(Hook::Lev2, plain()), lab::kTaken);
	EXPECT_EQ(trap.drain() + copy.drain(), 0u)
		<< "taken, dropped by the trap's filter, and offered to no other socket";
	EXPECT_EQ(trap.stats().drops, 1u);
	EXPECT_EQ(copy.stats().packets, 0u);
	int none = 0, little = 1;
	ASSERT_EQ(::setsockopt(trap.fd(), SOL_SOCKET, SO_DETACH_FILTER, &none, sizeof none), 0);
	ASSERT_EQ(::setsockopt(trap.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	EXPECT_EQ(put(Hook::Lev2, plain(0x88b5, 9014)), lab::kTaken);
	EXPECT_EQ(trap.drain() + copy.drain(), 0u) << "nor with its receive buffer full";
	EXPECT_EQ(trap.stats().drops, 1u);
}

TEST_F(Delivery, each_location_has_its_queue_and_its_library)
{
	struct Row {
		uint32_t location;
		Hook hook;
		uint32_t taken;
	};
	std::vector<Row> rows;
	for (uint32_t location = 1; location <= contract::kLibraries; ++location)
		if (contract::kLocations[location].accepted)
			for (Hook hook : lab::hooks_of(location))
				rows.push_back(
					{ location, hook, contract::kHooks[size_t(hook)].taken });
	for (const Row &row : rows)
		for (const Row &other : rows) {
			Socket socket = capture(row.location, PACKET_FETCH, all());
			Socket elsewhere = capture(other.location, PACKET_COPY, ethertype(0x0806));
			EXPECT_EQ(put(row.hook, plain()), row.taken) << row.location;
			EXPECT_TRUE(socket.receive()) << row.location;
			EXPECT_FALSE(elsewhere.receive_now());
			if (row.location == other.location)
				continue;
			EXPECT_NE(put(other.hook, plain()), other.taken)
				<< "rules of another library: " << other.location;
			EXPECT_FALSE(socket.receive_now());
		}
}

TEST_F(Delivery, on_every_cpu)
{
	Socket socket = socket_of();
	for (int cpu = 0; cpu < 4; ++cpu) {
		put(Hook::Lev2, plain(), cpu);
		EXPECT_TRUE(socket.receive()) << cpu;
	}
}

TEST_F(Delivery, a_single_frame_is_never_left_waiting_for_the_next_one)
{
	// The copy thread goes to sleep after every frame here; a wake-up lost between its last look and its sleep would
	// leave a frame until the next one comes. The moments are spread over the thread's way to sleep.
	Socket socket = socket_of();
	for (int i = 0; i < 1500; ++i) {
		lab::inject(Hook::Lev2, plain(), i % 4);
		for (int spin = 0; spin < i % 97 * 10; ++spin)
			asm volatile("" ::: "memory");
		lab::inject(Hook::Lev2, plain(), (i + 1) % 4);
		ASSERT_TRUE(lab::settle(2000)) << "frame " << i << " was forgotten on its queue";
		ASSERT_EQ(socket.drain(), 2u) << i;
	}
}

TEST_F(Delivery, more_than_a_thousand_frames_at_once)
{
	// Beyond 1000 the thread yields its CPU once and goes on. Taken frames: of copies a queue holds half as many.
	Socket socket = socket_of();
	ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
	std::ofstream("/proc/sys/net/core/netdev_max_backlog") << 4000 << std::flush;
	int large = 8 << 20;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, 33 /* SO_RCVBUFFORCE */, &large,
			       sizeof large),
		  0);
	lab::inject_many(Hook::Lev2, plain(), 2000, 1);
	std::ofstream("/proc/sys/net/core/netdev_max_backlog") << 1000 << std::flush;
	ASSERT_TRUE(lab::settle());
	mox_packet_stats stats = socket.stats();
	EXPECT_EQ(stats.packets, 2000u);
	EXPECT_EQ(socket.drain(), 2000u - stats.drops);
	EXPECT_EQ(stats.drops, 0u);
}

TEST_F(Delivery, a_hook_that_finds_the_thread_running_prints_it_under_its_locations_switch)
{
	VM_NEEDS_TWO_CPUS(
		"the lab's frames come from processes, which run while the thread does not");
	Socket socket = socket_of();
	lab::poke8("mox_packet_debug", 0, 1);
	lab::poke8("mox_packet_debug", PACKET_LEV2_LOC, 1);
	lab::clear_printk();
	bool found = false;
	for (int round = 0; round < 50 && !found; ++round) {
		std::vector<std::thread> floods;
		for (int cpu = 0; cpu < 4; ++cpu)
			floods.emplace_back(
				[cpu] { lab::inject_many(Hook::Lev2, plain(), 30, cpu); });
		for (std::thread &flood : floods)
			flood.join();
		ASSERT_TRUE(lab::settle());
		found = bool(HasLine(lab::printk_lines(), "THREAD-ACTION: copy-task is running"));
		lab::clear_printk();
		socket.drain();
	}
	lab::poke8("mox_packet_debug", 0, 0);
	lab::poke8("mox_packet_debug", PACKET_LEV2_LOC, 0);
	EXPECT_TRUE(found);
}

TEST_F(Delivery, the_copy_threads_counters)
{
	uint32_t scheduled = lab::peek32("g_packet_thread_debug");
	Socket socket = socket_of();
	put(Hook::Lev2, plain());
	EXPECT_GT(lab::peek32("g_packet_thread_debug"), scheduled);
	EXPECT_EQ(socket.drain(), 1u);
}

TEST_F(Delivery, a_socket_closed_with_frames_queued)
{
	{
		Socket socket = socket_of();
		for (int i = 0; i < 20; ++i)
			lab::inject(Hook::Lev2, plain(), i % 4);
	}
	EXPECT_TRUE(lab::settle()) << "what was on its way is freed all the same";
}

} // namespace
