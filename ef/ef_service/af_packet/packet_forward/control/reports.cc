// SPDX-License-Identifier: GPL-2.0
/*
 * Reports on a location: its sockets, its filter list, its queues.
 *
 * What is reported changes on other CPUs, so each list is printed under the
 * library's read lock, with bottom halves off. A slow console delays each line,
 * and a file cannot be written there at all: long reports drop the lock between
 * batches.
 */
#include "control/reports.hpp"

#include "base/report.hpp"
#include "base/socket_record.hpp"
#include "control/batch_cursor.hpp"
#include "locations/table.hpp"
#include "receive/queue.hpp"
#include "rules/memory.hpp"
#include "rules/print.hpp"
#include "rules/ranges.hpp"
#include "socket/dump.hpp"

namespace mox {
namespace {

/** A rule that shares a key: its process, treatment, and items besides the key. */
void print_copy(const packet_regular &copy)
{
	REPORT_LINE("    process:      %s\n", copy.owner ? copy.owner->process : "");
	REPORT_LINE("    PACKET TREATMENT:   %s\n", treatment_name(copy.treatment));
	for (const regular_item *item : items_of(&copy)) {
		REPORT_LINE("    regular type:  ");
		mox_packet_dump_regular_type(item->type);
		if (mox_packet_item_empty(item)) {
			REPORT_LINE("    regular data:  ");
			REPORT_LINE("\n");
		}
		for (const regular_data *datum : datas_of(item)) {
			REPORT_LINE("    regular data:  ");
			mox_packet_dump_regular_data(item->type, datum->value);
		}
	}
}

/*
 * Places of a batch: some hundred lines each. A batch is one consistent view,
 * and few devices have more sockets at a location.
 */
constexpr u32 kSocketsOfBatch = 8;
constexpr u32 kBlocksOfBatch = 64;

/**
 * Report the library's sockets for which selects(socket) is true, in the
 * library's order. In the dump file they have one fill of the staging buffer.
 */
template <typename Selects> void dump_sockets(packet_regular_lib *lib, Selects selects)
{
	BatchCursor cursor(kSocketsOfBatch, BatchCursor::InFile::kNever);

	do {
		ReadGuard guard(&lib->lock);
		cursor.begin_batch();
		for (const packet_regular *regular : regulars_of(&lib->regulars)) {
			if (!cursor.enter_place() || !regular->owner || !selects(*regular->owner))
				continue;
			mox_packet_sock_dump(regular->owner);
			cursor.count_printed();
		}
	} while (cursor.end_batch());
}

/** The report of a filter list: the head of each entry, each rule and each end is a place. */
class FilterListReport {
public:
	void print_batch(packet_regular_lib *lib)
	{
		ReadGuard guard(&lib->lock);
		cursor_.begin_batch();
		if (enter_place())
			REPORT_LINE("filter regular list cnt: %d\n",
				    static_cast<int>(lib->filter_count));
		for (const filter_list_data *entry : entries_of(&lib->filter_list))
			print_entry(*entry);
	}
	bool end_batch() { return cursor_.end_batch(); }

private:
	/** Every place that is entered is printed. */
	bool enter_place()
	{
		if (!cursor_.enter_place())
			return false;
		cursor_.count_printed();
		return true;
	}

	void print_entry(const filter_list_data &entry)
	{
		if (enter_place()) {
			REPORT_LINE("regular type:  ");
			mox_packet_dump_regular_type(entry.type);
			REPORT_LINE("regular data:  ");
			mox_packet_dump_regular_data(entry.type, entry.value);
			REPORT_LINE("  match regulars:\n");
		}
		print_copies(&entry.match_list);
		print_copies(&entry.local_match_list);
		if (enter_place())
			REPORT_LINE("\n");
	}

	void print_copies(const list_head *copies)
	{
		for (const packet_regular *copy : regulars_of(copies))
			if (enter_place())
				print_copy(*copy);
	}

	BatchCursor cursor_{ kBlocksOfBatch, BatchCursor::InFile::kWhenStaged };
};

u32 queue_count(efbuff_queue *queue)
{
	SpinBhGuard guard(&queue->lock);
	return queue->count;
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

void mox_packet_show_regular(u32 index)
{
	if (index >= kLastLocation) {
		MOX_DEBUG("MOX-PACKET-SHOW_REGULAR: illegal show_type!\n");
		return;
	}
	u32 location = index + 1;
	packet_regular_lib *lib = location_library(location);

	mox_packet_show_cpu_queue(location);
	report_flush();
	dump_sockets(lib, [](const mox_packet_sock &) { return true; });
	report_flush();
	REPORT_LINE("\n");
	pkt_show_filter_list(lib);
}

void pkt_show_filter_list(packet_regular_lib *lib)
{
	FilterListReport report;

	/* A batch begins with an empty buffer, so each one prints something. */
	report_flush();
	do
		report.print_batch(lib);
	while (report.end_batch());
	report_flush();
}

void mox_packet_show_cpu_queue(u32 location)
{
	if (!location_has_report(location)) {
		MOX_DEBUG("MOX-PACKET-SHOW-CPU-QUEUE: illegal loc %d!\n",
			  static_cast<int>(location));
		return;
	}
	u32 queue = location_row(location).queue;
	REPORT_LINE("location: %s\n", location_name(location));
	for (int cpu = seam_next_present_cpu(-1); cpu < seam_nr_cpu_ids();
	     cpu = seam_next_present_cpu(cpu)) {
		u32 count = queue_count(&g_cpu_pkt_que[cpu][queue]);
		REPORT_LINE("cpu %d efbuff cnt:      %u\n", cpu, count);
	}
	REPORT_LINE("\n");
}

void mox_packet_show_regular_spec(u32 kind, u32 location, const char *name, s32 pid)
{
	if (kind == MOX_MSG_SHOW_PID && pid <= 0) {
		MOX_DEBUG("MOX-PACKET-SHOW-REGULAR-SPEC: pid is <= 0!\n");
		return;
	}
	if (kind == MOX_MSG_SHOW_NAME && !name) {
		MOX_DEBUG("MOX-PACKET-SHOW-REGULAR-SPEC: name is NULL!\n");
		return;
	}
	if (!location_has_report(location)) {
		MOX_DEBUG("MOX-PACKET-SHOW-REGULAR-SPEC: illegal loc!\n");
		return;
	}
	dump_sockets(location_library(location), [=](const mox_packet_sock &po) {
		if (kind == MOX_MSG_SHOW_NAME)
			return __builtin_strncmp(po.process, name, sizeof(po.process)) == 0;
		return kind == MOX_MSG_SHOW_PID && po.pid == pid;
	});
}
} // extern "C"
