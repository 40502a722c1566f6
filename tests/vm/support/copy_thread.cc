// SPDX-License-Identifier: GPL-2.0-only
#include "support/copy_thread.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <sched.h>

#include <gtest/gtest.h>

#include "support/cpus.h"

namespace vm {

namespace {

/// Lets the task run on one CPU, or with -1 on all of them.
void allow(pid_t task, int cpu)
{
	const cpu_set_t set = affinity_for(cpu);
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
	allow(pid_, cpu);
}

CopyThreadOn::~CopyThreadOn()
{
	allow(pid_, -1);
}

} // namespace vm
