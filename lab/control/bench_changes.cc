// SPDX-License-Identifier: GPL-2.0-only
// What changing a rule costs, and how much memory rules take.
#include <algorithm>
#include <cstdio>
#include <fstream>

#include <sys/socket.h>
#include <unistd.h>

#include "bench.hpp"
#include "bench_shapes.hpp"
#include "bench_support.hpp"
#include "mox_packet.h"

namespace bench {

namespace {

constexpr unsigned kRules = 1024;

/// Instructions of one system call, the clock's own taken off. Throws when the call fails.
template <typename Call> uint64_t timed(const char *what, Call call)
{
	static const uint64_t clock = clock_cost();
	const uint64_t begin = now_ns();
	const int result = call();
	const uint64_t took = now_ns() - begin;
	if (result)
		die(what);
	return took > clock ? took - clock : 0;
}

std::vector<Fd> listeners_of(const Shape &shape)
{
	std::vector<Fd> listeners;
	while (listeners.size() < kRules)
		listeners.push_back(listener(shape.items(unsigned(listeners.size()))));
	return listeners;
}

/// A value added to the rule of one socket, and taken out again, with the others' rules around it.
void one_value(const Shape &shape, Fd own, const char *which_rule)
{
	constexpr unsigned kChanges = 1000, kPasses = 3;
	std::vector<double> least[2] = { std::vector<double>(kChanges, 1e18),
					 std::vector<double>(kChanges, 1e18) };
	const int options[] = { MOX_PACKET_ADD_RULE, MOX_PACKET_DEL_RULE };
	// An interrupt falls into some calls, into others in the next pass: the least of each counts.
	for (unsigned pass = 0; pass < kPasses; ++pass)
		for (unsigned n = 0; n < kChanges; ++n) {
			const moxlab::Bytes record = rule_record(
				shape.items(kRules + 1 + n).back());
			for (int which : { 0, 1 }) {
				const double took = double(timed("a rule change", [&] {
					return ::setsockopt(own.get(), MOX_SOL_PACKET,
							    options[which], record.data(),
							    socklen_t(record.size()));
				}));
				least[which][n] = std::min(least[which][n], took);
			}
		}
	for (int which : { 0, 1 }) {
		const std::string what = std::string(which_rule) +
					 (which ? " taken out" : " added");
		report({ "changes", what + ", median", shape.name, kRules, median(least[which]) });
		report({ "changes", what + ", longest", shape.name, kRules,
			 *std::max_element(least[which].begin(), least[which].end()) });
	}
}

void one_value_among_many(const Shape &shape)
{
	Owner owner("mox_ef_socket");
	std::vector<Fd> others = listeners_of(shape);
	one_value(shape, listener(shape.items(kRules)), "second value of a rule");
	one_value(shape, listener({}), "only value of a rule");
}

/// So many source MACs in the rule of one socket.
void many_values(unsigned count)
{
	Item macs{ PACKET_SRC_MAC_EQUAL, 6, {} };
	for (unsigned i = 0; i < count; ++i)
		macs.values.insert(macs.values.end(), { 2, 0, 0, 1, uint8_t(i >> 8), uint8_t(i) });
	const moxlab::Bytes record = rule_record(macs);
	Fd fd = open_socket();
	set_option(fd.get(), PACKET_TREATMENT, PACKET_COPY);
	auto option = [&](int number, const void *at, size_t length) {
		return [&, number, at, length] {
			return ::setsockopt(fd.get(), MOX_SOL_PACKET, number, at,
					    socklen_t(length));
		};
	};
	const uint32_t none = PACKET_NONE_LOC, lev2 = PACKET_LEV2_LOC;
	auto add = option(MOX_PACKET_ADD_RULE, record.data(), record.size());
	auto file = option(PACKET_LOCATION, &lev2, sizeof lev2);
	const struct {
		const char *what;
		uint64_t took;
	} rows[] = {
		{ "values added, each", timed("adding values", add) },
		{ "values filed, each", timed("the location", file) },
		{ "values withdrawn, each",
		  timed("location 0", option(PACKET_LOCATION, &none, sizeof none)) },
		{ "values deleted, each",
		  timed("deleting values",
			option(MOX_PACKET_DEL_RULE, record.data(), record.size())) },
		{ "values added again, each", timed("adding values", add) },
		{ "values filed again, each", timed("the location", file) },
		{ "values closed, each", timed("closing",
					       [&] {
						       fd.close();
						       return 0;
					       }) },
	};
	for (const auto &row : rows)
		report({ "changes", row.what, "source MAC", count, double(row.took) / count });
}

/// The sockets are there before: what grows is what their rules take, their pages' unused rest included.
void memory(const Shape &shape)
{
	Owner owner("mox_ef_socket");
	std::vector<Fd> sockets;
	while (sockets.size() < kRules)
		sockets.push_back(open_socket());
	// What was closed before is given back after a grace period.
	::sleep(1);
	const double before = slab_bytes();
	for (unsigned n = 0; n < kRules; ++n) {
		for (const Item &item : shape.items(n))
			if (add_item(sockets[n].get(), item))
				die("a rule's values");
		set_option(sockets[n].get(), PACKET_TREATMENT, PACKET_COPY);
		set_option(sockets[n].get(), PACKET_LOCATION, PACKET_LEV2_LOC);
	}
	report({ "changes", "memory of rules, each listener", shape.name, kRules,
		 (slab_bytes() - before) / kRules, "bytes" });
}

void module_size()
{
	std::ifstream modules("/proc/modules");
	for (std::string line; std::getline(modules, line);)
		if (line.starts_with("mox_ef_socket "))
			report({ "changes", "the loaded module", "", 0,
				 std::stod(line.substr(line.find(' '))), "bytes" });
}

} // namespace

void change_instructions(const std::vector<unsigned> &values)
{
	allow_many_files(kRules + 1);
	// EtherType, source MAC, shared EtherType and port.
	for (size_t which : { 0, 1, 3 })
		memory(kShapes[which]);
	for (size_t which : { 0, 1, 3 })
		one_value_among_many(kShapes[which]);
	Owner owner("mox_ef_socket");
	module_size();
	for (unsigned count : values)
		many_values(count);
}

} // namespace bench
