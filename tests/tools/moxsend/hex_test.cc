/* SPDX-License-Identifier: GPL-2.0-only */
#include "hex.h"

#include "expect_error.h"
#include "mox/error.h"

#include <sstream>

namespace {

using moxsend::Bytes;

TEST(moxsend_hex, parse__separators_are_free)
{
	const Bytes expected = { 0x01, 0x23, 0xab, 0xcd };
	for (const char *text : { "0123abcd", "01 23 ab cd", "01:23:AB:CD", "01-23-ab-cd",
				  "0123.abcd", "  01\t23ab:  cd\n" })
		EXPECT_EQ(moxsend::parse_hex("--hex", text), expected) << text;
	EXPECT_EQ(moxsend::parse_hex("--hex", "00"), Bytes{ 0 });
}

TEST(moxsend_hex, parse__errors_name_the_column)
{
	struct {
		const char *text;
		std::vector<std::string> parts;
	} const cases[] = {
		{ "0123g4", { "--hex, column 5", "'g' is no hexadecimal digit", "pairs" } },
		{ "012g", { "column 4", "'g'" } },
		{ "012", { "column 3", "'2' is half a byte" } },
		{ "0 1", { "column 1", "'0' is half a byte" } },
		{ "01:2:03", { "column 4", "'2' is half a byte" } },
		{ "0x01", { "column 2", "'x'" } },
		{ "", { "column 1", "there is no byte" } },
		{ " : ", { "there is no byte" } },
		{ "01\x01", { "column 3", "this character" } },
		{ "01\xc3\xa9", { "column 3", "this character" } },
	};
	for (const auto &each : cases)
		expect_error<mox::UsageError>([&] { moxsend::parse_hex("--hex", each.text); },
					      each.parts);
}

TEST(moxsend_hex, read_lines__one_frame_a_line)
{
	std::istringstream in("# a comment\n0102 # behind a frame\n\n   \n03:04:05");
	EXPECT_EQ(moxsend::read_hex_lines("f", in), (std::vector<Bytes>{ { 1, 2 }, { 3, 4, 5 } }));
}

TEST(moxsend_hex, read_lines__errors_name_file_line_and_column)
{
	std::istringstream wrong("01\n\n02 0z\n");
	expect_error<mox::UsageError>([&] { moxsend::read_hex_lines("frames.txt", wrong); },
				      { "frames.txt, line 3, column 5", "'z'" });
	std::istringstream empty("# nothing\n");
	expect_error<mox::UsageError>([&] { moxsend::read_hex_lines("frames.txt", empty); },
				      { "frames.txt holds no frame" });
}

TEST(moxsend_hex, what_is_written_can_be_read)
{
	Bytes all(256);
	for (std::size_t i = 0; i < all.size(); ++i)
		all[i] = static_cast<std::uint8_t>(i);
	std::string text = moxsend::to_hex(all);
	EXPECT_EQ(text.size(), 512u);
	EXPECT_EQ(moxsend::parse_hex("", text), all);
	EXPECT_EQ(moxsend::to_hex({}), "");
}

} // namespace
