// SPDX-License-Identifier: GPL-2.0-only
/*
 * Reports on a location: its sockets, its filter list, its queues.
 *
 * What is reported changes on other CPUs. A list is collected page by page under
 * the library's change lock, and each page is printed with no lock held: a console
 * may be slow, and a file blocks. Rules that leave meanwhile move the report along,
 * rules that come are not part of it, so that every report ends.
 */
#include "control/reports.hpp"

#include "base/report.hpp"
#include "base/socket_record.hpp"
#include "locations/table.hpp"
#include "receive/queue.hpp"
#include "rules/places.hpp"
#include "rules/print.hpp"
#include "rules/ranges.hpp"
#include "rules/types.hpp"
#include "socket/dump.hpp"

namespace mox {
namespace {

/* Rules that a report for one process passes over while it holds a library once. */
constexpr u32 kRulesOfHold = 256;

/**
 * The places of a library at which a report goes on, from its begin to its end. An
 * object lives no longer than the change lock is held.
 */
class Readings : Pinned {
public:
	explicit Readings(packet_regular_lib *lib) SEAM_NO_THREAD_SAFETY_ANALYSIS
		: report_(&lib->reports[report_staged() ? 1 : 0])
	{
	}

	list_head *at(lib_reading which) const { return report_->next[which]; }
	void set(lib_reading which, list_head *link)
	{
		report_->next[which] = link;
		report_->moved &= ~(1u << which);
	}
	/** Whether the record at a place has left since it was set; once. */
	bool moved(lib_reading which)
	{
		const u32 bit = 1u << which;
		const bool moved = report_->moved & bit;

		report_->moved &= ~bit;
		return moved;
	}
	void clear() { *report_ = {}; }

private:
	lib_report *report_;
};

/**
 * The report of the library's sockets for which selects(socket) is true, in the
 * library's order. A rule whose values fill more than a page is printed in parts;
 * the socket is held meanwhile, and when its rule has left the library by then, the
 * lines behind the values follow.
 */
template <typename Selects> class SocketsReport {
public:
	SocketsReport(packet_regular_lib *lib, Selects selects) : lib_(lib), selects_(selects) {}

	/** Collect a part; false at the end. */
	bool collect()
	{
		MutexGuard guard(&lib_->change_lock);
		Readings readings(lib_);
		if (!begun_) {
			begun_ = true;
			last_ = lib_->rules_entered;
			readings.set(LIB_READS_RULE, lib_->regulars.next);
		}
		/* Each page asks anew: what left before a socket was begun is not that socket. */
		const bool gone = readings.moved(LIB_READS_RULE);
		if (!seam_fatal_signal_pending()) {
			if (po_) {
				finish_begun(readings, gone);
				return true;
			}
			if (collect_more(readings))
				return true;
		}
		readings.clear();
		return false;
	}

	/** Print all of it. */
	void run()
	{
		for (bool more = true; more;) {
			{
				ReportPage page;
				more = collect();
			}
			/* Behind the page: the last reference may free the socket. */
			if (po_ && (finished_ || !more)) {
				put_socket_in_use(po_);
				po_ = nullptr;
			}
			seam_cond_resched();
		}
	}

private:
	/** Go on with the socket whose values filled the last page; gone: its rule has left since. */
	void finish_begun(Readings &readings, bool gone)
	{
		finished_ = gone || dump_rule_items(&po_->regular, &position_);
		if (!finished_)
			return;
		end_socket(po_, 1);
		if (!gone)
			readings.set(LIB_READS_RULE, readings.at(LIB_READS_RULE)->next);
	}

	/** False at the end of the list. */
	bool collect_more(Readings &readings)
	{
		for (u32 n = 0; n < kRulesOfHold && !ReportPage::full(); n++) {
			list_head *at = readings.at(LIB_READS_RULE);
			/* Rules that entered behind the report's begin are not part of it. */
			if (at == &lib_->regulars || entered_later(at))
				return false;
			mox_packet_sock *po = rule_at(at)->owner;
			if (po && selects_(*po)) {
				dump_socket_begin(po);
				position_ = RulePosition(&po->regular);
				if (!dump_rule_items(&po->regular, &position_)) {
					hold_socket_in_use(po);
					po_ = po;
					finished_ = false;
					return true;
				}
				end_socket(po, 0);
			}
			readings.set(LIB_READS_RULE, at->next);
		}
		return true;
	}

	static packet_regular *rule_at(list_head *link)
	{
		return record_of<packet_regular, offsetof(packet_regular, lib_node)>(link);
	}
	bool entered_later(list_head *link) const { return rule_number(rule_at(link)) > last_; }

	static void end_socket(mox_packet_sock *po, u32 references)
	{
		dump_rule_end(&po->regular);
		dump_socket_end(po, references);
	}

	packet_regular_lib *const lib_;
	Selects selects_;
	bool begun_ = false;
	u64 last_ = 0;                  /* number of the last rule at the begin */
	mox_packet_sock *po_ = nullptr; /* held: begun on an earlier page */
	bool finished_ = false;         /* po_ is printed */
	RulePosition position_{ nullptr };
};

template <typename Selects> void dump_sockets(packet_regular_lib *lib, Selects selects)
{
	SocketsReport<Selects>(lib, selects).run();
}

/** The report of a filter list. */
class FilterListReport {
public:
	explicit FilterListReport(packet_regular_lib *lib) : lib_(lib) {}

	/** Collect a part; false at the end. */
	bool collect()
	{
		MutexGuard guard(&lib_->change_lock);
		Readings readings(lib_);
		if (!begun_) {
			begun_ = true;
			last_ = lib_->entries_made;
			last_rule_ = lib_->rules_entered;
			REPORT_LINE("filter regular list cnt: %d\n",
				    static_cast<int>(lib_->filter_count));
			readings.set(LIB_READS_KEY, lib_->filter_list.next);
		}
		if (!seam_fatal_signal_pending() && collect_more(readings))
			return true;
		readings.clear();
		return false;
	}

private:
	enum class Stage { kKey, kMatch, kLocal };

	bool collect_more(Readings &readings)
	{
		if (readings.moved(LIB_READS_KEY) && stage_ != Stage::kKey) {
			/* The key has gone, and its copies: what was printed of it ends here. */
			REPORT_LINE("\n");
			stage_ = Stage::kKey;
		}
		while (!ReportPage::full()) {
			list_head *at = readings.at(LIB_READS_KEY);
			if (at == &lib_->filter_list)
				return false;
			auto *entry = record_of<filter_list_data, offsetof(filter_list_data, node)>(
				at);
			/* Keys that were made behind the report's begin are not part of it. */
			if (entry->place <= last_ && !print_entry(readings, entry))
				return true;
			stage_ = Stage::kKey;
			readings.set(LIB_READS_KEY, at->next);
		}
		return true;
	}

	/** False when the page is full. */
	bool print_entry(Readings &readings, filter_list_data *entry)
	{
		if (stage_ == Stage::kKey) {
			REPORT_LINE("regular type:  ");
			mox_packet_dump_regular_type(entry->type);
			REPORT_LINE("regular data:  ");
			mox_packet_dump_regular_data(entry->type, entry->value);
			REPORT_LINE("  match regulars:\n");
			enter_stage(readings, Stage::kMatch, &entry->match_list);
		}
		if (stage_ == Stage::kMatch) {
			if (!print_copies(readings, &entry->match_list))
				return false;
			enter_stage(readings, Stage::kLocal, &entry->local_match_list);
		}
		if (!print_copies(readings, &entry->local_match_list))
			return false;
		REPORT_LINE("\n");
		return true;
	}

	void enter_stage(Readings &readings, Stage stage, list_head *copies)
	{
		stage_ = stage;
		copy_begun_ = false;
		readings.set(LIB_READS_COPY, copies->next);
	}

	/** A rule that shares a key: its process, treatment, and items besides the key. */
	bool print_copies(Readings &readings, const list_head *copies)
	{
		if (readings.moved(LIB_READS_COPY))
			copy_begun_ = false;
		for (;;) {
			list_head *at = readings.at(LIB_READS_COPY);
			if (at == copies)
				return true;
			if (ReportPage::full())
				return false;
			auto *copy = record_of<packet_regular, offsetof(packet_regular, lib_node)>(
				at);
			if (!copy_begun_) {
				if (copy_number(copy) > last_rule_)
					return true;
				REPORT_LINE("    process:      %s\n",
					    copy->owner ? copy->owner->process : "");
				REPORT_LINE("    PACKET TREATMENT:   %s\n",
					    treatment_name(copy->treatment));
				position_ = RulePosition(copy);
				copy_begun_ = true;
			}
			if (!dump_copy_items(copy, &position_))
				return false;
			copy_begun_ = false;
			readings.set(LIB_READS_COPY, at->next);
		}
	}

	packet_regular_lib *const lib_;
	bool begun_ = false;
	u64 last_ = 0;      /* number of the last key at the begin */
	u64 last_rule_ = 0; /* and of the last rule */
	Stage stage_ = Stage::kKey;
	bool copy_begun_ = false;
	RulePosition position_{ nullptr };
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
	FilterListReport report(lib);

	report_flush();
	for (bool more = true; more;) {
		{
			ReportPage page;
			more = report.collect();
		}
		if (report_nearly_full())
			report_flush();
		seam_cond_resched();
	}
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
