// SPDX-License-Identifier: GPL-2.0-only
// Threads of load for the long tests.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace vm {

/// Threads that work until stop(), each with random numbers of its own.
class Unrest {
public:
	explicit Unrest(unsigned seed) : seed_(seed) {}
	~Unrest() { stop(); }

	/// Does the work on the CPU again and again, with pauses of up to so many milliseconds: an
	/// emulated CPU under the checked kernel needs them, or the load itself is taken for a lock-up,
	/// and nothing else gets its share.
	void run(int cpu, unsigned pause, std::function<void(std::minstd_rand &)> work);
	void stop();

	/// What went wrong, from any thread; the first twenty.
	void complain(const std::string &what);
	const std::vector<std::string> &trouble() const { return trouble_; }

private:
	const unsigned seed_;
	std::atomic<bool> stop_{ false };
	std::vector<std::thread> threads_;
	std::mutex lock_;
	std::vector<std::string> trouble_;
};

/// The seed of a run, which it prints: MOX_SEED, or a random one.
unsigned seed_of_run();

} // namespace vm
