// SPDX-License-Identifier: GPL-2.0-only
// Writes what the family "mox_capture" answers, byte by byte, to /out/mox_capture.txt: tests/tools/recorded/ has a copy,
// which other programs' readers of the family are tested with. Requests are the bytes that the kernel's own client makes.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/fixture.h"
#include "support/send.h"

namespace {

using namespace vm;

// The kernel makes datagrams no longer than the buffer they are read into, nor than a page: then a rule of few values takes
// several messages.
constexpr size_t kLongestDatagram = 4096, kMostDatagrams = 64;
constexpr int kPatience = 5000, kSilence = 300; // milliseconds
constexpr uint32_t kSequence = 77;

/// Lines "fact NAME VALUE", "exchange NAME", and behind that "> BYTES" of the request and "< BYTES" of each answer.
class Recording {
public:
	explicit Recording(const char *path) : file_(std::fopen(path, "w"))
	{
		if (!file_)
			throw std::runtime_error(std::string(path) + ": " + std::strerror(errno));
	}
	~Recording() { std::fclose(file_); }
	Recording(const Recording &) = delete;

	void fact(const std::string &name, uint64_t value)
	{
		std::fprintf(file_, "fact %s %llu\n", name.c_str(), (unsigned long long)value);
	}
	void exchange(const char *name) { std::fprintf(file_, "exchange %s\n", name); }
	void bytes(char direction, const Bytes &bytes)
	{
		std::fprintf(file_, "%c ", direction);
		for (uint8_t byte : bytes)
			std::fprintf(file_, "%02x", byte);
		std::fputc('\n', file_);
	}

private:
	std::FILE *file_;
};

/// One netlink socket whose requests and answers are recorded.
class RecordedSocket {
public:
	explicit RecordedSocket(Recording &to) : to_(to)
	{
		// The kernel keeps the longest buffer that a socket was read with.
		GenlSocket other;
		family_ = genl_family_id(other, MOX_CAPTURE_NAME);
		const int on = 1;
		for (int option : { NETLINK_CAP_ACK, NETLINK_EXT_ACK })
			EXPECT_EQ(::setsockopt(socket_.fd(), SOL_NETLINK, option, &on, sizeof on),
				  0);
	}

	/// The error that ends the answer: 0, or a negative errno.
	int ask(const char *name, uint16_t type, uint8_t command, bool dump,
		const Bytes &attributes = {})
	{
		GenlMessage message;
		message.type = type;
		message.flags = uint16_t(NLM_F_REQUEST | NLM_F_ACK | (dump ? NLM_F_DUMP : 0));
		message.seq = kSequence;
		message.cmd = command;
		message.payload = attributes;
		to_.exchange(name);
		to_.bytes('>', message.bytes());
		EXPECT_EQ(socket_.send(message.bytes()), 0);
		for (size_t i = 0; i < kMostDatagrams; ++i) {
			const Bytes datagram = receive(kPatience);
			if (datagram.empty())
				break;
			to_.bytes('<', datagram);
			if (const int *error = end_of(datagram))
				return *error;
		}
		ADD_FAILURE() << name << ": no end of the answer";
		return -ETIMEDOUT;
	}
	int ask(const char *name, mox_capture_cmd command, const Bytes &attributes = {})
	{
		return ask(name, family_, uint8_t(command), is_dump(command), attributes);
	}
	/// Events, until none comes any more; their number.
	size_t events(const char *name)
	{
		size_t count = 0;
		to_.exchange(name);
		for (; count < kMostDatagrams; ++count) {
			const Bytes datagram = receive(kSilence);
			if (datagram.empty())
				break;
			to_.bytes('<', datagram);
		}
		return count;
	}

private:
	Bytes receive(int milliseconds)
	{
		pollfd waiting{ socket_.fd(), POLLIN, 0 };
		Bytes datagram(kLongestDatagram);
		ssize_t length = 0;
		if (::poll(&waiting, 1, milliseconds) == 1)
			length = ::recv(socket_.fd(), datagram.data(), datagram.size(), MSG_TRUNC);
		EXPECT_LE(length, ssize_t(datagram.size())) << "a datagram is cut";
		datagram.resize(length > 0 ? size_t(length) : 0);
		return datagram;
	}
	/// The error number of an acknowledgement or of the end of a dump; null when the datagram has neither.
	const int *end_of(const Bytes &datagram)
	{
		for (size_t at = 0; at + NLMSG_HDRLEN + sizeof error_ <= datagram.size();) {
			nlmsghdr head;
			std::memcpy(&head, &datagram[at], sizeof head);
			std::memcpy(&error_, &datagram[at + NLMSG_HDRLEN], sizeof error_);
			if (head.nlmsg_type == NLMSG_ERROR || head.nlmsg_type == NLMSG_DONE)
				return &error_;
			at += std::max<size_t>(NLMSG_ALIGN(head.nlmsg_len), NLMSG_HDRLEN);
		}
		return nullptr;
	}

	Recording &to_;
	GenlSocket socket_;
	uint16_t family_ = 0;
	int error_ = 0;
};

/// What is known of a socket without the family.
void note(Recording &to, const std::string &name, const Socket &socket)
{
	uint64_t cookie = 0;
	uint32_t limit = 0;
	socklen_t cookie_length = sizeof cookie, limit_length = sizeof limit;
	struct stat file;
	ASSERT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, 57 /* SO_COOKIE */, &cookie,
			       &cookie_length),
		  0);
	ASSERT_EQ(::getsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &limit, &limit_length), 0);
	ASSERT_EQ(::fstat(socket.fd(), &file), 0);
	to.fact(name + ".cookie", cookie);
	to.fact(name + ".inode", file.st_ino);
	to.fact(name + ".queue-limit", limit);
}

class Recorded : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		ASSERT_EQ(::prctl(PR_GET_NAME, name_), 0);
		ASSERT_EQ(::prctl(PR_SET_NAME, "recorder"), 0);
		pin(1);
	}
	void TearDown() override
	{
		pin(-1);
		::prctl(PR_SET_NAME, name_);
		VmTest::TearDown();
	}

private:
	char name_[16]{};
};

TEST_F(Recorded, every_command)
{
	Recording recording("/out/mox_capture.txt");
	struct stat netns;
	ASSERT_EQ(::stat("/proc/self/ns/net", &netns), 0);
	recording.fact("pid", uint64_t(::getpid()));
	recording.fact("netns", netns.st_ino);

	// Bound; two frames captured, one of them read; three sends; then with control records and times, for which the
	// tests' own reader has no room.
	Socket trap;
	ASSERT_EQ(trap.add(be16s(PACKET_ETH_PROT_EQUAL, { 0x88b5, 0x88b6 })), 0);
	ASSERT_EQ(trap.add(u32s(PACKET_SRC_INTF_EQUAL, { lab::kPortA, 70000 })), 0);
	ASSERT_EQ(trap.bind(lab::kPortA, htons(0x88b5)), 0);
	ASSERT_EQ(trap.treatment(PACKET_TRAP), 0);
	ASSERT_EQ(trap.location(PACKET_LEV2_LOC), 0);
	note(recording, "trap", trap);

	// A receive buffer that is too small for the first frame, and a filter that drops the second.
	Socket copy = capture(PACKET_IPv4_LOC, PACKET_COPY, all(), SOCK_DGRAM);
	const int little = 1;
	ASSERT_EQ(copy.option_raw(SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
	put(lab::Hook::Ipv4, frames::ipv4(17, frames::udp(68, 67, 8000)));
	sock_filter accept = BPF_STMT(BPF_RET | BPF_K, 0xffff);
	sock_fprog program{ 1, &accept };
	ASSERT_EQ(copy.option_raw(SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), 0);
	put(lab::Hook::Ipv4, frames::ipv4(17, frames::udp(68, 67)));
	note(recording, "copy", copy);

	// A rule of one value of each length, and one of more values than a message has room for.
	Socket each = capture(PACKET_WLAN_LOC, PACKET_FETCH, u8s(PACKET_EAPOL_TYPE_EQUAL, { 1 }));
	ASSERT_EQ(each.add(rule(PACKET_DEST_MAC_EQUAL, { { 1, 0x80, 0xc2, 0, 0, 3 } })), 0);
	ASSERT_EQ(each.add(rule(PACKET_PACKET_CODE_EQUAL, { { 7, 1 } })), 0);
	ASSERT_EQ(each.add(flag(PACKET_WLAN_MGNT)), 0);
	note(recording, "each", each);
	Rule many = u32s(PACKET_SRC_INTF_EQUAL, {});
	many.size = sizeof(uint32_t);
	for (many.count = 0; many.count < 150; ++many.count) {
		const Bytes value = le32(1000u + many.count);
		many.elements.insert(many.elements.end(), value.begin(), value.end());
	}
	Socket wide = capture(PACKET_LEV3_RESV_LOC, PACKET_FETCH_LOCAL, many);
	note(recording, "wide", wide);
	Socket idle;
	note(recording, "idle", idle);

	// Closed with a frame that was not read.
	{
		Socket closed = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x9000));
		put(lab::Hook::Lev2, frames::plain(0x9000), 0);
	}

	RecordedSocket asker(recording);
	EXPECT_EQ(asker.ask("families", GENL_ID_CTRL, CTRL_CMD_GETFAMILY, true), 0);
	EXPECT_EQ(asker.ask("info", MOX_CAPTURE_CMD_INFO), 0);

	// A trace of the frames of one EtherType and address: at hook and delivery, and of sends.
	const Bytes mac(frames::kSrc.begin(), frames::kSrc.end());
	Bytes criteria = capture_number(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x88b5, 2);
	const Bytes more = capture_attribute(MOX_CAPTURE_REQUEST_MAC, mac);
	criteria.insert(criteria.end(), more.begin(), more.end());
	EXPECT_EQ(asker.ask("trace-start", MOX_CAPTURE_CMD_TRACE_START, criteria), 0);
	lab::Frame frame = frames::plain(0x88b5);
	frame.vlan_tci = 0x64;
	for (int i = 0; i < 2; ++i)
		put(lab::Hook::Lev2, frame, 2);
	frame.src_ifx = lab::kPortB;
	put(lab::Hook::Lev2, frame, 2);
	Send send;
	send.data = frame.bytes;
	EXPECT_EQ(send.to(lab::kPortA).by(trap.fd()), ssize_t(frame.bytes.size()));
	EXPECT_EQ(asker.events("trace"), 7u)
		<< "two at hook and delivery, one that is unwanted, a send and its pass of WLAN's output hook";
	EXPECT_EQ(asker.ask("trace-stop", MOX_CAPTURE_CMD_TRACE_STOP), 0);
	// Sends that are refused have no frame yet: no criteria.
	EXPECT_EQ(asker.ask("trace-start all", MOX_CAPTURE_CMD_TRACE_START), 0);
	EXPECT_EQ(send.to(lab::kPortDown).by(trap.fd()), -1);
	EXPECT_EQ(send.to(lab::kNoSuchInterface).by(trap.fd()), -1);
	EXPECT_EQ(asker.events("trace all"), 2u);
	EXPECT_EQ(asker.ask("trace-stop again", MOX_CAPTURE_CMD_TRACE_STOP), 0);
	ASSERT_TRUE(trap.receive());
	const auto records_and_times = [&trap](int on) {
		ASSERT_EQ(trap.ctrl(on), 0);
		ASSERT_EQ(trap.option_raw(SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on), 0);
	};
	records_and_times(1);

	const Bytes lev2 = capture_number(MOX_CAPTURE_REQUEST_LOCATION, PACKET_LEV2_LOC, 4);
	EXPECT_EQ(asker.ask("locations lev2", MOX_CAPTURE_CMD_LOCATIONS, lev2), 0);
	EXPECT_EQ(asker.ask("sockets", MOX_CAPTURE_CMD_SOCKETS), 0);
	EXPECT_EQ(asker.ask("sockets ipv4", MOX_CAPTURE_CMD_SOCKETS,
			    capture_number(MOX_CAPTURE_REQUEST_LOCATION, PACKET_IPv4_LOC, 4)),
		  0);
	EXPECT_EQ(asker.ask("rules", MOX_CAPTURE_CMD_RULES), 0);
	EXPECT_EQ(asker.ask("queues lev2", MOX_CAPTURE_CMD_QUEUES, lev2), 0);
	EXPECT_EQ(asker.ask("memory", MOX_CAPTURE_CMD_MEMORY), 0);
	EXPECT_EQ(asker.ask("thread", MOX_CAPTURE_CMD_THREAD), 0);
	EXPECT_EQ(asker.ask("restrict 0", MOX_CAPTURE_CMD_RESTRICT,
			    capture_number(MOX_CAPTURE_REQUEST_RESTRICT, 0, 1)),
		  0);
	EXPECT_EQ(asker.ask("restrict 2", MOX_CAPTURE_CMD_RESTRICT,
			    capture_number(MOX_CAPTURE_REQUEST_RESTRICT, 2, 1)),
		  -EINVAL);
	EXPECT_EQ(asker.ask("trace-start address", MOX_CAPTURE_CMD_TRACE_START,
			    capture_attribute(MOX_CAPTURE_REQUEST_ADDRESS, { 10, 0, 0 })),
		  -ERANGE);
	records_and_times(0);
	trap.drain();
}

} // namespace
