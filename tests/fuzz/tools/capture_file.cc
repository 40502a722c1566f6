// SPDX-License-Identifier: GPL-2.0-only
// moxcap: any frames with any control records into pcap and pcapng files, which are read again.
#include <memory>

#include <gtest/gtest.h>

#include "harness.h"
#include "memory_file.h"
#include "pcap_file.h"
#include "pcapng_file.h"
#include "pcapng_reader.h"
#include "printable.h"

namespace {

constexpr int kFrames = 8;
constexpr uint32_t kFrameBlock = 6;

struct Frame {
	mox_packet_ctrl_info control{};
	std::vector<uint8_t> bytes;
	std::string interface;
	moxcap::FileFrame to_file;
};

std::unique_ptr<Frame> next_frame(fuzz::Input &input)
{
	auto frame = std::make_unique<Frame>();
	const auto control = input.bytes(sizeof frame->control);
	std::copy(control.begin(), control.end(), reinterpret_cast<uint8_t *>(&frame->control));
	const uint8_t how = input.byte();
	const auto name = input.bytes(how % 16);
	frame->interface.assign(name.begin(), name.end());
	frame->bytes = input.bytes(input.byte());
	frame->bytes.shrink_to_fit();
	moxcap::FileFrame &to = frame->to_file;
	to.time = { time_t(input.number<uint32_t>()), input.byte() };
	to.received.bytes = frame->bytes;
	to.received.length = frame->bytes.size() + (how & 16 ? input.byte() : 0);
	to.received.ether_type = input.number<uint16_t>();
	to.received.has_header = how & 32;
	to.received.control = how & 64 ? &frame->control : nullptr;
	to.ifindex = input.byte() % 4;
	to.interface = frame->interface;
	to.dropped = how & 128 ? input.byte() : 0;
	return frame;
}

void read_pcapng(const std::string &path, const std::vector<moxcap::StoredFrame> &wanted)
{
	size_t frames = 0;
	for (const PcapngReaderBlock &block : PcapngReader::read(path)) {
		if (block.type != kFrameBlock)
			continue;
		ASSERT_LT(frames, wanted.size());
		const moxcap::StoredFrame &want = wanted[frames++];
		EXPECT_EQ(block.u32(12), want.bytes.size());
		EXPECT_EQ(block.u32(16), want.length);
		EXPECT_TRUE(std::equal(want.bytes.begin(), want.bytes.end(),
				       block.fields.begin() + 20, block.fields.end()));
	}
	EXPECT_EQ(frames, wanted.size());
}

void read_pcap(const std::string &path, const std::vector<moxcap::StoredFrame> &wanted)
{
	char error[PCAP_ERRBUF_SIZE];
	pcap_t *pcap = pcap_open_offline(path.c_str(), error);
	ASSERT_TRUE(pcap) << error;
	pcap_pkthdr *head;
	const u_char *bytes;
	for (const moxcap::StoredFrame &want : wanted) {
		ASSERT_EQ(pcap_next_ex(pcap, &head, &bytes), 1) << pcap_geterr(pcap);
		EXPECT_EQ(head->len, want.length);
		EXPECT_TRUE(std::equal(want.bytes.begin(), want.bytes.end(), bytes,
				       bytes + head->caplen));
	}
	EXPECT_EQ(pcap_next_ex(pcap, &head, &bytes), PCAP_ERROR_BREAK);
	pcap_close(pcap);
}

} // namespace

void fuzz_case(fuzz::Input input)
{
	const auto layout = static_cast<moxcap::Layout>(input.below(3));
	const uint8_t how = input.byte();
	const bool vlan_tags = how & 1, newer = how & 2;
	moxcap::CaptureDescription description{
		.hardware = "device", .system = "", .application = "moxcap", .rules = "all"
	};
	description.location = input.byte() % 16;
	description.treatment = input.byte() % 8;
	const MemoryFile file;
	std::unique_ptr<moxcap::CaptureFile> writer;
	constexpr int kSnap = 1024;
	if (newer)
		writer = std::make_unique<moxcap::PcapngFile>(file.path(), layout, kSnap, vlan_tags,
							      description);
	else
		writer = std::make_unique<moxcap::PcapFile>(file.path(), layout, kSnap, vlan_tags);

	std::vector<std::unique_ptr<Frame>> frames;
	std::vector<std::unique_ptr<moxcap::FrameStorer>> storers;
	std::vector<moxcap::StoredFrame> wanted;
	while (frames.size() < kFrames && !input.empty()) {
		frames.push_back(next_frame(input));
		writer->write(frames.back()->to_file);
		storers.push_back(std::make_unique<moxcap::FrameStorer>(layout, vlan_tags));
		wanted.push_back(storers.back()->store(frames.back()->to_file.received));
		EXPECT_LE(wanted.back().bytes.size(),
			  frames.back()->bytes.size() + storers.back()->most_added());
		expect_printable(moxcap::comment_text(description.treatment,
						      frames.back()->to_file.received));
	}
	writer->finish({ 1, 2 }, input.byte());
	writer.reset();
	(newer ? read_pcapng : read_pcap)(file.path(), wanted);
}
