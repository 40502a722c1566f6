/* SPDX-License-Identifier: GPL-2.0-only */
/* Files are read back with libpcap: what counts is what other programs see. */
#include "pcap_file.h"

#include "expect_error.h"
#include "stored_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

namespace {

using Bytes = std::vector<std::uint8_t>;

void write(moxcap::PcapFile &file, const timespec &time, const Bytes &bytes, std::size_t length,
	   std::uint16_t ether_type, bool has_header = true)
{
	file.write({ time, { bytes, length, ether_type, has_header, nullptr }, 7, "port1", 0 });
}

class PcapFileTest : public testing::Test {
protected:
	TemporaryFile temporary;
	const std::string &path = temporary.path;
};

TEST_F(PcapFileTest, ethernet_frames_are_stored_as_they_are)
{
	Bytes first(60), second(1514);
	for (std::size_t i = 0; i < second.size(); ++i)
		second[i] = static_cast<std::uint8_t>(i * 7);
	{
		moxcap::PcapFile file(path, moxcap::Layout::kEthernet, 65535, true);
		write(file, { 1700000000, 123456789 }, first, first.size(), 0x0806);
		write(file, { 1700000001, 0 }, second, second.size(), 0x0800);
	}
	StoredFile stored = read_back(path);
	EXPECT_EQ(stored.link_type, DLT_EN10MB);
	EXPECT_GE(stored.snap, 65535);
	ASSERT_EQ(stored.frames.size(), 2u);
	EXPECT_EQ(stored.frames[0].bytes, first);
	EXPECT_EQ(stored.frames[1].bytes, second);
	EXPECT_EQ(stored.frames[0].head.ts.tv_sec, 1700000000);
	EXPECT_EQ(stored.frames[0].head.ts.tv_usec, 123456);
	EXPECT_EQ(stored.frames[1].head.len, 1514u);
}

TEST_F(PcapFileTest, a_cut_frame_keeps_its_full_length)
{
	{
		moxcap::PcapFile file(path, moxcap::Layout::kEthernet, 20, true);
		write(file, { 0, 0 }, Bytes(20, 1), 100, 0);
	}
	StoredFile stored = read_back(path);
	ASSERT_EQ(stored.frames.size(), 1u);
	EXPECT_EQ(stored.frames[0].head.caplen, 20u);
	EXPECT_EQ(stored.frames[0].head.len, 100u);
}

TEST_F(PcapFileTest, a_frame_can_be_read_while_the_file_is_still_open)
{
	moxcap::PcapFile file(path, moxcap::Layout::kEthernet, 65535, true);
	write(file, { 0, 0 }, Bytes(60, 1), 60, 0);
	EXPECT_EQ(read_back(path).frames.size(), 1u);
	write(file, { 0, 0 }, Bytes(60, 2), 60, 0);
	EXPECT_EQ(read_back(path).frames.size(), 2u);
}

TEST_F(PcapFileTest, a_frame_without_its_header_gets_one_of_zeroes_and_the_EtherType)
{
	Bytes packet = { 0x45, 1, 2, 3 };
	{
		moxcap::PcapFile file(path, moxcap::Layout::kEthernet, 65535, true);
		write(file, { 0, 0 }, packet, 200, 0x0800, false);
	}
	StoredFile stored = read_back(path);
	ASSERT_EQ(stored.frames.size(), 1u);
	EXPECT_EQ(stored.frames[0].bytes,
		  (Bytes{ 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0x45, 1, 2, 3 }));
	EXPECT_EQ(stored.frames[0].head.len, 214u);
}

TEST_F(PcapFileTest, datagrams_are_stored_cooked)
{
	{
		moxcap::PcapFile file(path, moxcap::Layout::kNetwork, 65535, true);
		write(file, { 0, 0 }, Bytes{ 0x45, 1 }, 2, 0x0800);
		write(file, { 0, 0 }, Bytes{ 9 }, 1, 0x88cc);
	}
	StoredFile stored = read_back(path);
	EXPECT_EQ(stored.link_type, DLT_LINUX_SLL);
	ASSERT_EQ(stored.frames.size(), 2u);
	EXPECT_EQ(stored.frames[0].bytes,
		  (Bytes{ 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0x45, 1 }));
	EXPECT_EQ(stored.frames[1].bytes,
		  (Bytes{ 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x88, 0xcc, 9 }));
}

TEST_F(PcapFileTest, vlan_tags_are_put_back_on_request)
{
	Bytes packet(65535, 0x45);
	mox_packet_ctrl_info control{};
	control.vlan = 5 << 4 | 3;
	control.inner_vlan = 6;
	for (bool tags : { true, false }) {
		SCOPED_TRACE(tags);
		{
			moxcap::PcapFile file(path, moxcap::Layout::kNetwork, 65535, tags);
			file.write({ { 0, 0 },
				     { packet, 70000, 0x0800, false, &control },
				     7,
				     "port1",
				     0 });
		}
		StoredFile stored = read_back(path);
		ASSERT_EQ(stored.frames.size(), 1u);
		// As much as a frame can grow by: the file's snapshot length must not cut it.
		EXPECT_EQ(stored.frames[0].bytes.size(), 65535u + 16 + (tags ? 8 : 0));
		EXPECT_EQ(stored.frames[0].head.len, 70000u + 16 + (tags ? 8 : 0));
		EXPECT_EQ(Bytes(stored.frames[0].bytes.begin() + 14,
				stored.frames[0].bytes.begin() + 24),
			  tags ? (Bytes{ 0x88, 0xa8, 0x60, 5, 0x81, 0, 0, 6, 8, 0 })
			       : (Bytes{ 8, 0, 0x45, 0x45, 0x45, 0x45, 0x45, 0x45, 0x45, 0x45 }));
	}
}

TEST_F(PcapFileTest, management_frames_have_their_own_link_type)
{
	{
		moxcap::PcapFile file(path, moxcap::Layout::kWlan, 65535, true);
		write(file, { 0, 0 }, Bytes(24, 0x80), 24, 0);
	}
	StoredFile stored = read_back(path);
	EXPECT_EQ(stored.link_type, DLT_IEEE802_11);
	ASSERT_EQ(stored.frames.size(), 1u);
	EXPECT_EQ(stored.frames[0].bytes, Bytes(24, 0x80));
}

TEST_F(PcapFileTest, an_empty_capture_is_a_valid_file)
{
	{
		moxcap::PcapFile file(path, moxcap::Layout::kEthernet, 65535, true);
	}
	EXPECT_EQ(read_back(path).frames.size(), 0u);
}

TEST_F(PcapFileTest, a_file_that_cannot_be_made_is_named)
{
	expect_error<moxcap::FileError>(
		[] {
			moxcap::PcapFile file("/nonexistent/dir/a.pcap", moxcap::Layout::kEthernet,
					      100, true);
		},
		{ "/nonexistent/dir/a.pcap", "No such file" });
}

TEST_F(PcapFileTest, a_full_disk_is_told)
{
	if (access("/dev/full", W_OK) != 0)
		GTEST_SKIP() << "no /dev/full here";
	// The file's head waits in a buffer, so making the file succeeds and the first frame fails.
	moxcap::PcapFile file("/dev/full", moxcap::Layout::kEthernet, 100, true);
	expect_error<moxcap::FileError>(
		[&] {
			write(file, { 0, 0 }, Bytes(60), 60, 0);
		},
		{ "/dev/full", "No space left on device", "disk full" });
}

TEST_F(PcapFileTest, a_reader_of_a_named_pipe_that_has_gone_is_told)
{
	std::filesystem::remove(path);
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
	ASSERT_GE(reader, 0);
	auto before = std::signal(SIGPIPE, SIG_IGN);
	{
		moxcap::PcapFile file(path, moxcap::Layout::kEthernet, 100, true);
		write(file, { 0, 0 }, Bytes(60), 60, 0);
		close(reader);
		expect_error<moxcap::FileError>(
			[&] {
				write(file, { 0, 0 }, Bytes(60), 60, 0);
			},
			{ "\"" + path + "\"", "the program that reads the capture has ended" });
	}
	std::signal(SIGPIPE, before);
}

TEST_F(PcapFileTest, a_reader_of_standard_output_that_has_gone_is_told)
{
	// In a process of its own: closing the capture file closes standard output.
	auto write_into_the_pipe = [] {
		int ends[2];
		if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
			_exit(1);
		close(ends[0]);
		std::signal(SIGPIPE, SIG_IGN);
		try {
			moxcap::PcapFile file("-", moxcap::Layout::kEthernet, 100, true);
			write(file, { 0, 0 }, Bytes(60), 60, 0);
		} catch (const moxcap::FileError &error) {
			std::fputs(error.what(), stderr);
			_exit(42);
		}
		_exit(2);
	};
	EXPECT_EXIT(
		write_into_the_pipe(), testing::ExitedWithCode(42),
		"cannot write to standard output: the program that reads the capture has ended");
}

} // namespace
