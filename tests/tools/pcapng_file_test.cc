/* SPDX-License-Identifier: GPL-2.0-only */
#include "pcapng_file.h"

#include "expect_error.h"
#include "frames.h"
#include "pcapng_reader.h"
#include "pcapng_sample.h"
#include "stored_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <random>

namespace {

using Bytes = std::vector<std::uint8_t>;
using moxcap::Layout;

constexpr std::uint32_t kSection = 0x0a0d0d0a, kInterface = 1, kStatistics = 5, kPacket = 6;

std::vector<std::uint32_t> types(const std::vector<PcapngReaderBlock> &blocks)
{
	std::vector<std::uint32_t> types;
	for (const PcapngReaderBlock &each : blocks)
		types.push_back(each.type);
	return types;
}

class PcapngFileTest : public testing::Test {
protected:
	/** The blocks of a file of raw frames, which `fill` writes. */
	std::vector<PcapngReaderBlock> blocks_of(
		const std::function<void(moxcap::PcapngFile &)> &fill,
		std::uint32_t location = PACKET_LEV2_LOC)
	{
		{
			moxcap::PcapngFile file(path, Layout::kEthernet, 65535, true,
						sample_description(location));
			fill(file);
		}
		return PcapngReader::read(path);
	}

	TemporaryFile temporary;
	const std::string &path = temporary.path;
};

TEST_F(PcapngFileTest, sample__is_written_block_by_block)
{
	auto blocks = blocks_of(write_sample);
	ASSERT_EQ(types(blocks),
		  (std::vector<std::uint32_t>{ kSection, kInterface, kPacket, kInterface, kPacket,
					       kInterface, kPacket, kPacket, kStatistics,
					       kStatistics, kStatistics }));

	const PcapngReaderBlock &section = blocks[0];
	EXPECT_EQ(section.u32(0), 0x1a2b3c4du);
	EXPECT_EQ(section.u16(4), 1);
	EXPECT_EQ(section.u16(6), 0);
	EXPECT_EQ(section.u64(8), ~std::uint64_t{ 0 });
	EXPECT_EQ(section.text(2), "a board");
	EXPECT_EQ(section.text(3), "Linux 4.19");
	EXPECT_EQ(section.text(4), "moxcap of mox_ef_socket");

	struct {
		std::size_t block;
		const char *name, *description;
	} const interfaces[] = {
		{ 1, "eth0 LEV2", "frames from eth0 (interface 7), at PACKET_LEV2_LOC" },
		{ 3, "wlan 1 LEV2", "frames from wlan 1 (interface 9), at PACKET_LEV2_LOC" },
		{ 5, "if0 LEV2", "frames made by the device, at PACKET_LEV2_LOC" },
	};
	for (const auto &each : interfaces) {
		SCOPED_TRACE(each.name);
		const PcapngReaderBlock &block = blocks[each.block];
		EXPECT_EQ(block.u16(0), 1) << "Ethernet";
		EXPECT_EQ(block.u16(2), 0);
		EXPECT_GE(block.u32(4), 65535u + 24);
		EXPECT_EQ(block.text(2), each.name);
		EXPECT_EQ(block.text(3), each.description);
		EXPECT_EQ(block.option<std::uint8_t>(9), 9);
		EXPECT_EQ(block.text(11),
			  std::string(1, '\0') + "eth=arp and dmac=ff:ff:ff:ff:ff:ff");
	}

	struct {
		std::size_t block;
		std::uint32_t interface;
		std::uint64_t time;
		std::uint32_t captured, length;
		const char *comment;
		std::uint64_t dropped;
	} const packets[] = {
		{ 2, 0, 1700000000123456789, 46, 46,
		  "treatment trap, vlan 5 prio 3, wlan-id 3, radio 1, flags trace", 0 },
		{ 4, 1, 1700000001000000001, 37, 50, "treatment trap, vlan 100, inner vlan 200",
		  2 },
		{ 6, 2, 1700000002999999999, 42, 42, "treatment trap, flags no-l2", 0 },
		{ 7, 0, 1700000003000000000, 42, 42, "treatment trap", 0 },
	};
	for (const auto &each : packets) {
		SCOPED_TRACE(each.comment);
		const PcapngReaderBlock &block = blocks[each.block];
		EXPECT_EQ(block.u32(0), each.interface);
		EXPECT_EQ(block.time(4), each.time);
		EXPECT_EQ(block.u32(12), each.captured);
		EXPECT_EQ(block.u32(16), each.length);
		EXPECT_EQ(block.text(1), each.comment);
		EXPECT_EQ(block.option<std::uint32_t>(2), 1u) << "inbound";
		EXPECT_EQ(block.options.contains(4), each.dropped != 0);
		if (each.dropped != 0) {
			EXPECT_EQ(block.option<std::uint64_t>(4), each.dropped);
		}
	}
	EXPECT_EQ(Bytes(blocks[2].fields.begin() + 20, blocks[2].fields.end()),
		  from_hex("ffffffffffff 020000000101 8100 6005 0806 0001 0800 06 04 0001 "
			   "020000000101 0a000001 000000000000 0a000002"));

	struct {
		std::uint64_t start, received, dropped;
	} const statistics[] = {
		{ 1700000000123456789, 3, 1 }, // the drop at the end belongs to the last frame
		{ 1700000001000000001, 3, 2 },
		{ 1700000002999999999, 1, 0 },
	};
	for (std::uint32_t i = 0; i < std::size(statistics); ++i) {
		SCOPED_TRACE(i);
		const PcapngReaderBlock &block = blocks[8 + i];
		EXPECT_EQ(block.u32(0), i);
		EXPECT_EQ(block.time(4), 1700000004000000500u);
		EXPECT_EQ(block.option_time(2), statistics[i].start);
		EXPECT_EQ(block.option_time(3), 1700000004000000500u);
		EXPECT_EQ(block.option<std::uint64_t>(4), statistics[i].received);
		EXPECT_EQ(block.option<std::uint64_t>(5), statistics[i].dropped);
	}
}

TEST_F(PcapngFileTest, direction__follows_the_location)
{
	struct {
		std::uint32_t location;
		std::uint32_t flags;
		const char *name;
	} const cases[] = {
		{ PACKET_LOCAL_LOC, 2, "p LOCAL" },         { PACKET_LEV2_LOC, 1, "p LEV2" },
		{ PACKET_IPv6_LOC, 1, "p IPv6" },           { PACKET_WLAN_LOC, 0, "p WLAN" },
		{ PACKET_LEV2_RESV_LOC, 1, "p LEV2_RESV" },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.name);
		Bytes bytes(60);
		auto blocks = blocks_of(
			[&](moxcap::PcapngFile &file) {
				file.write({ {}, { bytes, 60, 0, true, nullptr }, 1, "p", 0 });
			},
			each.location);
		ASSERT_EQ(blocks.size(), 3u);
		EXPECT_EQ(blocks[1].text(2), each.name);
		EXPECT_EQ(blocks[2].option<std::uint32_t>(2), each.flags);
	}
}

TEST_F(PcapngFileTest, comment__every_field_of_the_record)
{
	mox_packet_ctrl_info control{};
	EXPECT_EQ(moxcap::comment_text(PACKET_COPY, { {}, 0, 0, true, &control }),
		  "treatment copy");
	control = { 1,  2,  3,  4,  5,  6 << 4 | 7, 8,  9, MOX_RECV_EF_40000, 0xabc, 10,
		    11, 12, 13, 14, 15, 16,         17, 18 };
	EXPECT_EQ(moxcap::comment_text(PACKET_FETCH_LOCAL, { {}, 0, 0, true, &control }),
		  "treatment fetch-local, vlan 6 prio 7, inner vlan 10, wlan-id 14, ap-wlan-id 15, "
		  "radio 16, flags ef40000, original interface 2, layer-2 interface 3, "
		  "layer-2 header length 12, word28 0xabc, half38 0xd, proxy-capture 17");
	control = {};
	control.pkt_ifx = control.pkt_origifx = control.pkt_l2ifx = 7;
	control.l2_len = 14;
	EXPECT_EQ(moxcap::comment_text(PACKET_COPY, { {}, 0, 0, true, &control }),
		  "treatment copy");
	EXPECT_EQ(moxcap::comment_text(99, { {}, 0, 0, true, nullptr }), "treatment 99");
}

TEST_F(PcapngFileTest, layouts__have_the_link_types_of_pcap)
{
	struct {
		Layout layout;
		std::uint16_t link_type;
	} const cases[] = { { Layout::kEthernet, 1 },
			    { Layout::kNetwork, 113 },
			    { Layout::kWlan, 105 } };
	for (const auto &each : cases) {
		Bytes bytes(30, 8);
		{
			moxcap::PcapngFile file(path, each.layout, 100, true,
						sample_description(PACKET_WLAN_LOC));
			file.write({ {}, { bytes, 30, 0x0800, true, nullptr }, 1, "p", 0 });
		}
		auto blocks = PcapngReader::read(path);
		ASSERT_EQ(blocks.size(), 3u);
		EXPECT_EQ(blocks[1].u16(0), each.link_type);
		EXPECT_EQ(read_back(path).frames.size(), 1u);
	}
}

TEST_F(PcapngFileTest, frames__of_any_length_are_read_back_by_libpcap)
{
	std::mt19937 random(3);
	std::vector<Bytes> frames;
	for (std::size_t length : { 1, 2, 3, 4, 5, 13, 14, 15, 59, 60, 61, 1514, 9000, 65535 }) {
		Bytes bytes(length);
		for (std::uint8_t &each : bytes)
			each = static_cast<std::uint8_t>(random());
		frames.push_back(bytes);
	}
	{
		moxcap::PcapngFile file(path, Layout::kEthernet, 65535, true,
					sample_description(PACKET_LEV2_LOC));
		for (const Bytes &each : frames)
			file.write({ { 1700000000, 5000 },
				     { each, each.size() + 7, 0, true, nullptr },
				     static_cast<std::uint32_t>(each.size() % 3),
				     "p",
				     0 });
		file.finish({ 1700000001, 0 }, 0);
	}
	StoredFile stored = read_back(path);
	ASSERT_EQ(stored.frames.size(), frames.size());
	for (std::size_t i = 0; i < frames.size(); ++i) {
		EXPECT_EQ(stored.frames[i].bytes, frames[i]);
		EXPECT_EQ(stored.frames[i].head.len, frames[i].size() + 7);
		EXPECT_EQ(stored.frames[i].head.ts.tv_sec, 1700000000);
		EXPECT_EQ(stored.frames[i].head.ts.tv_usec, 5);
	}
}

TEST_F(PcapngFileTest, frames__without_a_byte)
{
	auto blocks = blocks_of([](moxcap::PcapngFile &file) {
		file.write({ {}, { {}, 60, 0, true, nullptr }, 1, "p", 0 });
	});
	ASSERT_EQ(blocks.size(), 3u);
	EXPECT_EQ(blocks[2].u32(12), 0u);
	EXPECT_EQ(blocks[2].u32(16), 60u);
}

TEST_F(PcapngFileTest, interfaces__beyond_the_limit_share_a_block)
{
	constexpr std::uint32_t all = moxcap::kMostInterfaces + 10;
	Bytes bytes(60);
	auto blocks = blocks_of([&](moxcap::PcapngFile &file) {
		for (int round = 0; round < 2; ++round)
			for (std::uint32_t i = 1; i <= all; ++i)
				file.write({ {},
					     { bytes, 60, 0, true, nullptr },
					     i,
					     "if" + std::to_string(i),
					     1 });
		file.finish({}, 0);
	});
	std::vector<std::string> names;
	std::vector<PcapngReaderBlock> packets, statistics;
	for (const PcapngReaderBlock &each : blocks) {
		if (each.type == kInterface)
			names.push_back(each.text(2));
		else if (each.type == kPacket)
			packets.push_back(each);
		else if (each.type == kStatistics)
			statistics.push_back(each);
	}
	ASSERT_EQ(names.size(), moxcap::kMostInterfaces + 1);
	EXPECT_EQ(names.front(), "if1 LEV2");
	EXPECT_EQ(names.back(), "others LEV2");
	ASSERT_EQ(packets.size(), 2 * all);
	for (std::uint32_t i = 0; i < 2 * all; ++i) {
		std::uint32_t number = i % all;
		bool own = number < moxcap::kMostInterfaces;
		EXPECT_EQ(packets[i].u32(0), own ? number : moxcap::kMostInterfaces);
		EXPECT_EQ(packets[i].text(1),
			  own ? "treatment trap"
			      : "interface if" + std::to_string(number + 1) + ", treatment trap");
	}
	ASSERT_EQ(statistics.size(), names.size());
	EXPECT_EQ(statistics.back().option<std::uint64_t>(5), 20u);
}

TEST_F(PcapngFileTest, texts__are_cut_at_the_limit)
{
	moxcap::CaptureDescription description = sample_description(PACKET_LEV2_LOC);
	description.hardware = std::string(moxcap::kMostOptionText, 'h');
	description.system = std::string(moxcap::kMostOptionText + 1, 's');
	description.application.clear();
	description.rules = std::string(100000, 'r');
	Bytes bytes(60);
	{
		moxcap::PcapngFile file(path, Layout::kEthernet, 100, true, description);
		file.write({ {}, { bytes, 60, 0, true, nullptr }, 1, "p", 0 });
	}
	auto blocks = PcapngReader::read(path);
	ASSERT_EQ(blocks.size(), 3u);
	EXPECT_EQ(blocks[0].text(2), description.hardware);
	EXPECT_EQ(blocks[0].text(3), std::string(moxcap::kMostOptionText - 3, 's') + "...");
	EXPECT_EQ(blocks[0].text(4), "(none)");
	EXPECT_EQ(blocks[1].text(11).size(), moxcap::kMostOptionText + 1);
}

TEST_F(PcapngFileTest, an_empty_capture_has_a_section_alone)
{
	EXPECT_EQ(types(blocks_of([](moxcap::PcapngFile &file) { file.finish({}, 3); })),
		  (std::vector<std::uint32_t>{ kSection }));
}

TEST_F(PcapngFileTest, a_frame_can_be_read_while_the_file_is_still_open)
{
	moxcap::PcapngFile file(path, Layout::kEthernet, 65535, true,
				sample_description(PACKET_LEV2_LOC));
	Bytes bytes(60);
	file.write({ {}, { bytes, 60, 0, true, nullptr }, 1, "p", 0 });
	EXPECT_EQ(read_back(path).frames.size(), 1u);
	file.write({ {}, { bytes, 60, 0, true, nullptr }, 1, "p", 0 });
	EXPECT_EQ(read_back(path).frames.size(), 2u);
}

TEST_F(PcapngFileTest, describe_machine__has_a_text_for_each_field)
{
	moxcap::CaptureDescription machine = moxcap::describe_machine();
	EXPECT_FALSE(machine.hardware.empty());
	EXPECT_TRUE(machine.system.starts_with("Linux ")) << machine.system;
	EXPECT_NE(machine.application.find("moxcap"), std::string::npos);
}

TEST_F(PcapngFileTest, errors__name_the_file_and_the_reason)
{
	auto description = sample_description(PACKET_LEV2_LOC);
	expect_error<moxcap::FileError>(
		[&] {
			moxcap::PcapngFile file("/nonexistent/dir/a.pcapng", Layout::kEthernet, 100,
						true, description);
		},
		{ "/nonexistent/dir/a.pcapng", "No such file" });
	if (access("/dev/full", W_OK) != 0)
		GTEST_SKIP() << "no /dev/full here";
	expect_error<moxcap::FileError>(
		[&] {
			moxcap::PcapngFile file("/dev/full", Layout::kEthernet, 100, true,
						description);
		},
		{ "/dev/full", "No space left on device", "disk full" });
}

TEST_F(PcapngFileTest, errors__a_reader_that_has_ended)
{
	std::filesystem::remove(path);
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
	ASSERT_GE(reader, 0);
	auto before = std::signal(SIGPIPE, SIG_IGN);
	{
		moxcap::PcapngFile file(path, Layout::kEthernet, 100, true,
					sample_description(PACKET_LEV2_LOC));
		close(reader);
		Bytes bytes(60);
		expect_error<moxcap::FileError>(
			[&] {
				file.write({ {}, { bytes, 60, 0, true, nullptr }, 1, "p", 0 });
			},
			{ "\"" + path + "\"", "the program that reads the capture has ended" });
	}
	std::signal(SIGPIPE, before);
}

TEST_F(PcapngFileTest, standard_output__stays_open)
{
	auto write_to_the_pipe = [] {
		int ends[2];
		if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
			_exit(1);
		{
			moxcap::PcapngFile file("-", Layout::kEthernet, 100, true,
						sample_description(PACKET_LEV2_LOC));
		}
		char bytes[4];
		bool good = read(ends[0], bytes, sizeof(bytes)) == 4 &&
			    std::memcmp(bytes, "\n\r\r\n", 4) == 0 &&
			    fcntl(STDOUT_FILENO, F_GETFD) >= 0;
		_exit(good ? 42 : 2);
	};
	EXPECT_EXIT(write_to_the_pipe(), testing::ExitedWithCode(42), "");
}

} // namespace
