// SPDX-License-Identifier: GPL-2.0-only
// Every allocation and every user copy of a send failing in turn, by the kernel's own failure injection.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "support/failnth.h"
#include "support/send.h"

namespace {

using namespace vm;

class Failures : public SendTest {
protected:
	void TearDown() override
	{
		std::filesystem::current_path(home_);
		SendTest::TearDown();
	}
	std::filesystem::path home_ = std::filesystem::current_path();
};

TEST_F(Failures, each_allocation_and_copy_of_a_send)
{
	if (!can_inject_failures())
		GTEST_SKIP() << "this kernel injects no failures; the checked one does";
	std::vector<std::string> lines;
	for (int type : { SOCK_RAW, SOCK_DGRAM }) {
		Socket socket(type);
		Send send;
		send.data = counting(60);
		send.with({}).to(lab::kPortA);
		uint32_t sent = 0, refused = 0;
		SendCounters before = SendCounters::of(socket);
		lab::clear_printk();
		ssize_t result = 0;
		int error = 0;
		int failures = with_each_failure(
			[&] {
				errno = 0;
				result = send.by(socket.fd());
				error = errno;
			},
			[&](bool) {
				if (result == 60)
					++sent;
				else
					EXPECT_TRUE(error == ENOMEM || error == EFAULT ||
						    error == ENOBUFS)
						<< std::strerror(error);
				refused += result != 60;
				EXPECT_EQ(lab::books().live, 0);
			});
		EXPECT_GT(failures, 0);
		for (const std::string &line : lab::printk_lines())
			lines.push_back(line);
		SendCounters counters = SendCounters::of(socket) - before;
		EXPECT_EQ(counters.sent, sent);
		EXPECT_GE(counters.alloc_efbuff, 1u) << "one of the allocations is the efbuff's";
		EXPECT_LE(counters.alloc_efbuff + counters.pkt_copy, refused)
			<< "the kernel refuses some before us";
		if (user_copies_can_fail()) {
			EXPECT_GE(counters.pkt_copy, 1u);
		}
	}
	// Without its path buffer a sender counts as one of vsd 0, and goes on. Older kernels' kmemleak allocates beside every
	// allocation until one fails, which shifts the numbers once: the buffer may be passed over on the first socket.
	EXPECT_TRUE(HasLine(lines, "Failed to kmalloc buf."));
}

/// A process of another virtual switch device is refused, but not when the buffer for its path cannot be allocated: then it
/// counts as one of vsd 0.
TEST_F(Failures, a_sender_whose_path_cannot_be_read_counts_as_vsd_0)
{
	if (!can_inject_failures())
		GTEST_SKIP() << "this kernel injects no failures; the checked one does";
	Socket socket(SOCK_RAW);
	Send send;
	send.data = counting(60);
	send.to(lab::kPortA);
	std::filesystem::create_directories("/data/var/run/vsd/3");
	std::filesystem::current_path("/data/var/run/vsd/3");
	unsigned sent = 0;
	ssize_t result = 0;
	int error = 0;
	lab::clear_printk();
	// The failure must hit the send itself and nothing else.
	with_each_failure(
		[&] {
			result = send.by(socket.fd());
			error = errno;
		},
		[&](bool injected) {
			bool without_path = bool(
				HasLine(lab::printk_lines(), "Failed to kmalloc buf."));
			lab::clear_printk();
			EXPECT_EQ(result == 60, without_path);
			sent += result == 60;
			if (!injected) {
				EXPECT_EQ(error, EINVAL);
			}
		});
	EXPECT_EQ(sent, 1u);
}

} // namespace
