/* SPDX-License-Identifier: MIT */
/* Handles of the C API: what is set up, and the socket once it is open. */
#include "mox/handle.h"

#include "mox/c_error.h"
#include "mox/names.h"
#include "mox/vlan.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <optional>
#include <vector>

static_assert(MOX_MOST_FRAMES == mox::CaptureSocket::kMostFrames);

struct mox_socket {
	explicit mox_socket(mox::SocketCalls &a_calls) : calls(a_calls) {}

	mox::SocketCalls &calls;
	mox::SocketKind kind = mox::SocketKind::kRaw;
	std::optional<mox::CaptureSocket> socket;
	bool running = false;
	/** Whether the socket has rules already: then it has a key as well. */
	bool has_rules = false;

	// What is set up; rules only until they are added to the socket.
	std::vector<mox::Rule> rules;
	std::uint32_t location = PACKET_NONE_LOC;
	std::optional<std::uint32_t> treatment; /**< nothing: as the adopted socket has it */
	std::uint32_t interface = 0;
	bool control = true, timestamps = false;
	std::optional<int> receive_buffer;
	mox::StatisticsSum sum;

	mox::CaptureSocket &open_socket()
	{
		if (!socket)
			throw mox::SocketError(
				"the socket is not open: call mox_open or mox_start first", EBADF);
		return *socket;
	}
	void add(const mox::Rule &rule)
	{
		if (running)
			socket->add_rule(rule);
		else
			rules.push_back(rule);
	}
};

namespace mox {
namespace {

constexpr char kNoFrame[] = "there is no struct mox_frame to store a frame in: give at least one";

/** A function of the C API that returns 0 or -1. */
template <typename Function> int done(const Function &function) noexcept
{
	return guarded(-1, [&] {
		function();
		return 0;
	});
}

const char *not_null(const char *text, const char *what)
{
	if (!text)
		throw UsageError(std::string(what) + " is NULL: give a text");
	return text;
}

Rule parsed(const char *rule)
{
	return Rule::parse(not_null(rule, "the rule"), system_interface_index);
}

Rule rule_of(std::uint32_t type, const void *elements, std::size_t count)
{
	Rule rule(type);
	const RuleType &row = rule.type();
	if (row.kind == ValueKind::kAll || (count == 0 && row.width == 0))
		return Rule::parse(row.full, {});
	if (count == 0)
		throw UsageError("rule type " + std::string(row.alias()) +
				 " needs a value: " + std::string(row.meaning));
	if (!elements && row.width != 0)
		throw UsageError("the elements of rule type " + std::string(row.alias()) +
				 " are NULL: give their address");
	auto bytes = static_cast<const std::uint8_t *>(elements);
	for (std::size_t i = 0; i < count; ++i)
		rule.add_element(row.width == 0 ? std::span<const std::uint8_t>()
						: std::span(bytes + i * row.width, row.width));
	return rule;
}

void open(mox_socket &s)
{
	if (s.socket)
		return;
	s.socket.emplace(s.kind, 0, s.calls);
	try {
		if (s.receive_buffer)
			s.socket->set_receive_buffer(*s.receive_buffer);
		s.socket->set_control_info(s.control);
		if (s.timestamps)
			s.socket->set_timestamps(true);
		if (s.interface != 0)
			s.socket->bind(s.interface);
	} catch (...) {
		s.socket.reset();
		throw;
	}
}

void start(mox_socket &s)
{
	if (s.running)
		return;
	if (s.rules.empty() && !s.has_rules && s.interface == 0)
		throw UsageError(
			"the socket has no rule: mox_add_rule(s, \"all\") captures every frame");
	if (s.location == PACKET_NONE_LOC)
		throw UsageError("the socket has no location: set one with mox_set_location, as "
				 "mox_set_location(s, PACKET_LEV2_LOC)");
	open(s);
	if (!s.rules.empty() || !s.has_rules) {
		std::vector<Rule> rules = s.rules;
		if (s.interface != 0 && !s.has_rules) {
			Rule from(PACKET_SRC_INTF_EQUAL);
			from.add_number(s.interface);
			rules.push_back(from);
		}
		for (const Rule &rule : in_filing_order(std::move(rules), s.has_rules))
			s.socket->add_rule(rule);
		s.rules.clear();
		s.has_rules = true;
	}
	if (s.treatment)
		s.socket->set_treatment(*s.treatment);
	s.socket->set_location(s.location);
	s.running = true;
}

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

mox_socket *new_handle(std::uint32_t kind, SocketCalls &calls)
{
	return guarded(static_cast<mox_socket *>(nullptr), [&] {
		if (kind != MOX_RAW && kind != MOX_DATAGRAM)
			throw UsageError("socket kind " + std::to_string(kind) +
					 " is unknown; allowed: MOX_RAW, MOX_DATAGRAM");
		auto s = new mox_socket(calls);
		s->treatment = PACKET_COPY;
		s->kind = kind == MOX_RAW ? SocketKind::kRaw : SocketKind::kDatagram;
		return s;
	});
}

mox_socket *adopt_handle(int fd, SocketCalls &calls)
{
	return guarded(static_cast<mox_socket *>(nullptr), [&] {
		CaptureSocket socket(Adopted{ fd }, calls);
		mox_socket *s;
		try {
			s = new mox_socket(calls);
		} catch (...) {
			// It is still the caller's.
			socket.release();
			throw;
		}
		s->kind = socket.kind();
		s->interface = socket.bound_to();
		s->socket.emplace(std::move(socket));
		s->running = true;
		s->has_rules = true;
		return s;
	});
}

} // namespace mox

using namespace mox;

mox_socket *mox_new(uint32_t kind)
{
	return new_handle(kind, SocketCalls::system());
}

mox_socket *mox_adopt(int fd)
{
	return adopt_handle(fd, SocketCalls::system());
}

int mox_release(mox_socket *s)
{
	return guarded(-1, [&] {
		int fd = s->open_socket().release();
		delete s;
		return fd;
	});
}

void mox_free(mox_socket *s)
{
	int before = errno;
	delete s;
	errno = before;
}

int mox_fd(const mox_socket *s)
{
	return guarded(-1, [&] { return const_cast<mox_socket *>(s)->open_socket().fd(); });
}

int mox_add_rule(mox_socket *s, const char *rule)
{
	return done([&] { s->add(parsed(rule)); });
}

int mox_add_rule_numbers(mox_socket *s, uint32_t type, const uint32_t *numbers, size_t count)
{
	return done([&] {
		Rule rule(type);
		if (count == 0 || !numbers)
			throw UsageError("rule type " + std::string(rule.type().alias()) +
					 " has no numbers: give at least one");
		for (size_t i = 0; i < count; ++i)
			rule.add_number(numbers[i]);
		s->add(rule);
	});
}

int mox_add_rule_elements(mox_socket *s, uint32_t type, const void *elements, size_t count)
{
	return done([&] { s->add(rule_of(type, elements, count)); });
}

int mox_delete_rule(mox_socket *s, const char *rule)
{
	return done([&] {
		Rule values = parsed(rule);
		if (!s->has_rules)
			throw UsageError(
				"the socket has no rules yet: they are added by mox_start");
		s->open_socket().delete_rule(values);
	});
}

int mox_set_location(mox_socket *s, uint32_t location)
{
	return done([&] {
		if (s->running)
			s->socket->set_location(location);
		s->location = location;
	});
}

int mox_set_treatment(mox_socket *s, uint32_t treatment)
{
	return done([&] {
		if (s->running)
			s->socket->set_treatment(treatment);
		s->treatment = treatment;
	});
}

int mox_set_interface(mox_socket *s, const char *interface_name)
{
	return done([&] {
		std::uint32_t index = parse_interface(not_null(interface_name, "the interface"),
						      system_interface_index);
		if (s->socket)
			throw SocketError(
				"cannot set interface " + std::string(interface_name) +
					": the socket is open: set it before mox_open and mox_start",
				EBUSY);
		s->interface = index;
	});
}

int mox_set_control(mox_socket *s, int on)
{
	return done([&] {
		if (s->socket)
			s->socket->set_control_info(on != 0);
		s->control = on != 0;
	});
}

int mox_set_timestamps(mox_socket *s, int on)
{
	return done([&] {
		if (s->socket)
			s->socket->set_timestamps(on != 0);
		s->timestamps = on != 0;
	});
}

int mox_set_receive_buffer(mox_socket *s, int bytes)
{
	return done([&] {
		if (bytes < 1)
			throw UsageError("a receive buffer of " + std::to_string(bytes) +
					 " bytes is not valid; allowed: 1 and more");
		if (s->socket)
			s->socket->set_receive_buffer(bytes);
		s->receive_buffer = bytes;
	});
}

int mox_open(mox_socket *s)
{
	return done([&] { mox::open(*s); });
}

int mox_start(mox_socket *s)
{
	return done([&] { start(*s); });
}

int mox_stop(mox_socket *s)
{
	return done([&] {
		s->open_socket().set_location(PACKET_NONE_LOC);
		s->running = false;
	});
}

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

int mox_location(const char *name)
{
	return guarded(-1, [&] {
		return static_cast<int>(parse_location(not_null(name, "the location")));
	});
}

int mox_treatment(const char *name)
{
	return guarded(-1, [&] {
		return static_cast<int>(parse_treatment(not_null(name, "the treatment")));
	});
}

const char *mox_location_name(uint32_t location)
{
	// The names are string literals.
	return location_name(location).data();
}

const char *mox_treatment_name(uint32_t treatment)
{
	return treatment_name(treatment).data();
}

uint32_t mox_interface_index(const char *name)
{
	return guarded(uint32_t{ 0 }, [&] {
		return parse_interface(not_null(name, "the interface"), system_interface_index);
	});
}

int mox_interface_mac(const mox_socket *s, uint8_t mac[6])
{
	return done([&] {
		auto address = const_cast<mox_socket *>(s)->open_socket().interface_mac();
		if (!address)
			throw SocketError(
				"the socket is bound to no interface that has a MAC address: name "
				"one with mox_set_interface",
				ENODEV);
		std::copy(address->begin(), address->end(), mac);
	});
}
