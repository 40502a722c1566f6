/* SPDX-License-Identifier: GPL-2.0-only */
/* The channel to the module's family for reading: mox_capture. */
#ifndef MOXCTL_CAPTURE_CLIENT_H
#define MOXCTL_CAPTURE_CLIENT_H

#include "capture_record.h"
#include "capture_request.h"
#include "netlink_message.h"
#include "status.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace moxctl {

/** Entries that a dump may have: ten times as many as sockets on the largest device. */
inline constexpr std::size_t kMostEntries = 1 << 17;
/** How often a dump is requested when the kernel says that it changed while it was read. */
inline constexpr unsigned kDumpAttempts = 5;

/** The answer to a dump. */
struct Dump {
	std::vector<Record> entries;
	/** It changed while it was read, each time: an entry may be missing, or there twice. */
	bool interrupted = false;
};

class CaptureClient {
public:
	using TakeEvent = std::function<void(const Record &)>;

	/**
	 * Finds the family. Nothing when the kernel has none: the module is not loaded, is older, or this is another
	 * network namespace. socket has to outlive the client; timeout is for each answer. Throws Failure.
	 */
	static std::optional<CaptureClient> find(NetlinkSocket &socket, Milliseconds timeout);
	/** As find, but throws Failure with the remedy when there is no family. */
	static CaptureClient find_or_fail(NetlinkSocket &socket, Milliseconds timeout);

	/** A request with one answer, or with an acknowledgement alone: then a record without attributes. */
	Record ask(mox_capture_cmd command, const CaptureRequest &request = {});

	/** A request with many answers; requested again when it changed meanwhile. Throws Failure. */
	Dump dump(mox_capture_cmd command, const CaptureRequest &request = {});

	/** The rules: those that come in several messages are put together. Throws Failure. */
	Dump dump_rules(const CaptureRequest &request = {});

	/** Starts a trace: take is called for its records, here and in receive_events. Throws Failure. */
	void start_trace(const CaptureRequest &request, TakeEvent take);
	/**
	 * Waits for records of the trace, no longer than this. Returns whether the kernel dropped some because they were
	 * not read in time.
	 */
	bool receive_events(Milliseconds time);

private:
	CaptureClient(NetlinkSocket &socket, Milliseconds timeout, std::uint16_t family)
		: socket_(&socket), timeout_(timeout), family_(family)
	{
	}
	void send(mox_capture_cmd command, std::uint16_t flags, const CaptureRequest &request);
	Dump dump_once(mox_capture_cmd command, const CaptureRequest &request);
	bool take_event(const nlmsghdr *head);
	/** What to report when the module refused a request. */
	Failure refused(mox_capture_cmd command, const Acknowledgement &answer);
	/** The feature and the version of a module that does not have the request. Asks the module. */
	std::string what_it_lacks(mox_capture_cmd command);

	NetlinkSocket *socket_;
	Milliseconds timeout_;
	std::uint16_t family_;
	std::uint32_t sequence_ = 1; /**< the look-up's */
	TakeEvent take_;
};

} // namespace moxctl

#endif
