// SPDX-License-Identifier: GPL-2.0-only
#include "support/send.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <ostream>

#include <arpa/inet.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vm {

const moxlab::Device &platform()
{
	static const moxlab::Device device;
	return device;
}

Send &Send::with(const mox_packet_ctrl_info &record)
{
	controlled = true;
	control = record;
	return *this;
}

Send &Send::to(uint32_t ifindex, uint8_t mac_length, uint16_t protocol)
{
	named = true;
	address().sll_family = MOX_PACKET_FAMILY;
	address().sll_protocol = htons(protocol);
	address().sll_ifindex = int(ifindex);
	address().sll_halen = mac_length;
	std::memcpy(address().sll_addr, kPeerMac, sizeof kPeerMac);
	return *this;
}

// The system call itself: the C library may rewrite a message's parts.
ssize_t Send::by(int fd) const
{
	iovec vector{ const_cast<void *>(at ? at : data.data()), length() };
	msghdr message{};
	message.msg_iov = &vector;
	message.msg_iovlen = 1;
	if (named) {
		message.msg_name = const_cast<uint8_t *>(name);
		message.msg_namelen = name_length;
	}
	// The kernel copies as many bytes as the length says.
	uint8_t record[256]{};
	std::memcpy(record, &control, sizeof control);
	if (controlled) {
		message.msg_control = record;
		message.msg_controllen = control_length;
	}
	return ::syscall(SYS_sendmsg, fd, &message, flags);
}

Bytes counting(size_t length)
{
	Bytes bytes(length);
	for (size_t i = 0; i < length; ++i)
		bytes[i] = uint8_t(0x20 + i);
	// A unicast destination: the first byte's lowest bit marks a group.
	if (length)
		bytes[0] = 0x02;
	return bytes;
}

/// The last nine counters of the record.
using Words = std::array<uint32_t, contract::kCounters - contract::kSendmsgIll>;

SendCounters SendCounters::one(contract::Counter counter)
{
	Words words{};
	words[counter - contract::kSendmsgIll] = 1;
	return std::bit_cast<SendCounters>(words);
}

SendCounters SendCounters::of(Socket &socket)
{
	lab::clear_printk();
	EXPECT_EQ(socket.option(MOX_PACKET_DUMP_SOCKET, 0), 0);
	Words counters{};
	size_t found = 0;
	for (const std::string &line : lab::printk_lines())
		for (size_t i = 0; i < counters.size(); ++i) {
			const std::string label =
				contract::kCounterLabels[contract::kSendmsgIll + i];
			if (line.rfind(label, 0) == 0) {
				counters[i] = uint32_t(std::stoul(line.substr(label.size())));
				++found;
			}
		}
	EXPECT_EQ(found, counters.size()) << "the socket's report lacks send counters";
	lab::clear_printk();
	return std::bit_cast<SendCounters>(counters);
}

SendCounters SendCounters::operator-(const SendCounters &before) const
{
	Words out = std::bit_cast<Words>(*this), gone = std::bit_cast<Words>(before);
	for (size_t i = 0; i < out.size(); ++i)
		out[i] -= gone[i];
	return std::bit_cast<SendCounters>(out);
}

void PrintTo(const SendCounters &c, std::ostream *out)
{
	*out << "{ill " << c.sendmsg_ill << ", macfunc " << c.macfunc_ill << ", dstintf "
	     << c.dstintf_ill << ", srcintf " << c.srcintf_ill << ", linkdown " << c.linkdown
	     << ", alloc " << c.alloc_efbuff << ", copy " << c.pkt_copy << ", ef " << c.ef_send
	     << ", sent " << c.sent << "}";
}

namespace {

moxlab_service request_of(ServiceId id, uint32_t op)
{
	moxlab_service request{};
	request.op = op;
	request.service_class = id.service_class;
	request.instance = id.instance;
	return request;
}

} // namespace

void publish(ServiceId id, uint8_t entry, int32_t result, const uint8_t *mac)
{
	moxlab_service request = request_of(id, MOXLAB_SERVICE_PUBLISH);
	request.entry = entry;
	request.result = result;
	if (mac)
		std::memcpy(request.mac, mac, sizeof request.mac);
	platform().service(request);
}

void withdraw(ServiceId id)
{
	platform().service(request_of(id, MOXLAB_SERVICE_WITHDRAW));
}

void announce(uint32_t event, ServiceId id, uint8_t entry)
{
	moxlab_service request = request_of(id, MOXLAB_SERVICE_EVENT);
	request.event = event;
	request.entry = entry;
	platform().service(request);
}

moxlab_service service_state(ServiceId id, uint8_t entry)
{
	moxlab_service request = request_of(id, MOXLAB_SERVICE_QUERY);
	request.entry = entry;
	return platform().service(request);
}

void SendTest::SetUp()
{
	VmTest::SetUp();
	publish(kLocalMacService, 0, 0, kLocalMac[0]);
	platform().record_left(true);
}

void SendTest::TearDown()
{
	platform().override_outcome(0, 0, false);
	platform().record_left(false);
	publish(kLocalMacService, 0, 0);
	withdraw(kDropService);
	withdraw(kDropWlanService);
	lab::set_link(lab::kPortA, true);
	VmTest::TearDown();
}

Trial SendTest::attempt(Socket &socket, const Send &send, bool debug)
{
	Trial trial{};
	platform().record_left(true);
	SendCounters before = SendCounters::of(socket);
	moxlab_balance books = platform().balance(MOXLAB_OWNER_MODULE);
	{
		std::optional<DebugOn> on;
		if (debug)
			on.emplace();
		errno = 0;
		trial.result = send.by(socket.fd());
		trial.error = trial.result < 0 ? errno : 0;
		trial.lines = lab::printk_lines();
	}
	moxlab_balance now = platform().balance(MOXLAB_OWNER_MODULE);
	trial.allocated = now.allocated - books.allocated;
	trial.given = now.given - books.given;
	trial.freed = now.freed - books.freed;
	trial.left = platform().left().all;
	trial.counters = SendCounters::of(socket) - before;
	return trial;
}

moxlab::LeftFrame SendTest::leaves(Socket &socket, const Send &send)
{
	Trial trial = attempt(socket, send);
	EXPECT_EQ(trial.result, ssize_t(send.length())) << std::strerror(trial.error);
	EXPECT_EQ(trial.counters, SendCounters{ .sent = 1 });
	EXPECT_EQ(trial.left.size(), 1u);
	if (trial.left.empty()) {
		moxlab::LeftFrame none{};
		none.header.resize(MOXLAB_HEADER_ALL);
		return none;
	}
	EXPECT_TRUE(trial.left[0].sent);
	return trial.left[0];
}

uint16_t half_at(const Bytes &header, size_t offset)
{
	uint16_t value;
	std::memcpy(&value, &header.at(offset), sizeof value);
	return value;
}

uint32_t word_at(const Bytes &header, size_t offset)
{
	uint32_t value;
	std::memcpy(&value, &header.at(offset), sizeof value);
	return value;
}

Bytes plain_header(uint32_t destination, uint32_t length)
{
	constexpr uint16_t kMacOffset = 258; // where this platform puts a frame
	Bytes header(MOXLAB_HEADER_ALL);
	auto half = [&](size_t at, uint16_t value) {
		std::memcpy(&header[at], &value, sizeof value);
	};
	auto word = [&](size_t at, uint32_t value) {
		std::memcpy(&header[at], &value, sizeof value);
	};
	word(4, MOXLAB_NO_BLOCK);
	word(8, destination);
	half(20, length < 14 ? 0 : 14);
	half(22, kMacOffset);
	half(24, length < 14 ? kMacOffset : kMacOffset + 14);
	word(164, length);
	return header;
}

} // namespace vm
