// SPDX-License-Identifier: GPL-2.0-only
// What the reports must read, composed from what a test expects in them. A report is kept as the
// pieces in which the module writes it: a full staging buffer drops whole pieces.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "contract/rules.h"
#include "contract/sockets.h"

namespace contract {

using Pieces = std::vector<std::string>;

std::string joined(const Pieces &pieces);
void append(Pieces &to, const Pieces &more);

/// The data of one type, as a report prints each but for the end of the line.
struct RuleText {
	uint32_t type;
	std::vector<std::string> data;
};
/// From the elements of a rule record.
RuleText rule_text(uint32_t type, const std::vector<uint8_t> &elements);

/// A socket, running unless a test says otherwise.
struct SocketText {
	std::string process;
	int pid;
	uint32_t location, treatment;
	std::vector<RuleText> rules;
	uint32_t vsd = 0;
	bool running = true;
	bool ctrl = false;
	uint32_t ifindex = 0;
	std::array<uint32_t, kCounters> counters{};
	uint32_t to_receive = 0, to_send = 0;
	uint32_t refcnt = 3;

	Pieces pieces() const;
};

/// A rule that shares a key of the filter list: its types but the key.
struct CopyText {
	std::string process;
	uint32_t treatment;
	std::vector<RuleText> rest;
};

struct EntryText {
	uint32_t type;
	std::string datum;
	std::vector<CopyText> copies;
};

/// The queue report of a location, with every queue of that many CPUs empty.
Pieces queue_pieces(uint32_t location, int cpus);
Pieces filter_list_pieces(const std::vector<EntryText> &entries);
/// The whole report of a location.
Pieces location_pieces(uint32_t location, int cpus, const std::vector<SocketText> &sockets = {},
		       const std::vector<EntryText> &entries = {});

/// The counters that the memory report prints.
struct MemoryCounters {
	std::array<uint32_t, kRecordCounters> items{}, data{};
	uint32_t buffers_alloc = 0, buffers_free = 0;
	int32_t skbs_alloc = 0, skbs_free = 0;
};
Pieces memory_pieces(const MemoryCounters &counters);
Pieces thread_pieces(uint32_t scheduled, uint32_t skb_failures);

/// A dump file around the reports of all locations and of memory.
std::string dump_text(const std::string &locations, const std::string &memory);

} // namespace contract
