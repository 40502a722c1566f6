/* SPDX-License-Identifier: MIT */
/* Frames of the C API: received with their control records, and sent. */
#include "mox/c_error.h"
#include "mox/handle.h"
#include "mox/vlan.h"

#include <poll.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>

static_assert(MOX_MOST_FRAMES == mox::CaptureSocket::kMostFrames);

namespace mox {
namespace {

constexpr char kNoFrame[] = "there is no struct mox_frame to store a frame in: give at least one";

std::uint16_t host_order(std::uint16_t network)
{
	std::uint8_t bytes[sizeof(network)];
	std::memcpy(bytes, &network, sizeof(network));
	return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

mox_control decoded(const mox_packet_ctrl_info &record)
{
	VlanTags tags = vlan_tags(record);
	mox_control control{};
	control.ifindex = record.pkt_ifx;
	control.origin_ifindex = record.pkt_origifx;
	control.l2_ifindex = record.pkt_l2ifx;
	control.flags = record.flags;
	control.word28 = record.word28;
	control.ether_type = host_order(record.eth_type);
	control.vlan = tags.id;
	control.inner_vlan = tags.inner_id;
	control.l2_length = record.l2_len;
	control.half38 = record.half38;
	control.wlan_id = record.wlan_id;
	control.ap_wlan_id = record.ap_wlan_id;
	control.priority = static_cast<std::uint8_t>(tags.priority);
	control.radio_id = record.radio_id;
	control.proxy_capture = record.proxy_capture;
	return control;
}

void fill(mox_frame &to, const Frame &from, SocketKind kind)
{
	to.captured = from.bytes.size();
	to.length = from.length;
	to.ifindex = from.ifindex;
	to.flags = from.truncated() ? MOX_FRAME_TRUNCATED : 0;
	to.seconds = 0;
	to.nanoseconds = 0;
	to.control = {};
	if (from.stamp) {
		to.flags |= MOX_FRAME_STAMP;
		to.seconds = from.stamp->tv_sec;
		to.nanoseconds = static_cast<std::uint32_t>(from.stamp->tv_nsec);
	}
	if (from.control) {
		to.flags |= MOX_FRAME_CONTROL;
		to.control = decoded(*from.control);
		// Frames of 802.11 and those without a layer-2 header have no EtherType in the record.
		if (kind == SocketKind::kRaw && from.control->eth_type != 0)
			to.flags |= MOX_FRAME_ETHERNET;
	}
}

std::span<std::uint8_t> buffer_of(const mox_frame &frame)
{
	return { static_cast<std::uint8_t *>(frame.buffer), frame.buffer ? frame.size : 0 };
}

std::int64_t now_ms()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/** Calls take until it returns a frame, or the time is over. Another reader may take the frame that poll reports. */
template <typename Take> int take_within(int fd, int milliseconds, const Take &take)
{
	int taken = take();
	if (taken != 0 || milliseconds == MOX_NO_WAIT)
		return taken;
	std::int64_t end = now_ms() + std::max(milliseconds, 0);
	for (;;) {
		std::int64_t left = milliseconds < 0 ? -1
						     : std::max<std::int64_t>(end - now_ms(), 0);
		pollfd watched{ fd, POLLIN, 0 };
		int ready = poll(&watched, 1,
				 static_cast<int>(std::min<std::int64_t>(left, INT_MAX)));
		if (ready == 0)
			errno = EAGAIN;
		if (ready == 0 || (ready < 0 && errno == EINTR))
			return 0;
		if (ready < 0)
			throw_socket_error("cannot wait for a frame");
		taken = take();
		if (taken != 0)
			return taken;
	}
}

} // namespace
} // namespace mox

using namespace mox;

int mox_receive(mox_socket *s, struct mox_frame *frame, int milliseconds)
{
	return guarded(-1, [&] {
		CaptureSocket &socket = s->open_socket();
		if (!frame)
			throw UsageError(kNoFrame);
		return take_within(socket.fd(), milliseconds, [&] {
			std::optional<Frame> received = socket.receive(buffer_of(*frame));
			if (received)
				fill(*frame, *received, s->kind);
			return received ? 1 : 0;
		});
	});
}

int mox_receive_many(mox_socket *s, struct mox_frame *frames, size_t count, int milliseconds)
{
	return guarded(-1, [&] {
		CaptureSocket &socket = s->open_socket();
		if (!frames || count == 0)
			throw UsageError(kNoFrame);
		count = std::min<size_t>(count, MOX_MOST_FRAMES);
		std::span<std::uint8_t> buffers[MOX_MOST_FRAMES];
		for (size_t i = 0; i < count; ++i)
			buffers[i] = buffer_of(frames[i]);
		Frame received[MOX_MOST_FRAMES];
		return take_within(socket.fd(), milliseconds, [&] {
			size_t taken = socket.receive_many({ buffers, count }, { received, count });
			for (size_t i = 0; i < taken; ++i)
				fill(frames[i], received[i], s->kind);
			return static_cast<int>(taken);
		});
	});
}

int mox_restore_vlan(struct mox_frame *frame)
{
	if (!(frame->flags & MOX_FRAME_ETHERNET))
		return 0;
	mox_packet_ctrl_info record{};
	record.vlan = static_cast<std::uint16_t>(frame->control.vlan << 4 |
						 frame->control.priority);
	record.inner_vlan = frame->control.inner_vlan;
	std::size_t added = restore_vlan_tags(buffer_of(*frame), frame->captured, record);
	if (added != 0) {
		frame->captured = std::min(frame->captured + added, frame->size);
		frame->length += added;
		if (frame->captured < frame->length)
			frame->flags |= MOX_FRAME_TRUNCATED;
	}
	return static_cast<int>(added);
}

int mox_read_statistics(mox_socket *s, struct mox_statistics *statistics)
{
	return done([&] {
		mox_packet_stats reading = s->open_socket().take_statistics();
		s->sum.add(reading);
		*statistics = { reading.packets, reading.drops, s->sum.packets(), s->sum.drops() };
	});
}

int mox_send(mox_socket *s, const void *frame, size_t length, uint32_t ifindex)
{
	mox_address address{};
	address.ifindex = ifindex;
	// An address without an interface would override that of the bind.
	return mox_send_to(s, frame, length, ifindex != 0 ? &address : nullptr, nullptr);
}

int mox_send_to(mox_socket *s, const void *frame, size_t length, const struct mox_address *address,
		const struct mox_send_control *control)
{
	return done([&] {
		SendRequest request{ { static_cast<const std::uint8_t *>(frame), length } };
		if (address) {
			request.to = SendAddress{ address->ifindex, address->ether_type };
			if (address->has_mac)
				std::copy_n(address->mac, sizeof(address->mac),
					    request.to->mac.emplace().begin());
		}
		if (control) {
			SendControl fields;
			fields.source_ifindex = control->source_ifindex;
			fields.origin_ifindex = control->origin_ifindex;
			fields.l2_ifindex = control->l2_ifindex;
			fields.destination_l2_ifindex = control->destination_l2_ifindex;
			fields.flags = control->flags;
			fields.word28 = control->word28;
			fields.vlan = control->vlan;
			fields.inner_vlan = control->inner_vlan;
			fields.half38 = control->half38;
			fields.wlan_id = control->wlan_id;
			fields.ap_wlan_id = control->ap_wlan_id;
			fields.radio_id = control->radio_id;
			if (control->flags & MOX_SEND_PROXY_CAPTURE)
				fields.proxy_capture = control->proxy_capture;
			request.control = fields.record();
		}
		s->open_socket().send(request);
	});
}

void mox_reply_control(struct mox_send_control *answer, const struct mox_control *received)
{
	*answer = {};
	answer->vlan = received->vlan;
	answer->inner_vlan = received->inner_vlan;
	answer->wlan_id = received->wlan_id;
	answer->ap_wlan_id = received->ap_wlan_id;
	answer->radio_id = received->radio_id;
}
