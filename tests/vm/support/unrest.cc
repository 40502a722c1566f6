// SPDX-License-Identifier: GPL-2.0-only
#include "support/unrest.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "support/fixture.h"

namespace vm {

void Unrest::run(int cpu, unsigned pause, std::function<void(std::minstd_rand &)> work)
{
	threads_.emplace_back(
		[this, pause, work = std::move(work), number = unsigned(threads_.size())] {
			std::minstd_rand random(seed_ + number);
			for (; !stop_; std::this_thread::sleep_for(
				     std::chrono::microseconds(random() % (pause * 1000))))
				work(random);
		});
	pin(cpu, threads_.back().native_handle());
}

void Unrest::stop()
{
	stop_ = true;
	for (std::thread &thread : threads_)
		thread.join();
	threads_.clear();
}

void Unrest::complain(const std::string &what)
{
	std::lock_guard<std::mutex> guard(lock_);
	if (trouble_.size() < 20)
		trouble_.push_back(what);
}

unsigned seed_of_run()
{
	const char *given = std::getenv("MOX_SEED");
	const unsigned seed = given ? unsigned(std::atoi(given)) : unsigned(std::random_device{}());
	std::printf("seed %u\n", seed);
	return seed;
}

} // namespace vm
