// SPDX-License-Identifier: GPL-2.0-only
#include "base/owned.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<int *> given_back;

void give_back(int *object)
{
	given_back.push_back(object);
}

using OwnedInt = mox::Owned<int, give_back>;

class Owned : public testing::Test {
protected:
	void SetUp() override { given_back.clear(); }

	int one = 1, two = 2;
};

using Given = std::vector<int *>;

TEST_F(Owned, scope__gives_back_once)
{
	{
		OwnedInt owned(&one);
		EXPECT_TRUE(owned);
		EXPECT_EQ(owned.get(), &one);
		EXPECT_EQ(given_back, Given{});
	}
	EXPECT_EQ(given_back, Given{ &one });
}

TEST_F(Owned, empty__gives_nothing_back)
{
	{
		OwnedInt none, null(nullptr);
		EXPECT_FALSE(none);
		EXPECT_FALSE(null);
	}
	EXPECT_EQ(given_back, Given{});
}

TEST_F(Owned, release__leaves_the_object_to_the_caller)
{
	{
		OwnedInt owned(&one);
		EXPECT_EQ(owned.release(), &one);
		EXPECT_FALSE(owned);
		EXPECT_EQ(owned.release(), nullptr);
	}
	EXPECT_EQ(given_back, Given{});
}

TEST_F(Owned, move__takes_the_object_over)
{
	{
		OwnedInt from(&one);
		OwnedInt to(mox::move(from));
		EXPECT_FALSE(from);
		EXPECT_EQ(to.get(), &one);
	}
	EXPECT_EQ(given_back, Given{ &one });
}

TEST_F(Owned, assignment__gives_the_former_object_back)
{
	{
		OwnedInt owned(&one);
		owned = OwnedInt(&two);
		EXPECT_EQ(given_back, Given{ &one });
		EXPECT_EQ(owned.get(), &two);
	}
	EXPECT_EQ(given_back, (Given{ &one, &two }));
}

} // namespace
