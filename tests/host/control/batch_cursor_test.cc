// SPDX-License-Identifier: GPL-2.0
// The cursor alone, over a list that is only a length. Reports with it: reports_test.cc,
// reports_long_test.cc, dump_file_test.cc.
#include "control/batch_cursor.hpp"

#include "base/report.hpp"
#include "fake/fixture.h"

using namespace mox;
using fake::kernel;

namespace {

class Cursor : public fake::KernelTest {
protected:
	// Walks a list of so many places in one batch; the places that were entered.
	std::vector<u32> batch(BatchCursor &cursor, u32 length)
	{
		std::vector<u32> entered;
		cursor.begin_batch();
		for (u32 place = 0; place < length; place++) {
			if (!cursor.enter_place())
				continue;
			entered.push_back(place);
			cursor.count_printed();
		}
		return entered;
	}
	using Places = std::vector<u32>;
};

TEST_F(Cursor, log__a_batch_ends_at_the_limit)
{
	BatchCursor cursor(3, BatchCursor::InFile::kNever);
	EXPECT_EQ(batch(cursor, 7), (Places{ 0, 1, 2 }));
	EXPECT_TRUE(cursor.end_batch());
	EXPECT_EQ(batch(cursor, 7), (Places{ 3, 4, 5 }));
	EXPECT_TRUE(cursor.end_batch());
	EXPECT_EQ(batch(cursor, 7), (Places{ 6 }));
	EXPECT_FALSE(cursor.end_batch());
}

TEST_F(Cursor, killed__no_batch_follows)
{
	BatchCursor cursor(3, BatchCursor::InFile::kNever);
	EXPECT_EQ(batch(cursor, 7), (Places{ 0, 1, 2 }));
	kernel().killed = true;
	EXPECT_FALSE(cursor.end_batch());
	kernel().killed = false;
}

TEST_F(Cursor, log__exactly_the_limit_is_one_batch)
{
	BatchCursor cursor(3, BatchCursor::InFile::kNever);
	EXPECT_EQ(batch(cursor, 3), (Places{ 0, 1, 2 }));
	EXPECT_FALSE(cursor.end_batch());
}

TEST_F(Cursor, log__an_empty_list_is_one_batch)
{
	BatchCursor cursor(3, BatchCursor::InFile::kNever);
	EXPECT_EQ(batch(cursor, 0), Places{});
	EXPECT_FALSE(cursor.end_batch());
}

TEST_F(Cursor, log__places_that_are_not_printed_do_not_count)
{
	BatchCursor cursor(1, BatchCursor::InFile::kNever);
	cursor.begin_batch();
	for (int place = 0; place < 5; place++)
		EXPECT_TRUE(cursor.enter_place());
	EXPECT_FALSE(cursor.end_batch());
}

// Every batch enters something new, so a list that grows for ever still ends.
TEST_F(Cursor, growing_list__is_walked_up_to_its_first_length)
{
	BatchCursor cursor(2, BatchCursor::InFile::kNever);
	EXPECT_EQ(batch(cursor, 5), (Places{ 0, 1 }));
	EXPECT_TRUE(cursor.end_batch());
	EXPECT_EQ(batch(cursor, 50), (Places{ 2, 3 }));
	EXPECT_TRUE(cursor.end_batch());
	EXPECT_EQ(batch(cursor, 500), (Places{ 4 }));
	EXPECT_FALSE(cursor.end_batch());
}

TEST_F(Cursor, shrinking_list__ends_where_the_list_does)
{
	BatchCursor cursor(2, BatchCursor::InFile::kNever);
	EXPECT_EQ(batch(cursor, 9), (Places{ 0, 1 }));
	EXPECT_TRUE(cursor.end_batch());
	EXPECT_EQ(batch(cursor, 1), Places{});
	EXPECT_FALSE(cursor.end_batch());
}

TEST_F(Cursor, file__limit_does_not_count_and_a_full_buffer_ends_a_batch_only_if_asked)
{
	static char buffer[kStagingSize];
	for (bool flushes : { false, true }) {
		report_begin_file(nullptr, buffer);
		BatchCursor cursor(1, flushes ? BatchCursor::InFile::kWhenStaged
					      : BatchCursor::InFile::kNever);
		EXPECT_EQ(batch(cursor, 4), (Places{ 0, 1, 2, 3 }));
		EXPECT_FALSE(cursor.end_batch());
		// The check is made before a place is entered.
		g_file_bufflen = kStagingSize - 1;
		BatchCursor full(1, flushes ? BatchCursor::InFile::kWhenStaged
					    : BatchCursor::InFile::kNever);
		EXPECT_EQ(batch(full, 4), flushes ? Places{} : (Places{ 0, 1, 2, 3 }));
		g_file_bufflen = 0;
		report_end_file();
	}
}

} // namespace
