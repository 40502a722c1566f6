// SPDX-License-Identifier: GPL-2.0-only
#include "support/capture.h"

#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>

#include "contract/ledger.h"

namespace vm {

namespace {

constexpr uint16_t kTypeMask = 0x3fff;
constexpr int kPatience = 20000; // milliseconds

template <class T> T read(const Bytes &bytes, size_t at)
{
	T value;
	std::memcpy(&value, bytes.data() + at, sizeof value);
	return value;
}

std::string explanation_of(const Bytes &message)
{
	// Behind the error number and the request's header, which is all of it that comes back.
	const size_t from = NLMSG_HDRLEN + 4 + NLMSG_HDRLEN;
	if (!(read<uint16_t>(message, 6) & NLM_F_ACK_TLVS) || message.size() <= from)
		return "";
	return CaptureAttributes(message, from).text(NLMSGERR_ATTR_MSG);
}

const char *name_of(mox_capture_cmd command)
{
	switch (command) {
#define ROW(name, number, ...)       \
	case MOX_CAPTURE_CMD_##name: \
		return #name;
		MOX_CAPTURE_CMD_TABLE(ROW)
#undef ROW
	}
	return "?";
}

} // namespace

CaptureAttributes::CaptureAttributes(const Bytes &bytes, size_t from)
{
	while (from + 4 <= bytes.size()) {
		const size_t length = read<uint16_t>(bytes, from);
		if (length < 4 || from + length > bytes.size())
			throw std::runtime_error("an attribute reaches beyond its message");
		values_.emplace(read<uint16_t>(bytes, from + 2) & kTypeMask,
				Bytes(bytes.begin() + from + 4, bytes.begin() + from + length));
		from += (length + 3) & ~size_t{ 3 };
	}
}

uint64_t CaptureAttributes::number(int type) const
{
	auto it = values_.find(uint16_t(type));
	uint64_t value = 0;
	if (it != values_.end())
		std::memcpy(&value, it->second.data(), std::min<size_t>(it->second.size(), 8));
	return value;
}

std::string CaptureAttributes::text(int type) const
{
	auto it = values_.find(uint16_t(type));
	if (it == values_.end() || it->second.empty() || it->second.back() != 0)
		return "";
	return reinterpret_cast<const char *>(it->second.data());
}

std::vector<Bytes> CaptureAttributes::all(int type) const
{
	std::vector<Bytes> all;
	auto [first, last] = values_.equal_range(uint16_t(type));
	for (; first != last; ++first)
		all.push_back(first->second);
	return all;
}

enum class How { IS_DO, IS_DUMP, IS_EVENT };

static How how_of(uint8_t command)
{
	switch (command) {
#define ROW(name, number, how, ...)  \
	case MOX_CAPTURE_CMD_##name: \
		return How::IS_##how;
		MOX_CAPTURE_CMD_TABLE(ROW)
#undef ROW
	}
	return How::IS_DO;
}

bool is_dump(mox_capture_cmd command)
{
	return how_of(uint8_t(command)) == How::IS_DUMP;
}

CaptureReply capture_request(mox_capture_cmd command, const Bytes &attributes, GenlSocket *socket)
{
	GenlSocket own;
	GenlSocket &asker = socket ? *socket : own;
	const int on = 1;
	::setsockopt(asker.fd(), SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
	::setsockopt(asker.fd(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
	CaptureReply reply;
	GenlMessage message;
	// Not by the asker: records of its trace may be queued there before the answer.
	GenlSocket other;
	message.type = genl_family_id(other, MOX_CAPTURE_NAME);
	if (message.type == 0)
		throw std::runtime_error("no family " MOX_CAPTURE_NAME);
	message.flags = NLM_F_REQUEST | (is_dump(command) ? NLM_F_DUMP : NLM_F_ACK);
	message.seq = 77;
	message.cmd = command;
	message.payload = attributes;
	if (int error = asker.send(message.bytes())) {
		reply.error = -error;
		return reply;
	}
	for (;;) {
		auto next = asker.receive(kPatience);
		if (!next)
			throw std::runtime_error(std::string("no end of the answer to ") +
						 name_of(command));
		const uint16_t flags = read<uint16_t>(next->bytes, 6);
		reply.interrupted |= (flags & NLM_F_DUMP_INTR) != 0;
		switch (next->type()) {
		case NLMSG_ERROR:
			reply.error = next->error();
			reply.explanation = explanation_of(next->bytes);
			return reply;
		case NLMSG_DONE:
			reply.error = next->bytes.size() >= NLMSG_HDRLEN + 4
					      ? read<int>(next->bytes, NLMSG_HDRLEN)
					      : 0;
			return reply;
		default:
			// A trace goes on until its end is acknowledged.
			if (how_of(next->bytes.at(NLMSG_HDRLEN)) == How::IS_EVENT)
				continue;
			EXPECT_EQ(next->bytes.at(NLMSG_HDRLEN), command) << name_of(command);
			reply.messages.emplace_back(next->bytes, NLMSG_HDRLEN + GENL_HDRLEN);
		}
	}
}

Bytes capture_attribute(mox_capture_request_attr type, const Bytes &payload)
{
	Bytes bytes = attribute(type, payload);
	bytes.resize((bytes.size() + 3) & ~size_t{ 3 });
	return bytes;
}

Bytes capture_number(mox_capture_request_attr type, uint64_t value, size_t size)
{
	Bytes payload(size);
	std::memcpy(payload.data(), &value, size);
	return capture_attribute(type, payload);
}

uint64_t location_word(uint32_t location, mox_capture_location_attr word)
{
	CaptureReply reply = capture_request(MOX_CAPTURE_CMD_LOCATIONS,
					     capture_number(MOX_CAPTURE_REQUEST_LOCATION, location,
							    4));
	for (const CaptureAttributes &message : reply.messages)
		if (!message.has(MOX_CAPTURE_LOCATION_CPU))
			return message.number(word);
	throw std::runtime_error("no sums of a location");
}

namespace {

void audit_counters(const CaptureAttributes &of, uint64_t queued)
{
	EXPECT_EQ(of.number(MOX_CAPTURE_COUNTERS_MATCHED),
		  of.number(MOX_CAPTURE_COUNTERS_RECV_PACKETS) +
			  of.number(MOX_CAPTURE_COUNTERS_FILTER_DROPS) +
			  of.number(MOX_CAPTURE_COUNTERS_TRIM_FAIL_DROPS) +
			  of.number(MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS) +
			  of.number(MOX_CAPTURE_COUNTERS_MEMORY_DROPS));
	EXPECT_EQ(of.number(MOX_CAPTURE_COUNTERS_RECV_PACKETS),
		  of.number(MOX_CAPTURE_COUNTERS_READ) +
			  of.number(MOX_CAPTURE_COUNTERS_FREED_UNREAD) + queued);
	uint64_t ended = of.number(MOX_CAPTURE_COUNTERS_SEND_PACKETS);
	for (int which = MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS;
	     which <= MOX_CAPTURE_COUNTERS_EF_SEND_FAILS; ++which)
		ended += of.number(which);
	EXPECT_EQ(of.number(MOX_CAPTURE_COUNTERS_SENDS), ended);
}

} // namespace

void audit_ledgers()
{
	uint64_t offers = 0, matched = 0;
	CaptureReply locations = capture_request(MOX_CAPTURE_CMD_LOCATIONS);
	EXPECT_EQ(locations.error, 0);
	for (const CaptureAttributes &m : locations.messages) {
		SCOPED_TRACE(m.text(MOX_CAPTURE_LOCATION_NAME) + " CPU " +
			     (m.has(MOX_CAPTURE_LOCATION_CPU)
				      ? std::to_string(m.number(MOX_CAPTURE_LOCATION_CPU))
				      : "all"));
		const auto of = [&](mox_capture_location_attr word) { return m.number(word); };
		contract::expect_location_sums(of);
		EXPECT_EQ(of(MOX_CAPTURE_LOCATION_QUEUED), 0u) << "not at rest";
		if (m.has(MOX_CAPTURE_LOCATION_CPU))
			continue;
		offers += of(MOX_CAPTURE_LOCATION_OFFERS);
		const CaptureAttributes closed = m.nest(MOX_CAPTURE_LOCATION_CLOSED);
		audit_counters(closed, 0);
		matched += closed.number(MOX_CAPTURE_COUNTERS_MATCHED);
	}
	CaptureReply sockets = capture_request(MOX_CAPTURE_CMD_SOCKETS);
	EXPECT_EQ(sockets.error, 0);
	for (const CaptureAttributes &m : sockets.messages) {
		SCOPED_TRACE("socket of " + m.text(MOX_CAPTURE_SOCKET_PROCESS));
		const CaptureAttributes counters = m.nest(MOX_CAPTURE_SOCKET_COUNTERS);
		audit_counters(counters, m.number(MOX_CAPTURE_SOCKET_QUEUE));
		matched += counters.number(MOX_CAPTURE_COUNTERS_MATCHED);
	}
	EXPECT_EQ(offers, matched) << "frames offered by locations, and to sockets";
}

} // namespace vm
