// SPDX-License-Identifier: GPL-2.0-only
// User memory that ends half way, cannot be written, or changes while the kernel looks.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;

/// Two pages, the second one gone: edge() is the first byte that cannot be touched.
class Cliff {
public:
	Cliff() : page_(::sysconf(_SC_PAGESIZE))
	{
		area_ = static_cast<uint8_t *>(::mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE,
						      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		::munmap(area_ + page_, page_);
	}
	~Cliff() { ::munmap(area_, page_); }
	uint8_t *edge() const { return area_ + page_; }
	uint8_t *begin() const { return area_; }
	size_t size() const { return page_; }

private:
	size_t page_;
	uint8_t *area_;
};

using UserMemory = VmTest;

TEST_F(UserMemory, a_rule_record_that_ends_half_way)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	Cliff cliff;
	Bytes record = be16s(PACKET_ETH_PROT_EQUAL, { 1, 2, 3, 4 }).record();
	for (size_t there = 0; there < record.size(); ++there) {
		uint8_t *start = cliff.edge() - there;
		std::memcpy(start, record.data(), there);
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, start,
					    record.size()),
			  EFAULT)
			<< there;
	}
	EXPECT_EQ(RuleRecords::read().data[3], records_.data[3]) << "nothing was added";
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2)) << "the socket was not touched";
}

TEST_F(UserMemory, a_record_that_claims_more_than_the_option_length)
{
	Socket socket;
	Cliff cliff;
	uint8_t *start = cliff.edge() - 6;
	for (uint16_t type = 0; type < 20; ++type)
		for (uint16_t count : { 1, 2, 0x7fff, 0xffff }) {
			const uint16_t head[3] = { type, 0, count };
			std::memcpy(start, head, 6);
			bool valueless = type == 12 || type == 13 || type == 16 || type == 18;
			EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, start, 6),
				  valueless ? 0 : EINVAL)
				<< type << " " << count;
		}
}

/// The longest record that a rule can use, and memory of the same zero page for as much more as a length may state.
constexpr size_t kLongest = 6 + 65535 * 6, kHuge = 200 << 20;

class HugeRecord : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		area_ = static_cast<uint8_t *>(::mmap(nullptr, kHuge, PROT_READ | PROT_WRITE,
						      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
						      -1, 0));
		ASSERT_NE(area_, MAP_FAILED);
		Bytes record = ethertype(0x0806).record();
		std::memcpy(area_, record.data(), record.size());
	}
	void TearDown() override
	{
		::munmap(area_, kHuge);
		VmTest::TearDown();
	}
	int add(const Socket &socket, size_t length) const
	{
		return ::setsockopt(socket.fd(), MOX_SOL_PACKET, MOX_PACKET_ADD_RULE, area_,
				    socklen_t(length)) == 0
			       ? 0
			       : errno;
	}
	/// A figure of /proc/meminfo, in KiB.
	static long meminfo(const std::string &name)
	{
		std::ifstream file("/proc/meminfo");
		std::string word;
		long figure;
		while (file >> word)
			if (word == name + ":" && file >> figure)
				return figure;
		ADD_FAILURE() << "no " << name;
		return -1;
	}
	uint8_t *area_ = nullptr;
};

TEST_F(HugeRecord, takes_no_more_memory_than_the_longest_that_is_used)
{
	Socket socket;
	ASSERT_EQ(add(socket, 1 << 20), 0) << "what the first call needs is there";
	std::atomic<bool> done{ false };
	const long before = meminfo("MemFree");
	long least = before;
	std::thread watch([&] {
		while (!done) {
			least = std::min(least, meminfo("MemFree"));
			::usleep(2000);
		}
	});
	EXPECT_EQ(add(socket, kHuge), 0);
	done = true;
	watch.join();
	std::printf("%ld KiB free before, %ld at least meanwhile\n", before, least);
	EXPECT_LT(before - least, 20 << 10) << "KiB; 200 MiB are stated";
}

TEST_F(HugeRecord, an_unreadable_tail_is_refused_as_in_a_short_one)
{
	Socket socket;
	const size_t page = size_t(::sysconf(_SC_PAGESIZE)), length = 4 << 20;
	for (size_t gap : { size_t(0), size_t(kLongest / page * page + page), length - page }) {
		ASSERT_EQ(::mprotect(area_ + gap, page, PROT_NONE), 0);
		DebugOn debug;
		EXPECT_EQ(add(socket, length), EFAULT) << gap;
		EXPECT_TRUE(LinesAre(lab::printk_lines(),
				     { "PACKET-SETSOCKOPT: copy from user failed" }));
		lab::clear_printk();
		ASSERT_EQ(::mprotect(area_ + gap, page, PROT_READ | PROT_WRITE), 0);
	}
	EXPECT_EQ(RuleRecords::read().data[3], records_.data[3]) << "nothing was added";
	EXPECT_EQ(add(socket, length), 0);
}

TEST_F(HugeRecord, a_killed_caller_does_not_read_on)
{
	Socket socket;
	int report[2];
	ASSERT_EQ(::pipe(report), 0);
	pid_t child = ::fork();
	if (child == 0) {
		// Again and again, so that the signal comes while a record is read.
		for (;;)
			if (::write(report[1], "", 1) != 1 || add(socket, kHuge) != 0)
				::_exit(1);
	}
	char byte;
	ASSERT_EQ(::read(report[0], &byte, 1), 1);
	::usleep(50000);
	auto start = std::chrono::steady_clock::now();
	ASSERT_EQ(::kill(child, SIGKILL), 0);
	int status = 0;
	ASSERT_EQ(::waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFSIGNALED(status));
	EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
	::close(report[0]);
	::close(report[1]);
}

TEST_F(UserMemory, words_that_end_half_way)
{
	Socket socket;
	Cliff cliff;
	for (int option : { PACKET_TREATMENT, PACKET_CTRL_INFO, PACKET_LOCATION })
		for (int there = 0; there < 4; ++there) {
			std::memset(cliff.edge() - there, 0, there);
			EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, cliff.edge() - there,
						    4),
				  EFAULT)
				<< option << " " << there;
		}
}

TEST_F(UserMemory, a_read_only_reply)
{
	Socket socket;
	Cliff cliff;
	ASSERT_EQ(::mprotect(cliff.begin(), cliff.size(), PROT_READ), 0);
	socklen_t length = 8;
	EXPECT_EQ(::getsockopt(socket.fd(), MOX_SOL_PACKET, MOX_PACKET_STATISTICS, cliff.begin(),
			       &length),
		  -1);
	EXPECT_EQ(errno, EFAULT);
}

TEST_F(UserMemory, an_address_that_ends_half_way)
{
	Socket socket;
	Cliff cliff;
	EXPECT_EQ(::bind(socket.fd(), reinterpret_cast<sockaddr *>(cliff.edge() - 10), 20), -1);
	EXPECT_EQ(errno, EFAULT);
}

TEST_F(UserMemory, records_that_change_while_they_are_read)
{
	// The module copies a record once and checks its copy: a second thread that rewrites count and size all the time may
	// see calls refused or taken, never a read past the buffer (the checked kernel would report it).
	struct Record {
		volatile uint16_t head[3];
		uint8_t elements[26];
	} record{ { PACKET_ETH_PROT_EQUAL, 2, 4 }, {} };
	std::atomic<bool> stop{ false };
	std::thread writer([&] {
		while (!stop) {
			record.head[2] = 0xffff;
			record.head[1] = 0;
			record.head[0] = PACKET_DEST_MAC_EQUAL;
			record.head[2] = 4;
			record.head[1] = 2;
			record.head[0] = PACKET_ETH_PROT_EQUAL;
		}
	});
	Socket socket;
	int taken = 0;
	for (int i = 0; i < 5000; ++i) {
		int error = socket.option_raw(MOX_SOL_PACKET,
					      i % 2 ? MOX_PACKET_ADD_RULE : MOX_PACKET_DEL_RULE,
					      &record, 32);
		EXPECT_TRUE(error == 0 || error == EINVAL) << strerror(error);
		taken += error == 0;
	}
	stop = true;
	writer.join();
	EXPECT_GT(taken, 0);
}

} // namespace
