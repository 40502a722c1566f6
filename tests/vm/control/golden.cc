// SPDX-License-Identifier: GPL-2.0-only
#include "golden.h"

#include <algorithm>

#include <unistd.h>

#include "support/fixture.h"

namespace vm {

SocketText own_socket(uint32_t location, uint32_t treatment, std::vector<RuleText> rules)
{
	return { "vm_control", ::getpid(), location, treatment, std::move(rules) };
}

CopyText own_copy(uint32_t treatment, std::vector<RuleText> rest)
{
	return { "vm_control", treatment, std::move(rest) };
}

Pieces memory_pieces()
{
	const RuleRecords now = RuleRecords::read();
	contract::MemoryCounters counters;
	std::copy(std::begin(now.items), std::end(now.items), counters.items.begin());
	std::copy(std::begin(now.data), std::end(now.data), counters.data.begin());
	counters.buffers_alloc = now.buffers_alloc;
	counters.buffers_free = now.buffers_free;
	counters.skbs_alloc = int32_t(lab::peek32("g_alloc_skb_num"));
	counters.skbs_free = int32_t(lab::peek32("g_free_skb_num"));
	return contract::memory_pieces(counters);
}

Pieces thread_pieces()
{
	return contract::thread_pieces(lab::peek32("g_packet_thread_debug", 0),
				       lab::peek32("g_packet_thread_debug", 4));
}

} // namespace vm
