/* SPDX-License-Identifier: GPL-2.0-only */
/* The capture itself: from an open socket to lines, files and counters. */
#ifndef MOXCAP_CAPTURE_H
#define MOXCAP_CAPTURE_H

#include "capture_file.h"
#include "format.h"
#include "mox/capture_socket.h"
#include "options.h"

#include <csignal>
#include <ctime>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace moxcap {

/** A socket with everything that the options say but the location, which starts the capture. */
mox::CaptureSocket prepare_socket(const Options &options,
				  mox::SocketCalls &calls = mox::SocketCalls::system());

/** Names an interface index; null or empty when it has no name. */
using InterfaceName = std::function<std::string(std::uint32_t index)>;
/** Prints whole lines at once. */
using Print = std::function<void(const std::string &text)>;

/** Turns received frames into output and counts them. Independent of sockets, signals and clocks. */
class Recorder {
public:
	Recorder(const Options &options, InterfaceName interface_name, Print print);

	/**
	 * One frame, which arrived at a time since the epoch. dropped: frames that the socket has dropped since the
	 * frame before, for a file that counts_drops().
	 */
	void record(const mox::Frame &frame, const timespec &time, std::uint64_t dropped = 0);

	/** Ends the capture file. dropped: as for record(), since the last frame. */
	void finish(const timespec &end, std::uint64_t dropped);

	/** The capture file, null when there is none. */
	const CaptureFile *file() const { return file_.get(); }

	/** Whether the frames that were asked for have all come. */
	bool complete() const { return options_.count != 0 && captured_ >= options_.count; }
	std::uint64_t captured() const { return captured_; }
	std::uint64_t truncated() const { return truncated_; }

private:
	const std::string &name_of(std::uint32_t index);

	const Options &options_;
	InterfaceName interface_name_;
	Print print_;
	std::unique_ptr<CaptureFile> file_;
	std::map<std::uint32_t, std::string> names_;
	std::uint64_t captured_ = 0;
	std::uint64_t truncated_ = 0;
};

/**
 * Captures with a socket whose location is set, until the count or the duration is reached or `stop` is set by a signal
 * handler; such signals have to be blocked outside of this call, and are let through as `waiting` says while it
 * waits and after each batch of frames. Takes the socket out of its location, ends the capture file and returns what
 * was counted. Throws FileError if the file is a pipe whose reader has ended, also while no frame comes.
 */
Counters run_capture(mox::CaptureSocket &socket, const Options &options, Recorder &recorder,
		     const volatile std::sig_atomic_t &stop, const sigset_t &waiting);

} // namespace moxcap

#endif
