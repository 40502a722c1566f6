/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture.h"

#include "common/ending.h"
#include "mox/error.h"
#include "pcap_file.h"
#include "pcapng_file.h"

#include <arpa/inet.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

namespace moxcap {
namespace {

// A flood of frames must not delay the check of the clock and of signals.
constexpr unsigned kBatch = 256;

constexpr long kNanosecondsPerSecond = 1'000'000'000;

timespec after(timespec time, double seconds)
{
	auto whole = static_cast<time_t>(seconds);
	time.tv_sec += whole;
	time.tv_nsec += static_cast<long>((seconds - static_cast<double>(whole)) *
					  kNanosecondsPerSecond);
	if (time.tv_nsec >= kNanosecondsPerSecond) {
		time.tv_nsec -= kNanosecondsPerSecond;
		++time.tv_sec;
	}
	return time;
}

/** Time left until an end; nothing when it is over. */
std::optional<timespec> until(const timespec &end)
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	timespec left{ end.tv_sec - now.tv_sec, end.tv_nsec - now.tv_nsec };
	if (left.tv_nsec < 0) {
		left.tv_nsec += kNanosecondsPerSecond;
		--left.tv_sec;
	}
	if (left.tv_sec < 0)
		return std::nullopt;
	return left;
}

timespec now()
{
	timespec time{};
	clock_gettime(CLOCK_REALTIME, &time);
	return time;
}

/** What was dropped: the sum, and what no frame of the capture file has reported yet. */
class Drops {
public:
	Drops(mox::CaptureSocket &socket, const CaptureFile *file)
		: socket_(socket), counted_(file && file->counts_drops())
	{
	}

	/**
	 * The frames dropped since the last call, if the file counts them. Reading the statistics clears every counter
	 * of the socket, so they are read only where the file needs them, and once for a batch.
	 */
	std::uint64_t before_batch() { return counted_ ? read() : 0; }
	/** The same at the end, for every file. */
	std::uint64_t read()
	{
		mox_packet_stats reading = socket_.take_statistics();
		sum_.add(reading);
		return reading.drops;
	}

	const mox::StatisticsSum &sum() const { return sum_; }

private:
	mox::CaptureSocket &socket_;
	bool counted_;
	mox::StatisticsSum sum_;
};

/** Records up to so many queued frames; false when the queue has no more or all asked for have come. */
bool drain(mox::CaptureSocket &socket, Recorder &recorder, Drops &drops,
	   std::span<std::uint8_t> buffer, unsigned most)
{
	for (unsigned i = 0; i < most; ++i) {
		if (recorder.complete())
			return false;
		auto frame = socket.receive(buffer);
		if (!frame)
			return false;
		recorder.record(*frame, frame->stamp ? *frame->stamp : now(),
				i == 0 ? drops.before_batch() : 0);
	}
	return true;
}

std::unique_ptr<CaptureFile> open_file(const Options &options)
{
	if (!options.pcapng)
		return std::make_unique<PcapFile>(options.file, options.layout, options.snap,
						  options.vlan_tags);
	CaptureDescription description = describe_machine();
	description.location = options.location;
	description.treatment = options.treatment;
	description.rules = options.rule_text;
	return std::make_unique<PcapngFile>(options.file, options.layout, options.snap,
					    options.vlan_tags, description);
}

} // namespace

mox::CaptureSocket prepare_socket(const Options &options, mox::SocketCalls &calls)
{
	mox::CaptureSocket socket(options.kind, options.protocol, calls);
	if (options.buffer != 0)
		socket.set_receive_buffer(options.buffer);
	socket.set_control_info(true);
	socket.set_timestamps(true);
	if (options.interface != 0)
		socket.bind(options.interface);
	for (const mox::Rule &rule : options.rules)
		socket.add_rule(rule);
	socket.set_treatment(options.treatment);
	return socket;
}

Recorder::Recorder(const Options &options, InterfaceName interface_name, Print print)
	: options_(options), interface_name_(std::move(interface_name)), print_(std::move(print))
{
	if (!options.file.empty())
		file_ = open_file(options);
}

void Recorder::record(const mox::Frame &frame, const timespec &time, std::uint64_t dropped)
{
	++captured_;
	if (frame.truncated())
		++truncated_;

	const mox_packet_ctrl_info *control = frame.control ? &*frame.control : nullptr;
	bool has_header = !control || !(control->flags & MOX_RECV_NO_L2);
	std::uint16_t ether_type = control ? ntohs(control->eth_type) : 0;
	Layout layout = options_.layout == Layout::kEthernet && !has_header ? Layout::kNetwork
									    : options_.layout;
	// Without a layer-2 header the record has no EtherType: it follows from the packet's IP version.
	if (!has_header) {
		std::uint8_t version = frame.bytes.empty() ? 0 : frame.bytes[0] >> 4;
		ether_type = version == 4 ? 0x0800 : version == 6 ? 0x86dd : 0;
	}

	if (file_)
		file_->write({ time,
			       { frame.bytes, frame.length, ether_type, has_header, control },
			       frame.ifindex,
			       name_of(frame.ifindex),
			       dropped });
	if (options_.quiet)
		return;

	Description description = describe(frame.bytes, layout, ether_type);
	Line line;
	line.time = time;
	line.label = options_.label;
	line.interface = name_of(frame.ifindex);
	line.description = &description;
	line.length = frame.length;
	line.captured = frame.bytes.size();
	line.control = control;
	std::string text = format_line(line);
	if (options_.hex)
		text += format_hex(frame.bytes);
	print_(text);
}

void Recorder::finish(const timespec &end, std::uint64_t dropped)
{
	if (file_)
		file_->finish(end, dropped);
}

const std::string &Recorder::name_of(std::uint32_t index)
{
	auto [entry, is_new] = names_.try_emplace(index);
	if (is_new) {
		entry->second = interface_name_(index);
		if (entry->second.empty())
			entry->second = "if" + std::to_string(index);
	}
	return entry->second;
}

Counters run_capture(mox::CaptureSocket &socket, const Options &options, Recorder &recorder,
		     const volatile std::sig_atomic_t &stop, const sigset_t &waiting)
{
	std::vector<std::uint8_t> buffer(static_cast<std::size_t>(options.snap));
	std::optional<timespec> end;
	if (options.duration) {
		timespec start{};
		clock_gettime(CLOCK_MONOTONIC, &start);
		end = after(start, *options.duration);
	}

	Drops drops(socket, recorder.file());
	pollfd poll_for[] = { { socket.fd(), POLLIN, 0 },
			      { recorder.file() ? recorder.file()->fd() : -1, 0, 0 } };
	for (;;) {
		drain(socket, recorder, drops, buffer, kBatch);
		tool::deliver_pending_signals(waiting);
		if (stop || recorder.complete())
			break;
		std::optional<timespec> left = end ? until(*end) : std::nullopt;
		if (end && !left)
			break;
		if (ppoll(poll_for, std::size(poll_for), left ? &*left : nullptr, &waiting) < 0) {
			if (errno != EINTR)
				throw mox::SocketError(std::string("cannot wait for frames: ") +
							       std::strerror(errno),
						       errno);
			continue; // which leaves the results of an earlier wait
		}
		// Otherwise a trap rule without traffic would stay until the first frame after the reader's end.
		if (poll_for[1].revents & (POLLERR | POLLHUP))
			recorder.file()->fail_without_reader();
	}

	// Without a location nothing more is queued: the frames that are queued now are the last ones.
	socket.set_location(PACKET_NONE_LOC);
	while (drain(socket, recorder, drops, buffer, kBatch)) {}

	std::uint64_t dropped_last = drops.read();
	recorder.finish(now(), dropped_last);
	return { recorder.captured(), recorder.truncated(), drops.sum().packets(),
		 drops.sum().drops() };
}

} // namespace moxcap
