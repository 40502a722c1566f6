// SPDX-License-Identifier: GPL-2.0
// User memory that ends half way, cannot be written, or changes while the kernel looks.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include <sys/mman.h>
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
