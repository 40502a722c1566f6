/* SPDX-License-Identifier: GPL-2.0-only */
#include "expect_error.h"
#include "fake_calls.h"
#include "mox/error.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t no_lookup(const std::string &)
{
	return 0;
}

TEST(capture_socket, open__asks_for_family_17_and_passes_the_protocol_in_network_order)
{
	FakeCalls calls;
	mox::CaptureSocket raw(mox::SocketKind::kRaw, 0x0806, calls);
	EXPECT_EQ(calls.family, 17);
	EXPECT_EQ(calls.type & ~SOCK_CLOEXEC, SOCK_RAW);
	EXPECT_TRUE(calls.type & SOCK_CLOEXEC);
	EXPECT_EQ(calls.protocol, 0x0608); // bytes 08 06 in memory
}

TEST(capture_socket, open__datagram)
{
	FakeCalls calls;
	mox::CaptureSocket datagram(mox::SocketKind::kDatagram, 0, calls);
	EXPECT_EQ(calls.type & ~SOCK_CLOEXEC, SOCK_DGRAM);
	EXPECT_EQ(calls.protocol, 0);
}

TEST(capture_socket, open__errors_tell_the_remedy)
{
	struct {
		int error;
		const char *remedy;
	} const cases[] = { { EAFNOSUPPORT, "is mox_ef_socket.ko loaded?" },
			    { EINVAL, "/data/var/run/vsd/" },
			    { EPERM, "Linux's own packet sockets" },
			    { ENOBUFS, "No buffer space" } };
	for (const auto &each : cases) {
		FakeCalls calls;
		calls.socket_error = each.error;
		expect_error<mox::SocketError>(
			[&] { mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls); },
			{ "cannot open a packet socket", each.remedy });
		try {
			mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
		} catch (const mox::SocketError &error) {
			EXPECT_EQ(error.error(), each.error);
		}
	}
}

TEST(capture_socket, open__notices_the_kernels_own_packet_sockets_and_closes)
{
	FakeCalls calls;
	calls.linux_packet_sockets = true;
	expect_error<mox::SocketError>(
		[&] { mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls); },
		{ "served by Linux's own packet sockets", "mox_ef_socket.ko" });
	EXPECT_TRUE(calls.options.empty());
}

TEST(capture_socket, move__closes_once)
{
	FakeCalls calls;
	mox::CaptureSocket first(mox::SocketKind::kRaw, 0, calls);
	first.set_control_info(true);
	int fd = first.fd();
	mox::CaptureSocket second(std::move(first));
	EXPECT_EQ(second.fd(), fd);
	calls.queue({ { 1, 2, 3 }, {} });
	std::uint8_t buffer[8];
	EXPECT_TRUE(second.receive(buffer)->control);
}

TEST(capture_socket, bind__lays_out_the_link_address)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.bind(0x01020304, 0x88cc);
	EXPECT_EQ(calls.bound_to,
		  (Bytes{ 17, 0, 0x88, 0xcc, 4, 3, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
}

TEST(capture_socket, bind__errors)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	calls.bind_error = ENODEV;
	expect_error<mox::SocketError>([&] { socket.bind(9); },
				       { "interface 9", "forwarding platform" });
	calls.bind_error = EINVAL;
	expect_error<mox::SocketError>([&] { socket.bind(9); },
				       { "interface 9", "/data/var/run/vsd/" });
	calls.bind_error = ENOMEM;
	expect_error<mox::SocketError>([&] { socket.bind(9); },
				       { "interface 9", "allocate memory" });
}

TEST(capture_socket, options__are_four_bytes_at_the_packet_level)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.set_location(PACKET_LEV2_RESV_LOC);
	socket.set_treatment(PACKET_TRAP);
	socket.set_control_info(true);
	socket.set_control_info(false);
	ASSERT_EQ(calls.option_order(), (std::vector<int>{ 17, 15, 16, 16 }));
	for (const OptionCall &each : calls.options)
		EXPECT_EQ(each.level, 263);
	EXPECT_EQ(calls.options[0].u32(), 9u);
	EXPECT_EQ(calls.options[1].u32(), 3u);
	EXPECT_EQ(calls.options[2].u32(), 1u);
	EXPECT_EQ(calls.options[3].u32(), 0u);
}

TEST(capture_socket, options__errors_name_the_option_and_its_value)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	calls.option_errors = {
		{ 17, EINVAL }, { 15, EINVAL }, { 16, ENOPROTOOPT }, { 11, ENOMEM }, { 12, EINVAL }
	};
	mox::Rule rule = mox::Rule::parse("dport=67,68", no_lookup);
	expect_error<mox::SocketError>([&] { socket.set_location(5); },
				       { "PACKET_MPLS_LOC", "Invalid argument" });
	expect_error<mox::SocketError>([&] { socket.set_treatment(6); }, { "treatment Unknown" });
	expect_error<mox::SocketError>([&] { socket.set_control_info(true); },
				       { "control information" });
	expect_error<mox::SocketError>([&] { socket.add_rule(rule); },
				       { "add rule PACKET_IPv4_DEST_PORT_EQUAL with 2 values" });
	expect_error<mox::SocketError>([&] { socket.delete_rule(rule); },
				       { "delete rule PACKET_IPv4_DEST_PORT_EQUAL" });
}

TEST(capture_socket, rules__are_passed_as_records_of_their_exact_length)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	mox::Rule rule = mox::Rule::parse("dport=67,68", no_lookup);
	socket.add_rule(rule);
	socket.delete_rule(rule);
	ASSERT_EQ(calls.option_order(), (std::vector<int>{ 11, 12 }));
	EXPECT_EQ(calls.options[0].value, (Bytes{ 7, 0, 2, 0, 2, 0, 0, 67, 0, 68 }));
	EXPECT_EQ(calls.options[1].value, calls.options[0].value);
}

TEST(capture_socket, receive_buffer__is_the_ordinary_socket_option)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.set_receive_buffer(123456);
	ASSERT_EQ(calls.options.size(), 1u);
	EXPECT_EQ(calls.options[0].level, SOL_SOCKET);
	EXPECT_EQ(calls.options[0].option, SO_RCVBUF);
	EXPECT_EQ(calls.options[0].u32(), 123456u);
	calls.option_errors[SO_RCVBUF] = EPERM;
	expect_error<mox::SocketError>([&] { socket.set_receive_buffer(1); },
				       { "receive buffer to 1 bytes" });
}

TEST(capture_socket, receive__frame_interface_and_control_record)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.set_control_info(true);
	QueuedFrame queued{ { 1, 2, 3, 4, 5 }, {} };
	queued.control.pkt_ifx = 7;
	queued.control.flags = MOX_RECV_TRACE;
	calls.queue(queued);

	std::uint8_t buffer[16];
	auto frame = socket.receive(buffer);
	ASSERT_TRUE(frame);
	EXPECT_EQ(Bytes(frame->bytes.begin(), frame->bytes.end()), queued.bytes);
	EXPECT_EQ(frame->length, 5u);
	EXPECT_FALSE(frame->truncated());
	EXPECT_EQ(frame->ifindex, 7u);
	ASSERT_TRUE(frame->control);
	EXPECT_EQ(frame->control->flags, static_cast<std::uint32_t>(MOX_RECV_TRACE));
	EXPECT_FALSE(socket.receive(buffer)) << "the queue is empty";
}

TEST(capture_socket, receive__knows_the_full_length_of_a_cut_frame)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	calls.queue({ Bytes(100, 9), {} });
	std::uint8_t buffer[60];
	auto frame = socket.receive(buffer);
	ASSERT_TRUE(frame);
	EXPECT_EQ(frame->bytes.size(), 60u);
	EXPECT_EQ(frame->length, 100u);
	EXPECT_TRUE(frame->truncated());
}

TEST(capture_socket, receive__without_control_information_there_is_no_record)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	calls.queue({ { 1 }, {} });
	std::uint8_t buffer[4];
	EXPECT_FALSE(socket.receive(buffer)->control);
}

TEST(capture_socket, receive__the_record_stands_behind_the_kernels_own_messages)
{
	struct {
		const char *what;
		std::vector<int> options;
	} const cases[] = { { "none", {} },
			    { "SO_TIMESTAMP", { SO_TIMESTAMP } },
			    { "SO_TIMESTAMPNS", { SO_TIMESTAMPNS } },
			    { "SO_TIMESTAMPING", { SO_TIMESTAMPING } },
			    { "SO_WIFI_STATUS", { SO_WIFI_STATUS } },
			    { "SO_RXQ_OVFL", { SO_RXQ_OVFL } },
			    { "all of them",
			      { SO_TIMESTAMP, SO_TIMESTAMPNS, SO_TIMESTAMPING, SO_WIFI_STATUS,
				SO_RXQ_OVFL } } };
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		FakeCalls calls;
		mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
		socket.set_control_info(true);
		for (int option : each.options) {
			int on = 1;
			ASSERT_EQ(calls.setsockopt(socket.fd(), SOL_SOCKET, option, &on,
						   sizeof(on)),
				  0);
		}
		QueuedFrame queued{ { 1, 2, 3 }, {}, { 7, 8 } };
		std::memset(&queued.control, 0x5a, sizeof(queued.control));
		calls.queue(queued);

		std::uint8_t buffer[8];
		auto frame = socket.receive(buffer);
		ASSERT_TRUE(frame);
		ASSERT_TRUE(frame->control);
		EXPECT_EQ(std::memcmp(&*frame->control, &queued.control, sizeof(queued.control)),
			  0);
		EXPECT_EQ(frame->ifindex, 0x5a5a5a5au);
		bool stamped = std::find(each.options.begin(), each.options.end(),
					 SO_TIMESTAMPNS) != each.options.end();
		EXPECT_EQ(frame->stamp.has_value(), stamped);
	}
}

TEST(capture_socket, receive__time_of_arrival)
{
	struct {
		const char *what;
		bool on, wide, control_info, others;
		timespec stamp;
	} const cases[] = {
		{ "off", false, false, true, false, { 1700000000, 5 } },
		{ "alone", true, false, false, false, { 1700000000, 123456789 } },
		{ "with the record", true, false, true, false, { 1700000000, 999999999 } },
		{ "among others", true, false, true, true, { 1700000001, 1 } },
		{ "wide", true, true, true, true, { 5000000000, 999999999 } },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.what);
		FakeCalls calls;
		calls.wide_stamps = each.wide;
		mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
		socket.set_control_info(each.control_info);
		socket.set_timestamps(each.on);
		for (int option : { SO_TIMESTAMP, SO_TIMESTAMPING, SO_WIFI_STATUS, SO_RXQ_OVFL }) {
			int on = each.others;
			ASSERT_EQ(calls.setsockopt(socket.fd(), SOL_SOCKET, option, &on,
						   sizeof(on)),
				  0);
		}
		QueuedFrame queued{ { 1, 2, 3 }, {}, each.stamp };
		queued.control.wlan_id = 9;
		calls.queue(queued);

		std::uint8_t buffer[8];
		auto frame = socket.receive(buffer);
		ASSERT_TRUE(frame);
		EXPECT_EQ(frame->control.has_value(), each.control_info);
		if (frame->control) {
			EXPECT_EQ(frame->control->wlan_id, 9);
		}
		ASSERT_EQ(frame->stamp.has_value(), each.on);
		if (each.on) {
			EXPECT_EQ(frame->stamp->tv_sec, each.stamp.tv_sec);
			EXPECT_EQ(frame->stamp->tv_nsec, each.stamp.tv_nsec);
		}
	}
}

TEST(capture_socket, timestamps__are_the_ordinary_socket_option)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	socket.set_timestamps(true);
	socket.set_timestamps(false);
	ASSERT_EQ(calls.option_order(), (std::vector<int>{ SO_TIMESTAMPNS, SO_TIMESTAMPNS }));
	EXPECT_EQ(calls.options[0].level, SOL_SOCKET);
	EXPECT_EQ(calls.options[0].u32(), 1u);
	EXPECT_EQ(calls.options[1].u32(), 0u);
	calls.option_errors[SO_TIMESTAMPNS] = ENOPROTOOPT;
	expect_error<mox::SocketError>([&] { socket.set_timestamps(true); }, { "time stamps" });
}

TEST(capture_socket, receive__waits_only_when_asked)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	std::uint8_t buffer[4];
	calls.queue({ { 1 }, {} });
	calls.queue({ { 1 }, {} });
	socket.receive(buffer);
	socket.receive(buffer, true);
	EXPECT_EQ(calls.receive_flags, (std::vector<int>{ MSG_TRUNC | MSG_DONTWAIT, MSG_TRUNC }));
}

TEST(capture_socket, receive_many__one_frame_for_each_buffer)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	std::uint8_t rooms[3][4];
	const std::span<std::uint8_t> buffers[] = { rooms[0], rooms[1], rooms[2] };
	mox::Frame frames[3];
	EXPECT_EQ(socket.receive_many(buffers, frames), 0u);
	for (std::uint8_t i = 1; i <= 4; ++i)
		calls.queue({ std::vector<std::uint8_t>(i + 1u, i), {} });
	ASSERT_EQ(socket.receive_many(buffers, frames), 3u);
	for (std::uint8_t i = 1; i <= 3; ++i) {
		EXPECT_EQ(frames[i - 1].length, i + 1u);
		EXPECT_EQ(frames[i - 1].bytes.data(), rooms[i - 1]);
		EXPECT_EQ(rooms[i - 1][0], i);
	}
	// Fewer frames than buffers, and the wait is for the first one only.
	EXPECT_EQ(socket.receive_many(buffers, { frames, 2 }, true), 1u);
	EXPECT_EQ(frames[0].length, 5u);
	EXPECT_TRUE(frames[0].truncated());
	EXPECT_EQ(calls.many_flags,
		  (std::vector<int>{ MSG_TRUNC | MSG_DONTWAIT, MSG_TRUNC | MSG_DONTWAIT,
				     MSG_TRUNC | MSG_WAITFORONE }));
	EXPECT_EQ(socket.receive_many({}, {}, true), 0u) << "without a call";
	EXPECT_EQ(calls.many_flags.size(), 3u);
	calls.receive_error = EFAULT;
	expect_error<mox::SocketError>([&] { socket.receive_many(buffers, frames); },
				       { "cannot receive" });
}

TEST(capture_socket, receive__an_interrupted_wait_is_no_error_but_others_are)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	std::uint8_t buffer[4];
	for (int error : { EINTR, EAGAIN }) {
		calls.receive_error = error;
		EXPECT_FALSE(socket.receive(buffer, true));
	}
	calls.receive_error = EFAULT;
	expect_error<mox::SocketError>([&] { socket.receive(buffer); },
				       { "cannot receive", "Bad address" });
}

TEST(capture_socket, statistics__each_reading_starts_again_so_they_are_summed)
{
	FakeCalls calls;
	mox::CaptureSocket socket(mox::SocketKind::kRaw, 0, calls);
	mox::StatisticsSum sum;
	calls.statistics = { 0xffffffff, 3 };
	sum.add(socket.take_statistics());
	sum.add(socket.take_statistics());
	calls.statistics = { 2, 1 };
	sum.add(socket.take_statistics());
	EXPECT_EQ(sum.packets(), 0x100000001u);
	EXPECT_EQ(sum.drops(), 4u);
	EXPECT_EQ(calls.statistics_reads, 3);
	calls.statistics_error = EFAULT;
	expect_error<mox::SocketError>([&] { socket.take_statistics(); }, { "statistics" });
}

} // namespace
