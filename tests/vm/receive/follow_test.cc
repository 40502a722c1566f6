// SPDX-License-Identifier: GPL-2.0-only
// Traces of single frames over "mox_capture", and times of arrival.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/copy_thread.h"
#include "support/cpus.h"
#include "support/fixture.h"
#include "support/send.h"

namespace {

using namespace vm;

/// A trace of this process.
class Tracer {
public:
	explicit Tracer(const Bytes &what = {})
	{
		error_ = capture_request(MOX_CAPTURE_CMD_TRACE_START, what, &socket_).error;
	}
	int error() const { return error_; }
	int stop() { return capture_request(MOX_CAPTURE_CMD_TRACE_STOP, {}, &socket_).error; }
	/// The records that are there, or come within the time.
	std::vector<CaptureAttributes> records(int milliseconds = 200)
	{
		std::vector<CaptureAttributes> all;
		while (auto next = socket_.receive(milliseconds))
			if (next->bytes.at(NLMSG_HDRLEN) == MOX_CAPTURE_CMD_TRACE)
				all.emplace_back(next->bytes, NLMSG_HDRLEN + GENL_HDRLEN);
		return all;
	}
	GenlSocket &socket() { return socket_; }

private:
	GenlSocket socket_;
	int error_ = 0;
};

class Follow : public VmTest {};

Bytes of_type(uint16_t type)
{
	return capture_number(MOX_CAPTURE_REQUEST_ETHER_TYPE, type, 2);
}

TEST_F(Follow, hook_and_each_sockets_outcome)
{
	Socket first = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	Socket second = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	Tracer tracer(of_type(0x88b5));
	ASSERT_EQ(tracer.error(), 0);
	put(lab::Hook::Lev2, frames::plain(0x88b5), 2);
	put(lab::Hook::Lev2, frames::plain(0x88b6), 2);
	const auto records = tracer.records();
	ASSERT_EQ(records.size(), 3u) << "the frame of the other type is not followed";
	EXPECT_EQ(records[0].number(MOX_CAPTURE_TRACE_HOP), uint64_t(MOX_CAPTURE_HOP_HOOK));
	EXPECT_EQ(records[0].number(MOX_CAPTURE_TRACE_VERDICT),
		  uint64_t(MOX_CAPTURE_VERDICT_CLONED));
	const CaptureAttributes key = records[0].nest(MOX_CAPTURE_TRACE_KEY);
	EXPECT_EQ(key.number(MOX_CAPTURE_VALUE_TYPE), uint64_t(PACKET_ETH_PROT_EQUAL));
	EXPECT_EQ(key.all(MOX_CAPTURE_VALUE_DATA).at(0), (Bytes{ 0x88, 0xb5 }));
	for (size_t i = 0; i < 3; ++i) {
		SCOPED_TRACE(i);
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_CPU), uint64_t(cpu_for(2)));
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_LOCATION), uint64_t(PACKET_LEV2_LOC));
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_FRAME),
			  records[0].number(MOX_CAPTURE_TRACE_FRAME));
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_ETHER_TYPE), 0x88b5u);
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_LENGTH), 60u);
		EXPECT_EQ(int(records[i].number(MOX_CAPTURE_TRACE_PID)), ::getpid());
		if (i == 0)
			continue;
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_HOP),
			  uint64_t(MOX_CAPTURE_HOP_DELIVERY));
		EXPECT_EQ(records[i].number(MOX_CAPTURE_TRACE_VERDICT),
			  uint64_t(MOX_CAPTURE_VERDICT_PUT));
		EXPECT_TRUE(records[i].has(MOX_CAPTURE_TRACE_SINCE));
		EXPECT_LT(records[i].number(MOX_CAPTURE_TRACE_SINCE), 5000000000u);
	}
	EXPECT_NE(records[1].number(MOX_CAPTURE_TRACE_COOKIE),
		  records[2].number(MOX_CAPTURE_TRACE_COOKIE));
}

TEST_F(Follow, verdicts_of_the_hook_and_of_delivery)
{
	Socket other = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b6));
	Tracer tracer(of_type(0x88b5));
	const auto verdicts = [&] {
		std::vector<uint64_t> all;
		for (const CaptureAttributes &record : tracer.records())
			all.push_back(record.number(MOX_CAPTURE_TRACE_VERDICT));
		return all;
	};
	using Verdicts = std::vector<uint64_t>;
	put(lab::Hook::Lev2, frames::plain(0x88b5));
	EXPECT_EQ(verdicts(), (Verdicts{ MOX_CAPTURE_VERDICT_UNWANTED }));
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_TRAP, ethertype(0x88b5));
	put(lab::Hook::Lev2, frames::plain(0x88b5));
	EXPECT_EQ(verdicts(), (Verdicts{ MOX_CAPTURE_VERDICT_TAKEN, MOX_CAPTURE_VERDICT_PUT }));
	const int small = 1;
	ASSERT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
	for (int i = 0; i < 20; ++i)
		put(lab::Hook::Lev2, frames::plain(0x88b5, 1500));
	const Verdicts many = verdicts();
	ASSERT_FALSE(many.empty());
	EXPECT_EQ(many.back(), uint64_t(MOX_CAPTURE_VERDICT_BUFFER_FULL));
}

TEST_F(Follow, sends)
{
	Socket socket;
	Tracer tracer;
	ASSERT_EQ(tracer.error(), 0);
	const lab::Frame frame = frames::plain(0x88b7);
	// Without an interface the platform has no use for it.
	EXPECT_EQ(::send(socket.fd(), frame.bytes.data(), frame.bytes.size(), 0), -1);
	EXPECT_EQ(errno, ENETUNREACH);
	bool found = false;
	for (const CaptureAttributes &record : tracer.records()) {
		if (record.number(MOX_CAPTURE_TRACE_HOP) != MOX_CAPTURE_HOP_SEND)
			continue;
		found = true;
		EXPECT_EQ(record.number(MOX_CAPTURE_TRACE_VERDICT),
			  uint64_t(MOX_CAPTURE_VERDICT_REFUSED));
		EXPECT_EQ(record.number(MOX_CAPTURE_TRACE_ETHER_TYPE), 0x88b7u);
		EXPECT_EQ(int32_t(record.number(MOX_CAPTURE_TRACE_ERROR)), -ENETUNREACH);
		EXPECT_EQ(record.number(MOX_CAPTURE_TRACE_LENGTH), 60u);
	}
	EXPECT_TRUE(found);
}

TEST_F(Follow, a_trace_ends_with_its_socket_and_there_are_four_at_most)
{
	Socket other = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b6));
	{
		std::vector<std::unique_ptr<Tracer>> tracers;
		for (int i = 0; i < MOX_CAPTURE_TRACES; ++i) {
			tracers.push_back(std::make_unique<Tracer>());
			EXPECT_EQ(tracers.back()->error(), 0);
		}
		EXPECT_EQ(Tracer().error(), -EBUSY);
		EXPECT_EQ(tracers[0]->stop(), 0);
		EXPECT_EQ(tracers[0]->stop(), -ENOENT);
		EXPECT_EQ(Tracer().error(), 0);
		put(lab::Hook::Lev2, frames::plain(0x88b5));
		EXPECT_EQ(tracers[1]->records().size(), 1u);
		EXPECT_EQ(tracers[2]->records().size(), 1u) << "each has its own";
		EXPECT_EQ(tracers[0]->records().size(), 0u);
	}
	// All are gone by now, those that were never ended too.
	for (int i = 0; i < MOX_CAPTURE_TRACES; ++i)
		EXPECT_EQ(Tracer().error(), 0);
}

// A flood: what is recorded is bounded, what is not is counted, and the frames go where they would go.
TEST_F(Follow, a_flood_is_bounded_and_counted)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	Tracer tracer(of_type(0x88b5));
	constexpr unsigned kFrames = 600;
	const uint64_t seen = location_word(PACKET_LEV2_LOC, MOX_CAPTURE_LOCATION_SEEN);
	for (unsigned i = 0; i < kFrames; ++i)
		lab::inject(lab::Hook::Lev2, frames::plain(0x88b5), 1);
	EXPECT_TRUE(lab::settle());
	EXPECT_EQ(location_word(PACKET_LEV2_LOC, MOX_CAPTURE_LOCATION_SEEN) - seen, kFrames);
	tracer.records(0);
	tracer.socket().drain();
	::usleep(50000);
	put(lab::Hook::Lev2, frames::plain(0x88b5), 1);
	const auto last = tracer.records();
	ASSERT_FALSE(last.empty());
	EXPECT_GT(last.back().number(MOX_CAPTURE_TRACE_LOST), 0u);
}

// ---- times of arrival ----------------------------------------------------------------------

constexpr int kTimestampNs = 35; // SO_TIMESTAMPNS of programs with a 32-bit clock

timespec stamp_of(const Socket &socket)
{
	uint8_t control[256]{}, data[2048];
	iovec vector{ data, sizeof data };
	msghdr message{};
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	message.msg_control = control;
	message.msg_controllen = sizeof control;
	timespec stamp{};
	if (raw_recvmsg(socket.fd(), &message, MSG_DONTWAIT) < 0)
		return stamp;
	for (cmsghdr *each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
		if (each->cmsg_level != SOL_SOCKET || each->cmsg_type != kTimestampNs)
			continue;
		int32_t parts[2];
		std::memcpy(parts, CMSG_DATA(each), sizeof parts);
		stamp.tv_sec = parts[0];
		stamp.tv_nsec = parts[1];
	}
	return stamp;
}

double seconds(const timespec &time)
{
	return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

double now()
{
	timespec time;
	::clock_gettime(CLOCK_REALTIME, &time);
	return seconds(time);
}

TEST_F(Follow, stamps_have_the_time_at_the_hook)
{
	const int on = 1;
	Socket stamped, plain;
	ASSERT_EQ(::setsockopt(stamped.fd(), SOL_SOCKET, kTimestampNs, &on, sizeof on), 0);
	for (Socket *socket : { &stamped, &plain }) {
		ASSERT_EQ(socket->add(ethertype(0x88b5)), 0);
		ASSERT_EQ(socket->treatment(PACKET_COPY), 0);
		ASSERT_EQ(socket->location(PACKET_LEV2_LOC), 0);
	}
	for (int round = 0; round < 3; ++round) {
		const double before = now();
		put(lab::Hook::Lev2, frames::plain(0x88b5));
		const double behind = now();
		::usleep(300000);
		const double stamp = seconds(stamp_of(stamped));
		EXPECT_GE(stamp, before - 0.001);
		EXPECT_LE(stamp, behind + 0.001) << "not the time of reading";
	}
	// One that asks later: from its next call on.
	ASSERT_EQ(::setsockopt(plain.fd(), SOL_SOCKET, kTimestampNs, &on, sizeof on), 0);
	plain.drain();
	pollfd waiting{ plain.fd(), POLLIN, 0 };
	::poll(&waiting, 1, 0);
	const double before = now();
	put(lab::Hook::Lev2, frames::plain(0x88b5));
	const double behind = now();
	::usleep(300000);
	const double stamp = seconds(stamp_of(plain));
	EXPECT_GE(stamp, before - 0.001);
	EXPECT_LE(stamp, behind + 0.001);
}

} // namespace
