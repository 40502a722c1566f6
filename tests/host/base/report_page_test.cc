// SPDX-License-Identifier: GPL-2.0-only
// A page: lines that wait until it ends, of the task whose page it is.
#include "control_fixture.h"

namespace {

constexpr size_t kPage = 8192, kLine = 128;

class Page : public ControlTest {
protected:
	void begin()
	{
		buffer = static_cast<char *>(seam_vzalloc(kStagingSize));
		filp = seam_file_open("/dump");
		seam_file_truncate(filp);
		report_begin_file(filp, buffer);
	}
	std::string end()
	{
		report_end_file();
		seam_vfree(buffer);
		seam_file_close(filp);
		return kernel().disk["/dump"];
	}
	static void line(size_t length, char c = 'y')
	{
		REPORT_LINE("%s", std::string(length, c).c_str());
	}
	char *buffer;
	file *filp;
};

TEST_F(Page, lines__come_at_its_end)
{
	for (int times = 0; times < 2; times++) {
		{
			ReportPage page;
			REPORT_LINE("one %d\n", times);
			REPORT_LINE("two\n");
			EXPECT_EQ(said(), "");
		}
		EXPECT_EQ(said(), "one " + std::to_string(times) + "\ntwo\n");
	}
	{
		ReportPage page;
	}
	EXPECT_EQ(said(), "") << "nothing of an earlier page";
}

TEST_F(Page, lines__of_another_task_do_not_wait)
{
	{
		ReportPage page;
		REPORT_LINE("waits\n");
		for (s32 pid : { kernel().pid + 1, 0 }) {
			std::swap(kernel().pid, pid);
			REPORT_LINE("other\n");
			EXPECT_FALSE(ReportPage::full());
			EXPECT_EQ(said(), "other\n");
			std::swap(kernel().pid, pid);
		}
	}
	EXPECT_EQ(said(), "waits\n");
}

// The idle task has number 0, as a page that is of no task.
TEST_F(Page, lines__of_task_0_without_a_page)
{
	{
		ReportPage page;
	}
	kernel().pid = 0;
	REPORT_LINE("at once\n");
	EXPECT_EQ(said(), "at once\n");
	kernel().pid = 4711;
}

// Reports to the log and to the file have a page each: two tasks at once.
TEST_F(Page, pages__of_the_log_and_of_the_file)
{
	const s32 writer = kernel().pid, other = writer + 1;
	begin();
	{
		ReportPage of_file;
		REPORT_LINE("file 1\n");
		kernel().pid = other;
		{
			ReportPage of_log;
			REPORT_LINE("log 1\n");
			kernel().pid = writer;
			REPORT_LINE("file 2\n");
			kernel().pid = other;
			REPORT_LINE("log 2\n");
			EXPECT_EQ(said(), "");
		}
		EXPECT_EQ(said(), "log 1\nlog 2\n");
		kernel().pid = writer;
	}
	EXPECT_EQ(end(), "file 1\nfile 2\n");
	EXPECT_EQ(said(), "");
}

// What is left of the page is room for lines of its length: cut, and dropped at the very end.
TEST_F(Page, lines__are_cut_at_the_end_of_the_page)
{
	for (size_t left : { 1, 2, 3, 64, 127, 128, 129, 200 }) {
		SCOPED_TRACE(left);
		std::string want;
		{
			ReportPage page;
			size_t used = 0;
			while (kPage - used > left) {
				const size_t rest = kPage - used - left;
				// A line with its NUL; none may be shorter than two.
				size_t size = std::min(rest, kLine);
				if (rest > size && rest - size < 2)
					size -= 2;
				line(size - 1);
				want += std::string(size - 1, 'y');
				used += size;
			}
			ASSERT_EQ(kPage - used, left);
			line(300, 'z');
			line(1, 'a');
			// A line ends one byte before the page at most.
			for (auto [length, c] :
			     { std::pair<size_t, char>{ 300, 'z' }, { 1, 'a' } }) {
				const size_t kept = std::min(
					{ length, kLine - 1, kPage - used - 1 });
				if (used + kept + 1 < kPage) {
					want += std::string(kept, c);
					used += kept + 1;
				}
			}
		}
		EXPECT_EQ(said(), want);
	}
}

// A page is full when fewer than 32 lines of the greatest length have room.
TEST_F(Page, full__leaves_room_for_32_lines)
{
	ReportPage page;
	size_t used = 0;
	EXPECT_FALSE(ReportPage::full());
	while (used < kPage - 32 * kLine) {
		EXPECT_FALSE(ReportPage::full()) << used;
		line(63);
		used += 64;
	}
	EXPECT_FALSE(ReportPage::full()) << "just the room that is left";
	line(1);
	EXPECT_TRUE(ReportPage::full());
}

// A file that begins or ends knows nothing of what an earlier one had staged.
TEST_F(Page, file__begins_and_ends_with_nothing_staged)
{
	g_file_bufflen = 77;
	begin();
	EXPECT_EQ(g_file_bufflen, 0u);
	EXPECT_TRUE(report_staged());
	line(5);
	kernel().fail(Fail::kFileWrite);
	end();
	EXPECT_EQ(g_file_bufflen, 0u);
	EXPECT_EQ(g_file_buff, nullptr);
	EXPECT_EQ(g_tech_filp, nullptr);
	EXPECT_FALSE(report_staged());
}

} // namespace
