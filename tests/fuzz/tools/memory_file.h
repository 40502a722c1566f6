// SPDX-License-Identifier: GPL-2.0-only
// A file in memory, for code that takes a path.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

class MemoryFile {
public:
	explicit MemoryFile(const std::vector<uint8_t> &content = {}) : fd_(memfd_create("case", 0))
	{
		EXPECT_GE(fd_, 0);
		EXPECT_EQ(write(fd_, content.data(), content.size()), ssize_t(content.size()));
	}
	~MemoryFile() { close(fd_); }
	MemoryFile(const MemoryFile &) = delete;
	MemoryFile &operator=(const MemoryFile &) = delete;

	std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
	int fd_;
};
