/* SPDX-License-Identifier: MIT */
/* Handles of the C API: which frames they capture, opening and starting them. */
#include "mox/handle.h"

#include "mox/c_error.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <set>
#include <utility>

namespace mox {
namespace {

Rule parsed(const char *rule)
{
	return Rule::parse(not_null(rule, "the rule"), system_interface_index);
}

Rule rule_of(std::uint32_t type, const void *elements, std::size_t count)
{
	Rule rule(type);
	const RuleType &row = rule.type();
	bool needs_none = row.width == 0 || row.kind == ValueKind::kFiller;
	if (row.kind == ValueKind::kAll || (count == 0 && needs_none))
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

/** The elements of a rule, each as its bytes. */
std::vector<std::vector<std::uint8_t>> elements_of(const Rule &rule)
{
	const std::vector<std::uint8_t> record = rule.record();
	const std::size_t width = rule.type().width;
	std::vector<std::vector<std::uint8_t>> elements;
	for (std::size_t i = 0; i < rule.count(); ++i) {
		auto from = record.begin() +
			    static_cast<std::ptrdiff_t>(sizeof(mox_packet_rule) + i * width);
		elements.emplace_back(from, from + static_cast<std::ptrdiff_t>(width));
	}
	return elements;
}

/** The noted rules without the values, as the module deletes them: by type and bytes, and "all" by its type. */
std::vector<Rule> without(const std::vector<Rule> &noted, const Rule &values)
{
	const auto deleted_elements = elements_of(values);
	const std::set<std::vector<std::uint8_t>> deleted(deleted_elements.begin(),
							  deleted_elements.end());
	std::vector<Rule> left;
	for (const Rule &rule : noted) {
		if (rule.type().value != values.type().value) {
			left.push_back(rule);
			continue;
		}
		Rule rest(rule.type().value);
		for (const auto &element : elements_of(rule))
			if (!deleted.contains(element))
				rest.add_element(element);
		if (rest.count() != 0)
			left.push_back(rest);
	}
	return left;
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
	Uncancelled uncancelled;
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
		// First what needs memory, then what the kernel may refuse: a failure changes nothing.
		std::vector<Rule> noted = without(s->rules, values);
		s->open_socket().delete_rule(values);
		s->rules = std::move(noted);
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
