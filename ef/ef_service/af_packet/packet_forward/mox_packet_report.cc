// SPDX-License-Identifier: GPL-2.0
/*
 * Reports on a location: its sockets, its filter list, its queues.
 *
 * What is reported changes on other CPUs, so each walk runs under the library's
 * read lock, with bottom halves off. A line to a slow console takes its time,
 * and a file cannot be written there at all: long walks go in portions, and let
 * go of the lock between them.
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
 * Where a walk in portions stands. What it walks over is counted in places; a
 * portion skips the places that earlier ones passed, stops after so many places
 * that were told in the log, or where staging runs full, and only counts those
 * behind. A list that changes between two portions may show a place twice or
 * not at all, and one that grows is walked as far as it was long at first, so
 * that every walk ends.
 */
class Portions {
public:
	/** log_places: places of a portion; flushes: whether staging running full ends one. */
	Portions(u32 log_places, bool flushes) : log_places_(log_places), flushes_(flushes) {}

	void begin()
	{
		at_ = 0;
		told_ = 0;
		full_ = false;
	}
	/** Whether this place has its turn now. Once for each place. */
	bool due()
	{
		if (at_++ < passed_)
			return false;
		full_ = full_ || stop();
		if (full_ || passed_ == limit_)
			return false;
		passed_++;
		return true;
	}
	/** Count a place that was told. */
	void told() { told_++; }
	/** The end of a portion, lock dropped: true when another one is due. */
	bool more()
	{
		if (limit_ == kNoLimit)
			limit_ = at_;
		if (!full_ || passed_ >= limit_)
			return false;
		if (flushes_)
			report_flush();
		seam_schedule();
		return true;
	}

private:
	static constexpr u32 kNoLimit = ~0u;

	bool stop() const
	{
		if (report_staged())
			return flushes_ && report_nearly_full();
		return told_ == log_places_;
	}

	const u32 log_places_;
	const bool flushes_;
	u32 passed_ = 0;       /* places, over all portions */
	u32 at_ = 0;           /* places met in this one */
	u32 told_ = 0;         /* places told in this one */
	u32 limit_ = kNoLimit; /* places that there were in the first */
	bool full_ = false;
};

/*
 * Some hundred lines each. Within a portion a report is one look; few devices
 * have more sockets at a location.
 */
constexpr u32 kSocketsOfPortion = 8;
constexpr u32 kBlocksOfPortion = 64;

/**
 * Report the library's sockets that are wanted, in the library's order. In the
 * dump file they have one fill of the staging buffer.
 */
template <typename Wanted> void dump_sockets(packet_regular_lib *lib, Wanted wanted)
{
	Portions portions(kSocketsOfPortion, false);

	do {
		ReadGuard guard(&lib->lock);
		portions.begin();
		for (const packet_regular *regular : regulars_of(&lib->regulars)) {
			if (!portions.due() || !regular->owner || !wanted(*regular->owner))
				continue;
			mox_packet_sock_dump(regular->owner);
			portions.told();
		}
	} while (portions.more());
}

/** A filter list: the head of each entry, its rules and its end are places. */
class FilterListWalk {
public:
	void portion(packet_regular_lib *lib)
	{
		ReadGuard guard(&lib->lock);
		portions_.begin();
		if (due())
			REPORT_LINE("filter regular list cnt: %d\n",
				    static_cast<int>(lib->filter_count));
		for (const filter_list_data *entry : entries_of(&lib->filter_list))
			tell_entry(*entry);
	}
	bool more() { return portions_.more(); }

private:
	bool due()
	{
		if (!portions_.due())
			return false;
		portions_.told();
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

	Portions portions_{ kBlocksOfPortion, true };
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
	FilterListWalk walk;

	/* A portion begins with an empty buffer, so each one gets on. */
	report_flush();
	do
		walk.portion(lib);
	while (walk.more());
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
