// SPDX-License-Identifier: GPL-2.0-only
// The 48 bytes of the receive control record, byte by byte.
#include <cerrno>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "support/fixture.h"

namespace {

using namespace vm;

class Record : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		socket_ = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
		ASSERT_EQ(socket_.ctrl(true), 0);
	}
	void TearDown() override
	{
		socket_.close();
		VmTest::TearDown();
	}
	/// The 64 bytes of a control buffer that held 0xAA, after one read with the buffer length given to the kernel.
	Bytes record_of(const lab::Frame &frame, size_t control_length = 64)
	{
		put(lab::Hook::Lev2, frame);
		Bytes control(64, 0xaa);
		uint8_t bytes[2048];
		iovec vector{ bytes, sizeof bytes };
		msghdr message{};
		message.msg_iov = &vector;
		message.msg_iovlen = 1;
		message.msg_control = control.data();
		message.msg_controllen = control_length;
		EXPECT_GE(raw_recvmsg(socket_.fd(), &message, MSG_DONTWAIT), 0) << strerror(errno);
		return control;
	}
	/// Reads a frame of 90 bytes with that control buffer and a stated length of 48 bytes; what recvmsg returns.
	ssize_t receive_with_control(void *control)
	{
		put(lab::Hook::Lev2, frames::plain(0x88b5, 90));
		uint8_t bytes[100];
		iovec vector{ bytes, sizeof bytes };
		msghdr message{};
		message.msg_iov = &vector;
		message.msg_iovlen = 1;
		message.msg_control = control;
		message.msg_controllen = 48;
		return raw_recvmsg(socket_.fd(), &message, MSG_DONTWAIT);
	}
	Socket socket_;
};

uint32_t word(const Bytes &bytes, size_t at)
{
	uint32_t value;
	std::memcpy(&value, &bytes[at], 4);
	return value;
}

uint16_t half(const Bytes &bytes, size_t at)
{
	uint16_t value;
	std::memcpy(&value, &bytes[at], 2);
	return value;
}

TEST_F(Record, of_a_frame_with_nothing_set_is_zero_but_for_three_fields)
{
	Bytes record = record_of(frames::plain(0x88b5));
	Bytes wanted(48, 0);
	std::memcpy(&wanted[0], &lab::kPortA, 4);
	wanted[16] = 0x88;
	wanted[17] = 0xb5;
	wanted[36] = 14;
	for (size_t i = 0; i < 48; ++i)
		EXPECT_EQ(record[i], wanted[i]) << "byte " << i;
	for (size_t i = 48; i < 64; ++i)
		EXPECT_EQ(record[i], 0xaa) << "byte " << i << " is not the record's";
}

TEST_F(Record, every_field_in_its_place)
{
	lab::Frame frame = frames::plain(0x1234);
	frame.src_ifx = lab::kPortB;
	frame.origifx = 0x11223344;
	frame.l2ifx = 0x55667788;
	frame.dst_l2ifx = 0xdddddddd;
	frame.vlan_tci = 0xbabc;  // priority 5, one unnamed bit, VLAN 0xabc
	frame.inner_tci = 0x6def; // VLAN 0xdef
	frame.word172 = 0x99aabbcc;
	frame.half188 = 0x7e7f;
	frame.wlan_id = 0x0102;
	frame.ap_wlan_id = 0x0304;
	frame.radio_id = 0x05;
	frame.proxy = 0x06;
	Bytes record = record_of(frame);
	EXPECT_EQ(word(record, 0), lab::kPortB);
	EXPECT_EQ(word(record, 4), 0x11223344u);
	EXPECT_EQ(word(record, 8), 0x55667788u);
	EXPECT_EQ(word(record, 12), 0u) << "the destination is not filled on receive";
	EXPECT_EQ(half(record, 16), 0x3412) << "network order";
	EXPECT_EQ(half(record, 18), 0xabc5) << "priority in the low 4 bits, the id above";
	EXPECT_EQ(word(record, 20), 0u);
	EXPECT_EQ(word(record, 24), 0u);
	EXPECT_EQ(word(record, 28), 0x99aabbccu);
	EXPECT_EQ(half(record, 32), 0xdef);
	EXPECT_EQ(half(record, 34), 0xdef) << "the same again";
	EXPECT_EQ(half(record, 36), 14);
	EXPECT_EQ(half(record, 38), 0x7e7f);
	EXPECT_EQ(half(record, 40), 0x0102);
	EXPECT_EQ(half(record, 42), 0x0304);
	EXPECT_EQ(record[44], 0x05);
	EXPECT_EQ(record[45], 0x06);
	EXPECT_EQ(half(record, 46), 0);
}

TEST_F(Record, priorities_and_ids_at_their_ends)
{
	struct Row {
		uint16_t tci, packed;
	};
	for (Row row : { Row{ 0x0000, 0x0000 },
			 { 0x0001, 0x0010 },
			 { 0x0fff, 0xfff0 },
			 { 0xe000, 0x0007 },
			 { 0xffff, 0xfff7 },
			 { 0x1000, 0x0000 },
			 { 0x2001, 0x0011 } }) {
		lab::Frame frame = frames::plain();
		frame.vlan_tci = row.tci;
		EXPECT_EQ(half(record_of(frame), 18), row.packed) << std::hex << row.tci;
	}
}

TEST_F(Record, each_flag_alone_and_all_together)
{
	struct Row {
		uint32_t flags, wlan_flags, wanted;
	};
	for (Row row :
	     { Row{ lab::kTraceMark, 0, 0x00020002 },
	       { lab::kFlag40000, 0, 0x4 },
	       { lab::kFlag80, 0, 0x800 },
	       { 0, lab::kWlan800000, 0x80000 },
	       { lab::kTraceMark | lab::kFlag40000 | lab::kFlag80, lab::kWlan800000, 0x000a0806 },
	       { ~(lab::kTraceMark | lab::kFlag40000 | lab::kFlag80),
		 0x0037ffffu & ~lab::kWlan80211, 0 } }) {
		lab::Frame frame = frames::plain();
		frame.flags = row.flags;
		frame.wlan_flags = row.wlan_flags;
		EXPECT_EQ(word(record_of(frame), 24), row.wanted)
			<< std::hex << row.flags << " " << row.wlan_flags;
	}
}

TEST_F(Record, a_frame_that_ends_before_its_type_shows_nothing_of_what_lies_behind)
{
	// The lab fills an efbuff behind its frame: what was there before is never zero.
	for (size_t length = 1; length <= 15; ++length) {
		SCOPED_TRACE(length);
		lab::Frame frame = frames::plain(0x88b5, 60);
		frame.bytes.resize(length);
		Bytes record = record_of(frame);
		EXPECT_EQ(record[16], length >= 13 ? 0x88 : 0);
		EXPECT_EQ(record[17], length >= 14 ? 0xb5 : 0);
		EXPECT_EQ(half(record, 36), 14) << "the platform's word";
	}
}

TEST_F(Record, a_packet_without_layer_2_header_shows_it)
{
	Bytes record = record_of(frames::without_l2(frames::ipv4(17, frames::udp(1, 2))));
	EXPECT_EQ(word(record, 24), 0x1000u);
	EXPECT_EQ(half(record, 16), 0) << "and has no EtherType";
	EXPECT_EQ(half(record, 36), 0);
}

TEST_F(Record, the_interface_of_the_name_is_the_records_first_word)
{
	lab::Frame frame = frames::plain();
	frame.src_ifx = lab::kPortB;
	put(lab::Hook::Lev2, frame);
	auto packet = socket_.receive();
	ASSERT_TRUE(packet);
	EXPECT_EQ(packet->addr.sll_ifindex, int(lab::kPortB));
	EXPECT_EQ(packet->info.pkt_ifx, lab::kPortB);
}

TEST_F(Record, the_callers_control_length_is_not_looked_at)
{
	// Daemons that give a shorter length (but room for the record) get the whole record all the same.
	for (size_t length : { size_t(1), size_t(16), size_t(47), size_t(48) }) {
		Bytes record = record_of(frames::plain(), length);
		EXPECT_EQ(half(record, 36), 14) << length;
		EXPECT_EQ(half(record, 46), 0) << length;
		EXPECT_EQ(record[48], 0xaa) << length;
	}
}

TEST_F(Record, an_unwritable_control_buffer_is_ignored)
{
	EXPECT_EQ(receive_with_control(reinterpret_cast<void *>(8)), 90) << strerror(errno);
}

TEST_F(Record, a_control_buffer_that_ends_half_way)
{
	long page = ::sysconf(_SC_PAGESIZE);
	auto *area = static_cast<uint8_t *>(::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
						   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(area, MAP_FAILED);
	ASSERT_EQ(::munmap(area + page, page), 0);
	EXPECT_EQ(receive_with_control(area + page - 24), 90);
	::munmap(area, page);
}

TEST_F(Record, switched_off_the_control_buffer_is_left_alone)
{
	ASSERT_EQ(socket_.ctrl(false), 0);
	Bytes record = record_of(frames::plain());
	EXPECT_EQ(record, Bytes(64, 0xaa));
}

TEST_F(Record, the_switch_counts_when_the_frame_is_read_and_not_when_it_came)
{
	ASSERT_EQ(socket_.ctrl(false), 0);
	put(lab::Hook::Lev2, frames::plain());
	ASSERT_EQ(socket_.ctrl(true), 0);
	auto packet = socket_.receive();
	ASSERT_TRUE(packet);
	EXPECT_EQ(packet->info.pkt_ifx, lab::kPortA);
}

TEST_F(Record, peeking_reads_it_too)
{
	put(lab::Hook::Lev2, frames::plain());
	for (int flags : { int(MSG_PEEK), 0 }) {
		Bytes control(48, 0xaa);
		uint8_t byte;
		iovec vector{ &byte, 1 };
		msghdr message{};
		message.msg_iov = &vector;
		message.msg_iovlen = 1;
		message.msg_control = control.data();
		message.msg_controllen = control.size();
		ASSERT_EQ(raw_recvmsg(socket_.fd(), &message, flags | MSG_DONTWAIT), 1);
		EXPECT_EQ(word(control, 0), lab::kPortA);
		EXPECT_EQ(half(control, 46), 0);
	}
}

TEST_F(Record, dgram_sockets_get_the_same_record)
{
	Socket dgram = capture(PACKET_LEV2_LOC, PACKET_COPY, all(), SOCK_DGRAM);
	ASSERT_EQ(dgram.ctrl(true), 0);
	put(lab::Hook::Lev2, frames::plain(0x88b5, 80));
	auto raw = socket_.receive(), cut = dgram.receive();
	ASSERT_TRUE(raw && cut);
	EXPECT_EQ(std::memcmp(&raw->info, &cut->info, 48), 0);
	EXPECT_EQ(raw->bytes.size(), 80u);
	EXPECT_EQ(cut->bytes, Bytes(raw->bytes.begin() + 14, raw->bytes.end()));
}

TEST_F(Record, frames_read_after_each_other_do_not_mix)
{
	for (uint32_t i = 1; i <= 20; ++i) {
		lab::Frame frame = frames::plain();
		frame.word172 = i * 0x01010101;
		put(lab::Hook::Lev2, frame);
	}
	for (uint32_t i = 1; i <= 20; ++i)
		EXPECT_EQ(socket_.receive()->info.word28, i * 0x01010101);
}

} // namespace
