/* SPDX-License-Identifier: MIT */
#include "mox/capture_socket.h"

#include "mox/names.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace mox {
namespace {

// recvmsg reports a length of 26 for its 20-byte address; the last bytes belong to no field, but they are stored.
constexpr std::size_t kReceivedNameSize = 26;

// Room for the kernel's own control messages: timestamps and counters take 176 bytes when all of them are on. The
// kernel cuts what does not fit.
constexpr std::size_t kMessageRoom = 256;

constexpr long kMicrosecond = 1000, kSecond = 1000000000; // in nanoseconds

/**
 * The two numbers of a time stamp, each as wide as Part, the second one in units of `unit` nanoseconds. Nothing if the
 * message is too short for them, or a coarse one is no time.
 */
template <typename Part> std::optional<timespec> stamp_of(const cmsghdr &message, long unit = 1)
{
	Part parts[2];
	if (message.cmsg_len < CMSG_LEN(sizeof(parts)))
		return std::nullopt;
	std::memcpy(parts, CMSG_DATA(&message), sizeof(parts));
	if (unit != 1 && (parts[1] < 0 || parts[1] >= kSecond / unit))
		return std::nullopt;
	timespec stamp{};
	stamp.tv_sec = static_cast<time_t>(parts[0]);
	stamp.tv_nsec = static_cast<long>(parts[1]) * unit;
	return stamp;
}

/** The time stamp among the kernel's control messages, nothing if there is none. */
std::optional<timespec> find_stamp(msghdr &message)
{
	std::optional<timespec> coarse;
	for (cmsghdr *each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each)) {
		if (each->cmsg_level != SOL_SOCKET)
			continue;
		// With a 64-bit time_t on a 32-bit machine the C library asks for the new form, and for the old one
		// where the kernel does not have the new one.
		if (each->cmsg_type == SO_TIMESTAMPNS_OLD)
			return stamp_of<long>(*each);
		if (each->cmsg_type == SO_TIMESTAMPNS_NEW)
			return stamp_of<std::int64_t>(*each);
		// A socket that was adopted may have these on instead.
		if (each->cmsg_type == SO_TIMESTAMP_OLD)
			coarse = stamp_of<long>(*each, kMicrosecond);
		if (each->cmsg_type == SO_TIMESTAMP_NEW)
			coarse = stamp_of<std::int64_t>(*each, kMicrosecond);
	}
	return coarse;
}

/** Whether the call that has failed found no frame, or was interrupted. */
bool none_there()
{
	return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

} // namespace

/** What recvmsg fills besides the frame. */
struct CaptureSocket::Room {
	// The module stores its record behind the kernel's messages and does not look at the buffer's length. The kernel
	// is given the room in front of the last 48 bytes only, so that the record fits whatever options are on.
	alignas(cmsghdr) std::uint8_t control[kMessageRoom + sizeof(mox_packet_ctrl_info)];
	union {
		LinkAddress address;
		std::uint8_t bytes[kReceivedNameSize];
	} name;
	iovec io;
	msghdr message;

	void prepare(std::span<std::uint8_t> buffer, ControlInfo info)
	{
		std::memset(control, info == ControlInfo::kUnknown ? kMark : 0, sizeof(control));
		std::memset(&name, 0, sizeof(name));
		io = { buffer.data(), buffer.size() };
		message = {};
		message.msg_name = &name;
		message.msg_namelen = sizeof(name);
		message.msg_iov = &io;
		message.msg_iovlen = 1;
		message.msg_control = control;
		message.msg_controllen = kMessageRoom;
	}

	/** Whether the kernel stored no record: one that it stores has 0 in these fields. */
	static bool is_mark(const mox_packet_ctrl_info &record)
	{
		return record.reserved46 != 0 && record.reserved20 != 0;
	}

	static constexpr int kMark = 0xff;
};

CaptureSocket::CaptureSocket(SocketKind kind, std::uint16_t protocol, SocketCalls &calls)
	: PacketSocket(kind, protocol, calls)
{
}

CaptureSocket::CaptureSocket(Adopted adopted, SocketCalls &calls)
	: PacketSocket(adopted, calls), control_info_(ControlInfo::kUnknown)
{
}

void CaptureSocket::set_location(std::uint32_t location)
{
	set_u32(PACKET_LOCATION, location,
		("cannot set location " + std::string(location_name(location))).c_str());
}

void CaptureSocket::set_treatment(std::uint32_t treatment)
{
	set_u32(PACKET_TREATMENT, treatment,
		("cannot set treatment " + std::string(treatment_name(treatment))).c_str());
}

void CaptureSocket::set_control_info(bool on)
{
	set_u32(PACKET_CTRL_INFO, on, "cannot switch control information");
	control_info_ = on ? ControlInfo::kOn : ControlInfo::kOff;
}

void CaptureSocket::set_timestamps(bool on)
{
	int value = on;
	if (calls().setsockopt(fd(), SOL_SOCKET, SO_TIMESTAMPNS, &value, sizeof(value)) != 0)
		throw_socket_error("cannot switch time stamps");
}

void CaptureSocket::add_rule(const Rule &rule)
{
	change_rule(MOX_PACKET_ADD_RULE, rule, "cannot add rule ");
}

void CaptureSocket::delete_rule(const Rule &rule)
{
	change_rule(MOX_PACKET_DEL_RULE, rule, "cannot delete rule ");
}

void CaptureSocket::set_receive_buffer(int bytes)
{
	if (calls().setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) != 0)
		throw_socket_error("cannot set the receive buffer to " + std::to_string(bytes) +
				   " bytes");
}

std::optional<Frame> CaptureSocket::receive(std::span<std::uint8_t> buffer, bool wait)
{
	Room room;
	room.prepare(buffer, control_info_);
	// MSG_TRUNC as a flag asks for the frame's full length as the result.
	ssize_t length = calls().recvmsg(fd(), &room.message,
					 MSG_TRUNC | (wait ? 0 : MSG_DONTWAIT));
	if (length < 0) {
		if (none_there())
			return std::nullopt;
		throw_socket_error("cannot receive");
	}
	return taken(room, static_cast<std::size_t>(length), buffer);
}

std::size_t CaptureSocket::receive_many(std::span<const std::span<std::uint8_t>> buffers,
					std::span<Frame> frames, bool wait)
{
	std::size_t count = std::min({ buffers.size(), frames.size(), kMostFrames });
	if (count == 0)
		return 0;
	// On the stack, some 25 KiB: a call per batch allocates nothing.
	Room rooms[kMostFrames];
	mmsghdr messages[kMostFrames] = {};
	for (std::size_t i = 0; i < count; ++i) {
		rooms[i].prepare(buffers[i], control_info_);
		messages[i].msg_hdr = rooms[i].message;
	}
	int received = calls().recvmmsg(fd(), messages, static_cast<unsigned>(count),
					MSG_TRUNC | (wait ? MSG_WAITFORONE : MSG_DONTWAIT));
	if (received < 0) {
		if (none_there())
			return 0;
		throw_socket_error("cannot receive");
	}
	for (std::size_t i = 0; i < static_cast<std::size_t>(received); ++i) {
		rooms[i].message = messages[i].msg_hdr;
		frames[i] = taken(rooms[i], messages[i].msg_len, buffers[i]);
	}
	return static_cast<std::size_t>(received);
}

Frame CaptureSocket::taken(Room &room, std::size_t length, std::span<std::uint8_t> buffer)
{
	msghdr &message = room.message;
	Frame frame;
	frame.length = length;
	frame.bytes = buffer.first(std::min(length, buffer.size()));
	frame.ifindex = static_cast<std::uint32_t>(room.name.address.ifindex);
	message.msg_controllen = std::min<std::size_t>(message.msg_controllen, kMessageRoom);
	frame.stamp = find_stamp(message);
	if (control_info_ == ControlInfo::kOff)
		return frame;
	// The record has no control-message header, and the returned length counts the kernel's messages only. So the
	// record is there if it was asked for, and it stands where that length ends.
	mox_packet_ctrl_info record;
	std::memcpy(&record, room.control + message.msg_controllen, sizeof(record));
	if (control_info_ == ControlInfo::kOn || !room.is_mark(record))
		frame.control = record;
	return frame;
}

mox_packet_stats CaptureSocket::take_statistics()
{
	mox_packet_stats reading{};
	socklen_t length = sizeof(reading);
	if (calls().getsockopt(fd(), MOX_SOL_PACKET, MOX_PACKET_STATISTICS, &reading, &length) != 0)
		throw_socket_error("cannot read the socket's statistics");
	return reading;
}

void CaptureSocket::set_u32(int option, std::uint32_t value, const char *what)
{
	if (calls().setsockopt(fd(), MOX_SOL_PACKET, option, &value, sizeof(value)) != 0)
		throw_socket_error(what);
}

void CaptureSocket::change_rule(int option, const Rule &rule, const char *what)
{
	std::vector<std::uint8_t> record = rule.record();
	if (calls().setsockopt(fd(), MOX_SOL_PACKET, option, record.data(),
			       static_cast<socklen_t>(record.size())) != 0)
		throw_socket_error(what + std::string(rule.type().full) + " with " +
				   std::to_string(rule.count()) + " values");
}

void StatisticsSum::add(const mox_packet_stats &reading)
{
	packets_ += reading.packets;
	drops_ += reading.drops;
}

} // namespace mox
