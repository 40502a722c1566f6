/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The family "mox_capture" as the module answers it, message by message, and samples of each kind of entry. Attributes
 * are made byte by byte here.
 */
#ifndef FAKE_CAPTURE_H
#define FAKE_CAPTURE_H

#include "fake_module.h"
#include "mox_capture.h"

#include <arpa/inet.h>

#include <map>

/** A list of attributes. */
class Attributes {
public:
	Attributes &raw(unsigned number, const Bytes &payload)
	{
		put(bytes_, static_cast<std::uint16_t>(4 + payload.size()));
		put(bytes_, static_cast<std::uint16_t>(number));
		bytes_.insert(bytes_.end(), payload.begin(), payload.end());
		bytes_.resize((bytes_.size() + 3) & ~std::size_t{ 3 });
		return *this;
	}
	template <typename Number> Attributes &number(unsigned number, Number value)
	{
		Bytes payload;
		put(payload, value);
		return raw(number, payload);
	}
	Attributes &u8(unsigned at, std::uint8_t value) { return number(at, value); }
	Attributes &u16(unsigned at, std::uint16_t value) { return number(at, value); }
	Attributes &u32(unsigned at, std::uint32_t value) { return number(at, value); }
	Attributes &s32(unsigned at, std::int32_t value) { return number(at, value); }
	Attributes &u64(unsigned at, std::uint64_t value) { return number(at, value); }
	Attributes &text(unsigned at, const std::string &value)
	{
		return raw(at, Bytes(value.c_str(), value.c_str() + value.size() + 1));
	}
	Attributes &flag(unsigned at) { return raw(at, {}); }
	/** A nest; the kernel marks those with 0x8000. */
	Attributes &nest(unsigned at, const Attributes &inner)
	{
		return raw(at | 0x8000, inner.bytes_);
	}

	const Bytes &bytes() const { return bytes_; }

private:
	Bytes bytes_;
};

/** What the module sends, and a record of what it was sent. */
class FakeCapture {
public:
	struct Request {
		std::uint8_t command;
		std::uint16_t flags;
		std::map<unsigned, Bytes> attributes;
	};

	explicit FakeCapture(FakeNetlink &netlink) : netlink_(netlink)
	{
		netlink.on_capture = [this](const Bytes &datagram) { serve(datagram); };
	}

	std::map<unsigned, std::vector<Attributes>> entries; /**< by command */
	std::size_t per_datagram = 2;
	unsigned interrupted = 0; /**< dumps that change while they are read */
	int error = 0;
	unsigned error_of = 0; /**< the only command that fails; 0: all of them */
	std::string error_text;
	bool capped = true;    /**< errors come without the request */
	bool silent = false;   /**< nothing is answered */
	bool no_reply = false; /**< requests are acknowledged, not answered */
	std::vector<Request> requests;
	/** Sent after TRACE_START is acknowledged. */
	std::vector<Attributes> events;

	const Request &last() const { return requests.back(); }

private:
	static constexpr std::uint16_t kDump = 0x300, kMulti = 2, kInterrupted = 0x10;

	static Bytes body(std::uint8_t command, const Attributes &attributes)
	{
		Bytes body = { command, 1, 0, 0 };
		body.insert(body.end(), attributes.bytes().begin(), attributes.bytes().end());
		return body;
	}

	void serve(const Bytes &datagram)
	{
		std::uint32_t sequence;
		std::memcpy(&sequence, datagram.data() + 8, sizeof(sequence));
		Request request = parsed(datagram);
		requests.push_back(request);
		if (silent)
			return;
		if (error != 0 && (error_of == 0 || error_of == request.command))
			return fail(datagram, sequence);
		if ((request.flags & kDump) == kDump)
			return dump(request.command, sequence);
		if (!no_reply)
			for (const Attributes &entry : entries[request.command])
				netlink_.queue(message(0, sequence, request.command, entry));
		netlink_.queue(FakeNetlink::acknowledgement(sequence, 0));
		if (request.command == MOX_CAPTURE_CMD_TRACE_START)
			for (const Attributes &event : events)
				netlink_.queue(message(0, 0, MOX_CAPTURE_CMD_TRACE, event));
	}

	Bytes message(std::uint16_t flags, std::uint32_t sequence, std::uint8_t command,
		      const Attributes &attributes)
	{
		return netlink_message(FakeNetlink::capture_family, flags, sequence,
				       FakeNetlink::own_port, body(command, attributes));
	}

	void dump(std::uint8_t command, std::uint32_t sequence)
	{
		std::uint16_t flags = kMulti;
		if (interrupted > 0) {
			--interrupted;
			flags |= kInterrupted;
		}
		Bytes datagram;
		std::size_t in_datagram = 0;
		for (const Attributes &entry : entries[command]) {
			Bytes next = message(flags, sequence, command, entry);
			datagram.insert(datagram.end(), next.begin(), next.end());
			if (++in_datagram % per_datagram == 0) {
				netlink_.queue(datagram);
				datagram.clear();
			}
		}
		Bytes done = netlink_message(3, flags, sequence, FakeNetlink::own_port, Bytes(4));
		datagram.insert(datagram.end(), done.begin(), done.end());
		netlink_.queue(datagram);
	}

	void fail(const Bytes &datagram, std::uint32_t sequence)
	{
		Bytes body;
		put(body, static_cast<std::int32_t>(-error));
		body.insert(body.end(), datagram.begin(),
			    capped ? datagram.begin() + 16 : datagram.end());
		std::uint16_t flags = capped ? 0x100 : 0;
		if (!error_text.empty()) {
			flags |= 0x200;
			Attributes attributes;
			attributes.u32(2, 16).text(1, error_text);
			body.insert(body.end(), attributes.bytes().begin(),
				    attributes.bytes().end());
		}
		netlink_.queue(netlink_message(2, flags, sequence, FakeNetlink::own_port, body));
	}

	static Request parsed(const Bytes &datagram)
	{
		Request request;
		request.command = datagram[16];
		std::memcpy(&request.flags, datagram.data() + 6, sizeof(request.flags));
		for (std::size_t at = 20; at + 4 <= datagram.size();) {
			std::uint16_t length, number;
			std::memcpy(&length, datagram.data() + at, sizeof(length));
			std::memcpy(&number, datagram.data() + at + 2, sizeof(number));
			EXPECT_GE(length, 4u);
			if (length < 4)
				break;
			EXPECT_FALSE(request.attributes.contains(number)) << "it is there twice";
			request.attributes[number] = Bytes(
				datagram.begin() + static_cast<long>(at) + 4,
				datagram.begin() + static_cast<long>(at) + length);
			at += (length + 3u) & ~3u;
		}
		return request;
	}

	FakeNetlink &netlink_;
};

/** Numbers as an attribute's payload has them. */
template <typename Number> Bytes payload_of(Number number)
{
	Bytes bytes;
	put(bytes, number);
	return bytes;
}

/** A ledger in which everything balances: 100 frames matched. */
inline Attributes sample_counters()
{
	Attributes counters;
	counters.u64(MOX_CAPTURE_COUNTERS_MATCHED, 100)
		.u64(MOX_CAPTURE_COUNTERS_RECV_PACKETS, 90)
		.u64(MOX_CAPTURE_COUNTERS_FILTER_DROPS, 0)
		.u64(MOX_CAPTURE_COUNTERS_TRIM_FAIL_DROPS, 0)
		.u64(MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS, 8)
		.u64(MOX_CAPTURE_COUNTERS_MEMORY_DROPS, 2)
		.u64(MOX_CAPTURE_COUNTERS_READ, 87)
		.u64(MOX_CAPTURE_COUNTERS_FREED_UNREAD, 0)
		.u64(MOX_CAPTURE_COUNTERS_PASSED_ON, 4)
		.u64(MOX_CAPTURE_COUNTERS_SENDS, 6)
		.u64(MOX_CAPTURE_COUNTERS_SEND_PACKETS, 5);
	for (unsigned each = MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS;
	     each <= MOX_CAPTURE_COUNTERS_EF_SEND_FAILS; ++each)
		counters.u64(each, each == MOX_CAPTURE_COUNTERS_INTF_LINKDOWN_FAILS ? 1 : 0);
	return counters;
}

inline Attributes sample_socket(std::uint64_t cookie = 17, const std::string &process = "arpwatch",
				std::uint32_t location = PACKET_LEV2_LOC)
{
	Attributes socket;
	socket.u64(MOX_CAPTURE_SOCKET_COOKIE, cookie)
		.u32(MOX_CAPTURE_SOCKET_INODE, 4242)
		.s32(MOX_CAPTURE_SOCKET_PID, 412)
		.text(MOX_CAPTURE_SOCKET_PROCESS, process)
		.u32(MOX_CAPTURE_SOCKET_UID, 0)
		.u32(MOX_CAPTURE_SOCKET_NETNS, 0xf0000098)
		.u32(MOX_CAPTURE_SOCKET_TYPE, 3)
		.u32(MOX_CAPTURE_SOCKET_LOCATION, location)
		.u32(MOX_CAPTURE_SOCKET_TREATMENT, PACKET_COPY)
		.flag(MOX_CAPTURE_SOCKET_RUNNING)
		.flag(MOX_CAPTURE_SOCKET_CTRL_INFO)
		.u32(MOX_CAPTURE_SOCKET_IFINDEX, 7)
		.u16(MOX_CAPTURE_SOCKET_PROTOCOL, htons(0x0806))
		.u32(MOX_CAPTURE_SOCKET_QUEUE, 3)
		.u32(MOX_CAPTURE_SOCKET_QUEUE_BYTES, 2304)
		.u32(MOX_CAPTURE_SOCKET_QUEUE_LIMIT, 212992)
		.u32(MOX_CAPTURE_SOCKET_RULE_BYTES, 1024)
		.u32(MOX_CAPTURE_SOCKET_RULE_WORK, 30)
		.nest(MOX_CAPTURE_SOCKET_COUNTERS, sample_counters());
	return socket;
}

/** The sums of a location, or those of a CPU. */
inline Attributes sample_location(std::uint32_t location = PACKET_LEV2_LOC, int cpu = -1)
{
	Attributes attributes;
	attributes.u32(MOX_CAPTURE_LOCATION_LOCATION, location)
		.text(MOX_CAPTURE_LOCATION_NAME, "PACKET_LEV2_LOC");
	if (cpu >= 0)
		attributes.u32(MOX_CAPTURE_LOCATION_CPU, static_cast<std::uint32_t>(cpu));
	else
		attributes.u32(MOX_CAPTURE_LOCATION_RULES, 2);
	const std::pair<unsigned, std::uint64_t> counters[] = {
		{ MOX_CAPTURE_LOCATION_SEEN, 1000 },
		{ MOX_CAPTURE_LOCATION_UNWANTED, 700 },
		{ MOX_CAPTURE_LOCATION_WANTED, 300 },
		{ MOX_CAPTURE_LOCATION_CLONED, 200 },
		{ MOX_CAPTURE_LOCATION_TAKEN, 80 },
		{ MOX_CAPTURE_LOCATION_CLONE_FAILED, 0 },
		{ MOX_CAPTURE_LOCATION_COPIES_REFUSED, 12 },
		{ MOX_CAPTURE_LOCATION_TAKES_REFUSED, 8 },
		{ MOX_CAPTURE_LOCATION_RNFP_DROPS, 0 },
		{ MOX_CAPTURE_LOCATION_RNFP_WLAN_DROPS, 0 },
		{ MOX_CAPTURE_LOCATION_KEPT, 270 },
		{ MOX_CAPTURE_LOCATION_UNKEPT, 5 },
		{ MOX_CAPTURE_LOCATION_UNMATCHED, 1 },
		{ MOX_CAPTURE_LOCATION_FREED, 0 },
		{ MOX_CAPTURE_LOCATION_QUEUED, 4 },
		{ MOX_CAPTURE_LOCATION_OFFERS, 290 },
	};
	for (const auto &[number, value] : counters)
		attributes.u64(number, value);
	if (cpu < 0)
		attributes.nest(MOX_CAPTURE_LOCATION_CLOSED, sample_counters())
			.u64(MOX_CAPTURE_LOCATION_CLOSED_SOCKETS, 9);
	return attributes;
}

inline Attributes sample_value(std::uint32_t type, const Bytes &data, std::uint64_t hits)
{
	Attributes value;
	value.u32(MOX_CAPTURE_VALUE_TYPE, type);
	if (!data.empty())
		value.raw(MOX_CAPTURE_VALUE_DATA, data);
	return value.u64(MOX_CAPTURE_VALUE_HITS, hits);
}

/** The head of a rule; place is the last byte of its place in the order. */
inline Attributes sample_rule_head(std::uint64_t cookie = 17,
				   const std::string &process = "arpwatch", std::uint8_t place = 1,
				   std::uint32_t location = PACKET_LEV2_LOC)
{
	Bytes order(16);
	order[15] = place;
	Attributes rule;
	rule.u64(MOX_CAPTURE_RULE_COOKIE, cookie)
		.s32(MOX_CAPTURE_RULE_PID, 412)
		.text(MOX_CAPTURE_RULE_PROCESS, process)
		.u32(MOX_CAPTURE_RULE_LOCATION, location)
		.u32(MOX_CAPTURE_RULE_TREATMENT, PACKET_COPY)
		.flag(MOX_CAPTURE_RULE_RUNNING)
		.raw(MOX_CAPTURE_RULE_PLACE, order);
	return rule;
}

/** The rule of arpwatch: ARP or LLDP, and ARP requests. */
inline Attributes sample_rule()
{
	return sample_rule_head()
		.nest(MOX_CAPTURE_RULE_VALUE,
		      sample_value(PACKET_ETH_PROT_EQUAL, { 0x08, 0x06 }, 60))
		.nest(MOX_CAPTURE_RULE_VALUE,
		      sample_value(PACKET_ETH_PROT_EQUAL, { 0x88, 0xcc }, 40))
		.nest(MOX_CAPTURE_RULE_VALUE, sample_value(PACKET_ARP_TYPE, { 0, 1 }, 60));
}

inline Attributes sample_queue(std::uint32_t cpu = 0, std::uint32_t location = PACKET_LEV2_LOC)
{
	Attributes queue;
	return queue.u32(MOX_CAPTURE_QUEUE_LOCATION, location)
		.text(MOX_CAPTURE_QUEUE_NAME, "PACKET_LEV2_LOC")
		.u32(MOX_CAPTURE_QUEUE_CPU, cpu)
		.u32(MOX_CAPTURE_QUEUE_LENGTH, 3)
		.u32(MOX_CAPTURE_QUEUE_HELD, 4)
		.u32(MOX_CAPTURE_QUEUE_COPIES, 2)
		.u32(MOX_CAPTURE_QUEUE_LIMIT, 1000)
		.u32(MOX_CAPTURE_QUEUE_CPU_HELD, 5)
		.u32(MOX_CAPTURE_QUEUE_CPU_LIMIT, 2048);
}

inline std::vector<Attributes> sample_memory()
{
	Attributes objects, budget;
	objects.text(MOX_CAPTURE_MEMORY_NAME, "values")
		.u64(MOX_CAPTURE_MEMORY_OBJECTS, 31)
		.u64(MOX_CAPTURE_MEMORY_FAILED, 1);
	budget.text(MOX_CAPTURE_MEMORY_NAME, "rule memory")
		.text(MOX_CAPTURE_MEMORY_UNIT, "bytes")
		.u64(MOX_CAPTURE_MEMORY_USED, 2048)
		.u64(MOX_CAPTURE_MEMORY_LIMIT, 8388608)
		.u64(MOX_CAPTURE_MEMORY_UNPRIVILEGED_LIMIT, 4194304)
		.u64(MOX_CAPTURE_MEMORY_SOCKET_LIMIT, 1048576)
		.u64(MOX_CAPTURE_MEMORY_REFUSED, 2);
	return { objects, budget };
}

inline Attributes sample_thread()
{
	Attributes thread;
	return thread.text(MOX_CAPTURE_THREAD_NAME, "packet-copy")
		.s32(MOX_CAPTURE_THREAD_PID, 88)
		.u64(MOX_CAPTURE_THREAD_SCHEDULED, 1712)
		.u64(MOX_CAPTURE_THREAD_ALLOC_SKB_FAILED, 2)
		.flag(MOX_CAPTURE_THREAD_RUNNING)
		.u32(MOX_CAPTURE_THREAD_PENDING, PACKET_LEV2_LOC)
		.u32(MOX_CAPTURE_THREAD_PENDING, PACKET_WLAN_LOC);
}

inline Attributes sample_info()
{
	Attributes info;
	return info.text(MOX_CAPTURE_INFO_MODULE, "mox_ef_socket")
		.text(MOX_CAPTURE_INFO_MODULE_VERSION, "1.2")
		.u32(MOX_CAPTURE_INFO_INTERFACE, 1)
		.text(MOX_CAPTURE_INFO_FEATURE, "ledger")
		.text(MOX_CAPTURE_INFO_FEATURE, "levitation")
		.u8(MOX_CAPTURE_INFO_RESTRICTED, 1);
}

inline Attributes sample_trace(std::uint32_t verdict = MOX_CAPTURE_VERDICT_TAKEN)
{
	Attributes event;
	return event.u32(MOX_CAPTURE_TRACE_HOP, MOX_CAPTURE_HOP_HOOK)
		.u32(MOX_CAPTURE_TRACE_VERDICT, verdict)
		.u64(MOX_CAPTURE_TRACE_TIME, 1700000000123456789ull)
		.u32(MOX_CAPTURE_TRACE_CPU, 1)
		.u32(MOX_CAPTURE_TRACE_LOCATION, PACKET_LEV2_LOC)
		.u32(MOX_CAPTURE_TRACE_FRAME, 5)
		.u32(MOX_CAPTURE_TRACE_LENGTH, 60)
		.u32(MOX_CAPTURE_TRACE_IFINDEX, 7)
		.u16(MOX_CAPTURE_TRACE_VLAN, 100)
		.raw(MOX_CAPTURE_TRACE_SRC_MAC, { 2, 0, 0, 0, 0, 1 })
		.raw(MOX_CAPTURE_TRACE_DST_MAC, Bytes(6, 0xff))
		.u16(MOX_CAPTURE_TRACE_ETHER_TYPE, 0x0806)
		.nest(MOX_CAPTURE_TRACE_KEY,
		      Attributes()
			      .u32(MOX_CAPTURE_VALUE_TYPE, PACKET_ETH_PROT_EQUAL)
			      .raw(MOX_CAPTURE_VALUE_DATA, { 0x08, 0x06 }))
		.u64(MOX_CAPTURE_TRACE_COOKIE, 17)
		.s32(MOX_CAPTURE_TRACE_PID, 412)
		.text(MOX_CAPTURE_TRACE_PROCESS, "arpwatch")
		.u32(MOX_CAPTURE_TRACE_TREATMENT, PACKET_TRAP);
}

#endif
