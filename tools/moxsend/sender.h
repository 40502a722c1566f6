/* SPDX-License-Identifier: GPL-2.0-only */
/* The sending itself: from a source of frames to sends and counters. Independent of files, terminals and clocks. */
#ifndef MOXSEND_SENDER_H
#define MOXSEND_SENDER_H

#include "mox/packet_socket.h"
#include "options.h"
#include "pacing.h"
#include "source.h"

#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace moxsend {

/** Failures of one kind. */
struct Failures {
	std::uint64_t count = 0;
	std::string first; /**< text of the first one */
};

struct Counters {
	std::uint64_t sent = 0; /**< frames that the platform accepted */
	std::uint64_t bytes =
		0; /**< of these, as passed to the socket: a datagram without its header */
	std::uint64_t failed = 0;         /**< frames that were refused or could not be sent */
	std::uint64_t elapsed = 0;        /**< nanoseconds from the first frame to the last */
	std::map<int, Failures> failures; /**< by errno; 0: not passed to a send */
};

/** One frame as it is passed to the socket. */
struct Prepared {
	Bytes bytes;
	mox::SendRequest request; /**< of these bytes */

	Prepared() = default;
	Prepared(const Prepared &) = delete;
	Prepared &operator=(const Prepared &) = delete;
};

/**
 * Makes a frame of the source ready: takes a datagram's header off and its addresses from it, pads. Throws UsageError
 * when there is no whole header to take off.
 */
void prepare(std::span<const std::uint8_t> frame, const Options &options, Prepared &prepared);

/** The socket that the options ask for, bound if they say so. */
mox::PacketSocket prepare_socket(const Options &options,
				 mox::SocketCalls &calls = mox::SocketCalls::system());

/** Sends a frame; throws SocketError when it is refused. */
using Deliver = std::function<void(const mox::SendRequest &)>;
/** Called with the counters about once a second while frames are sent. */
using Progress = std::function<void(const Counters &)>;

/**
 * Sends everything as often as the options say, until `stop` is set by a signal handler. counters is kept up to
 * date, so that it is right after an exception, too: SocketError, UsageError or FileError for the first frame
 * that fails, unless the options say to go on; FileError for a source that cannot be read in any case.
 */
void run_send(FrameSource &source, const Options &options, const Deliver &deliver, Clock &clock,
	      const volatile std::sig_atomic_t &stop, const Progress &progress, Counters &counters);

} // namespace moxsend

#endif
