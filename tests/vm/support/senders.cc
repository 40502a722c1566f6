// SPDX-License-Identifier: GPL-2.0-only
#include "support/senders.h"

#include <cerrno>
#include <cstring>

namespace vm {

namespace {

constexpr size_t kHeader = 14, kLeast = kHeader + 8;

/// What may be wrong with a send, and the counter that shows it; null: nothing.
struct Flaw {
	unsigned weight;
	uint32_t SendCounters::*counter;
	void (*make)(Send &send);
};
constexpr Flaw kFlaws[] = {
	{ 40, nullptr, [](Send &) {} },
	{ 1, &SendCounters::sendmsg_ill,
	  [](Send &s) { s.controlled = true, s.control_length = 47; } },
	{ 1, &SendCounters::sendmsg_ill, [](Send &s) { s.name_length = 19; } },
	{ 1, &SendCounters::pkt_copy,
	  [](Send &s) { s.at = reinterpret_cast<void *>(8), s.at_length = 60; } },
	{ 1, &SendCounters::alloc_efbuff,
	  [](Send &s) { s.at = reinterpret_cast<void *>(0x10000), s.at_length = 1 << 20; } },
	{ 1, &SendCounters::dstintf_ill,
	  [](Send &s) { s.address().sll_ifindex = int(lab::kNoSuchInterface); } },
	{ 1, &SendCounters::linkdown,
	  [](Send &s) { s.address().sll_ifindex = int(lab::kPortDown); } },
	{ 1, &SendCounters::srcintf_ill,
	  [](Send &s) { s.controlled = true, s.control.pkt_ifx = lab::kNoSuchInterface; } },
};

} // namespace

Bytes payload_of(uint32_t number, size_t length)
{
	Bytes bytes(std::max<size_t>(length, 8));
	uint32_t words[2] = { number, uint32_t(bytes.size()) };
	std::memcpy(bytes.data(), words, sizeof words);
	for (size_t i = 8; i < bytes.size(); ++i)
		bytes[i] = uint8_t(number + i * 7);
	return bytes;
}

bool is_ours(const Bytes &frame)
{
	uint32_t words[2];
	if (frame.size() < kLeast)
		return false;
	std::memcpy(words, &frame[kHeader], sizeof words);
	return frame.size() == kHeader + words[1] &&
	       Bytes(frame.begin() + kHeader, frame.end()) == payload_of(words[0], words[1]);
}

bool has_our_type(const Bytes &frame)
{
	return frame.size() >= kHeader && frame[12] == kOurs >> 8 && frame[13] == (kOurs & 0xff);
}

void Sender::send_one(std::minstd_rand &random, uint32_t number, uint32_t tap)
{
	const uint32_t destinations[] = { lab::kPortA, lab::kPortB, tap, 0 };
	const size_t lengths[] = { 8, 46, 200, 1400, 1486 };
	bool datagram = random() % 2;
	Send send;
	send.data = payload_of(number, lengths[random() % std::size(lengths)]);
	send.to(destinations[random() % 4], 6, kOurs);
	if (!datagram) {
		Bytes header(kPeerMac, kPeerMac + 6);
		header.insert(header.end(), kLocalMac[0], kLocalMac[0] + 6);
		header.push_back(kOurs >> 8);
		header.push_back(kOurs & 0xff);
		send.data.insert(send.data.begin(), header.begin(), header.end());
	}
	if (random() % 2) {
		send.with({});
		send.control.pkt_ifx = random() % 2 ? lab::kPortA : 0;
		send.control.flags = uint32_t(random()) & ~uint32_t(MOX_SEND_DEBUG);
		send.control.wlan_id = uint16_t(number);
	}
	unsigned die = unsigned(random()) % 47;
	const Flaw *flaw = kFlaws;
	for (; die >= flaw->weight; ++flaw)
		die -= flaw->weight;
	flaw->make(send);

	ssize_t result = send.by(datagram ? dgram.fd() : raw.fd());
	int error = result < 0 ? errno : 0;
	uint32_t SendCounters::*counter = flaw->counter;
	// The service may be away: the header of a datagram is built before the data are read.
	bool before_header = counter == &SendCounters::sendmsg_ill ||
			     counter == &SendCounters::alloc_efbuff;
	if (error == ENOMEM)
		counter = &SendCounters::alloc_efbuff;
	else if (datagram && error == EINVAL && !before_header)
		counter = &SendCounters::macfunc_ill;
	else if (!counter)
		counter = !error ? &SendCounters::sent
			  : error == ENETUNREACH
				  ? &SendCounters::
					    ef_send // dropped by a service, or the device was busy
				  : nullptr;
	if (!counter || (!error && (flaw->counter || result != ssize_t(send.length())))) {
		trouble = "a send with flaw " + std::to_string(flaw - kFlaws) +
			  " ended in: " + std::strerror(error);
		return;
	}
	SendCounters &books = datagram ? of_dgram : of_raw;
	++(books.*counter);
	++(error ? refused : sends);
}

} // namespace vm
