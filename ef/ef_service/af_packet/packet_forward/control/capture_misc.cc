// SPDX-License-Identifier: GPL-2.0-only
/* mox_capture: the module, its memory, and the copy thread. */
#include "base/restriction.hpp"
#include "control/capture.hpp"
#include "control/diag.hpp"
#include "receive/deliver.hpp"
#include "receive/queue.hpp"
#include "receive/thread.hpp"
#include "rules/budget.hpp"
#include "rules/memory.hpp"
#include "socket/family.hpp"

namespace mox {
namespace {

constexpr const char *kFeatures[] = {
#define MOX_ROW(name, meaning) name,
	MOX_CAPTURE_FEATURE_TABLE(MOX_ROW)
#undef MOX_ROW
};

constexpr u32 kFeatureRows = sizeof(kFeatures) / sizeof(kFeatures[0]);

constexpr bool same(const char *one, const char *other)
{
	for (; *one && *one == *other; one++)
		other++;
	return *one == *other;
}

/** The row of a feature. */
constexpr u32 feature_row(const char *name)
{
	u32 row = 0;

	while (row < kFeatureRows && !same(kFeatures[row], name))
		row++;
	return row;
}

constexpr u32 kSockDiag = feature_row("sock-diag");
static_assert(kSockDiag < kFeatureRows);

/** Objects of a kind that are in use, and allocations that failed. */
struct Objects {
	const char *name;
	u64 (*in_use)();
	u64 (*failed)();
};

/** The sum of a statistics array over the rule types. */
u64 sum_of_types(const u32 (&stats)[MOX_STAT_COUNT])
{
	u64 sum = 0;

	for (u32 type = 0; type < MOX_PACKET_RULE_TYPES; type++)
		sum += load(stats[type]);
	return sum;
}

constexpr Objects kObjects[] = {
	{ "sockets", [] { return u64{ registry_size() }; }, nullptr },
	{ "rule values", [] { return sum_of_types(g_regular_data_stats); },
	  [] { return u64{ load(g_regular_data_stats[MOX_STAT_FAILED]) }; } },
	{ "rule items", [] { return sum_of_types(g_regular_item_stats); },
	  [] { return u64{ load(g_regular_item_stats[MOX_STAT_FAILED]) }; } },
	{ "filter keys", [] { return u64{ load(g_regular_data_stats[MOX_STAT_ENTRIES]) }; },
	  nullptr },
	{ "match copies", [] { return u64{ load(g_regular_data_stats[MOX_STAT_COPIES]) }; },
	  nullptr },
	{ "rule record buffers",
	  [] {
		  return u64{ load(g_packet_regular_data_alloc) -
			      load(g_packet_regular_data_free) };
	  },
	  nullptr },
	{ "socket buffers", [] { return u64{ load(g_alloc_skb_num) - load(g_free_skb_num) }; },
	  [] { return u64{ load(g_packet_thread_debug.alloc_skb_failed) }; } },
};

struct NamedBudget {
	const char *name;
	const char *unit;
	BudgetOf which;
};

constexpr NamedBudget kBudgets[] = {
	{ "rule memory", "bytes", BudgetOf::kBytes },
	{ "rule work", "instructions", BudgetOf::kWork },
};

/* A text of the tables above has no more bytes than this. */
constexpr size_t kNameSize = 32;
constexpr u32 kObjectRows = sizeof(kObjects) / sizeof(kObjects[0]);
constexpr u32 kMemoryRows = kObjectRows + sizeof(kBudgets) / sizeof(kBudgets[0]);

void put_objects(Message &message, const Objects &row)
{
	message.text(MOX_CAPTURE_MEMORY_NAME, row.name, kNameSize);
	message.number(MOX_CAPTURE_MEMORY_OBJECTS, row.in_use());
	if (row.failed)
		message.number(MOX_CAPTURE_MEMORY_FAILED, row.failed());
}

void put_budget(Message &message, const NamedBudget &row)
{
	const BudgetState state = budget_state(row.which);

	message.text(MOX_CAPTURE_MEMORY_NAME, row.name, kNameSize);
	message.text(MOX_CAPTURE_MEMORY_UNIT, row.unit, kNameSize);
	message.number(MOX_CAPTURE_MEMORY_USED, u64{ state.used });
	message.number(MOX_CAPTURE_MEMORY_LIMIT, u64{ state.all });
	message.number(MOX_CAPTURE_MEMORY_UNPRIVILEGED_LIMIT, u64{ state.unprivileged });
	message.number(MOX_CAPTURE_MEMORY_SOCKET_LIMIT, u64{ state.socket });
	message.number(MOX_CAPTURE_MEMORY_REFUSED, u64{ state.refused });
}

} // namespace

bool dump_memory(Dump *dump, sk_buff *skb, const seam_request *request)
{
	for (; dump->next < kMemoryRows; dump->next++) {
		Message message(skb, request, MOX_CAPTURE_CMD_MEMORY);
		if (dump->next < kObjectRows)
			put_objects(message, kObjects[dump->next]);
		else
			put_budget(message, kBudgets[dump->next - kObjectRows]);
		if (!message.end())
			return false;
	}
	return true;
}

void put_info(Message &message)
{
	message.text(MOX_CAPTURE_INFO_MODULE, "mox_ef_socket", kNameSize);
	message.text(MOX_CAPTURE_INFO_MODULE_VERSION, seam_module_version(), kNameSize);
	message.number(MOX_CAPTURE_INFO_INTERFACE, u32{ MOX_CAPTURE_VERSION });
	for (u32 row = 0; row < kFeatureRows; row++)
		if (row != kSockDiag || diag_up())
			message.text(MOX_CAPTURE_INFO_FEATURE, kFeatures[row], kNameSize);
	message.number(MOX_CAPTURE_INFO_RESTRICTED, static_cast<u8>(restriction_on()));
}

void put_thread(Message &message)
{
	const packet_thread_top &top = g_packet_thread_top;
	const task_struct *task = top.task;

	message.text(MOX_CAPTURE_THREAD_NAME, "packet-copy", kNameSize);
	if (!seam_task_invalid(task))
		message.number(MOX_CAPTURE_THREAD_PID, seam_task_pid(task));
	message.number(MOX_CAPTURE_THREAD_SCHEDULED, u64{ load(g_packet_thread_debug.scheduled) });
	message.number(MOX_CAPTURE_THREAD_ALLOC_SKB_FAILED,
		       u64{ load(g_packet_thread_debug.alloc_skb_failed) });
	message.flag(MOX_CAPTURE_THREAD_RUNNING, load(top.running) != 0);
	for (u32 queue = 0; queue < CPU_QUEUES; queue++)
		if (load(top.pending[queue]))
			message.number(MOX_CAPTURE_THREAD_PENDING, queue_location(queue));
}

} // namespace mox
