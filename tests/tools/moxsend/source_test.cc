/* SPDX-License-Identifier: GPL-2.0-only */
/* Capture files are written here byte by byte, as other machines would have written them. */
#include "source.h"

#include "expect_error.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {

using moxsend::Bytes;
using Frames = std::vector<Bytes>;

/** A file of the classic format, in either byte order. */
class CaptureFile {
public:
	CaptureFile(bool big_endian, std::uint32_t link_type, std::uint32_t magic = 0xa1b2c3d4)
		: big_endian_(big_endian)
	{
		u32(magic);
		u16(2);
		u16(4);
		u32(0);
		u32(0);
		u32(65535);
		u32(link_type);
	}
	void frame(const Bytes &bytes, std::size_t length)
	{
		u32(1);
		u32(2);
		u32(static_cast<std::uint32_t>(bytes.size()));
		u32(static_cast<std::uint32_t>(length));
		bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
	}
	void frame(const Bytes &bytes) { frame(bytes, bytes.size()); }
	void cut(std::size_t count) { bytes_.resize(bytes_.size() - count); }

	std::string write()
	{
		char name[] = "/tmp/moxsend_test_XXXXXX";
		int fd = mkstemp(name);
		EXPECT_GE(fd, 0);
		EXPECT_EQ(::write(fd, bytes_.data(), bytes_.size()),
			  static_cast<ssize_t>(bytes_.size()));
		close(fd);
		return path_ = name;
	}
	~CaptureFile()
	{
		if (!path_.empty())
			std::filesystem::remove(path_);
	}

private:
	void number(std::uint32_t value, int width)
	{
		for (int i = 0; i < width; ++i)
			bytes_.push_back(static_cast<std::uint8_t>(
				value >> 8 * (big_endian_ ? width - 1 - i : i)));
	}
	void u16(std::uint32_t value) { number(value, 2); }
	void u32(std::uint32_t value) { number(value, 4); }

	bool big_endian_;
	Bytes bytes_;
	std::string path_;
};

std::vector<Bytes> all_of(moxsend::FrameSource &source)
{
	std::vector<Bytes> frames;
	while (auto frame = source.next()) {
		EXPECT_EQ(frame->defect, "");
		frames.emplace_back(frame->bytes.begin(), frame->bytes.end());
	}
	return frames;
}

constexpr std::uint32_t ethernet = 1, cooked = 113;

TEST(moxsend_source, pcap__both_byte_orders_and_both_clocks)
{
	const std::vector<Bytes> frames = { Bytes(60, 1), Bytes(1514, 2), { 3 } };
	for (bool big_endian : { false, true })
		for (std::uint32_t magic : { 0xa1b2c3d4u, 0xa1b23c4du }) {
			CaptureFile file(big_endian, ethernet, magic);
			for (const Bytes &frame : frames)
				file.frame(frame);
			moxsend::PcapSource source(file.write());
			EXPECT_EQ(all_of(source), frames) << big_endian << std::hex << magic;
			EXPECT_EQ(source.size(), std::nullopt);
		}
}

TEST(moxsend_source, pcap__rewound_it_begins_again)
{
	CaptureFile file(false, ethernet);
	file.frame({ 1, 2 });
	file.frame({ 3 });
	moxsend::PcapSource source(file.write());
	EXPECT_EQ(all_of(source).size(), 2u);
	EXPECT_FALSE(source.next());
	source.rewind();
	EXPECT_EQ(all_of(source), (std::vector<Bytes>{ { 1, 2 }, { 3 } }));
}

TEST(moxsend_source, pcap__an_empty_capture_has_no_frames)
{
	CaptureFile file(false, ethernet);
	std::string path = file.write();
	moxsend::PcapSource source(path);
	EXPECT_FALSE(source.next());
	EXPECT_EQ(source.name(), "\"" + path + "\"");
}

TEST(moxsend_source, pcap__other_link_types_are_refused_by_name)
{
	CaptureFile file(true, cooked);
	std::string path = file.write();
	expect_error<moxsend::FileError>([&] { moxsend::PcapSource source(path); },
					 { path, "LINUX_SLL", "only Ethernet", "EN10MB" });
	CaptureFile unknown(false, 60000);
	path = unknown.write();
	expect_error<moxsend::FileError>([&] { moxsend::PcapSource source(path); },
					 { path, "60000" });
}

TEST(moxsend_source, pcap__a_frame_that_was_cut_has_a_defect_and_those_behind_it_do_not)
{
	CaptureFile file(false, ethernet);
	file.frame(Bytes(60, 1));
	file.frame(Bytes(96, 2), 1514);
	file.frame(Bytes(60, 3));
	std::string path = file.write();
	moxsend::PcapSource source(path);
	EXPECT_EQ(source.next()->defect, "");
	auto frame = source.next();
	ASSERT_TRUE(frame);
	for (const char *part : { "frame 2 of", path.c_str(), "96 of 1514 bytes" })
		EXPECT_NE(frame->defect.find(part), std::string::npos) << frame->defect;
	EXPECT_EQ(source.next()->defect, "");
}

TEST(moxsend_source, pcap__a_file_that_was_cut_is_told_behind_its_last_whole_frame)
{
	CaptureFile file(false, ethernet);
	file.frame(Bytes(60, 1));
	file.frame(Bytes(60, 2));
	file.cut(30);
	std::string path = file.write();
	moxsend::PcapSource source(path);
	EXPECT_TRUE(source.next());
	expect_error<moxsend::FileError>([&] { source.next(); },
					 { path, "behind frame 1", "truncated" });
}

TEST(moxsend_source, pcap__what_is_no_capture_file)
{
	expect_error<moxsend::FileError>([] { moxsend::PcapSource source("/nonexistent/a.pcap"); },
					 { "/nonexistent/a.pcap", "No such file" });
	CaptureFile file(false, ethernet, 0x12345678);
	std::string path = file.write();
	expect_error<moxsend::FileError>([&] { moxsend::PcapSource source(path); },
					 { path, "unknown file format" });
}

TEST(moxsend_source, list)
{
	moxsend::ListSource source(Frames{ { 1, 2 }, {} });
	EXPECT_EQ(source.size(), 2u);
	EXPECT_EQ(all_of(source), (std::vector<Bytes>{ { 1, 2 }, {} }));
	source.rewind();
	EXPECT_EQ(all_of(source).size(), 2u);
}

} // namespace
