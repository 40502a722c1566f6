// SPDX-License-Identifier: GPL-2.0-only
// The family "mox_capture" in a kernel: dumps of any size, against changes and slow readers; who may ask; restrict.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>
#include <thread>

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/net_tstamp.h>
#include <linux/netlink.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/fixture.h"

namespace {

using namespace vm;
using Clock = std::chrono::steady_clock;

long milliseconds_since(Clock::time_point start)
{
	return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start)
			    .count());
}

uint64_t cookie_of(const Socket &socket)
{
	uint64_t cookie = 0;
	socklen_t length = sizeof cookie;
	EXPECT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, 57 /* SO_COOKIE */, &cookie, &length), 0);
	return cookie;
}

/// Runs in a child of its own; its exit status.
template <class Call> int in_child(Call call)
{
	std::fflush(nullptr);
	pid_t child = ::fork();
	if (child == 0)
		::_exit(call());
	int status = -1;
	::waitpid(child, &status, 0);
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Takes a capability from the calling process.
void drop_capability(int capability)
{
	__user_cap_header_struct header{ _LINUX_CAPABILITY_VERSION_3, 0 };
	__user_cap_data_struct data[2]{};
	::syscall(SYS_capget, &header, data);
	data[capability / 32].effective &= ~(1u << capability % 32);
	data[capability / 32].permitted &= ~(1u << capability % 32);
	::syscall(SYS_capset, &header, data);
}

/// Many sockets of this process, which needs as many files.
class Crowd {
public:
	explicit Crowd(size_t count)
	{
		rlimit files{ 20000, 20000 };
		::setrlimit(RLIMIT_NOFILE, &files);
		for (size_t i = 0; i < count; ++i) {
			fds_.push_back(::socket(MOX_PACKET_FAMILY, SOCK_RAW, 0));
			if (fds_.back() < 0)
				ADD_FAILURE() << "socket " << i << ": " << std::strerror(errno);
		}
	}
	~Crowd()
	{
		for (int fd : fds_)
			::close(fd);
	}
	Crowd(const Crowd &) = delete;
	const std::vector<int> &fds() const { return fds_; }

private:
	std::vector<int> fds_;
};

class Capture : public VmTest {
protected:
	void TearDown() override
	{
		capture_request(MOX_CAPTURE_CMD_RESTRICT,
				capture_number(MOX_CAPTURE_REQUEST_RESTRICT, 0, 1));
		VmTest::TearDown();
	}
	static Bytes of_this_process()
	{
		return capture_number(MOX_CAPTURE_REQUEST_PID, uint64_t(::getpid()), 4);
	}
};

TEST_F(Capture, info_is_for_everybody_and_all_else_for_administrators)
{
	const CaptureReply info = capture_request(MOX_CAPTURE_CMD_INFO);
	ASSERT_EQ(info.messages.size(), 1u);
	EXPECT_EQ(info.messages[0].text(MOX_CAPTURE_INFO_MODULE), "mox_ef_socket");
	EXPECT_EQ(info.messages[0].number(MOX_CAPTURE_INFO_INTERFACE), 1u);
	EXPECT_EQ(info.messages[0].number(MOX_CAPTURE_INFO_RESTRICTED), 0u);
	std::set<std::string> features;
	for (const Bytes &text : info.messages[0].all(MOX_CAPTURE_INFO_FEATURE))
		features.insert(reinterpret_cast<const char *>(text.data()));
	EXPECT_TRUE(features.count("ledger") && features.count("trace"));
	const int failed = in_child([] {
		drop_capability(CAP_NET_ADMIN);
		int wrong = capture_request(MOX_CAPTURE_CMD_INFO).error != 0;
#define ROW(name, number, how, ...)                                            \
	if (number != MOX_CAPTURE_CMD_INFO && number != MOX_CAPTURE_CMD_TRACE) \
		wrong += capture_request(MOX_CAPTURE_CMD_##name).error != -EPERM;
		MOX_CAPTURE_CMD_TABLE(ROW)
#undef ROW
		return wrong;
	});
	EXPECT_EQ(failed, 0);
}

TEST_F(Capture, other_network_namespaces_have_no_such_family)
{
	const int found = in_child([] {
		if (::unshare(CLONE_NEWNET))
			return 2;
		GenlSocket socket;
		return int(genl_family_id(socket, MOX_CAPTURE_NAME) != 0);
	});
	EXPECT_EQ(found, 0);
}

TEST_F(Capture, socket_gets_times_of_arrival_while_it_asks_for_them)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	const uint64_t cookie = cookie_of(socket);
	const auto stamped = [&] {
		const CaptureReply reply = capture_request(
			MOX_CAPTURE_CMD_SOCKETS,
			capture_number(MOX_CAPTURE_REQUEST_COOKIE, cookie, 8));
		return reply.messages.size() == 1 &&
		       reply.messages[0].has(MOX_CAPTURE_SOCKET_TIMESTAMPS);
	};
	EXPECT_FALSE(stamped());
	for (int option : { SO_TIMESTAMP, SO_TIMESTAMPNS, SO_TIMESTAMPING })
		for (int round = 0; round < 2; ++round) {
			SCOPED_TRACE(option);
			const int on = option == SO_TIMESTAMPING ? SOF_TIMESTAMPING_RX_SOFTWARE : 1;
			const int off = 0;
			ASSERT_EQ(socket.option_raw(SOL_SOCKET, option, &on, sizeof on), 0);
			EXPECT_TRUE(stamped());
			ASSERT_EQ(socket.option_raw(SOL_SOCKET, option, &off, sizeof off), 0);
			EXPECT_FALSE(stamped()) << "not needed any more";
		}
	// Of the time of reading.
	timeval time{};
	put(lab::Hook::Lev2, frames::plain(0x88b5));
	::usleep(100000);
	socket.drain();
	EXPECT_EQ(::ioctl(socket.fd(), SIOCGSTAMP, &time), 0);
	EXPECT_FALSE(stamped());
}

TEST_F(Capture, sockets_of_all_namespaces_with_what_they_are)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_TRAP, ethertype(0x88b5));
	const CaptureReply reply = capture_request(MOX_CAPTURE_CMD_SOCKETS,
						   capture_number(MOX_CAPTURE_REQUEST_COOKIE,
								  cookie_of(socket), 8));
	ASSERT_EQ(reply.messages.size(), 1u);
	const CaptureAttributes &of = reply.messages[0];
	EXPECT_EQ(of.number(MOX_CAPTURE_SOCKET_COOKIE), cookie_of(socket));
	EXPECT_EQ(int(of.number(MOX_CAPTURE_SOCKET_PID)), ::getpid());
	EXPECT_EQ(of.number(MOX_CAPTURE_SOCKET_LOCATION), uint64_t(PACKET_LEV2_LOC));
	EXPECT_EQ(of.number(MOX_CAPTURE_SOCKET_TREATMENT), uint64_t(PACKET_TRAP));
	EXPECT_TRUE(of.has(MOX_CAPTURE_SOCKET_RUNNING));
	char link[64], path[64];
	std::snprintf(path, sizeof path, "/proc/self/fd/%d", socket.fd());
	const ssize_t length = ::readlink(path, link, sizeof link);
	ASSERT_GT(length, 0);
	EXPECT_EQ(std::string(link, size_t(length)),
		  "socket:[" + std::to_string(of.number(MOX_CAPTURE_SOCKET_INODE)) + "]");
	// One of another namespace is there too.
	std::atomic<bool> opened{ false }, seen{ false };
	std::thread other([&] {
		if (::unshare(CLONE_NEWNET) == 0) {
			Socket far;
			opened = true;
			while (!seen)
				::usleep(1000);
		}
		opened = true;
	});
	while (!opened)
		::usleep(1000);
	std::set<uint64_t> namespaces;
	for (const CaptureAttributes &each : capture_request(MOX_CAPTURE_CMD_SOCKETS).messages)
		namespaces.insert(each.number(MOX_CAPTURE_SOCKET_NETNS));
	seen = true;
	other.join();
	EXPECT_EQ(namespaces.size(), 2u);
}

TEST_F(Capture, dumps_of_many_sockets_are_complete)
{
	for (size_t count : { 0u, 1u, 10u, 500u, 1000u, 10000u }) {
		SCOPED_TRACE(count);
		Crowd crowd(count);
		for (mox_capture_cmd command : { MOX_CAPTURE_CMD_SOCKETS, MOX_CAPTURE_CMD_RULES }) {
			const auto start = Clock::now();
			const CaptureReply reply = capture_request(command, of_this_process());
			const long took = milliseconds_since(start);
			std::set<uint64_t> cookies;
			for (const CaptureAttributes &each : reply.messages)
				cookies.insert(each.number(MOX_CAPTURE_SOCKET_COOKIE));
			EXPECT_EQ(reply.error, 0);
			EXPECT_FALSE(reply.interrupted);
			EXPECT_EQ(reply.messages.size(), count);
			EXPECT_EQ(cookies.size(), count);
			std::printf("dump of %s, %zu sockets: %ld ms\n",
				    command == MOX_CAPTURE_CMD_SOCKETS ? "sockets" : "rules", count,
				    took);
		}
	}
}

TEST_F(Capture, a_rule_of_thirty_thousand_values)
{
	constexpr unsigned kValues = 30000, kOfCall = 1000;
	Socket socket;
	for (unsigned from = 0; from < kValues; from += kOfCall) {
		Rule part = rule(PACKET_SRC_INTF_EQUAL, {});
		part.size = 4;
		part.count = kOfCall;
		for (unsigned i = from; i < from + kOfCall; ++i) {
			const Bytes value = le32(i);
			part.elements.insert(part.elements.end(), value.begin(), value.end());
		}
		ASSERT_EQ(socket.add(part), 0);
	}
	const auto start = Clock::now();
	const CaptureReply reply = capture_request(MOX_CAPTURE_CMD_RULES, of_this_process());
	std::printf("dump of a rule of %u values: %ld ms, %zu messages\n", kValues,
		    milliseconds_since(start), reply.messages.size());
	EXPECT_FALSE(reply.interrupted);
	std::set<uint64_t> values;
	size_t count = 0;
	for (size_t i = 0; i < reply.messages.size(); ++i) {
		const CaptureAttributes &m = reply.messages[i];
		EXPECT_EQ(m.number(MOX_CAPTURE_RULE_COOKIE), cookie_of(socket));
		EXPECT_EQ(m.has(MOX_CAPTURE_RULE_MORE), i + 1 < reply.messages.size());
		for (const Bytes &nest : m.all(MOX_CAPTURE_RULE_VALUE)) {
			values.insert(CaptureAttributes(nest).number(MOX_CAPTURE_VALUE_DATA));
			++count;
		}
	}
	EXPECT_EQ(count, kValues);
	EXPECT_EQ(values.size(), kValues);
}

// Sockets come and go, and rules change, on other CPUs: each dump ends, those that stay are in it once, and a dump that
// met a change says so.
TEST_F(Capture, dumps_while_everything_changes)
{
	// Three CPUs change rules at once.
	compare_records_ = false;
	Crowd stays(200);
	std::set<uint64_t> staying;
	for (const CaptureAttributes &each :
	     capture_request(MOX_CAPTURE_CMD_SOCKETS, of_this_process()).messages)
		staying.insert(each.number(MOX_CAPTURE_SOCKET_COOKIE));
	ASSERT_EQ(staying.size(), 200u);
	std::atomic<bool> done{ false };
	std::vector<std::thread> unrest;
	for (int cpu : { 1, 2, 3 })
		unrest.emplace_back([&done, cpu] {
			pin(cpu);
			while (!done) {
				Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY,
							ethertype(uint16_t(0x8800 + cpu)));
				socket.add(ethertype(0x9999));
			}
		});
	unsigned interrupted = 0, quiet = 0;
	for (int i = 0; i < 30; ++i)
		for (mox_capture_cmd command :
		     { MOX_CAPTURE_CMD_SOCKETS, MOX_CAPTURE_CMD_RULES, MOX_CAPTURE_CMD_LOCATIONS,
		       MOX_CAPTURE_CMD_MEMORY, MOX_CAPTURE_CMD_QUEUES }) {
			const CaptureReply reply = capture_request(command);
			EXPECT_EQ(reply.error, 0);
			(reply.interrupted ? interrupted : quiet)++;
			if (command != MOX_CAPTURE_CMD_SOCKETS)
				continue;
			std::multiset<uint64_t> found;
			for (const CaptureAttributes &each : reply.messages)
				found.insert(each.number(MOX_CAPTURE_SOCKET_COOKIE));
			for (uint64_t cookie : staying)
				EXPECT_EQ(found.count(cookie), 1u);
		}
	done = true;
	for (std::thread &thread : unrest)
		thread.join();
	EXPECT_GT(interrupted, 0u);
}

// A reader that stops in the middle of a dump holds up neither sockets nor other readers.
TEST_F(Capture, a_reader_that_stops_reading)
{
	Crowd crowd(500);
	GenlSocket slow;
	GenlMessage message;
	message.type = genl_family_id(slow, MOX_CAPTURE_NAME);
	message.flags = NLM_F_REQUEST | NLM_F_DUMP;
	message.cmd = MOX_CAPTURE_CMD_RULES;
	ASSERT_EQ(slow.send(message.bytes()), 0);
	ASSERT_TRUE(slow.receive(1000));
	const auto start = Clock::now();
	for (int i = 0; i < 10; ++i) {
		Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
		EXPECT_GE(
			capture_request(MOX_CAPTURE_CMD_SOCKETS, of_this_process()).messages.size(),
			501u);
	}
	EXPECT_LT(milliseconds_since(start), 10000);
}

TEST_F(Capture, a_hundred_thousand_random_requests)
{
	Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x88b5));
	std::minstd_rand random(std::random_device{}());
	GenlSocket asker;
	const uint16_t family = genl_family_id(asker, MOX_CAPTURE_NAME);
	for (int i = 0; i < 100000; ++i) {
		GenlMessage message;
		message.type = family;
		const bool dump = random() % 4 == 0;
		message.flags = uint16_t(NLM_F_REQUEST | (dump ? NLM_F_DUMP : 0) |
					 (random() % 8 == 0 ? NLM_F_ACK : 0));
		message.cmd = uint8_t(random() % 16);
		// The test's own sockets, and those of others, stay free to open.
		if (message.cmd == MOX_CAPTURE_CMD_RESTRICT)
			message.cmd = MOX_CAPTURE_CMD_INFO;
		Bytes payload;
		for (unsigned attributes = random() % 4; attributes > 0; --attributes) {
			Bytes bytes(random() % 20);
			for (uint8_t &byte : bytes)
				byte = uint8_t(random());
			const int length = random() % 8 ? -1 : int(random() % 32);
			Bytes one = attribute(uint16_t(random() % 15), bytes, length);
			if (random() % 8)
				one.resize((one.size() + 3) & ~size_t{ 3 });
			payload.insert(payload.end(), one.begin(), one.end());
		}
		message.payload = payload;
		EXPECT_EQ(asker.send(message.bytes()) & ~EBUSY, 0);
		if (i % 16 == 0)
			asker.drain();
	}
	asker.drain();
	EXPECT_EQ(capture_request(MOX_CAPTURE_CMD_INFO).messages.size(), 1u);
}

TEST_F(Capture, restrict_asks_for_capabilities)
{
	const auto restricted = [](uint64_t on) {
		return capture_request(MOX_CAPTURE_CMD_RESTRICT,
				       capture_number(MOX_CAPTURE_REQUEST_RESTRICT, on, 1))
			.error;
	};
	const auto try_both = [] {
		return in_child([] {
			drop_capability(CAP_NET_RAW);
			drop_capability(CAP_NET_ADMIN);
			const int opened = Socket().error();
			GenlSocket socket;
			GenlMessage message;
			message.type = genl_family_id(socket, MOX_PACKET_GENL_NAME);
			message.flags = NLM_F_REQUEST | NLM_F_ACK;
			message.payload = attribute(MOX_PACKET_GENL_ATTR, { 13, 0, 0, 0 });
			socket.send(message.bytes());
			auto reply = socket.receive(1000);
			const int asked = reply ? -reply->error() : -1;
			return opened << 4 | (asked & 15);
		});
	};
	EXPECT_EQ(try_both(), 0);
	ASSERT_EQ(restricted(1), 0);
	EXPECT_EQ(capture_request(MOX_CAPTURE_CMD_INFO)
			  .messages.at(0)
			  .number(MOX_CAPTURE_INFO_RESTRICTED),
		  1u);
	EXPECT_EQ(try_both(), EPERM << 4 | EPERM);
	EXPECT_EQ(Socket().error(), 0) << "with the capability";
	ASSERT_EQ(restricted(0), 0);
	EXPECT_EQ(try_both(), 0);
	EXPECT_EQ(restricted(2), -EINVAL);
	EXPECT_EQ(capture_request(MOX_CAPTURE_CMD_RESTRICT).error, -EINVAL);
}

} // namespace
