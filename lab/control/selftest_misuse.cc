// SPDX-License-Identifier: GPL-2.0-only
// Misuse of the platform is seen for what it is, announced or not, up to the unload.
#include "selftest.hpp"

#include <cstdlib>

namespace selftest {
namespace {

/// Announces a kernel warning to the check of the console, for as long as it lives, and reads what the kernel said.
class ExpectedWarning {
public:
	ExpectedWarning() : fd_(::open("/dev/kmsg", O_RDWR | O_NONBLOCK | O_CLOEXEC))
	{
		::lseek(fd_, 0, SEEK_END);
		say("<4>lab: expect-warning begin\n");
	}
	~ExpectedWarning()
	{
		say("<4>lab: expect-warning end\n");
		::close(fd_);
	}

	std::string said() const
	{
		std::string text;
		char record[2048];
		for (ssize_t n; (n = ::read(fd_, record, sizeof record)) > 0 || errno == EPIPE;)
			if (n > 0)
				text.append(record, size_t(n));
		return text;
	}

private:
	void say(const char *line) const { EXPECT_GT(::write(fd_, line, std::strlen(line)), 0); }

	int fd_;
};

class Misuse : public Platform, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(Misuse, IsSeenForWhatItIs)
{
	watch_memory();
	lab.expect_misuse(1);
	try {
		EXPECT_EQ(lab.commit_misuse(GetParam()).left, 0u)
			<< "the announced breach went unseen";
	} catch (const moxlab::Error &e) {
		lab.expect_misuse(0);
		ASSERT_EQ(GetParam(), unsigned(MOXLAB_MISUSE_CONTEXT)) << e.what();
		ASSERT_EQ(e.code().value(), EINVAL);
		GTEST_SKIP() << "this kernel does not count who holds a lock; the checked one does";
	}
	for (uint32_t kind = 0; kind < MOXLAB_MISUSE_COUNT; ++kind)
		EXPECT_EQ(seen(kind), kind == GetParam() ? 1u : 0u) << "kind " << kind;
}

INSTANTIATE_TEST_SUITE_P(Every, Misuse,
			 ::testing::Values(MOXLAB_MISUSE_DOUBLE_FREE, MOXLAB_MISUSE_WRONG_OWNER,
					   MOXLAB_MISUSE_UNKNOWN, MOXLAB_MISUSE_OVERRUN,
					   MOXLAB_MISUSE_AFTER_FREE, MOXLAB_MISUSE_CONTEXT,
					   MOXLAB_MISUSE_WITHDRAWN));

TEST_F(Platform, NamesALeakedBufferAndItsMaker)
{
	lab.commit_misuse(MOXLAB_MISUSE_LEAK);
	moxlab_balance balance = lab.balance(MOXLAB_OWNER_MODULE);
	EXPECT_EQ(balance.live, 1u);
	EXPECT_EQ(balance.live, balance.allocated + balance.cloned + balance.adopted -
					balance.given - balance.freed);
	auto live = lab.live().all;
	ASSERT_EQ(live.size(), 1u);
	EXPECT_EQ(live[0].owner, unsigned(MOXLAB_OWNER_MODULE));
	EXPECT_EQ(live[0].length, 100u);
	EXPECT_NE(std::string(live[0].creator).find("[efmp]"), std::string::npos)
		<< live[0].creator;
	lab.commit_misuse(MOXLAB_MISUSE_LEAK);
	EXPECT_EQ(lab.balance(MOXLAB_OWNER_MODULE).live, 0u);
}

TEST_F(Platform, WarnsLoudlyOfWhatWasNotAnnounced)
{
	std::string said;
	{
		ExpectedWarning warning;
		lab.commit_misuse(MOXLAB_MISUSE_WRONG_OWNER);
		said = warning.said();
	}
	EXPECT_NE(said.find("efmp: wrong owner"), std::string::npos) << said;
	EXPECT_NE(said.find("is owner 0x93's but freed as 0x01's"), std::string::npos) << said;
	EXPECT_EQ(lab.misuse().unexpected, before.unexpected + 1);
	before = lab.misuse();
}

TEST(Unload, NamesWhatIsStillAlive)
{
	bool product = module_loaded("mox_ef_socket");
	if (product) {
		ASSERT_EQ(std::system("rmmod mox_ef_socket"), 0);
	}
	Device().commit_misuse(MOXLAB_MISUSE_LEAK);
	std::string said;
	{
		ExpectedWarning warning;
		EXPECT_EQ(std::system("rmmod efmp"), 0);
		said = warning.said();
	}
	EXPECT_NE(said.find("is still alive at unload: owner 0x93"), std::string::npos) << said;
	ASSERT_EQ(std::system("insmod /modules/efmp.ko"), 0);
	if (product) {
		EXPECT_EQ(std::system("insmod /modules/mox_ef_socket.ko"), 0);
	}
	EXPECT_EQ(Device().balance(0).live_all, 0u);
}

} // namespace
} // namespace selftest
