/* SPDX-License-Identifier: GPL-2.0-only */
/* The sending half of a socket: what is passed to the kernel, to the byte, and the texts of refusals. */
#include "mox/packet_socket.h"

#include "expect_error.h"
#include "fake_calls.h"
#include "mox/capture_socket.h"
#include "mox/error.h"

#include <utility>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr mox::MacAddress lldp_group = { 0x01, 0x80, 0xc2, 0x00, 0x00, 0x0e };
const Bytes frame = { 1, 2, 3, 4, 5 };

TEST(packet_socket, send__bytes_alone)
{
	FakeCalls calls;
	mox::PacketSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.send({ frame, {}, {} });
	ASSERT_EQ(calls.sent.size(), 1u);
	EXPECT_EQ(calls.sent[0].bytes, frame);
	// A pointer without a length would still be a control buffer, of 0 bytes, to the module.
	EXPECT_FALSE(calls.sent[0].has_name);
	EXPECT_FALSE(calls.sent[0].has_control);
	EXPECT_EQ(calls.sent[0].flags, 0);
}

TEST(packet_socket, send__address_to_the_byte)
{
	FakeCalls calls;
	mox::PacketSocket socket(mox::SocketKind::kDatagram, 0, calls);
	socket.send({ frame, mox::SendAddress{ 0x01020304, 0x88cc, lldp_group }, {} });
	socket.send({ frame, mox::SendAddress{ 7, 0, {} }, {} });
	ASSERT_EQ(calls.sent.size(), 2u);
	EXPECT_EQ(calls.sent[0].name, (Bytes{ 17, 0, 0x88, 0xcc, 4,    3, 2, 1,    0, 0,
					      0,  6, 0x01, 0x80, 0xc2, 0, 0, 0x0e, 0, 0 }));
	EXPECT_EQ(calls.sent[1].name,
		  (Bytes{ 17, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
}

TEST(packet_socket, send__control_record_to_the_byte)
{
	mox::SendControl control;
	control.source_ifindex = 0x04030201;
	control.origin_ifindex = 0x08070605;
	control.l2_ifindex = 0x0c0b0a09;
	control.destination_l2_ifindex = 0x100f0e0d;
	control.vlan = 0xabc;
	control.inner_vlan = 0xdef;
	control.flags = MOX_SEND_NO_ACL | MOX_SEND_DEBUG;
	control.word28 = 0x44332211;
	control.half38 = 0x6655;
	control.wlan_id = 0x8877;
	control.ap_wlan_id = 0xaa99;
	control.radio_id = 0xbb;
	control.proxy_capture = 0xcc;

	FakeCalls calls;
	mox::PacketSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.send({ frame, {}, control.record() });
	ASSERT_EQ(calls.sent.size(), 1u);
	EXPECT_FALSE(calls.sent[0].has_name);
	EXPECT_EQ(calls.sent[0].control,
		  (Bytes{ 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
			  0x09, 0x0a, 0x0b, 0x0c, // interfaces
			  0x0d, 0x0e, 0x0f, 0x10, 0,    0,    0xbc, 0x0a,
			  0,    0,    0,    0,                // VLAN id at 18
			  0x02, 0x00, 0x14, 0x00,             // flags
			  0x11, 0x22, 0x33, 0x44, 0xef, 0x0d, // inner VLAN id at 32
			  0,    0,    0,    0,    0x55, 0x66, // at 38
			  0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0,    0 }));
}

TEST(packet_socket, control__an_empty_one_is_all_zero_and_has_no_flag)
{
	mox_packet_ctrl_info record = mox::SendControl().record(), zero{};
	EXPECT_EQ(std::memcmp(&record, &zero, sizeof(record)), 0);
}

TEST(packet_socket, control__a_proxy_capture_byte_of_zero_is_still_valid)
{
	mox::SendControl control;
	control.proxy_capture = 0;
	EXPECT_EQ(control.record().flags, 0x100000u);
}

TEST(packet_socket, control__vlan_ids_have_12_bits)
{
	mox::SendControl control;
	control.vlan = 4095;
	EXPECT_EQ(control.record().vlan, 4095);
	control.vlan = 4096;
	expect_error<mox::UsageError>([&] { control.record(); }, { "VLAN id 4096", "0 to 4095" });
	control.vlan = 0;
	control.inner_vlan = 4096;
	expect_error<mox::UsageError>([&] { control.record(); },
				      { "inner VLAN id 4096", "0 to 4095" });
}

struct Refusal {
	const char *what;
	mox::SocketKind kind;
	std::uint32_t bound_to;
	std::optional<mox::SendAddress> to;
	std::uint32_t source;
	int error;
	std::vector<std::string> parts;
};

TEST(packet_socket, send__refusals_name_the_thing_and_the_remedy)
{
	using enum mox::SocketKind;
	const mox::SendAddress to_7{ 7, 0x88cc, lldp_group }, to_7_without_mac{ 7, 0x88cc, {} };
	const Refusal cases[] = {
		{ "destination in the name",
		  kRaw,
		  0,
		  to_7,
		  0,
		  ENXIO,
		  { "to interface 7", "platform has no interface 7" } },
		{ "bound destination",
		  kRaw,
		  4,
		  {},
		  0,
		  ENXIO,
		  { "to interface 4", "platform has no interface 4" } },
		{ "the name counts, not the binding",
		  kRaw,
		  4,
		  to_7,
		  0,
		  ENXIO,
		  { "platform has no interface 7" } },
		{ "source", kRaw, 0, {}, 9, ENXIO, { "platform has no source interface 9" } },
		{ "either",
		  kRaw,
		  0,
		  to_7,
		  9,
		  ENXIO,
		  { "no interface 7, or no source interface 9" } },
		{ "link",
		  kRaw,
		  4,
		  {},
		  0,
		  ENETDOWN,
		  { "link of interface 4 is down", "bring it up" } },
		{ "dropped",
		  kRaw,
		  0,
		  to_7,
		  0,
		  ENETUNREACH,
		  { "to interface 7", "the platform dropped the frame" } },
		{ "vsd", kRaw, 0, to_7, 0, EINVAL, { "/data/var/run/vsd/" } },
		{ "no MAC",
		  kDatagram,
		  0,
		  to_7_without_mac,
		  0,
		  EINVAL,
		  { "needs a destination MAC" } },
		{ "no name", kDatagram, 7, {}, 0, EINVAL, { "needs a destination MAC" } },
		{ "no service",
		  kDatagram,
		  0,
		  to_7,
		  0,
		  EINVAL,
		  { "the device's MAC address is not available", "/data/var/run/vsd/" } },
		{ "no buffer", kRaw, 0, to_7, 0, ENOMEM, { "5 bytes", "no buffer" } },
		{ "fault", kRaw, 0, to_7, 0, EFAULT, { "cannot be read" } },
		{ "old module", kRaw, 0, to_7, 0, EOPNOTSUPP, { "load a newer one" } },
		{ "any other",
		  kRaw,
		  0,
		  {},
		  0,
		  EPERM,
		  { "cannot send 5 bytes: Operation not permitted" } },
	};
	for (const Refusal &each : cases) {
		SCOPED_TRACE(each.what);
		FakeCalls calls;
		mox::PacketSocket socket(each.kind, 0, calls);
		if (each.bound_to != 0)
			socket.bind(each.bound_to);
		mox::SendControl control;
		control.source_ifindex = each.source;
		calls.send_errors = { each.error };
		std::vector<std::string> parts = each.parts;
		parts.push_back(std::strerror(each.error));
		try {
			socket.send({ frame, each.to, control.record() });
			ADD_FAILURE() << "nothing was refused";
		} catch (const mox::SocketError &error) {
			EXPECT_EQ(error.error(), each.error);
			for (const std::string &part : parts)
				EXPECT_NE(std::string(error.what()).find(part), std::string::npos)
					<< part << " in " << error.what();
		}
	}
}

TEST(packet_socket, move__keeps_what_refusals_are_told_by)
{
	FakeCalls calls;
	mox::PacketSocket first(mox::SocketKind::kDatagram, 0, calls);
	first.bind(4);
	mox::PacketSocket second(std::move(first));
	calls.send_errors = { EINVAL };
	expect_error<mox::SocketError>(
		[&] {
			second.send({ frame, {}, {} });
		},
		{ "to interface 4", "destination MAC" });
}

TEST(packet_socket, interface_mac__is_that_of_the_bound_interface)
{
	FakeCalls calls;
	mox::PacketSocket socket(mox::SocketKind::kRaw, 0, calls);
	calls.name = { 17, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 6, 2, 0, 0, 0, 1, 1 };
	EXPECT_EQ(socket.interface_mac(), (mox::MacAddress{ 2, 0, 0, 0, 1, 1 }));
	calls.name = { 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 };
	EXPECT_EQ(socket.interface_mac(), std::nullopt);
	calls.name_error = ENOBUFS;
	expect_error<mox::SocketError>([&] { socket.interface_mac(); },
				       { "MAC address", "No buffer space" });
}

TEST(packet_socket, a_capture_socket_answers_on_the_socket_that_heard)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.set_location(PACKET_LEV2_LOC);
	socket.send({ frame, mox::SendAddress{ 7 }, {} });
	ASSERT_EQ(calls.sent.size(), 1u);
	EXPECT_EQ(calls.sent[0].bytes, frame);
}

TEST(packet_socket, try_send__returns_the_errno)
{
	FakeCalls calls;
	mox::PacketSocket socket(mox::SocketKind::kRaw, 0, calls);
	calls.send_errors = { 0, ENETDOWN, EINTR };
	const std::vector<std::uint8_t> frame(60, 1);
	for (int expected : { 0, ENETDOWN, EINTR, 0 })
		EXPECT_EQ(socket.try_send({ frame }), expected);
	ASSERT_EQ(calls.sent.size(), 4u);
	EXPECT_EQ(calls.sent[0].bytes, frame);
	EXPECT_FALSE(calls.sent[0].has_name) << "without an address: by the interface of the bind";
}

} // namespace
