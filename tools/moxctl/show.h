/* SPDX-License-Identifier: GPL-2.0-only */
/* The reports that moxctl makes of what the family "mox_capture" has. */
#ifndef MOXCTL_SHOW_H
#define MOXCTL_SHOW_H

#include "capture_client.h"
#include "json_writer.h"
#include "options.h"
#include "status.h"
#include "world.h"

namespace moxctl {

/*
 * One function for each report: reads the module, and prints the report as text, or as JSON with options.json. Returns
 * status_incomplete when the module's data changed while they were read; then a line on standard error says so, and the
 * JSON has it in "problems". Throws Failure.
 */
Status show_sockets(const Options &options, CaptureClient &client, const World &world);
Status show_rules(const Options &options, CaptureClient &client, const World &world);
Status show_losses(const Options &options, CaptureClient &client, const World &world);
Status show_queues(const Options &options, CaptureClient &client, const World &world);
Status show_memory(const Options &options, CaptureClient &client, const World &world);
Status show_thread(const Options &options, CaptureClient &client, const World &world);
Status show_info(const Options &options, CaptureClient &client, const World &world);

/** show_rules with options.json: the keys of the kernel log's report, and more. */
Status show_rules_json(const Options &options, CaptureClient &client, const World &world);

/** The request for the entries that were selected. */
CaptureRequest selection_request(const Selection &selection);

/**
 * The request for the ledgers of the selected location. L2RESV and L3RESV have sockets of their own, but share the hook of
 * RESV: then for all ledgers, of which keep_locations keeps those of the location and of its hook.
 */
CaptureRequest locations_request(const Selection &selection);
void keep_locations(Dump &locations, const Selection &selection);

/** The location whose library has a location's rules: RESV's has those of both locations that share its hook. */
std::uint32_t library_of(std::uint64_t location);

/** Prints the parts of a long report as they are written. */
JsonWriter::Spill spill_to(const World &world);

/** What is wrong with a report. */
class Problems {
public:
	/** Notes that a dump changed while it was read. */
	void check(const Dump &dump, const char *what);
	void add(std::string text) { texts_.push_back(std::move(text)); }

	/** Writes "complete" and "problems"; into an object that is open. */
	void write(JsonWriter &json) const;
	/** One line for each to standard error. Returns how the command ends. */
	Status complain(const World &world) const;

private:
	std::vector<std::string> texts_;
};

/** Ends the one object of a report with the problems' members, and prints the rest of its text. How the command ends. */
Status finish(std::string &text, JsonWriter &json, const Problems &problems, const World &world);

} // namespace moxctl

#endif
