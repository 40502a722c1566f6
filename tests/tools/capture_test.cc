/* SPDX-License-Identifier: GPL-2.0-only */
/* From options to a socket, and from a socket's frames to lines and counters. */
#include "capture.h"

#include "expect_error.h"
#include "fake_calls.h"
#include "frames.h"
#include "mox/error.h"
#include "pcapng_reader.h"
#include "pending_signal.h"
#include "stored_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

namespace {

constexpr char arp_request[] = "ffffffffffff 020000000101 0806 0001 0800 06 04 0001 "
			       "020000000101 0a000001 000000000000 0a000002";

QueuedFrame arp_frame(std::uint32_t ifindex)
{
	QueuedFrame frame{ from_hex(arp_request), {} };
	frame.control.pkt_ifx = ifindex;
	frame.control.eth_type = 0x0608;
	return frame;
}

std::string name_of_interface(std::uint32_t index)
{
	return index == 7 ? "port1" : "";
}

volatile std::sig_atomic_t stopped;

class Capture : public testing::Test {
protected:
	void SetUp() override
	{
		setenv("TZ", "UTC", 1);
		stopped = 0;
		sigemptyset(&waiting);
		options.rules = { mox::Rule::parse("all", {}) };
	}

	moxcap::Recorder recorder()
	{
		return moxcap::Recorder(options, name_of_interface,
					[this](const std::string &text) { printed += text; });
	}

	moxcap::Counters run(mox::CaptureSocket &socket, moxcap::Recorder &to)
	{
		return moxcap::run_capture(socket, options, to, stopped, waiting);
	}

	FakeCalls calls;
	moxcap::Options options;
	sigset_t waiting;
	std::string printed;
};

TEST_F(Capture, prepare_socket__sets_everything_before_the_location)
{
	options.kind = mox::SocketKind::kDatagram;
	options.protocol = 0x88cc;
	options.interface = 7;
	options.buffer = 4096;
	options.treatment = PACKET_FETCH;
	options.rules = { mox::Rule::parse("eth=lldp", {}), mox::Rule::parse("mcast", {}) };
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	EXPECT_EQ(calls.type & 0xf, SOCK_DGRAM);
	EXPECT_EQ(calls.protocol, 0xcc88);
	EXPECT_EQ(calls.option_order(),
		  (std::vector<int>{ SO_RCVBUF, 16, SO_TIMESTAMPNS, 11, 11, 15 }));
	ASSERT_EQ(calls.bound_to.size(), 20u);
	EXPECT_EQ(calls.bound_to[4], 7);
	EXPECT_EQ(calls.options.back().u32(), 2u);
}

TEST_F(Capture, prepare_socket__does_not_bind_without_an_interface)
{
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	EXPECT_TRUE(calls.bound_to.empty());
}

TEST_F(Capture, record__prints_a_line)
{
	options.label = "copy";
	auto to = recorder();
	QueuedFrame queued = arp_frame(7);
	queued.control.vlan = 10 << 4;
	mox::Frame frame{ queued.bytes, queued.bytes.size(), 7, queued.control };
	to.record(frame, { 1, 2000 });
	EXPECT_EQ(printed, "[copy] 00:00:01.000002 port1 02:00:00:00:01:01 > ff:ff:ff:ff:ff:ff "
			   "ARP who-has 10.0.0.2 tell 10.0.0.1, length 42, vlan 10\n");
	EXPECT_EQ(to.captured(), 1u);
	EXPECT_EQ(to.truncated(), 0u);
}

TEST_F(Capture, record__an_interface_without_a_name_keeps_its_number)
{
	auto to = recorder();
	QueuedFrame queued = arp_frame(12);
	to.record({ queued.bytes, queued.bytes.size(), 12, queued.control }, { 0, 0 });
	EXPECT_NE(printed.find(" if12 "), std::string::npos) << printed;
}

TEST_F(Capture, record__hex_follows_the_line_in_the_same_write)
{
	options.hex = true;
	int writes = 0;
	moxcap::Recorder to(options, name_of_interface, [&](const std::string &text) {
		printed = text;
		++writes;
	});
	QueuedFrame queued = arp_frame(7);
	to.record({ queued.bytes, queued.bytes.size(), 7, queued.control }, { 0, 0 });
	EXPECT_EQ(writes, 1);
	EXPECT_NE(printed.find("length 42\n    0000  ff ff"), std::string::npos) << printed;
}

TEST_F(Capture, record__quiet_counts_only)
{
	options.quiet = true;
	auto to = recorder();
	QueuedFrame queued = arp_frame(7);
	to.record({ std::span(queued.bytes).first(10), queued.bytes.size(), 7, queued.control },
		  { 0, 0 });
	EXPECT_EQ(printed, "");
	EXPECT_EQ(to.captured(), 1u);
	EXPECT_EQ(to.truncated(), 1u);
}

TEST_F(Capture, record__a_packet_without_layer_2_is_read_from_its_network_header)
{
	auto to = recorder();
	QueuedFrame queued{
		from_hex("45000054 00010000 4001 0000 0a000001 0a000002 0800 0000 0001 0002"), {}
	};
	queued.control.flags = MOX_RECV_NO_L2;
	queued.control.eth_type = 0x1234; // read from where no header is: not to be believed
	to.record({ queued.bytes, queued.bytes.size(), 7, queued.control }, { 0, 0 });
	EXPECT_NE(
		printed.find(
			"port1 ICMP 10.0.0.1 > 10.0.0.2 echo request id 1 seq 2, length 28, flags no-l2"),
		std::string::npos)
		<< printed;
}

TEST_F(Capture, record__a_datagram_takes_its_EtherType_from_the_control_record)
{
	options.layout = moxcap::Layout::kNetwork;
	auto to = recorder();
	QueuedFrame queued{ from_hex("02010000"), {} };
	queued.control.eth_type = 0x8e88;
	to.record({ queued.bytes, queued.bytes.size(), 7, queued.control }, { 0, 0 });
	EXPECT_NE(printed.find("port1 EAPOL start"), std::string::npos) << printed;
}

TEST_F(Capture, run__ends_at_the_count_and_leaves_the_rest)
{
	options.count = 2;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	for (int i = 0; i < 3; ++i)
		calls.queue(arp_frame(7));
	calls.statistics = { 3, 0 };
	auto to = recorder();
	moxcap::Counters counters = run(socket, to);
	EXPECT_EQ(counters.captured, 2u);
	EXPECT_EQ(counters.matched, 3u);
	EXPECT_EQ(calls.queued(), 1u);
	EXPECT_EQ(calls.options.back().option, 17);
	EXPECT_EQ(calls.options.back().u32(), 0u) << "out of the location at the end";
}

TEST_F(Capture, run__ends_after_the_duration)
{
	options.duration = 0.05;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	calls.queue(arp_frame(7));
	auto to = recorder();
	timespec before{}, after{};
	clock_gettime(CLOCK_MONOTONIC, &before);
	moxcap::Counters counters = run(socket, to);
	clock_gettime(CLOCK_MONOTONIC, &after);
	double took = static_cast<double>(after.tv_sec - before.tv_sec) +
		      static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9;
	EXPECT_GE(took, 0.05);
	EXPECT_EQ(counters.captured, 1u);
}

TEST_F(Capture, run__a_flood_does_not_outlast_the_duration)
{
	options.duration = 0.05;
	options.quiet = true;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	auto to = recorder();
	calls.queue(arp_frame(7));
	// Every frame that is read brings the next one, until the socket leaves its location.
	bool in_location = true;
	calls.on_receive = [&] {
		if (in_location)
			calls.queue(arp_frame(7));
	};
	calls.on_option = [&](const OptionCall &call) {
		in_location = in_location && call.option != 17;
	};
	moxcap::Counters counters = run(socket, to);
	EXPECT_GT(counters.captured, 1u);
	EXPECT_EQ(calls.queued(), 0u);
}

TEST_F(Capture, run__a_flood_does_not_outlast_a_signal)
{
	constexpr int enough = 5000;
	options.quiet = true;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	auto to = recorder();
	PendingSignal signal;
	// As above; a run that the signal does not end gets no more after many batches.
	calls.queue(arp_frame(7));
	int received = 0;
	bool in_location = true;
	calls.on_receive = [&] {
		if (++received == enough)
			PendingSignal::stopped = 1;
		if (in_location)
			calls.queue(arp_frame(7));
	};
	calls.on_option = [&](const OptionCall &call) {
		in_location = in_location && call.option != 17;
	};
	moxcap::Counters counters = moxcap::run_capture(socket, options, to, PendingSignal::stopped,
							signal.waiting);
	EXPECT_GE(counters.captured, 1u);
	EXPECT_LT(counters.captured, enough);
	EXPECT_EQ(calls.queued(), 0u);
}

TEST_F(Capture, run__shows_what_was_queued_before_the_end)
{
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	auto to = recorder();
	stopped = 1;
	for (int i = 0; i < 300; ++i)
		calls.queue(arp_frame(7));
	calls.statistics = { 305, 5 };
	moxcap::Counters counters = run(socket, to);
	EXPECT_EQ(counters.captured, 300u);
	EXPECT_EQ(counters.matched, 305u);
	EXPECT_EQ(counters.dropped, 5u);
}

TEST_F(Capture, run__a_signal_ends_the_wait)
{
	struct sigaction action {
	}, before{};
	action.sa_handler = [](int) { stopped = 1; };
	sigaction(SIGALRM, &action, &before);
	sigset_t blocked;
	sigemptyset(&blocked);
	sigaddset(&blocked, SIGALRM);
	sigprocmask(SIG_BLOCK, &blocked, nullptr); // let through by `waiting` alone
	itimerval soon{ { 0, 0 }, { 0, 20000 } };
	setitimer(ITIMER_REAL, &soon, nullptr);

	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	calls.queue(arp_frame(7));
	auto to = recorder();
	moxcap::Counters counters = run(socket, to);
	EXPECT_EQ(stopped, 1);
	EXPECT_EQ(counters.captured, 1u);

	sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
	sigaction(SIGALRM, &before, nullptr);
}

TEST_F(Capture, run__shows_the_time_of_arrival)
{
	options.count = 2;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	QueuedFrame queued = arp_frame(7);
	queued.stamp = { 3600, 123456789 };
	calls.queue(queued);
	queued.stamp = { 7200, 0 };
	calls.queue(queued);
	auto to = recorder();
	run(socket, to);
	EXPECT_TRUE(printed.starts_with("01:00:00.123456 port1 ")) << printed;
	EXPECT_NE(printed.find("\n02:00:00.000000 port1 "), std::string::npos) << printed;
}

TEST_F(Capture, run__a_frame_without_a_stamp_has_the_time_of_reading)
{
	options.count = 1;
	TemporaryFile file;
	options.file = file.path;
	mox::CaptureSocket socket(options.kind, 0, calls); // no time stamps
	calls.queue(arp_frame(7));
	time_t before = time(nullptr);
	{
		auto to = recorder();
		run(socket, to);
	}
	StoredFile stored = read_back(file.path);
	ASSERT_EQ(stored.frames.size(), 1u);
	EXPECT_GE(stored.frames[0].head.ts.tv_sec, before);
	EXPECT_LE(stored.frames[0].head.ts.tv_sec, time(nullptr));
}

TEST_F(Capture, run__a_snapshot_length_cuts_frames)
{
	options.snap = 20;
	options.count = 1;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	calls.queue(arp_frame(7));
	auto to = recorder();
	moxcap::Counters counters = run(socket, to);
	EXPECT_EQ(counters.truncated, 1u);
	EXPECT_NE(printed.find("ARP (cut short), length 42 (read 20)"), std::string::npos)
		<< printed;
}

TEST_F(Capture, run__a_refused_read_is_an_error)
{
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	auto to = recorder();
	calls.receive_error = ENOMEM;
	expect_error<mox::SocketError>([&] { run(socket, to); }, { "cannot receive" });
}

TEST_F(Capture, recorder__writes_the_capture_file_also_when_quiet)
{
	TemporaryFile file;
	options.file = file.path;
	options.quiet = true;
	QueuedFrame queued = arp_frame(7);
	{
		auto to = recorder();
		to.record({ queued.bytes, queued.bytes.size(), 7, queued.control }, { 5, 6000 });
	}
	StoredFile stored = read_back(file.path);
	ASSERT_EQ(stored.frames.size(), 1u);
	EXPECT_EQ(stored.frames[0].bytes, queued.bytes);
	EXPECT_EQ(stored.frames[0].head.ts.tv_sec, 5);
}

TEST_F(Capture, recorder__puts_vlan_tags_into_the_capture_file)
{
	struct {
		bool vlan_tags;
		std::vector<std::uint8_t> begin;
		std::size_t length;
	} const cases[] = {
		{ true, from_hex("ffffffffffff 020000000101 8100 e064 0806 0001"), 46 },
		{ false, from_hex("ffffffffffff 020000000101 0806 0001 0800 0604"), 42 },
	};
	for (const auto &each : cases) {
		SCOPED_TRACE(each.vlan_tags);
		TemporaryFile file;
		options.file = file.path;
		options.vlan_tags = each.vlan_tags;
		QueuedFrame queued = arp_frame(7);
		queued.control.vlan = 100 << 4 | 7;
		printed.clear();
		{
			auto to = recorder();
			to.record({ queued.bytes, queued.bytes.size(), 7, queued.control },
				  { 0, 0 });
		}
		EXPECT_NE(printed.find("length 42, vlan 100 prio 7\n"), std::string::npos)
			<< printed;
		StoredFile stored = read_back(file.path);
		ASSERT_EQ(stored.frames.size(), 1u);
		EXPECT_EQ(stored.frames[0].head.len, each.length);
		EXPECT_EQ(std::vector<std::uint8_t>(stored.frames[0].bytes.begin(),
						    stored.frames[0].bytes.begin() + 20),
			  each.begin);
	}
}

TEST_F(Capture, run__a_pcapng_file_has_the_drops_between_its_batches)
{
	TemporaryFile file;
	options.file = file.path;
	options.pcapng = true;
	options.quiet = true;
	options.treatment = PACKET_FETCH;
	options.location = PACKET_LOCAL_LOC;
	options.rule_text = "eth=arp";
	options.count = 257; // one more than a batch
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	for (std::uint64_t i = 0; i < options.count; ++i)
		calls.queue(arp_frame(7));
	calls.statistics = { 200, 4 };
	int received = 0;
	calls.on_receive = [&] {
		if (++received == 10)
			calls.statistics = { 60, 7 };
	};
	calls.on_option = [&](const OptionCall &call) {
		if (call.option == 17)
			calls.statistics = { 9, 1 };
	};
	moxcap::Counters counters;
	{
		auto to = recorder();
		counters = run(socket, to);
	}
	EXPECT_EQ(counters.captured, 257u);
	EXPECT_EQ(counters.matched, 269u);
	EXPECT_EQ(counters.dropped, 12u);
	EXPECT_EQ(calls.statistics_reads, 3);

	auto blocks = PcapngReader::read(file.path);
	ASSERT_EQ(blocks.size(), 2 + 257 + 1u);
	EXPECT_EQ(blocks[1].text(2), "port1 LOCAL");
	EXPECT_EQ(blocks[1].text(11), std::string(1, '\0') + "eth=arp");
	EXPECT_EQ(blocks[2].text(1), "treatment fetch");
	for (std::size_t i = 0; i < 257; ++i) {
		std::uint64_t dropped = i == 0 ? 4 : i == 256 ? 7 : 0;
		EXPECT_EQ(blocks[2 + i].options.contains(4), dropped != 0) << i;
		if (dropped != 0) {
			EXPECT_EQ(blocks[2 + i].option<std::uint64_t>(4), dropped);
		}
	}
	EXPECT_EQ(blocks.back().option<std::uint64_t>(4), 269u);
	EXPECT_EQ(blocks.back().option<std::uint64_t>(5), 12u);
}

TEST_F(Capture, run__a_pcap_file_leaves_the_socket_its_counters_until_the_end)
{
	TemporaryFile file;
	options.file = file.path;
	options.count = 257;
	mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
	for (std::uint64_t i = 0; i < options.count; ++i)
		calls.queue(arp_frame(7));
	auto to = recorder();
	run(socket, to);
	EXPECT_EQ(calls.statistics_reads, 1);
}

TEST_F(Capture, run__ends_with_the_reader_of_its_file_when_no_frame_comes)
{
	auto before = std::signal(SIGPIPE, SIG_IGN);
	for (bool pcapng : { false, true }) {
		SCOPED_TRACE(pcapng);
		TemporaryFile file;
		unlink(file.path.c_str());
		ASSERT_EQ(mkfifo(file.path.c_str(), 0600), 0);
		int reader = open(file.path.c_str(), O_RDONLY | O_NONBLOCK);
		ASSERT_GE(reader, 0);
		options.file = file.path;
		options.pcapng = pcapng;
		options.duration = 10;
		mox::CaptureSocket socket = moxcap::prepare_socket(options, calls);
		auto to = recorder();
		close(reader);
		expect_error<moxcap::FileError>([&] { run(socket, to); },
						{ "the program that reads the capture has ended" });
	}
	std::signal(SIGPIPE, before);
}

} // namespace
