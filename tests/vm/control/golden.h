// SPDX-License-Identifier: GPL-2.0-only
// The reports as the contract has them, for this machine's CPUs and this program's sockets.
#pragma once

#include "contract/reports.h"
#include "support/cpus.h"
#include "support/socket.h"

namespace vm {

using contract::append;
using contract::CopyText;
using contract::dump_text;
using contract::EntryText;
using contract::filter_list_pieces;
using contract::joined;
using contract::Pieces;
using contract::RuleText;
using contract::SocketText;

inline Pieces queue_pieces(uint32_t location)
{
	return contract::queue_pieces(location, vm::present_cpus());
}
inline Pieces location_pieces(uint32_t location, const std::vector<SocketText> &sockets = {},
			      const std::vector<EntryText> &entries = {})
{
	return contract::location_pieces(location, vm::present_cpus(), sockets, entries);
}

/// A rule as its socket's report prints it.
inline RuleText text_of(const Rule &rule)
{
	return contract::rule_text(rule.type, rule.elements);
}
/// A socket of this process, running.
SocketText own_socket(uint32_t location, uint32_t treatment, std::vector<RuleText> rules);
CopyText own_copy(uint32_t treatment, std::vector<RuleText> rest = {});

/// The memory report and the copy thread's, with the counters that the module has at this moment.
Pieces memory_pieces();
Pieces thread_pieces();

} // namespace vm
