// SPDX-License-Identifier: GPL-2.0-only
// Where a line of a report goes: to the log at any length, or into the staging buffer
// of the dump file, cut or dropped.
#include "control_fixture.h"

namespace {

// A staging buffer with a file behind it, filled so far.
class Line : public ControlTest {
protected:
	void begin(u32 staged)
	{
		buffer = static_cast<char *>(seam_vzalloc(kStagingSize));
		filp = seam_file_open("/dump");
		seam_file_truncate(filp);
		report_begin_file(filp, buffer);
		memset(buffer, 'x', staged);
		g_file_bufflen = staged;
	}
	std::string end()
	{
		report_end_file();
		seam_vfree(buffer);
		seam_file_close(filp);
		return kernel().disk["/dump"];
	}
	char *buffer;
	file *filp;
};

TEST_F(Line, log__is_where_lines_go_otherwise)
{
	EXPECT_FALSE(report_staged());
	REPORT_LINE("%s %d %pM\n", "a", 7, "\1\2\3\4\5\6");
	REPORT_LINE("\n");
	EXPECT_EQ(said(), "a 7 01:02:03:04:05:06\n\n");
	// In the log a line has any length.
	const std::string longest(300, 'y');
	REPORT_LINE("%s", longest.c_str());
	EXPECT_EQ(said(), longest);
}

TEST_F(Line, file__is_cut_at_127_characters)
{
	for (size_t len :
	     { size_t(1), size_t(126), size_t(127), size_t(128), size_t(129), size_t(1000) }) {
		begin(0);
		REPORT_LINE("%s", std::string(len, 'y').c_str());
		EXPECT_EQ(g_file_bufflen, std::min(len, size_t(127)));
		EXPECT_EQ(end(), std::string(std::min(len, size_t(127)), 'y'));
	}
	EXPECT_EQ(said(), "");
}

// The sum stays below the buffer's size: one short of it fits, at it and past it not.
TEST_F(Line, file__one_short_of_at_and_past_the_end)
{
	for (u32 len : { 1u, 2u, 63u, 127u })
		for (int over : { -1, 0, 1 }) {
			SCOPED_TRACE(std::to_string(len) + " " + std::to_string(over));
			const u32 staged = kStagingSize - len + over;
			if (staged >= kStagingSize)
				continue;
			begin(staged);
			REPORT_LINE("%s", std::string(len, 'y').c_str());
			EXPECT_EQ(g_file_bufflen, over < 0 ? kStagingSize - 1 : staged);
			EXPECT_EQ(end().size(), over < 0 ? kStagingSize - 1 : staged);
			EXPECT_EQ(kernel().writes.back(), over < 0 ? kStagingSize - 1 : staged);
		}
}

TEST_F(Line, file__dropped_whole_and_a_shorter_one_still_fits)
{
	const char *banner = "**************** AF-PACKET DUMP REGULAR START ****************\n";
	ASSERT_EQ(strlen(banner), 63u);
	begin(kStagingSize - 63);
	REPORT_LINE("%s", banner);
	EXPECT_EQ(g_file_bufflen, kStagingSize - 63);
	REPORT_LINE("\n");
	EXPECT_EQ(g_file_bufflen, kStagingSize - 62);
	REPORT_LINE("%s", banner);
	EXPECT_EQ(g_file_bufflen, kStagingSize - 62);
	std::string file = end();
	EXPECT_EQ(file.size(), kStagingSize - 62);
	EXPECT_EQ(file.back(), '\n');
}

TEST_F(Line, flush__writes_what_is_staged_and_starts_over)
{
	begin(0);
	report_flush();
	EXPECT_TRUE(kernel().writes.empty()) << "nothing to write";
	REPORT_LINE("one\n");
	report_flush();
	EXPECT_EQ(g_file_bufflen, 0u);
	REPORT_LINE("two\n");
	REPORT_LINE("three\n");
	EXPECT_EQ(end(), "one\ntwo\nthree\n");
	EXPECT_EQ(kernel().writes, (std::vector<size_t>{ 4, 10 }));
	report_flush();
	EXPECT_EQ(kernel().writes.size(), 2u) << "nothing outside a dump";
}

TEST_F(Line, flush__of_the_first_and_the_last_byte)
{
	for (u32 staged : { 1u, kStagingSize - 1 }) {
		begin(staged);
		report_flush();
		EXPECT_EQ(g_file_bufflen, 0u);
		EXPECT_EQ(end(), std::string(staged, 'x'));
	}
}

TEST_F(Line, flush__that_fails_loses_what_was_staged)
{
	begin(0);
	REPORT_LINE("lost\n");
	kernel().fail(Fail::kFileWrite);
	report_flush();
	EXPECT_EQ(g_file_bufflen, 0u);
	REPORT_LINE("kept\n");
	EXPECT_EQ(end(), "kept\n");
}

TEST_F(Line, nearly_full__leaves_a_quarter)
{
	begin(kStagingSize / 4 * 3);
	EXPECT_FALSE(report_nearly_full());
	REPORT_LINE("\n");
	EXPECT_TRUE(report_nearly_full());
	end();
	EXPECT_FALSE(report_nearly_full());
}

// Only the task that writes the file stages: another one's report goes to the log.
TEST_F(Line, file__other_tasks_are_sent_to_the_log)
{
	begin(0);
	REPORT_LINE("file\n");
	kernel().pid++;
	REPORT_LINE("log\n");
	report_flush();
	EXPECT_TRUE(kernel().writes.empty()) << "another task's flush";
	kernel().pid--;
	EXPECT_EQ(end(), "file\n");
	EXPECT_EQ(said(), "log\n");
}

} // namespace
