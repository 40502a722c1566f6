// SPDX-License-Identifier: GPL-2.0-only
#include "support/failnth.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace vm {

static bool set(const char *file, const char *value)
{
	std::ofstream out(std::string("/sys/kernel/debug/") + file);
	return bool(out << value << std::flush);
}

bool user_copies_can_fail()
{
	return access("/sys/kernel/debug/fail_usercopy", F_OK) == 0;
}

bool can_inject_failures()
{
	static const bool able = [] {
		// Sleeping allocations count too; page allocations do not, or the test's own page faults would fail. Quiet, because
		// every failure would otherwise print a call trace.
		set("failslab/verbose", "0");
		set("fail_usercopy/verbose", "0");
		set("fail_page_alloc/verbose", "0");
		set("fail_page_alloc/min-order", "10");
		return set("failslab/ignore-gfp-wait", "N") &&
		       ::access("/proc/thread-self/fail-nth", W_OK) == 0;
	}();
	return able;
}

FailNth::FailNth() : fd_(::open("/proc/thread-self/fail-nth", O_RDWR | O_CLOEXEC))
{
	if (fd_ < 0)
		throw std::runtime_error("fail-nth");
}

FailNth::FailNth(pid_t task)
	: fd_(::open(("/proc/" + std::to_string(task) + "/fail-nth").c_str(), O_RDWR | O_CLOEXEC))
{
	if (fd_ < 0)
		throw std::runtime_error("fail-nth");
}

FailNth::~FailNth()
{
	::close(fd_);
}

void FailNth::arm(unsigned nth)
{
	char text[16];
	int length = std::snprintf(text, sizeof text, "%u", nth);
	if (::pwrite(fd_, text, length, 0) != length)
		throw std::runtime_error("fail-nth: write");
}

unsigned FailNth::disarm()
{
	char text[16] = {};
	// The reading is a user copy itself: with one failure to go it is the one that fails.
	unsigned left = ::pread(fd_, text, sizeof text - 1, 0) < 0 ? 1 : unsigned(std::atoi(text));
	while (::pwrite(fd_, "0", 1, 0) != 1)
		if (errno != EFAULT)
			throw std::runtime_error("fail-nth: write");
	return left;
}

AllocationsFail::AllocationsFail()
	: fd_(::open("/proc/thread-self/make-it-fail", O_RDWR | O_CLOEXEC))
{
	if (fd_ < 0 || ::pwrite(fd_, "1", 1, 0) != 1)
		throw std::runtime_error("make-it-fail");
}

AllocationsFail::~AllocationsFail()
{
	while (::pwrite(fd_, "0", 1, 0) != 1)
		std::perror("make-it-fail");
	::close(fd_);
}

} // namespace vm
