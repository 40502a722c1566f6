// SPDX-License-Identifier: GPL-2.0
/*
 * Reports on a location: its sockets, its filter list, its queues.
 *
 * What is reported changes on other CPUs, so each walk runs under the library's
 * read lock, with bottom halves off. Nothing is written to a file there: a walk
 * over sockets is one look at all of them, and stages what it can; a walk over
 * the filter list stops when staging runs full, lets go of the lock, flushes,
 * and goes on at the same position.
 */
#include "list.hpp"
#include "names.hpp"
#include "report.hpp"
#include "socket.hpp"
#include "thread.hpp"

namespace {

/* The locations that have a library of their own: 1 to this. */
constexpr u32 kLastLocation = PACKET_WLAN_LOC;

bool location_known(u32 location)
{
	return location >= PACKET_LOCAL_LOC && location <= kLastLocation;
}

/** Report the library's sockets that are wanted, in the library's order. */
template <typename Wanted> void dump_sockets(packet_regular_lib *lib, Wanted wanted)
{
	ReadGuard guard(&lib->lock);
	for (const packet_regular *regular : regulars_of(&lib->regulars))
		if (regular->owner && wanted(*regular->owner))
			mox_packet_sock_dump(regular->owner);
}

/** A rule that shares a key: what it asks for besides the key. */
void tell_copy(const packet_regular &copy)
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

/**
 * A walk over a filter list in portions. Heads, rules and ends of entries are
 * counted as blocks; a portion skips the blocks that earlier ones told, and
 * only counts those behind the point where staging ran full. A list that
 * changes between two portions may show a block twice or not at all, and one
 * that grows is told as far as it was long at first, so that the walk ends.
 */
class FilterListWalk {
public:
	explicit FilterListWalk(packet_regular_lib *lib) : lib_(lib) {}

	/** The next portion; false when there is more, behind a flush. */
	bool portion()
	{
		ReadGuard guard(&lib_->lock);
		at_ = 0;
		full_ = false;
		if (due())
			REPORT_LINE("filter regular list cnt: %d\n",
				    static_cast<int>(lib_->filter_count));
		for (const filter_list_data *entry : entries_of(&lib_->filter_list))
			tell_entry(*entry);
		if (limit_ == kNoLimit)
			limit_ = at_;
		return !full_ || told_ >= limit_;
	}

private:
	static constexpr u32 kNoLimit = ~0u;

	/** Whether the block that comes now is to be told now. */
	bool due()
	{
		if (at_++ < told_)
			return false;
		full_ = full_ || report_nearly_full();
		if (full_ || told_ == limit_)
			return false;
		told_++;
		return true;
	}

	void tell_entry(const filter_list_data &entry)
	{
		if (due()) {
			REPORT_LINE("regular type:  ");
			mox_packet_dump_regular_type(entry.type);
			REPORT_LINE("regular data:  ");
			mox_packet_dump_regular_data(entry.type, entry.value);
			REPORT_LINE("  match regulars:\n");
		}
		tell_copies(&entry.match_list);
		tell_copies(&entry.local_match_list);
		if (due())
			REPORT_LINE("\n");
	}

	void tell_copies(const list_head *copies)
	{
		for (const packet_regular *copy : regulars_of(copies))
			if (due())
				tell_copy(*copy);
	}

	packet_regular_lib *lib_;
	u32 told_ = 0;         /* blocks, over all portions */
	u32 at_ = 0;           /* blocks passed in this one */
	u32 limit_ = kNoLimit; /* blocks that there were in the first */
	bool full_ = false;
};

u32 queue_count(efbuff_queue *queue)
{
	SpinBhGuard guard(&queue->lock);
	return queue->count;
}

} // namespace

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
	FilterListWalk walk(lib);

	/* A portion begins with an empty buffer, so each one gets on. */
	report_flush();
	while (!walk.portion())
		report_flush();
	report_flush();
}

void mox_packet_show_cpu_queue(u32 location)
{
	if (!location_known(location)) {
		MOX_DEBUG("MOX-PACKET-SHOW-CPU-QUEUE: illegal loc %d!\n",
			  static_cast<int>(location));
		return;
	}
	u32 queue = location_queue(location);
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
	if (!location_known(location)) {
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
