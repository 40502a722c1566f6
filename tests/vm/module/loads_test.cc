// SPDX-License-Identifier: GPL-2.0-only
// Loads and unloads under traffic, sockets and requests: MOX_LOADS of them (lab/test --loads; otherwise a few). What a load
// leaves behind shows at the end of the machine, when kmemleak has looked.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/capture.h"
#include "support/churn.h"
#include "support/genl.h"
#include "support/module.h"
#include "support/send.h"

namespace {

using namespace vm;
using namespace frames;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char *kModule = "mox_ef_socket";

class Loads : public SendTest {
protected:
	void SetUp() override
	{
		SendTest::SetUp();
		compare_records_ = false; // a module loaded anew starts its counters at 0
		lab::echo_printk(false);
	}
	void TearDown() override
	{
		stop_ = true;
		for (std::thread &thread : threads_)
			thread.join();
		lab::echo_printk(true);
		if (!module_present(kModule)) {
			EXPECT_EQ(load_module(kModule), 0);
		}
		SendTest::TearDown();
	}
	/// Does the work on the CPU again and again, with pauses in which the module can go.
	template <class Work> void run(int cpu, Work work)
	{
		threads_.emplace_back([this, cpu, work] {
			pin(cpu);
			std::minstd_rand random(unsigned(cpu) + 1);
			for (; !stop_; std::this_thread::sleep_for(milliseconds(2 + random() % 8)))
				work(random);
		});
	}
	/// Waits until frames reached hooks, a socket was made and a request sent since, half a second at most.
	void wait_for_use()
	{
		const uint64_t frames = frames_, sockets = sockets_, requests = requests_;
		const auto end = Clock::now() + milliseconds(500);
		while ((frames_ == frames || sockets_ == sockets || requests_ == requests) &&
		       Clock::now() < end)
			std::this_thread::sleep_for(milliseconds(1));
	}
	/// Whether the module went; users and requests under way keep it for moments only.
	static bool unload()
	{
		const auto end = Clock::now() + std::chrono::seconds(60);
		int error;
		while ((error = unload_module(kModule)) == EAGAIN || error == EBUSY) {
			if (Clock::now() > end)
				break;
			std::this_thread::sleep_for(milliseconds(1));
		}
		EXPECT_EQ(error, 0) << strerror(error);
		return error == 0;
	}

	std::atomic<bool> stop_{ false };
	std::atomic<uint64_t> frames_{ 0 }, sockets_{ 0 }, refused_{ 0 }, requests_{ 0 },
		sent_{ 0 };

private:
	std::vector<std::thread> threads_;
};

TEST_F(Loads, many_under_traffic_sockets_and_requests)
{
	const char *given = std::getenv("MOX_LOADS");
	const int loads = given ? std::atoi(given) : 5;
	const auto frame = [this](std::minstd_rand &random) {
		const HookTraffic &one = hook_traffic()[random() % hook_traffic().size()];
		frames_ += lab::flood(one.hook, one.frame, 4, -1);
	};
	run(1, frame);
	run(3, frame);
	run(2, [this](std::minstd_rand &random) {
		Socket socket(random() % 2 ? SOCK_RAW : SOCK_DGRAM);
		if (socket.error()) {
			EXPECT_EQ(socket.error(), EAFNOSUPPORT);
			++refused_;
			return;
		}
		socket.add(random() % 2 ? all() : be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 0x88b5 }));
		socket.treatment(1 + uint32_t(random() % 3));
		socket.location(1 + uint32_t(random() % 4));
		Send send;
		send.data = Bytes(60, 0x55);
		send.to(lab::kPortA, 6, 0x88b7);
		sent_ += send.by(socket.fd()) > 0;
		for (int i = 0; i < 4; ++i)
			socket.receive(5);
		++sockets_;
	});
	run(3, [this](std::minstd_rand &random) {
		GenlSocket socket;
		const char *name = random() % 2 ? MOX_PACKET_GENL_NAME : MOX_CAPTURE_NAME;
		GenlMessage request;
		request.type = genl_family_id(socket, name);
		if (!request.type)
			return;
		if (name == std::string(MOX_CAPTURE_NAME)) {
			request.cmd = uint8_t(1 + random() % 7);
			if (is_dump(mox_capture_cmd(request.cmd)))
				request.flags |= 0x300;
		} else {
			Bytes record = le16(uint16_t(random() % 14));
			record.resize(4 + 8);
			request.payload = attribute(MOX_PACKET_GENL_ATTR, record);
		}
		// The family may have gone since.
		requests_ += socket.send(request.bytes()) == 0;
		while (socket.receive(1)) {}
	});

	const auto begin = Clock::now();
	int done = 0;
	for (; done < loads && unload(); ++done) {
		ASSERT_EQ(lab::registrations(), 0u) << "hooks of a module that is gone";
		ASSERT_EQ(lab::books().live, 0) << "efbuffs of a module that is gone";
		ASSERT_EQ(load_module(kModule), 0);
		// Most loads end in the middle of traffic, one of four while it only begins.
		if (done % 4)
			wait_for_use();
		else
			std::this_thread::sleep_for(milliseconds(20));
		if ((done + 1) % 50 == 0) {
			std::printf(
				"loads: %d of %d in %lld s, %llu frames, %llu sockets, %llu requests\n",
				done + 1, loads,
				(long long)std::chrono::duration_cast<std::chrono::seconds>(
					Clock::now() - begin)
					.count(),
				(unsigned long long)frames_, (unsigned long long)sockets_,
				(unsigned long long)requests_);
			std::fflush(stdout);
		}
	}
	EXPECT_EQ(done, loads);
	std::printf(
		"%d loads; %llu frames at hooks, %llu sockets, %llu without a family, %llu sent, %llu requests\n",
		done, (unsigned long long)frames_, (unsigned long long)sockets_,
		(unsigned long long)refused_, (unsigned long long)sent_,
		(unsigned long long)requests_);
	EXPECT_GT(frames_, 0u);
	EXPECT_GT(sockets_, 0u);
	EXPECT_GT(requests_, 0u);
}

} // namespace
