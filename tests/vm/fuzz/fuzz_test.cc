// SPDX-License-Identifier: GPL-2.0-only
// Random and half-valid system calls and netlink messages on four CPUs, for MOX_FUZZ_MINUTES (lab/test --fuzz; otherwise
// 10 seconds), three of them without any privilege and one as an operator, who also makes its own allocations fail. With
// KCOV the cases are those that took new branches, and changes of them. What counts is what the checked kernel says, that
// everything is given back, and that the sums of the ledger hold.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cases.h"
#include "kcov.h"
#include "support/capture.h"
#include "support/churn.h"
#include "support/module.h"
#include "support/unrest.h"
#include "worker.h"

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr unsigned kWorkers = 4;
/// A worker that ends no case for so long hangs.
constexpr seconds kHung{ 180 };

/// The virtio port on which cases leave the machine before they are played; -1 without one.
int case_port()
{
	for (int n = 0; n < 16; ++n) {
		const std::string name = "vport0p" + std::to_string(n);
		std::string found;
		std::ifstream("/sys/class/virtio-ports/" + name + "/name") >> found;
		if (found == "lab.cases")
			return ::open(("/dev/" + name).c_str(), O_WRONLY | O_CLOEXEC);
	}
	return -1;
}

class Fuzz : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		compare_records_ = false; // plain words that several CPUs count
		lab::echo_printk(false);
		void *area = ::mmap(nullptr, sizeof *progress_, PROT_READ | PROT_WRITE,
				    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		ASSERT_NE(area, MAP_FAILED);
		progress_ = new (area) fuzz::Progress();
	}
	void TearDown() override
	{
		stop();
		lab::echo_printk(true);
		VmTest::TearDown();
		// Requests may have switched hooks off and filters on.
		EXPECT_EQ(unload_module("mox_ef_socket"), 0);
		EXPECT_EQ(load_module("mox_ef_socket"), 0);
	}
	void start(const fuzz::Plan &plan)
	{
		std::fflush(stdout);
		const pid_t pid = ::fork();
		ASSERT_GE(pid, 0);
		if (pid == 0)
			fuzz::work(plan, *progress_);
		workers_.push_back(pid);
	}
	/// Ends all workers. Each must end by itself, and well.
	void stop()
	{
		progress_->stop = true;
		const auto end = Clock::now() + kHung;
		for (pid_t pid : workers_) {
			int status = 0;
			while (::waitpid(pid, &status, WNOHANG) == 0) {
				if (Clock::now() > end) {
					ADD_FAILURE() << "worker " << pid << " hangs in a call";
					::kill(pid, SIGKILL);
					::waitpid(pid, &status, 0);
					break;
				}
				std::this_thread::sleep_for(std::chrono::milliseconds(10));
			}
			EXPECT_EQ(status, 0) << "worker " << pid;
		}
		workers_.clear();
	}
	uint64_t sum(std::atomic<uint64_t> fuzz::Progress::Worker::*word) const
	{
		uint64_t all = 0;
		for (const auto &worker : progress_->workers)
			all += worker.*word;
		return all;
	}

	fuzz::Progress *progress_ = nullptr;
	std::vector<pid_t> workers_;
};

/// The cases to play again, of all workers; none without such a file. A line that is no case fails the test, which plays
/// the others all the same.
std::vector<fuzz::Case> cases_to_play()
{
	const char *name = std::getenv("MOX_FUZZ_CASES");
	if (!name)
		return {};
	std::ifstream in(name);
	fuzz::CaseFile file = fuzz::read_cases(in, kWorkers);
	for (const std::string &line : file.named)
		ADD_FAILURE() << name << ": no case in " << line;
	EXPECT_EQ(file.bad, 0u) << "lines that are no case";
	return std::move(file.cases);
}

TEST_F(Fuzz, random_calls_on_four_cpus)
{
	const char *minutes = std::getenv("MOX_FUZZ_MINUTES");
	const seconds length = minutes ? seconds(std::atoi(minutes) * 60) : seconds(10);
	const unsigned seed = seed_of_run();
	const bool again = std::getenv("MOX_FUZZ_CASES") != nullptr;
	std::printf("%s\n",
		    fuzz::Kcov().on() ? "guided by KCOV" : "not guided: this kernel has no KCOV");

	fuzz::Plan plan;
	plan.seed = seed;
	plan.log = again ? -1 : case_port();
	{
		GenlSocket socket;
		plan.families.control = genl_family_id(socket, MOX_PACKET_GENL_NAME);
		plan.families.capture = genl_family_id(socket, MOX_CAPTURE_NAME);
	}
	ASSERT_NE(plan.families.control, 0);
	ASSERT_NE(plan.families.capture, 0);
	hook_traffic();
	const std::vector<fuzz::Case> planned = cases_to_play();
	for (plan.cpu = 0; plan.cpu < kWorkers; ++plan.cpu) {
		plan.operates = plan.cpu == kWorkers - 1;
		plan.cases.clear();
		for (const fuzz::Case &one : planned)
			if (one.cpu == plan.cpu)
				plan.cases.push_back(one.bytes);
		if (!again || !plan.cases.empty())
			start(plan);
	}
	if (again) {
		ASSERT_FALSE(planned.empty()) << "no case in the file";
	}

	const auto begin = Clock::now();
	const auto step = std::max(length / 20, seconds(5));
	auto next = begin + step, moved = begin;
	uint64_t before = 0;
	while (again ? sum(&fuzz::Progress::Worker::cases) < planned.size()
		     : Clock::now() < begin + length) {
		std::this_thread::sleep_for(std::chrono::milliseconds(100));
		const uint64_t cases = sum(&fuzz::Progress::Worker::cases);
		if (cases != before)
			moved = Clock::now();
		before = cases;
		if (Clock::now() > moved + kHung) {
			ADD_FAILURE() << "no worker ends its case";
			break;
		}
		if (Clock::now() < next)
			continue;
		next += step;
		std::printf(
			"fuzz: %lld of %lld s, %llu cases, %llu calls, %llu cases kept, %llu branches\n",
			(long long)std::chrono::duration_cast<seconds>(Clock::now() - begin)
				.count(),
			(long long)length.count(), (unsigned long long)cases,
			(unsigned long long)sum(&fuzz::Progress::Worker::calls),
			(unsigned long long)sum(&fuzz::Progress::Worker::kept),
			(unsigned long long)sum(&fuzz::Progress::Worker::steps));
		std::fflush(stdout);
	}
	stop();
	std::printf("fuzz: %llu cases, %llu calls\n",
		    (unsigned long long)sum(&fuzz::Progress::Worker::cases),
		    (unsigned long long)sum(&fuzz::Progress::Worker::calls));
	for (unsigned cpu = 0; cpu < kWorkers; ++cpu)
		EXPECT_FALSE(progress_->workers[cpu].failed) << "worker " << cpu;
	EXPECT_GT(sum(&fuzz::Progress::Worker::calls), 0u);
}

} // namespace
