/* SPDX-License-Identifier: GPL-2.0-only */
/* The bytes that capture files store: headers and VLAN tags that frames lack. */
#include "stored_frame.h"

#include "frames.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

namespace {

using moxcap::Layout;

std::uint16_t vlan_word(unsigned id, unsigned priority)
{
	return static_cast<std::uint16_t>(id << 4 | priority);
}

/** A frame on the heap at its exact size, so that a read past its end is found. */
struct Sample {
	std::unique_ptr<std::uint8_t[]> bytes;
	std::size_t size;

	explicit Sample(const std::vector<std::uint8_t> &from)
		: bytes(new std::uint8_t[from.size()]), size(from.size())
	{
		std::copy(from.begin(), from.end(), bytes.get());
	}
};

TEST(stored_frame, store__headers_and_tags)
{
	struct {
		const char *what;
		Layout layout;
		const char *bytes;
		std::size_t length; // 0: as many as there are bytes
		std::uint16_t ether_type;
		bool has_header;
		unsigned id, priority, inner;
		const char *stored;
		std::size_t stored_length; // 0: as many as there are bytes
	} const cases[] = {
		{ "no tag", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0, 0x0806,
		  true, 0, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0 },
		{ "one tag", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0, 0x0806,
		  true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005 0806 0102", 0 },
		{ "highest id and priority", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0, 0x0806, true, 4095, 7, 0,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 8100 efff 0806 0102", 0 },
		{ "priority alone", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0,
		  0x0806, true, 0, 3, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 6000 0806 0102", 0 },
		{ "two tags", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0, 0x0806,
		  true, 5, 1, 6, "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 2005 8100 0006 0806 0102", 0 },
		{ "no outer tag", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0,
		  0x0806, true, 0, 0, 6, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 0 },
		{ "an 802.3 frame", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0003 424203", 0,
		  3, true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005 0003 424203", 0 },
		{ "the tag is in the bytes", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005 0806", 0, 0x8100, true, 5, 0, 0,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005 0806", 0 },
		{ "the tag is in the bytes with its priority", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 6005 0806", 0, 0x88a8, true, 5, 3, 0,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 6005 0806", 0 },
		{ "both tags are in the bytes", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 0005 8100 0006 0806", 0, 0x88a8, true, 5, 0, 6,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 0005 8100 0006 0806", 0 },
		{ "the inner tag is in the bytes", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0006 0806", 0, 0x8100, true, 5, 0, 6,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 0005 8100 0006 0806", 0 },
		{ "another tag is in the bytes", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0007 0806", 0, 0x8100, true, 5, 0, 0,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 0005 8100 0007 0806", 0 },
		{ "a third tag is in the bytes", Layout::kEthernet,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0007 0806", 0, 0x8100, true, 5, 0, 6,
		  "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 0005 8100 0006 8100 0007 0806", 0 },
		{ "a cut frame", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102", 100,
		  0x0806, true, 5, 0, 6, "aaaaaaaaaaaa bbbbbbbbbbbb 88a8 0005 8100 0006 0806 0102",
		  108 },
		{ "cut in the EtherType", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 08", 100,
		  0x0806, true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005 08", 104 },
		{ "cut after the addresses", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb", 100,
		  0x0806, true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005", 104 },
		{ "cut in the addresses", Layout::kEthernet, "aaaaaaaaaaaa bbbb", 100, 0x0806, true,
		  5, 0, 0, "aaaaaaaaaaaa bbbb", 104 },
		{ "cut in the addresses, and tagged", Layout::kEthernet, "aaaaaaaaaaaa bbbb", 100,
		  0x8100, true, 5, 0, 0, "aaaaaaaaaaaa bbbb", 100 },
		{ "cut before a tag's id", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 00",
		  100, 0x8100, true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 00", 100 },
		{ "cut to nothing", Layout::kEthernet, "", 60, 0x0806, true, 5, 0, 0, "", 64 },
		{ "shorter than a header", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 08", 0,
		  0x0806, true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 08", 0 },
		{ "just a header", Layout::kEthernet, "aaaaaaaaaaaa bbbbbbbbbbbb 0806", 0, 0x0806,
		  true, 5, 0, 0, "aaaaaaaaaaaa bbbbbbbbbbbb 8100 0005 0806", 0 },
		{ "no header", Layout::kEthernet, "4501", 0, 0x0800, false, 0, 0, 0,
		  "000000000000 000000000000 0800 4501", 0 },
		{ "no header, with tags", Layout::kEthernet, "4501", 200, 0x0800, false, 5, 0, 6,
		  "000000000000 000000000000 88a8 0005 8100 0006 0800 4501", 222 },
		{ "no header and no byte", Layout::kEthernet, "", 0, 0, false, 5, 0, 0,
		  "000000000000 000000000000 8100 0005 0000", 0 },
		{ "datagram", Layout::kNetwork, "4501", 0, 0x0800, true, 0, 0, 0,
		  "0000 0000 0000 0000000000000000 0800 4501", 0 },
		{ "datagram, with a tag", Layout::kNetwork, "4501", 100, 0x0800, true, 5, 0, 0,
		  "0000 0000 0000 0000000000000000 8100 0005 0800 4501", 120 },
		{ "datagram, the tag is in the bytes", Layout::kNetwork, "0005 0800 4501", 0,
		  0x8100, true, 5, 0, 0, "0000 0000 0000 0000000000000000 8100 0005 0800 4501", 0 },
		{ "802.11", Layout::kWlan, "8000 0000 aaaaaaaaaaaa bbbbbbbbbbbb", 0, 0, true, 5, 0,
		  6, "8000 0000 aaaaaaaaaaaa bbbbbbbbbbbb", 0 },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		Sample sample(from_hex(each.bytes));
		mox_packet_ctrl_info control{};
		control.vlan = vlan_word(each.id, each.priority);
		control.inner_vlan = static_cast<std::uint16_t>(each.inner);
		moxcap::FrameStorer storer(each.layout, true);
		moxcap::StoredFrame stored = storer.store(
			{ { sample.bytes.get(), sample.size },
			  each.length != 0 ? each.length : sample.size,
			  each.ether_type,
			  each.has_header,
			  &control });
		std::vector<std::uint8_t> expected = from_hex(each.stored);
		EXPECT_EQ(std::vector<std::uint8_t>(stored.bytes.begin(), stored.bytes.end()),
			  expected);
		EXPECT_EQ(stored.length,
			  each.stored_length != 0 ? each.stored_length : expected.size());
	}
}

TEST(stored_frame, store__as_received)
{
	std::vector<std::uint8_t> bytes = from_hex("aaaaaaaaaaaa bbbbbbbbbbbb 0806 0102");
	mox_packet_ctrl_info control{};
	control.vlan = vlan_word(5, 0);
	struct {
		const char *what;
		bool vlan_tags;
		const mox_packet_ctrl_info *control;
	} const cases[] = {
		{ "tags are not put back", false, &control },
		{ "no control record", true, nullptr },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		moxcap::FrameStorer storer(Layout::kEthernet, each.vlan_tags);
		moxcap::StoredFrame stored = storer.store(
			{ bytes, bytes.size(), 0x0806, true, each.control });
		EXPECT_EQ(std::vector<std::uint8_t>(stored.bytes.begin(), stored.bytes.end()),
			  bytes);
		EXPECT_EQ(stored.length, bytes.size());
	}
}

/** Frames of every length, cut anywhere: the stored bytes are a beginning of the whole stored frame. */
TEST(stored_frame, store__a_cut_frame_is_the_beginning_of_the_whole_one)
{
	std::mt19937 random(1);
	for (Layout layout : { Layout::kEthernet, Layout::kNetwork, Layout::kWlan })
		for (unsigned round = 0; round < 300; ++round) {
			std::vector<std::uint8_t> whole(random() % 40);
			for (std::uint8_t &each : whole)
				each = static_cast<std::uint8_t>(random());
			bool has_header = random() % 4 != 0;
			bool tagged = round % 3 == 0;
			// Where the frame's bytes continue after the EtherType.
			bool type_in_bytes = layout == Layout::kEthernet && has_header;
			std::size_t rest = type_in_bytes ? 14 : 0;
			std::uint16_t ether_type = tagged ? 0x8100 : 0x0800;
			if (type_in_bytes && whole.size() >= rest) {
				whole[12] = static_cast<std::uint8_t>(ether_type >> 8);
				whole[13] = static_cast<std::uint8_t>(ether_type);
			}
			mox_packet_ctrl_info control{};
			control.vlan = static_cast<std::uint16_t>(random());
			control.inner_vlan = static_cast<std::uint16_t>(random() % 2);
			// A tag whose id is cut off is taken for the outer one, so here it is.
			if (tagged && whole.size() >= rest + 2)
				control.vlan = vlan_word((whole[rest] << 8 | whole[rest + 1]) &
								 0xfff,
							 control.vlan & 7);
			moxcap::FrameStorer storer(layout, true), cutter(layout, true);
			moxcap::StoredFrame all = storer.store(
				{ whole, whole.size(), ether_type, has_header, &control });
			EXPECT_EQ(all.bytes.size(), all.length);
			EXPECT_LE(all.length, whole.size() + storer.most_added());
			for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
				Sample sample({ whole.begin(),
						whole.begin() + static_cast<std::ptrdiff_t>(cut) });
				moxcap::StoredFrame part = cutter.store(
					{ { sample.bytes.get(), cut },
					  whole.size(),
					  ether_type,
					  has_header,
					  &control });
				EXPECT_EQ(part.length, all.length);
				ASSERT_LE(part.bytes.size(), all.bytes.size());
				EXPECT_TRUE(std::equal(part.bytes.begin(), part.bytes.end(),
						       all.bytes.begin()))
					<< "round " << round << ", cut to " << cut;
			}
		}
}

} // namespace
