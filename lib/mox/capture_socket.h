/* SPDX-License-Identifier: MIT */
/*
 * A capture socket of family 17.
 *
 * Set the rules, the control information and the treatment before the location: the capture starts when
 * the location is set, and a frame that was queued before a rule or option was set has been captured without it.
 *
 *     mox::CaptureSocket socket(mox::SocketKind::kRaw);
 *     socket.set_control_info(true);
 *     socket.add_rule(mox::Rule::parse("eth=arp", mox::system_interface_index));
 *     socket.set_treatment(PACKET_COPY);
 *     socket.set_location(PACKET_LEV2_LOC);
 *     while (auto frame = socket.receive(buffer)) ...
 *
 * Opening, binding and sending are those of every packet socket (mox/packet_socket.h): a daemon receives and
 * answers through the same one.
 *
 * Unless said otherwise functions throw SocketError when the kernel refuses. Nothing here is shared between
 * threads; the kernel allows any number of readers on one socket.
 */
#ifndef MOX_CAPTURE_SOCKET_H
#define MOX_CAPTURE_SOCKET_H

#include "mox/export.h"
#include "mox/packet_socket.h"
#include "mox/rule.h"
#include "mox_packet.h"

#include <ctime>

#include <cstdint>
#include <optional>
#include <span>

namespace mox {

/** One received frame. */
struct Frame {
	std::span<const std::uint8_t> bytes;         /**< as much as the buffer holds */
	std::size_t length = 0;                      /**< full length of the frame */
	std::uint32_t ifindex = 0;                   /**< interface it came in on */
	std::optional<mox_packet_ctrl_info> control; /**< when control information is on */
	/** Time of arrival since the epoch, when time stamps are on. */
	std::optional<timespec> stamp = std::nullopt;

	bool truncated() const { return bytes.size() < length; }
};

class MOX_API CaptureSocket : public PacketSocket {
public:
	/** As PacketSocket's. */
	explicit CaptureSocket(SocketKind kind, std::uint16_t protocol = 0,
			       SocketCalls &calls = SocketCalls::system());
	/**
     * As PacketSocket's. Whether control records are on cannot be read from the kernel: until set_control_info is
     * called, a frame has its record if the kernel stored one.
     */
	explicit CaptureSocket(Adopted adopted, SocketCalls &calls = SocketCalls::system());

	void set_location(std::uint32_t location);
	void set_treatment(std::uint32_t treatment);
	/** Whether frames come with their control record. */
	void set_control_info(bool on);
	/** Whether frames come with the time of their arrival (SO_TIMESTAMPNS). */
	void set_timestamps(bool on);
	void add_rule(const Rule &rule);
	/** Deletes the rule's values; values that the socket does not have are ignored. */
	void delete_rule(const Rule &rule);
	/** SO_RCVBUF; the kernel doubles the number and applies its own limits. */
	void set_receive_buffer(int bytes);

	/**
     * The next frame, its first bytes stored in buffer. Waits for one when wait is true. Nothing when there is
     * none, or when a signal interrupted the wait.
     */
	std::optional<Frame> receive(std::span<std::uint8_t> buffer, bool wait = false);

	/**
     * The frames that are there, up to one for each buffer, in one call. Waits for the first one when wait is true. The
     * first result many of `frames` are set; frames.size() has to be at least buffers.size(). At most kMostFrames a
     * call: further buffers are not used. 0 as receive returns nothing.
     */
	std::size_t receive_many(std::span<const std::span<std::uint8_t>> buffers,
				 std::span<Frame> frames, bool wait = false);
	static constexpr std::size_t kMostFrames = 64;

	/** The counters since the previous reading: the kernel clears them as it answers. */
	mox_packet_stats take_statistics();

private:
	void set_u32(int option, std::uint32_t value, const char *what);
	void change_rule(int option, const Rule &rule, const char *what);

	/** Unknown for an adopted socket. */
	enum class ControlInfo { kOff, kOn, kUnknown };
	ControlInfo control_info_ = ControlInfo::kOff;
	struct Room;
	Frame taken(Room &room, std::size_t length, std::span<std::uint8_t> buffer);
};

/** Adds up readings of take_statistics, since each one starts again from 0. */
class MOX_API StatisticsSum {
public:
	void add(const mox_packet_stats &reading);
	/** Frames that rules matched, the dropped ones included. */
	std::uint64_t packets() const { return packets_; }
	std::uint64_t drops() const { return drops_; }

private:
	std::uint64_t packets_ = 0;
	std::uint64_t drops_ = 0;
};

} // namespace mox

#endif
