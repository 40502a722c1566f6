// SPDX-License-Identifier: GPL-2.0-only
// Loading and unloading: what is refused, what a failed load leaves, and unloading with frames on their way.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

#include "support/failnth.h"
#include "support/fixture.h"
#include "support/module.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

constexpr const char *kModule = "mox_ef_socket";

class Load : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		compare_records_ = false; // a module loaded anew starts its counters at 0
	}
	void TearDown() override
	{
		if (module_present("af_packet")) {
			EXPECT_EQ(unload_module("af_packet"), 0);
		}
		if (!module_present(kModule)) {
			EXPECT_EQ(load_module(kModule), 0);
		}
		VmTest::TearDown();
	}
	static int socket_error() { return Socket().error(); }
};

TEST_F(Load, unload_and_load_again)
{
	for (int i = 0; i < 5; ++i) {
		ASSERT_EQ(unload_module(kModule), 0);
		EXPECT_EQ(socket_error(), EAFNOSUPPORT);
		ASSERT_EQ(load_module(kModule), 0);
		EXPECT_EQ(socket_error(), 0);
		Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
		put(Hook::Lev2, plain());
		EXPECT_TRUE(socket.receive());
	}
}

TEST_F(Load, twice_is_refused)
{
	EXPECT_EQ(load_module(kModule), EEXIST);
	EXPECT_EQ(socket_error(), 0);
}

TEST_F(Load, a_socket_keeps_the_module)
{
	Socket socket;
	EXPECT_EQ(unload_module(kModule), EAGAIN);
	socket.close();
	EXPECT_EQ(unload_module(kModule), 0);
}

TEST_F(Load, there_is_one_copy_thread_and_it_goes)
{
	auto threads = [] {
		int count = 0;
		for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
			FILE *comm = std::fopen((entry.path() / "comm").c_str(), "r");
			char name[64] = "";
			if (comm && std::fgets(name, sizeof name, comm) &&
			    !std::strcmp(name, "packet-copy\n"))
				++count;
			if (comm)
				std::fclose(comm);
		}
		return count;
	};
	EXPECT_EQ(threads(), 1);
	ASSERT_EQ(unload_module(kModule), 0);
	EXPECT_EQ(threads(), 0);
}

TEST_F(Load, refused_while_the_kernels_own_module_holds_the_family)
{
	ASSERT_TRUE(module_shipped("af_packet")) << "the image lacks af_packet.ko";
	ASSERT_EQ(unload_module(kModule), 0);
	ASSERT_EQ(load_module("af_packet"), 0);
	lab::clear_printk();
	EXPECT_EQ(load_module(kModule), EPERM) << "the load answers -1";
	EXPECT_FALSE(module_present(kModule));
	auto lines = lab::printk_lines();
	std::vector<std::string> wanted = { "\1"
					    "6SOCK-REGISTER: return -17\n",
					    "\1"
					    "6PACKET-FAMILY init failed\n" };
	EXPECT_EQ(lines, wanted);
	EXPECT_EQ(lab::registrations(), 0u);
	ASSERT_EQ(unload_module("af_packet"), 0);
	EXPECT_EQ(load_module(kModule), 0) << "and with the family free it loads";
	EXPECT_EQ(socket_error(), 0);
}

TEST_F(Load, every_failure_of_a_load_leaves_nothing)
{
	if (!can_inject_failures())
		GTEST_SKIP() << "this kernel injects no failures; the checked one does";
	ASSERT_EQ(unload_module(kModule), 0);
	FailNth injector;
	// The module's own allocations are the last of a load: count them all, then fail them from the back.
	constexpr unsigned kMany = 1000000;
	injector.arm(kMany);
	ASSERT_EQ(load_module(kModule), 0);
	unsigned total = kMany - injector.disarm();
	ASSERT_EQ(unload_module(kModule), 0);
	std::vector<std::string> lines;
	int refused = 0;
	// There may be hundreds for a cache's files in sysfs, which a load can do without: behind 40 of those in a row
	// only every eighth is tried until one is refused, and then each one around that.
	constexpr unsigned kInARow = 40, kStride = 8;
	unsigned each = kInARow, accepted = 0, step = 1;
	bool library = false;
	for (unsigned nth = total; nth > step && (each > 0 || !library); nth -= step) {
		each -= refused > 0 && each > 0;
		lab::clear_printk();
		injector.arm(nth);
		int error = load_module(kModule);
		injector.disarm();
		if (error == 0) {
			EXPECT_EQ(socket_error(), 0);
			ASSERT_EQ(unload_module(kModule), 0);
			step = ++accepted < kInARow ? 1 : kStride;
			continue;
		}
		++refused;
		accepted = 0;
		if (step == kStride) {
			nth += kStride;
			each = kInARow;
			step = 1;
		}
		EXPECT_TRUE(error == EPERM || error == ENOMEM || error == EFAULT)
			<< strerror(error);
		EXPECT_FALSE(module_present(kModule));
		EXPECT_EQ(socket_error(), EAFNOSUPPORT);
		for (const std::string &line : lab::printk_lines())
			lines.push_back(line);
		library = bool(HasLine(lines, "PACKET-REGULAR init failed"));
	}
	EXPECT_GT(refused, 4);
	EXPECT_TRUE(HasLine(lines, "PACKET-REGULAR init failed"));
	EXPECT_TRUE(
		HasLine(lines,
			"MOX-PACKET-REGULAR-INIT: failed to create pkt_regular_data_cache.") ||
		HasLine(lines,
			"MOX-PACKET-REGULAR-INIT: failed to create pkt_regular_item_cache.") ||
		HasLine(lines,
			"MOX-PACKET-REGULAR-INIT: failed to create pkt_filter_list_cache.") ||
		HasLine(lines, "MOX-PACKET-REGULAR-INIT: failed to create pkt_match_list_cache."));
	EXPECT_EQ(load_module(kModule), 0);
}

TEST_F(Load, unload_with_frames_on_their_way)
{
	for (int i = 0; i < 8; ++i) {
		{
			Socket socket = capture(PACKET_LEV2_LOC, i % 2 ? PACKET_FETCH : PACKET_COPY,
						all());
			for (int cpu = 0; cpu < 4; ++cpu)
				lab::inject_many(Hook::Lev2, plain(), 20, cpu);
		}
		ASSERT_EQ(unload_module(kModule), 0);
		EXPECT_EQ(lab::books().live, 0)
			<< "round " << i << ": what was queued is freed by the unload";
		ASSERT_EQ(load_module(kModule), 0);
	}
}

TEST_F(Load, unload_while_hooks_fire_on_the_other_cpus)
{
	std::atomic<bool> stop{ false };
	std::vector<std::thread> floods;
	for (int cpu = 1; cpu < 4; ++cpu)
		floods.emplace_back([&, cpu] {
			Frame frame = plain();
			while (!stop) {
				frame.softirq = !frame.softirq;
				lab::flood(Hook::Lev2, frame, 8, cpu);
				// An emulated CPU under the checked kernel needs air, or the flood itself is taken for a lock-up.
				std::this_thread::sleep_for(std::chrono::milliseconds(3));
			}
		});
	for (int rounds = 0; rounds < 3; ++rounds) {
		{
			Socket socket = capture(PACKET_LEV2_LOC,
						rounds % 2 ? PACKET_FETCH : PACKET_COPY, all());
			std::this_thread::sleep_for(std::chrono::milliseconds(5));
		}
		EXPECT_EQ(unload_module(kModule), 0) << rounds;
		EXPECT_EQ(load_module(kModule), 0) << rounds;
	}
	stop = true;
	for (std::thread &flood : floods)
		flood.join();
}

TEST_F(Load, sockets_opened_while_the_module_goes)
{
	std::atomic<bool> stop{ false };
	std::atomic<int> opened{ 0 };
	std::vector<std::thread> openers;
	for (int cpu = 1; cpu < 4; ++cpu)
		openers.emplace_back([&, cpu] {
			pin(cpu);
			for (unsigned tried = 1; !stop; ++tried) {
				// The kernel frees a socket's inode after a grace period, which can take seconds while
				// the host is busy: without pauses they fill the memory.
				if (tried % 8 == 0)
					std::this_thread::sleep_for(std::chrono::milliseconds(1));
				Socket socket(SOCK_RAW);
				if (socket.error() == 0)
					++opened;
				else
					EXPECT_EQ(socket.error(), EAFNOSUPPORT);
			}
		});
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(6);
	int unloaded = 0;
	while (std::chrono::steady_clock::now() < end) {
		int error = unload_module(kModule);
		ASSERT_TRUE(error == 0 || error == EAGAIN || error == ENOENT) << strerror(error);
		if (error == 0) {
			++unloaded;
			ASSERT_EQ(load_module(kModule), 0);
		}
	}
	stop = true;
	for (std::thread &opener : openers)
		opener.join();
	EXPECT_GT(opened, 0);
}

} // namespace
