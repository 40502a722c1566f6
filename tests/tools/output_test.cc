/* SPDX-License-Identifier: GPL-2.0-only */
/* Texts of the programs on descriptors that cannot take them. */
#include "common/output.h"

#include "common/ending.h"
#include "pending_signal.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

class OutputTest : public testing::Test {
protected:
	void SetUp() override
	{
		tool::stop_requested = 0;
		sigemptyset(&waiting);
		ignored = std::signal(SIGPIPE, SIG_IGN);
		ASSERT_EQ(pipe(ends), 0);
	}
	void TearDown() override
	{
		close_end(0);
		close_end(1);
		std::signal(SIGPIPE, ignored);
		tool::stop_requested = 0;
	}
	void close_end(int which)
	{
		if (ends[which] >= 0)
			close(ends[which]);
		ends[which] = -1;
	}
	/** Makes the pipe's write end non-blocking and full; returns the bytes in it. */
	std::size_t fill()
	{
		EXPECT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
		const std::string block(4096, '.');
		std::size_t filled = 0;
		for (ssize_t done; (done = write(ends[1], block.data(), block.size())) > 0;)
			filled += static_cast<std::size_t>(done);
		return filled;
	}

	int ends[2] = { -1, -1 };
	sigset_t waiting;
	void (*ignored)(int) = nullptr;
};

TEST_F(OutputTest, print__a_full_device_is_a_failure_with_its_reason)
{
	int full = open("/dev/full", O_WRONLY);
	ASSERT_GE(full, 0);
	tool::Output output(full, waiting);
	EXPECT_EQ(output.failure(), "");
	output.print("text\n");
	EXPECT_EQ(tool::stop_requested, 1);
	EXPECT_EQ(output.failure(), "cannot write to standard output: No space left on device "
				    "(is the disk full?)");
	close(full);
}

TEST_F(OutputTest, print__a_reader_that_has_ended_stops_the_program_quietly)
{
	tool::Output output(ends[1], waiting);
	close_end(0);
	output.print("text\n");
	EXPECT_EQ(tool::stop_requested, 1);
	EXPECT_EQ(output.failure(), "");
}

TEST_F(OutputTest, print__nothing_follows_a_failure)
{
	tool::Output output(ends[1], waiting);
	int write_end = dup(ends[1]);
	close_end(1);
	output.print("text\n");
	EXPECT_EQ(output.failure(), "cannot write to standard output: Bad file descriptor");
	ends[1] = dup(write_end); // the lowest free number is the same one
	output.print("more\n");
	close_end(1);
	close(write_end);
	char byte;
	EXPECT_EQ(read(ends[0], &byte, 1), 0);
}

TEST_F(OutputTest, print__waits_for_room)
{
	std::size_t expected = fill() + 5;
	std::string all;
	std::thread reader([&] {
		char buffer[4096];
		while (all.size() < expected) {
			ssize_t length = read(ends[0], buffer, sizeof(buffer));
			if (length <= 0)
				break;
			all.append(buffer, static_cast<std::size_t>(length));
		}
	});
	tool::Output output(ends[1], waiting);
	output.print("text\n");
	close_end(1);
	reader.join();
	EXPECT_EQ(all.size(), expected);
	EXPECT_TRUE(all.ends_with(".text\n"));
	EXPECT_EQ(output.failure(), "");
	EXPECT_EQ(tool::stop_requested, 0);
}

TEST_F(OutputTest, print__a_signal_ends_the_wait_for_room)
{
	fill();
	PendingSignal signal;
	tool::Output output(ends[1], signal.waiting);
	output.print("text\n");
	EXPECT_EQ(PendingSignal::stopped, 1);
	EXPECT_EQ(tool::stop_requested, 1);
	EXPECT_EQ(output.failure(), "");
}

} // namespace
