/* SPDX-License-Identifier: MIT */
#include "relay/options.h"

#include "wire.h"

#include <arpa/inet.h>
#include <asm/socket.h>
#include <linux/if_packet.h>
#include <linux/net_tstamp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <cstring>

namespace relay {
namespace {

/** Lines about refused options; one socket needs no more. */
constexpr std::size_t kMaxLines = 16;

// Younger than some systems' headers.
constexpr int kIgnoreOutgoing = 23;

/** An option of ordinary packet sockets that a capture socket cannot have. */
struct Refused {
	int option;
	const char *text; // null: programs try it and go on without, so it is refused in silence
};
constexpr Refused kRefused[] = {
	{ PACKET_RX_RING, "PACKET_RX_RING: a capture socket has rings of TPACKET_V2 only" },
	{ PACKET_TX_RING,
	  "PACKET_TX_RING: a capture socket has no ring; the program has to use sendmsg" },
	{ PACKET_VNET_HDR, "PACKET_VNET_HDR: a capture socket has no offload headers" },
	{ PACKET_TX_TIMESTAMP, "PACKET_TX_TIMESTAMP: a capture socket has no transmit times" },
	{ PACKET_TIMESTAMP,
	  "PACKET_TIMESTAMP: a capture socket has the times of SO_TIMESTAMP only" },
	{ PACKET_FANOUT, "PACKET_FANOUT: a capture socket shares its frames with no other socket" },
};

template <typename T> std::optional<T> read(std::span<const std::uint8_t> value)
{
	if (value.size() < sizeof(T))
		return std::nullopt;
	T number;
	std::memcpy(&number, value.data(), sizeof(number));
	return number;
}

template <typename T> Answer value_of(const T &value)
{
	Answer answer;
	answer.value.resize(sizeof(value));
	std::memcpy(answer.value.data(), &value, sizeof(value));
	return answer;
}

Answer fail(int error, std::string text = {})
{
	return { error, {}, std::move(text) };
}

/** Time stamps by option: the flag, and the flags that it replaces (the kernel has one kind at a time). */
struct Stamp {
	int option;
	std::uint32_t flag;
};
constexpr Stamp kStamps[] = {
	{ SO_TIMESTAMP_OLD, MOX_WIRE_STAMP_US_OLD },
	{ SO_TIMESTAMP_NEW, MOX_WIRE_STAMP_US_NEW },
	{ SO_TIMESTAMPNS_OLD, MOX_WIRE_STAMP_NS_OLD },
	{ SO_TIMESTAMPNS_NEW, MOX_WIRE_STAMP_NS_NEW },
};
constexpr std::uint32_t kAllStamps = MOX_WIRE_STAMP_US_OLD | MOX_WIRE_STAMP_US_NEW |
				     MOX_WIRE_STAMP_NS_OLD | MOX_WIRE_STAMP_NS_NEW;
constexpr std::uint32_t kAllStamping = MOX_WIRE_STAMPING_OLD | MOX_WIRE_STAMPING_NEW;

} // namespace

std::string Options::once(const std::string &text)
{
	if (std::find(said_.begin(), said_.end(), text) != said_.end() || said_.size() >= kMaxLines)
		return {};
	said_.push_back(text);
	return text;
}

void Options::set_frame_flag(std::uint32_t flag, bool on, std::uint32_t instead_of)
{
	frame_flags_ &= ~instead_of;
	if (on)
		frame_flags_ |= flag;
}

Answer Options::set(int level, int option, std::span<const std::uint8_t> value)
{
	switch (level) {
	case SOL_PACKET:
		return set_packet(option, value);
	case SOL_SOCKET:
		return set_socket(option, value);
	default:
		return fail(ENOPROTOOPT);
	}
}

Answer Options::set_packet(int option, std::span<const std::uint8_t> value)
{
	for (const Refused &each : kRefused) {
		if (each.option == option)
			return fail(ENOPROTOOPT, once(each.text));
	}
	if (option == PACKET_ADD_MEMBERSHIP || option == PACKET_DROP_MEMBERSHIP)
		return membership(value);

	const auto number = read<int>(value);
	switch (option) {
	case PACKET_COPY_THRESH:
	case PACKET_AUXDATA:
	case PACKET_ORIGDEV:
	case PACKET_QDISC_BYPASS:
	case kIgnoreOutgoing:
		if (!number)
			return fail(EINVAL);
		break;
	default:
		return fail(ENOPROTOOPT);
	}
	switch (option) {
	case PACKET_COPY_THRESH:
		copy_threshold_ = *number;
		break;
	case PACKET_AUXDATA:
		set_frame_flag(MOX_WIRE_AUXDATA, *number, MOX_WIRE_AUXDATA);
		break;
	case PACKET_ORIGDEV:
		origdev_ = *number;
		break;
	case kIgnoreOutgoing:
		ignore_outgoing_ = *number;
		break;
	default: // PACKET_QDISC_BYPASS: nothing of a send is ever queued
		break;
	}
	return {};
}

Answer Options::membership(std::span<const std::uint8_t> value)
{
	const auto request = read<packet_mreq>(value);
	if (!request)
		return fail(EINVAL);
	// The platform receives every frame of its ports. What is left to do is what the kernel checks.
	interfaces_.forget();
	return interfaces_.find(static_cast<std::uint32_t>(request->mr_ifindex), 0) ? Answer{}
										    : fail(ENODEV);
}

Answer Options::set_socket(int option, std::span<const std::uint8_t> value)
{
	if (option == SO_ATTACH_FILTER)
		return attach(value);
	if (option == SO_ATTACH_BPF)
		return fail(
			EOPNOTSUPP,
			once("SO_ATTACH_BPF: only classic filters (SO_ATTACH_FILTER) can be attached"));
	if (option == SO_DETACH_FILTER) {
		if (filter_locked_)
			return fail(EPERM);
		if (!filter_)
			return fail(ENOENT);
		filter_.reset();
		return {};
	}

	const auto number = read<int>(value);
	if (!number)
		return fail(EINVAL);
	for (const Stamp &each : kStamps) {
		if (each.option == option) {
			set_frame_flag(each.flag, *number, kAllStamps);
			return {};
		}
	}
	switch (option) {
	case SO_TIMESTAMPING_OLD:
	case SO_TIMESTAMPING_NEW: {
		constexpr int software = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
		set_frame_flag(option == SO_TIMESTAMPING_OLD ? MOX_WIRE_STAMPING_OLD
							     : MOX_WIRE_STAMPING_NEW,
			       (*number & software) == software, kAllStamping);
		return {};
	}
	case SO_LOCK_FILTER:
		if (filter_locked_ && !*number)
			return fail(EPERM);
		filter_locked_ = *number;
		return {};
	case SO_RCVBUF:
	case SO_RCVBUFFORCE:
		return fail(captures_.set_receive_buffer(*number));
	case SO_SNDBUF:
	case SO_SNDBUFFORCE:
		return {}; // the platform has the frame when a send returns
	default:
		return fail(ENOPROTOOPT);
	}
}

Answer Options::attach(std::span<const std::uint8_t> value)
{
	if (filter_locked_)
		return fail(EPERM);
	std::vector<sock_filter> program(value.size() / sizeof(sock_filter));
	if (!program.empty())
		std::memcpy(program.data(), value.data(), program.size() * sizeof(sock_filter));
	Filter filter;
	std::string reason;
	if (const int error = filter.compile(program, identity_.cooked, reason))
		return fail(error, once("SO_ATTACH_FILTER: " + reason));
	filter_ = std::move(filter);
	return {};
}

Answer Options::statistics()
{
	const std::uint32_t drops = drops_ + captures_.take_drops();
	// As the kernel counts: what the filter accepted, with what was dropped after that.
	const tpacket_stats stats{ packets_ + (drops - drops_), drops };
	packets_ = drops_ = 0;
	return value_of(stats);
}

Answer Options::get(int level, int option)
{
	if (level == SOL_PACKET) {
		switch (option) {
		case PACKET_STATISTICS:
			return statistics();
		case PACKET_AUXDATA:
			return value_of<int>((frame_flags_ & MOX_WIRE_AUXDATA) != 0);
		case PACKET_ORIGDEV:
			return value_of<int>(origdev_);
		case PACKET_COPY_THRESH:
			return value_of(copy_threshold_);
		case kIgnoreOutgoing:
			return value_of<int>(ignore_outgoing_);
		case PACKET_QDISC_BYPASS:
			return value_of<int>(1);
		default:
			// Among these PACKET_HDRLEN and PACKET_VERSION, with which programs ask for rings.
			return fail(ENOPROTOOPT);
		}
	}
	if (level != SOL_SOCKET)
		return fail(ENOPROTOOPT);
	for (const Stamp &each : kStamps) {
		if (each.option == option)
			return value_of<int>((frame_flags_ & each.flag) != 0);
	}
	switch (option) {
	case SO_TYPE:
		return value_of<int>(identity_.cooked ? SOCK_DGRAM : SOCK_RAW);
	case SO_DOMAIN:
		return value_of<int>(AF_PACKET);
	case SO_PROTOCOL:
		return value_of<int>(htons(identity_.protocol));
	case SO_LOCK_FILTER:
		return value_of<int>(filter_locked_);
	case SO_RCVBUF: {
		int bytes = 0;
		const int error = captures_.receive_buffer(bytes);
		return error ? fail(error) : value_of(bytes);
	}
	default:
		return fail(ENOPROTOOPT);
	}
}

} // namespace relay
