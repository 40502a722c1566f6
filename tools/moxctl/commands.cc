/* SPDX-License-Identifier: GPL-2.0-only */
#include "commands.h"

#include "dump_file.h"
#include "capture_client.h"
#include "json.h"
#include "log_follower.h"
#include "metrics.h"
#include "mox_packet.h"
#include "netlink.h"
#include "report.h"
#include "report_filter.h"
#include "report_lines.h"
#include "show.h"
#include "text_table.h"
#include "trace.h"
#include "watch.h"

#include <algorithm>

namespace moxctl {
namespace {

std::chrono::milliseconds timeout_of(const Options &options)
{
	return std::chrono::milliseconds(static_cast<long long>(options.timeout * 1000));
}

/** What a report has to have, by the command that asks for it. */
struct Expected {
	ReportKind kind;
	std::size_t locations;
};

Expected expected_of(const Options &options)
{
	switch (options.action) {
	case Action::kShowRules:
		return { report_rules, options.location == 0 ? 8u : 1u };
	case Action::kShowQueues:
		return { report_queues, 8 };
	case Action::kShowMemory:
		return { report_memory, 0 };
	case Action::kShowThread:
		return { report_thread, 0 };
	default:
		return { report_process, 0 };
	}
}

void complain_of(const std::vector<std::string> &problems, const char *what, const World &world)
{
	constexpr std::size_t most = 10;
	for (std::size_t i = 0; i < std::min(problems.size(), most); ++i)
		world.complain(std::string(what) + " is incomplete: " + printable(problems[i]));
	if (problems.size() > most)
		world.complain("... and " + std::to_string(problems.size() - most) + " more");
}

/** Sends the request while the log is read, and stores the report's lines in filter. */
void follow_request(Channel &channel, const Request &request, KernelLog &log, ReportFilter &filter)
{
	LogFollower follower(log);
	channel.request(request);
	follower.stop(filter);
	if (filter.begun())
		return;
	if (filter.was_overwritten())
		throw Failure(
			"the kernel log overwrote the report before it could be read: try again, ask for one location, "
			"use \"moxctl tech\", or give the kernel a larger log (log_buf_len=4M on its command line)",
			status_incomplete);
	throw Failure(
		"the module served the request, but the kernel log has no line of it: where does the platform's "
		"mox_printk print to? \"moxctl tech\" does without the log");
}

/** The report that the module prints to the kernel log. */
Status show_log(const Options &options, const World &world)
{
	// The log first: if it cannot be read, the request would print a report that this program cannot return.
	auto log = world.open_kernel_log();
	auto socket = world.open_netlink();
	Channel channel(*socket, timeout_of(options));
	Expected expected = expected_of(options);
	ReportFilter filter(socket->port(), expected.kind);
	follow_request(channel, requests_of(options).front(), *log, filter);

	Report report = parse_report(filter.lines(), expected.kind, expected.locations);
	if (filter.lost() > 0)
		report.problems.insert(
			report.problems.begin(),
			"the kernel log overwrote " + std::to_string(filter.lost()) +
				" of its lines before they could be read; \"moxctl tech\" or a larger log "
				"(log_buf_len=4M on the kernel's command line) has them");
	if (options.json) {
		world.print(to_json(report, expected.kind));
	} else {
		std::string text;
		for (const std::string &line : filter.lines())
			text += printable(line) + "\n";
		world.print(text);
	}
	complain_of(report.problems, "the report", world);
	return report.problems.empty() ? status_ok : status_incomplete;
}

std::vector<std::string> lines_of(const std::string &text)
{
	std::vector<std::string> lines;
	for (std::size_t at = 0, end; at < text.size(); at = end + 1) {
		end = std::min(text.find('\n', at), text.size());
		lines.push_back(text.substr(at, end - at));
	}
	return lines;
}

/** The text without what would control a terminal; its ends of lines stay as they are. */
std::string printable_lines(const std::string &text)
{
	std::string safe;
	for (const std::string &line : lines_of(text))
		safe += printable(line) + "\n";
	if (!safe.empty() && !text.ends_with('\n'))
		safe.pop_back();
	return safe;
}

Status tech(const Options &options, const World &world)
{
	DumpFile file(vsd_of(world.working_directory()), world.root);
	auto socket = world.open_netlink();
	Channel channel(*socket, timeout_of(options));
	file.prepare();
	channel.request(requests_of(options).front());
	if (!channel.wait_for_answer())
		throw Failure("the module did not answer within " +
				      std::to_string(timeout_of(options).count()) +
				      " ms; what it wrote, if anything, is in " + file.path(),
			      status_timeout);

	std::string text = file.read();
	if (options.output.empty())
		world.print(world.terminal ? printable_lines(text) : text);
	else
		write_file(options.output, text);
	// The module drops lines silently where its buffer is full between two writes to the file.
	Report report = parse_report(lines_of(text), report_tech, 8);
	if (report.problems.empty())
		return status_ok;
	complain_of(report.problems, "the dump", world);
	world.complain(
		"the module's buffer of 128 KiB was full, or the file system; \"moxctl show rules LOCATION\" has it "
		"all");
	return status_incomplete;
}

/** Sends RESTRICT. */
Status restrict_access(CaptureClient &client, bool on)
{
	CaptureRequest request;
	request.add(MOX_CAPTURE_REQUEST_RESTRICT, on);
	client.ask(MOX_CAPTURE_CMD_RESTRICT, request);
	return status_ok;
}

Status restrict_status(CaptureClient &client, const World &world)
{
	Record info = client.ask(MOX_CAPTURE_CMD_INFO);
	if (!info.has(MOX_CAPTURE_INFO_RESTRICTED))
		throw Failure("the module does not report whether it is restricted: it is older "
			      "than this moxctl");
	world.print(info.number(MOX_CAPTURE_INFO_RESTRICTED) ? "on\n" : "off\n");
	return status_ok;
}

/** Commands that read the family for reading; they have no other source. */
Status read_family(const Options &options, CaptureClient &client, const World &world)
{
	switch (options.action) {
	case Action::kShowSockets:
		return show_sockets(options, client, world);
	case Action::kShowRules:
		return show_rules(options, client, world);
	case Action::kShowLosses:
		return show_losses(options, client, world);
	case Action::kShowQueues:
		return show_queues(options, client, world);
	case Action::kShowMemory:
		return show_memory(options, client, world);
	case Action::kShowThread:
		return show_thread(options, client, world);
	case Action::kWatch:
		return watch(options, client, world);
	case Action::kMetrics:
		return print_metrics(options, client, world);
	case Action::kTrace:
		return trace(options, client, world);
	case Action::kRestrict:
		return restrict_access(client, true);
	case Action::kLiftRestriction:
		return restrict_access(client, false);
	case Action::kRestrictStatus:
		return restrict_status(client, world);
	default:
		return show_info(options, client, world);
	}
}

/** Reports that a module without the family has as well, in the kernel log. */
bool is_in_log(const Options &options)
{
	switch (options.action) {
	case Action::kShowRules:
		return !options.selection.pid && !options.selection.cookie;
	case Action::kShowQueues:
		return options.selection.location == 0;
	case Action::kShowMemory:
	case Action::kShowThread:
		return true;
	default:
		return false;
	}
}

Status show(const Options &options, const World &world)
{
	if (options.action == Action::kShowProcess || options.log)
		return show_log(options, world);
	auto socket = world.open_netlink();
	if (is_in_log(options)) {
		auto client = CaptureClient::find(*socket, timeout_of(options));
		return client ? read_family(options, *client, world) : show_log(options, world);
	}
	CaptureClient client = CaptureClient::find_or_fail(*socket, timeout_of(options));
	return read_family(options, client, world);
}

} // namespace

Status run_command(const Options &options, const World &world)
{
	if (!options.note.empty())
		world.complain(options.note);
	switch (options.action) {
	case Action::kTech:
		return tech(options, world);
	case Action::kSwitches:
	case Action::kFilter: {
		auto socket = world.open_netlink();
		Channel channel(*socket, timeout_of(options));
		for (const Request &request : requests_of(options))
			channel.request(request);
		return status_ok;
	}
	default:
		return show(options, world);
	}
}

} // namespace moxctl
