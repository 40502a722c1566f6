/* SPDX-License-Identifier: GPL-2.0-only */
#include "sender.h"

#include "mox/error.h"

#include <algorithm>

namespace moxsend {
namespace {

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
// Without a schedule nothing waits, and signals would never be delivered.
constexpr unsigned kFramesWithoutAWait = 64;

/** Waits until the next frame is due; false when a signal asked to stop. */
class Gate {
public:
	Gate(double rate, Clock &clock, const volatile std::sig_atomic_t &stop)
		: clock_(clock), stop_(stop), pacer_(rate, clock.now())
	{
	}

	bool pass()
	{
		std::uint64_t now = clock_.now();
		if (now < pacer_.due()) {
			while (!stop_ && now < pacer_.due()) {
				clock_.wait_until(pacer_.due());
				now = clock_.now();
			}
			unwaited_ = 0;
		} else if (++unwaited_ == kFramesWithoutAWait) {
			clock_.wait_until(0);
			unwaited_ = 0;
		}
		pacer_.advance(now);
		return !stop_;
	}

private:
	Clock &clock_;
	const volatile std::sig_atomic_t &stop_;
	Pacer pacer_;
	unsigned unwaited_ = 0;
};

void count_failure(Counters &counters, int error, const char *text)
{
	++counters.failed;
	Failures &failures = counters.failures[error];
	if (failures.count++ == 0)
		failures.first = text;
}

/** Sends one frame and counts it. Throws the failure after counting it. */
void send_one(const SourceFrame &frame, const Options &options, const Deliver &deliver,
	      Prepared &prepared, Counters &counters)
{
	try {
		if (!frame.defect.empty())
			throw mox::UsageError(frame.defect);
		prepare(frame.bytes, options, prepared);
		deliver(prepared.request);
		++counters.sent;
		counters.bytes += prepared.bytes.size();
	} catch (const mox::SocketError &error) {
		count_failure(counters, error.error(), error.what());
		throw;
	} catch (const mox::UsageError &error) {
		count_failure(counters, 0, error.what());
		throw;
	}
}

} // namespace

void prepare(std::span<const std::uint8_t> frame, const Options &options, Prepared &prepared)
{
	prepared.request = {};
	std::size_t shortest = kShortestFrame;
	mox::SendAddress to;
	to.ifindex = options.interface;
	if (options.kind == mox::SocketKind::kDatagram) {
		shortest -= kEthernetHeader;
		to.mac = options.to;
		to.ether_type = options.ether_type.value_or(0);
		if (options.has_header) {
			if (frame.size() < kEthernetHeader)
				throw mox::UsageError(
					"a frame of " + std::to_string(frame.size()) +
					" bytes has no MAC header to be "
					"taken off for a datagram; allowed: 14 bytes and more, or no --datagram");
			mox::MacAddress mac;
			std::copy_n(frame.begin(), mac.size(), mac.begin());
			if (!to.mac)
				to.mac = mac;
			if (!options.ether_type)
				to.ether_type = static_cast<std::uint16_t>(frame[12] << 8 |
									   frame[13]);
			frame = frame.subspan(kEthernetHeader);
		}
	}
	prepared.bytes.assign(frame.begin(), frame.end());
	if (options.pad && prepared.bytes.size() < shortest)
		prepared.bytes.resize(shortest, 0);
	prepared.request.bytes = prepared.bytes;
	// Naming no interface is what an address of interface 0 says, too, but a datagram needs the address.
	if (!options.bind && (options.interface != 0 || options.kind == mox::SocketKind::kDatagram))
		prepared.request.to = to;
	prepared.request.control = options.control;
}

mox::PacketSocket prepare_socket(const Options &options, mox::SocketCalls &calls)
{
	mox::PacketSocket socket(options.kind, 0, calls);
	if (options.bind)
		socket.bind(options.interface);
	return socket;
}

void run_send(FrameSource &source, const Options &options, const Deliver &deliver, Clock &clock,
	      const volatile std::sig_atomic_t &stop, const Progress &progress, Counters &counters)
{
	Gate gate(options.rate, clock, stop);
	Prepared prepared;
	std::uint64_t start = clock.now(), reported = start;
	for (std::uint64_t round = 0; !stop && (options.count == 0 || round < options.count);
	     ++round) {
		if (round != 0)
			source.rewind();
		bool any = false;
		while (auto frame = source.next()) {
			any = true;
			if (!gate.pass())
				return;
			try {
				send_one(*frame, options, deliver, prepared, counters);
			} catch (const std::runtime_error &) {
				counters.elapsed = clock.now() - start;
				if (!options.continue_on_error)
					throw;
			}
			std::uint64_t now = clock.now();
			counters.elapsed = now - start;
			if (now - reported >= kNanosecondsPerSecond) {
				reported = now;
				progress(counters);
			}
		}
		if (!any) // the following rounds would have none either
			throw FileError(source.name() + " holds no frame");
	}
}

} // namespace moxsend
