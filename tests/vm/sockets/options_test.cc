// SPDX-License-Identifier: GPL-2.0-only
// setsockopt: which options there are, what they refuse, and what each leaves of the socket in the libraries.
#include <cerrno>

#include <arpa/inet.h>

#include "contract/sockets.h"
#include "support/fixture.h"

namespace {

using namespace vm;
using Options = VmTest;

TEST_F(Options, a_foreign_level_is_no_protocol_option)
{
	Socket socket;
	uint32_t value = 1;
	for (int level : { 0, 6, 262, 264 })
		EXPECT_EQ(socket.option_raw(level, PACKET_TREATMENT, &value, 4), ENOPROTOOPT)
			<< level;
}

TEST_F(Options, every_number_has_its_answer)
{
	Socket socket;
	for (int option = -2; option <= 40; ++option) {
		EXPECT_EQ(socket.option(option, 1), contract::set_option_error(option))
			<< "option " << option;
	}
}

TEST_F(Options, word_options_need_four_bytes)
{
	Socket socket;
	uint32_t value = 1;
	for (int option : { 15, 16, 17 }) {
		for (socklen_t length : { 0u, 1u, 2u, 3u })
			EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, &value, length), EINVAL)
				<< option << " " << length;
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, &value, 4), 0) << option;
		uint32_t more[4] = { 1, 0xffffffff, 0xffffffff, 0xffffffff };
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, more, 16), 0)
			<< option << ": only four bytes are read";
	}
}

TEST_F(Options, treatments_up_to_5)
{
	Socket socket;
	for (uint32_t value = 0; value <= 5; ++value)
		EXPECT_EQ(socket.treatment(value), 0) << value;
	for (uint32_t value : { 6u, 7u, 255u, 0x80000000u, 0xffffffffu })
		EXPECT_EQ(socket.treatment(value), EINVAL) << value;
}

TEST_F(Options, a_refused_treatment_changes_nothing)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, all());
	ASSERT_EQ(socket.treatment(6), EINVAL);
	EXPECT_EQ(put(lab::Hook::Lev2, frames::plain()), lab::kTaken);
	EXPECT_TRUE(socket.receive());
}

TEST_F(Options, a_treatment_runs_the_socket_even_without_a_location)
{
	// Only the next change shows it outside: the rule of no location is taken out again and put back.
	Socket socket;
	DebugOn debug;
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-HANDLE-REGULAR: location illegal!"));
	lab::clear_printk();
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	EXPECT_TRUE(HasLine(lab::printk_lines(), "MOX-PACKET-HANDLE-REGULAR: location illegal!"))
		<< "the socket ran, so the change began with a removal from no location";
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
}

TEST_F(Options, mpls_and_trill_locations_are_refused_and_change_nothing)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	EXPECT_EQ(socket.location(PACKET_MPLS_LOC), EINVAL);
	EXPECT_EQ(socket.location(PACKET_TRILL_LOC), EINVAL);
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
}

TEST_F(Options, locations_beyond_the_last_are_accepted_and_capture_nothing)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (uint32_t value : { 11u, 12u, 255u, 0xffffffffu }) {
		EXPECT_EQ(socket.location(value), 0) << value;
		EXPECT_EQ(lab::registrations(), 0u) << value;
	}
	EXPECT_EQ(socket.location(PACKET_LEV2_LOC), 0) << "and back";
	EXPECT_EQ(lab::registrations(), 1u);
}

TEST_F(Options, location_zero_takes_the_socket_out)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(lab::registrations(), 1u);
	ASSERT_EQ(socket.location(PACKET_NONE_LOC), 0);
	EXPECT_EQ(lab::registrations(), 0u);
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries])
		<< "no key left";
	EXPECT_EQ(now.data[contract::kLiveCopies], records_.data[contract::kLiveCopies])
		<< "no match copy left";
	EXPECT_EQ(socket.add(ethertype(0x0806)), 0);
	EXPECT_EQ(lab::registrations(), 0u) << "and a rule change does not bring it back";
}

TEST_F(Options, moving_between_locations_moves_the_hook)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(socket.location(PACKET_IPv4_LOC), 0);
	EXPECT_FALSE(lab::registered(lab::Hook::Lev2));
	EXPECT_TRUE(lab::registered(lab::Hook::Ipv4));
	EXPECT_EQ(put(lab::Hook::Ipv4, frames::ipv4(17, frames::udp(1, 2))), lab::kGoOn);
	EXPECT_TRUE(socket.receive());
}

TEST_F(Options, control_records_come_and_go)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	ASSERT_EQ(socket.ctrl(true), 0);
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_EQ(socket.receive()->info.pkt_ifx, lab::kPortA);
	ASSERT_EQ(socket.option(PACKET_CTRL_INFO, 0x80000000u), 0) << "any value but 0 is on";
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_EQ(socket.receive()->info.pkt_ifx, lab::kPortA);
	ASSERT_EQ(socket.ctrl(false), 0);
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_EQ(socket.receive()->info.pkt_ifx, 0u) << "untouched";
}

TEST_F(Options, the_socket_dump_takes_no_argument)
{
	Socket socket;
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_DUMP_SOCKET, nullptr, 0), 0);
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_DUMP_SOCKET,
				    reinterpret_cast<void *>(8), 4000),
		  0);
}

TEST_F(Options, without_a_control_hook_anything_goes)
{
	// Whether a handler is installed is tested before the length and the bytes.
	Socket socket;
	uint8_t bytes[64] = {};
	for (socklen_t length : { 0u, 1u, 40u, 41u, 64u })
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_CONTROL_HOOK, bytes, length),
			  0)
			<< length;
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, MOX_PACKET_CONTROL_HOOK,
				    reinterpret_cast<void *>(8), 40),
		  0);
}

TEST_F(Options, a_rule_record_is_at_least_six_bytes)
{
	Socket socket;
	uint8_t record[8] = { 16, 0, 0, 0, 0, 0, 0, 0 };
	for (int option : { 11, 12 }) {
		for (socklen_t length : { 0u, 1u, 5u })
			EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, record, length), EINVAL)
				<< option << " " << length;
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, record, 6), 0) << option;
	}
}

TEST_F(Options, two_elements_of_two_bytes_need_ten)
{
	Socket socket;
	Bytes record = Rule{ PACKET_ETH_PROT_EQUAL, 2, 2, { 8, 0, 8, 6 } }.record();
	ASSERT_EQ(record.size(), 10u);
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, 11, record.data(), 9), EINVAL);
	EXPECT_EQ(RuleRecords::read().data[3], records_.data[3]) << "nothing was changed";
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, 11, record.data(), 10), 0);
	EXPECT_EQ(RuleRecords::read().data[3], records_.data[3] + 2);
}

TEST_F(Options, count_times_size_does_not_wrap)
{
	Socket socket;
	Bytes record = Rule{ PACKET_ETH_PROT_EQUAL, 0xffff, 0xffff, Bytes(64, 1) }.record();
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, 11, record.data(), record.size()), EINVAL);
	record = Rule{ PACKET_ETH_PROT_EQUAL, 0x8000, 2, Bytes(64, 1) }.record();
	EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, 11, record.data(), record.size()), EINVAL);
}

TEST_F(Options, the_types_own_stride_must_fit_as_well)
{
	// The size in the record serves its own check only; the elements are read at the type's stride. A record that says
	// "size 0" and brings no bytes would otherwise make the module read past it.
	struct Row {
		uint16_t type, stride;
	};
	for (Row row : { Row{ 0, 2 },
			 { 1, 6 },
			 { 2, 6 },
			 { 3, 2 },
			 { 4, 2 },
			 { 5, 1 },
			 { 6, 1 },
			 { 7, 2 },
			 { 8, 2 },
			 { 9, 2 },
			 { 10, 4 },
			 { 11, 1 },
			 { 14, 1 },
			 { 15, 1 },
			 { 17, 4 },
			 { 19, 2 } }) {
		for (int option : { 11, 12 }) {
			Socket socket;
			for (uint16_t size : { 0, 1 }) {
				if (size >= row.stride)
					continue;
				Bytes record = Rule{ row.type, size, 3,
						     Bytes(row.stride * 3 - 1, 5) }
						       .record();
				RuleRecords before = RuleRecords::read();
				EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, record.data(),
							    record.size()),
					  EINVAL)
					<< "type " << row.type << " size " << size;
				EXPECT_EQ(RuleRecords::read().data[row.type], before.data[row.type])
					<< "type " << row.type;
			}
			Bytes record = Rule{ row.type, 0, 3, Bytes(row.stride * 3, 5) }.record();
			EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, option, record.data(),
						    record.size()),
				  0)
				<< "type " << row.type;
		}
	}
}

TEST_F(Options, a_huge_count_of_valueless_elements_is_one_datum)
{
	for (uint16_t type : { 12, 13, 18 }) {
		Socket socket;
		EXPECT_EQ(socket.add(Rule{ type, 0, 0xffff, {} }), 0);
		RuleRecords now = RuleRecords::read();
		EXPECT_EQ(now.data[type], records_.data[type] + 1) << type;
		EXPECT_EQ(now.items[type], records_.items[type] + 1) << type;
	}
}

TEST_F(Options, a_count_of_zero_adds_nothing_and_succeeds)
{
	Socket socket;
	for (uint16_t type = 0; type < MOX_PACKET_RULE_TYPES; ++type) {
		if (type == PACKET_ALL)
			continue;
		EXPECT_EQ(socket.add(Rule{ type, 2, 0, {} }), 0) << type;
		EXPECT_EQ(RuleRecords::read().items[type], records_.items[type]) << type;
	}
}

TEST_F(Options, a_type_above_19_is_refused_and_the_socket_stays_in_its_library)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	for (uint16_t type : { 20, 21, 255, 0xffff }) {
		EXPECT_EQ(socket.add(Rule{ type, 0, 0, {} }), EINVAL) << type;
		EXPECT_EQ(socket.del(Rule{ type, 0, 1, {} }), EINVAL) << type;
	}
	EXPECT_TRUE(lab::registered(lab::Hook::Lev2));
	put(lab::Hook::Lev2, frames::plain());
	EXPECT_TRUE(socket.receive());
}

TEST_F(Options, the_same_value_twice_is_kept_once)
{
	Socket socket;
	ASSERT_EQ(socket.add(ethertype(0x0806)), 0);
	ASSERT_EQ(socket.add(be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 0x88cc, 0x0806 })), 0);
	EXPECT_EQ(RuleRecords::read().data[3], records_.data[3] + 2);
}

TEST_F(Options, deleting_what_is_not_there_succeeds)
{
	Socket socket;
	EXPECT_EQ(socket.del(ethertype(0x0806)), 0);
	EXPECT_EQ(socket.del(all()), 0);
	ASSERT_EQ(socket.add(ethertype(0x0806)), 0);
	EXPECT_EQ(socket.del(ethertype(0x0807)), 0);
	EXPECT_EQ(RuleRecords::read().data[3], records_.data[3] + 1);
}

TEST_F(Options, an_item_goes_with_its_last_value)
{
	Socket socket;
	ASSERT_EQ(socket.add(be16s(PACKET_ETH_PROT_EQUAL, { 1, 2 })), 0);
	ASSERT_EQ(socket.del(be16s(PACKET_ETH_PROT_EQUAL, { 1 })), 0);
	EXPECT_EQ(RuleRecords::read().items[3], records_.items[3] + 1);
	ASSERT_EQ(socket.del(be16s(PACKET_ETH_PROT_EQUAL, { 2 })), 0);
	EXPECT_EQ(RuleRecords::read().items[3], records_.items[3]);
}

TEST_F(Options, packet_all_is_one_item_whatever_count_and_elements_say)
{
	Socket socket;
	ASSERT_EQ(socket.add(Rule{ PACKET_ALL, 1, 3, { 1, 2, 3 } }), 0);
	ASSERT_EQ(socket.add(all()), 0);
	EXPECT_EQ(RuleRecords::read().items[16], records_.items[16] + 1);
	EXPECT_EQ(RuleRecords::read().data[16], records_.data[16]) << "an item without data";
	ASSERT_EQ(socket.del(Rule{ PACKET_ALL, 1, 2, { 9, 9 } }), 0);
	EXPECT_EQ(RuleRecords::read().items[16], records_.items[16]);
}

TEST_F(Options, a_thousand_values_in_one_record)
{
	Socket socket;
	Rule many{ PACKET_SRC_INTF_EQUAL, 4, 1000, {} };
	for (uint32_t i = 0; i < 1000; ++i) {
		Bytes value = le32(i + 1);
		many.elements.insert(many.elements.end(), value.begin(), value.end());
	}
	ASSERT_EQ(socket.treatment(PACKET_COPY), 0);
	ASSERT_EQ(socket.add(many), 0);
	ASSERT_EQ(socket.location(PACKET_LEV2_LOC), 0);
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.data[contract::kLiveEntries], records_.data[contract::kLiveEntries] + 1000);
	EXPECT_EQ(now.data[contract::kLiveCopies], records_.data[contract::kLiveCopies] + 1000);
	ASSERT_EQ(socket.del(many), 0);
	EXPECT_EQ(RuleRecords::read().data[contract::kLiveEntries],
		  records_.data[contract::kLiveEntries]);
}

TEST_F(Options, the_buffers_of_rule_records_are_counted_and_given_back)
{
	Socket socket;
	RuleRecords before = RuleRecords::read();
	ASSERT_EQ(socket.add(ethertype(0x0806)), 0);
	ASSERT_EQ(socket.del(ethertype(0x0806)), 0);
	ASSERT_EQ(socket.add(Rule{ 99, 0, 0, {} }), EINVAL);
	ASSERT_EQ(socket.add(Rule{ 3, 2, 9, {} }), EINVAL);
	uint8_t little[5] = {};
	ASSERT_EQ(socket.option_raw(MOX_SOL_PACKET, 11, little, 5), EINVAL)
		<< "refused before there is a buffer";
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.buffers_alloc, before.buffers_alloc + 4);
	EXPECT_EQ(now.buffers_free, before.buffers_free + 4);
}

} // namespace
