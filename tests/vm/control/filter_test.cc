// SPDX-License-Identifier: GPL-2.0-only
// The debug filter: what is stored of a request, what is printed of it, and that it changes nothing for any frame.
#include "control.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <arpa/inet.h>

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

using contract::FilterField;
using contract::kFilterFields;

/// The texts of the fields of the filter below.
const char *const kTexts[] = { "100",
			       "02:00:5e:10:00:01",
			       "02:00:5e:10:00:02",
			       "211",
			       "212",
			       "10.0.0.1",
			       "10.0.0.2",
			       "2001:0db8:0000:0000:0000:0000:0000:0001",
			       "2001:0db8:0000:0000:0000:0000:0000:0002" };
std::string line_of(const FilterField &field)
{
	return tagged(filter_line(field, kTexts[&field - kFilterFields]));
}

mox_packet_filter filter(uint32_t flags, bool enable = true)
{
	mox_packet_filter out{};
	out.enable = enable;
	out.flags = flags;
	out.vid = 100;
	std::memcpy(out.src_mac, kSrc.data(), 6);
	std::memcpy(out.dst_mac, kDst.data(), 6);
	out.src_intf = lab::kPortA;
	out.dst_intf = lab::kPortB;
	const uint8_t v4[] = { 10, 0, 0, 1 }, v6[] = { 0x20, 0x01, 0x0d, 0xb8 };
	std::memcpy(out.src_ipv4, v4, 4);
	std::memcpy(out.dst_ipv4, v4, 4);
	out.dst_ipv4[3] = 2;
	std::memcpy(out.src_ipv6, v6, 4);
	std::memcpy(out.dst_ipv6, v6, 4);
	out.src_ipv6[15] = 1;
	out.dst_ipv6[15] = 2;
	return out;
}

Bytes bytes(const mox_packet_filter &filter)
{
	const auto *at = reinterpret_cast<const uint8_t *>(&filter);
	return Bytes(at, at + sizeof filter);
}

class DebugFilter : public ControlTest {
protected:
	void SetUp() override
	{
		ControlTest::SetUp();
		home_ = std::filesystem::current_path();
	}
	void TearDown() override
	{
		std::filesystem::current_path(home_);
		ControlTest::TearDown();
	}
	void enter(const std::string &path)
	{
		std::filesystem::create_directories(path);
		std::filesystem::current_path(path);
	}
	void set(const mox_packet_filter &filter) { ask(MOX_MSG_FILTER, bytes(filter)); }
	static Bytes stored() { return lab::peek("g_pktd_kdbg_filter", 0, 72); }
	static Bytes stored_vid() { return lab::peek("g_pktd_kdbg_filter", 8, 4); }
	/// The lines of a filter request while debugging, behind those that every request has.
	std::string lines_for(const mox_packet_filter &filter)
	{
		debug(true);
		std::string text = printed(request(MOX_MSG_FILTER, bytes(filter)));
		debug(false);
		std::string head = tagged("Deal message, length:76.\n") +
				   tagged("MSG TYPE 15, client " + std::to_string(client_.port()) +
					  "\n") +
				   asked_by(client_.port());
		EXPECT_EQ(text.substr(0, head.size()), head);
		return text.size() > head.size() ? text.substr(head.size()) : "";
	}
	std::filesystem::path home_;
};

TEST_F(DebugFilter, is_replaced_as_a_whole)
{
	mox_packet_filter all_bits = filter(contract::kAllFilterFlags);
	std::memset(all_bits.reserved, 0x77, 3);
	set(all_bits);
	Bytes wanted = bytes(all_bits);
	wanted[8] = wanted[9] = wanted[10] = 0;
	wanted[11] = 100;
	EXPECT_EQ(stored(), wanted);
	set(mox_packet_filter{});
	EXPECT_EQ(stored(), Bytes(72));
	mox_packet_filter odd = filter(0xffffffff);
	odd.enable = 0x80;
	set(odd);
	EXPECT_EQ(stored()[0], 0x80);
	EXPECT_EQ(lab::peek("g_pktd_kdbg_filter", 4, 4), Bytes(4, 0xff))
		<< "flags without a meaning are kept";
}

TEST_F(DebugFilter, each_bit_alone_is_printed)
{
	for (const FilterField &field : kFilterFields)
		EXPECT_EQ(lines_for(filter(field.flag)),
			  tagged("Recv filter debug msg enable\n") + line_of(field));
	EXPECT_EQ(lines_for(filter(0x001)), tagged("Recv filter debug msg enable\n"))
		<< "a bit without a field";
	EXPECT_EQ(lines_for(filter(0xfffffc01)), tagged("Recv filter debug msg enable\n"));
	EXPECT_EQ(lines_for(filter(0)), tagged("Recv filter debug msg enable\n"));
}

TEST_F(DebugFilter, all_pairs_and_all_bits_are_printed_in_order)
{
	for (const FilterField &first : kFilterFields)
		for (const FilterField &second : kFilterFields)
			if (first.flag < second.flag) {
				EXPECT_EQ(lines_for(filter(first.flag | second.flag)),
					  tagged("Recv filter debug msg enable\n") +
						  line_of(first) + line_of(second));
			}
	std::string lines;
	for (const FilterField &field : kFilterFields)
		lines += line_of(field);
	EXPECT_EQ(lines_for(filter(0xffffffff)), tagged("Recv filter debug msg enable\n") + lines);
	EXPECT_EQ(lines_for(filter(contract::kAllFilterFlags, false)),
		  tagged("Recv filter debug msg disable\n") + lines)
		<< "the fields are printed whether in force or not";
}

TEST_F(DebugFilter, without_the_general_switch_nothing_is_printed)
{
	EXPECT_EQ(answer(MOX_MSG_FILTER, bytes(filter(contract::kAllFilterFlags))), "");
	EXPECT_EQ(stored()[0], 1) << "but it is set";
}

TEST_F(DebugFilter, the_vlan_word_carries_the_senders_vsd)
{
	struct Row {
		const char *path;
		uint32_t vid;
		Bytes word;
	};
	for (const Row &row : std::vector<Row>{
		     { "/root", 100, { 0, 0, 0, 100 } },
		     { "/data/var/run/vsd/0/x", 100, { 0, 0, 0, 100 } },
		     { "/data/var/run/vsd/2", 100, { 0x20, 0, 0, 100 } },
		     { "/data/var/run/vsd/3/deep/er", 0xfff, { 0x30, 0, 0x0f, 0xff } },
		     { "/data/var/run/vsd/15", 1, { 0xf0, 0, 0, 1 } },
		     { "/data/var/run/vsd/17",
		       1,
		       { 0x10, 0, 0, 1 } }, // only four bits are left: 17 looks like 1
		     { "/data/var/run/vsd/16", 1, { 0, 0, 0, 1 } },
		     { "/data/var/run/vsd/12abc", 1, { 0xc0, 0, 0, 1 } },
		     { "/data/var/run/vsd/4294967295",
		       1,
		       { 0, 0, 0, 1 } }, // negative as a signed word
		     { "/data/var/run/vsd", 1, { 0, 0, 0, 1 } },
		     { "/root", 0xfffff123, { 0, 0, 0x01, 0x23 } },
		     { "/data/var/run/vsd/2", 0xffffffff, { 0x20, 0, 0x0f, 0xff } },
	     }) {
		enter(row.path);
		mox_packet_filter one = filter(MOX_FILTER_VID);
		one.vid = row.vid;
		std::string line = tagged("    Filter: vid " + std::to_string(row.vid & 0xfff) +
					  "\r\n");
		EXPECT_EQ(lines_for(one), tagged("Recv filter debug msg enable\n") + line)
			<< "the id alone is lines_for, " << row.path;
		EXPECT_EQ(stored_vid(), row.word) << row.path;
	}
}

/// What of a socket's frames, and of their traces, there is to see.
struct Seen {
	std::vector<uint32_t> answers;
	std::vector<Bytes> frames;
	std::vector<std::string> lines;
};

void expect_equal(const Seen &seen, const Seen &wanted, const std::string &when)
{
	EXPECT_EQ(seen.answers, wanted.answers) << when;
	EXPECT_EQ(seen.frames, wanted.frames) << when;
	auto [is, was] = std::mismatch(seen.lines.begin(), seen.lines.end(), wanted.lines.begin(),
				       wanted.lines.end());
	EXPECT_TRUE(is == seen.lines.end() && was == wanted.lines.end())
		<< when << ": \"" << (is == seen.lines.end() ? "" : *is) << "\" where \""
		<< (was == wanted.lines.end() ? "" : *was) << "\" was";
}

class DebugFilterTraffic : public DebugFilter {
protected:
	/// Frames at every hook, some of them with the trace mark; pointers in the lines are left out.
	static Seen traffic(Socket (&sockets)[6], const std::vector<std::pair<Hook, Frame>> &frames)
	{
		Seen seen;
		said();
		for (auto [hook, frame] : frames)
			for (uint32_t mark : { 0u, lab::kTraceMark }) {
				frame.flags = mark;
				frame.tag = 0;
				seen.answers.push_back(lab::inject(hook, frame, 2));
				EXPECT_TRUE(lab::settle());
			}
		for (Socket &socket : sockets)
			while (auto packet = socket.receive_now())
				seen.frames.push_back(packet->bytes);
		// The copy thread may run on any CPU, and a buffer lie anywhere.
		for (std::string line : lab::printk_lines()) {
			size_t close = line.find(")]: "), pointer = line.find("pkt");
			if (pointer != std::string::npos)
				line.erase(pointer, line.find(',', pointer) - pointer);
			seen.lines.push_back(close == std::string::npos ? line
									: line.substr(close));
		}
		lab::clear_printk();
		return seen;
	}
};

TEST_F(DebugFilterTraffic, changes_nothing_for_frames_that_match_or_miss_by_one_byte)
{
	Socket sockets[6] = { capture(PACKET_LEV2_LOC, PACKET_COPY, all()),
			      capture(PACKET_IPv4_LOC, PACKET_FETCH, all()),
			      capture(PACKET_IPv6_LOC, PACKET_COPY, all()),
			      capture(PACKET_LOCAL_LOC, PACKET_COPY, all()),
			      capture(PACKET_RESV_LOC, PACKET_COPY, all()),
			      capture(PACKET_WLAN_LOC, PACKET_COPY, all()) };
	Frame four = ipv4(17, udp(68, 67)), six = ipv6(17, udp(546, 547));
	for (Frame *frame : { &four, &six }) {
		frame->vlan_tci = 100;
		frame->dst_ifx = lab::kPortB;
	}
	std::vector<std::pair<Hook, Frame>> frames;
	for (const Frame &frame : { four, six, plain() })
		for (Hook hook : { Hook::Lev2, Hook::Local, Hook::Resv })
			frames.push_back({ hook, frame });
	frames.push_back({ Hook::Ipv4, four });
	frames.push_back({ Hook::Ipv6, six });
	frames.push_back({ Hook::WlanIn, wlan80211(true) });
	frames.push_back({ Hook::WlanOut, eapol(0) });
	const Seen without = traffic(sockets, frames);
	ASSERT_FALSE(without.frames.empty());
	ASSERT_FALSE(without.lines.empty());

	// Every path's own switch on as well: it decides after the filter, and prints nothing.
	ask_debug(9, 1);
	ask_debug(18, 1);
	for (const FilterField &field : kFilterFields)
		for (bool miss : { false, true }) {
			Bytes body = bytes(filter(field.flag));
			if (miss)
				body[field.offset] ^= 1;
			ask(MOX_MSG_FILTER, body);
			expect_equal(traffic(sockets, frames), without,
				     "flag " + std::to_string(field.flag) +
					     (miss ? ", one byte off" : ""));
		}
	for (uint32_t flags : { 0u, 0x001u, contract::kAllFilterFlags, 0xffffffffu }) {
		set(filter(flags));
		expect_equal(traffic(sockets, frames), without, "flags " + std::to_string(flags));
	}
}

TEST_F(DebugFilterTraffic, a_packet_too_short_for_its_addresses_is_looked_at_with_care)
{
	// Every field is asked for, and the frame ends before it: nothing but the checked kernel's silence is the result.
	Socket lev2 = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	set(filter(MOX_FILTER_SRC_IPV4 | MOX_FILTER_DST_IPV4));
	for (size_t length = 14; length <= 34; ++length) {
		Frame frame = ipv4(17, udp(68, 67));
		frame.bytes.resize(length);
		put(Hook::Lev2, frame);
	}
	set(filter(MOX_FILTER_SRC_IPV6 | MOX_FILTER_DST_IPV6));
	for (size_t length = 14; length <= 54; ++length) {
		Frame frame = ipv6(17, udp(546, 547));
		frame.bytes.resize(length);
		put(Hook::Lev2, frame);
	}
	EXPECT_EQ(lev2.drain(), 21u + 41u);
}

} // namespace
