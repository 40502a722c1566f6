// SPDX-License-Identifier: GPL-2.0-only
#include "support/copy_thread.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <sched.h>

#include <gtest/gtest.h>

namespace vm {

namespace {

/// Bit n of `cpus`: the task may run on CPU n.
void allow(pid_t task, unsigned cpus)
{
	cpu_set_t set;
	CPU_ZERO(&set);
	for (int cpu = 0; cpu < 4; ++cpu)
		if (cpus >> cpu & 1)
			CPU_SET(cpu, &set);
	EXPECT_EQ(::sched_setaffinity(task, sizeof set, &set), 0) << strerror(errno);
}

} // namespace

pid_t copy_thread()
{
	for (const auto &process : std::filesystem::directory_iterator("/proc")) {
		std::ifstream file(process.path() / "comm");
		std::string name;
		if (file >> name && name == "packet-copy")
			return std::stoi(process.path().filename());
	}
	return -1;
}

CopyThreadOn::CopyThreadOn(int cpu) : pid_(copy_thread())
{
	EXPECT_GT(pid_, 0) << "no copy thread";
	allow(pid_, 1u << cpu);
}

CopyThreadOn::~CopyThreadOn()
{
	allow(pid_, 0xf);
}

} // namespace vm
