/* SPDX-License-Identifier: GPL-2.0-only */
/* moxsend: sends frames out through the forwarding platform. */
#include "common/ending.h"
#include "common/output.h"
#include "format.h"
#include "hex.h"
#include "mox/error.h"
#include "options.h"
#include "sender.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>

namespace {

std::optional<mox::MacAddress> interface_mac(std::uint32_t ifindex)
{
	mox::PacketSocket socket(mox::SocketKind::kRaw);
	socket.bind(ifindex);
	return socket.interface_mac();
}

std::unique_ptr<moxsend::FrameSource> open_source(const moxsend::Options &options)
{
	if (!options.pcap_file.empty())
		return std::make_unique<moxsend::PcapSource>(options.pcap_file);
	if (options.hex_file == "-")
		return std::make_unique<moxsend::ListSource>(
			moxsend::read_hex_lines("standard input", std::cin));
	if (!options.hex_file.empty()) {
		std::ifstream file(options.hex_file);
		if (!file)
			throw moxsend::FileError("cannot read \"" + options.hex_file +
						 "\": does it exist, and is it readable?");
		return std::make_unique<moxsend::ListSource>(
			moxsend::read_hex_lines(options.hex_file, file));
	}
	return std::make_unique<moxsend::ListSource>(options.frames);
}

/** Prints progress on standard error; on a terminal the line is overwritten, and cleared at the end. */
class ProgressLine {
public:
	ProgressLine(const moxsend::Options &options, std::optional<std::uint64_t> frames)
		: on_terminal_(isatty(STDERR_FILENO)),
		  wanted_(!options.quiet && (on_terminal_ || options.progress))
	{
		if (frames && options.count != 0)
			total_ = *frames * options.count;
	}
	void show(const moxsend::Counters &counters)
	{
		if (!wanted_)
			return;
		std::string text = moxsend::format_progress(counters, total_);
		std::fprintf(stderr, on_terminal_ ? "\r\033[K%s" : "%s\n", text.c_str());
		shown_ = true;
	}
	void clear() const
	{
		if (shown_ && on_terminal_)
			std::fputs("\r\033[K", stderr);
	}

private:
	bool on_terminal_, wanted_, shown_ = false;
	std::optional<std::uint64_t> total_;
};

/** Prints frames instead of sending them. A failed write requests the stop: an endless run would not end otherwise. */
moxsend::Deliver printer(tool::Output &output)
{
	return [&output, last = std::string()](const mox::SendRequest &request) mutable {
		std::string heading = moxsend::format_request(request);
		std::string line = moxsend::to_hex(request.bytes) + "\n";
		output.print(heading != last ? heading + line : line);
		last = heading;
	};
}

int send_all(const moxsend::Options &options, const sigset_t &waiting)
{
	auto source = open_source(options);
	tool::Output output(STDOUT_FILENO, waiting), remarks(STDERR_FILENO, waiting);
	std::optional<mox::PacketSocket> socket;
	moxsend::Deliver deliver;
	if (options.dry_run) {
		deliver = printer(output);
	} else {
		socket.emplace(moxsend::prepare_socket(options));
		deliver = [&socket](const mox::SendRequest &request) { socket->send(request); };
	}

	moxsend::SystemClock clock(waiting);
	moxsend::Counters counters;
	ProgressLine line(options, source->size());
	std::string error;
	try {
		moxsend::run_send(
			*source, options, deliver, clock, tool::stop_requested,
			[&](const moxsend::Counters &now) { line.show(now); }, counters);
	} catch (const std::runtime_error &failure) {
		error = failure.what();
	}
	line.clear();
	if (!error.empty())
		std::fprintf(stderr, "moxsend: %s\n", error.c_str());
	if (!options.quiet && !options.dry_run) {
		// The failure that ended the run has been printed.
		if (!error.empty())
			counters.failures.clear();
		std::fputs(moxsend::format_summary(counters).c_str(), stderr);
	}
	if (options.counters)
		(options.dry_run ? remarks : output).print(moxsend::format_counters(counters));
	bool printed = true;
	for (const tool::Output *each : { &output, &remarks }) {
		std::string failure = each->failure();
		if (failure.empty())
			continue;
		std::fprintf(stderr, "moxsend: %s\n", failure.c_str());
		printed = false;
	}
	return !error.empty() || !printed ? moxsend::kSystemStatus
	       : counters.failed != 0     ? moxsend::kPartialStatus
					  : 0;
}

} // namespace

int main(int argc, char **argv)
{
	moxsend::Options options;
	moxsend::Machine machine{ mox::system_interface_index, interface_mac };
	if (auto ending = moxsend::read_options(argc, argv, machine, options))
		return tool::end_at_once(*ending);
	signal(SIGPIPE, SIG_IGN);
	// The kernel may end a wait up to 50 microseconds late; that is too late for a schedule of frames.
	prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
	try {
		return send_all(options, tool::catch_ending_signals({ SIGINT, SIGTERM, SIGHUP }));
	} catch (const mox::UsageError &error) {
		std::fprintf(stderr, "moxsend: %s\n", error.what());
		return moxsend::kUsageStatus;
	} catch (const std::exception &error) {
		std::fprintf(stderr, "moxsend: %s\n", error.what());
		return moxsend::kSystemStatus;
	}
}
