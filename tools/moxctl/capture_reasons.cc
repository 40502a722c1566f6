/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_reasons.h"

#include <algorithm>
#include <optional>

namespace moxctl {
namespace {

#define AT(name) Set::kLocation, MOX_CAPTURE_LOCATION_##name
#define OF(name) Set::kCounters, MOX_CAPTURE_COUNTERS_##name
#define NO_COUNTER Set::kNone, 0
#define VERDICT(name) MOX_CAPTURE_VERDICT_##name

constexpr std::uint32_t kNoVerdict = 0;

constexpr ReasonRow kReasons[] = {
	{ AT(UNWANTED), VERDICT(UNWANTED), false,
	  "compare the frame with `moxctl show rules`: all types of a rule have to match; the frame may pass another "
	  "location, or be taken at an earlier one" },
	{ AT(CLONE_FAILED), VERDICT(CLONE_FAILED), true,
	  "free buffers of the platform; capture fewer frames by copy" },
	{ AT(COPIES_REFUSED), VERDICT(COPY_REFUSED), true,
	  "give the copy thread more CPU time; narrow the copy rules; raise `net.core.netdev_max_backlog` (up to 2048 "
	  "counts)" },
	{ AT(TAKES_REFUSED), VERDICT(TAKE_REFUSED), true,
	  "give the copy thread more CPU time; narrow the fetch and trap rules; raise `net.core.netdev_max_backlog` (up "
	  "to 2048 counts)" },
	{ AT(RNFP_DROPS), VERDICT(RNFP_DROP), true,
	  "change the configuration of the platform's drop service: it limits the frames that a fetch or trap rule takes" },
	{ AT(RNFP_WLAN_DROPS), VERDICT(RNFP_WLAN_DROP), true,
	  "change the configuration of the platform's drop service of the WLAN" },
	{ AT(UNKEPT), kNoVerdict, true,
	  "look at the drops of the sockets at the location: each frame is counted there, too" },
	{ AT(UNMATCHED), VERDICT(UNMATCHED), true,
	  "none: a rule was changed or a socket closed between hook and delivery" },
	{ AT(FREED), kNoVerdict, true, "none: the frames were on the queue when it was cleared" },
	{ OF(FILTER_DROPS), VERDICT(FILTERED), true,
	  "change the socket filter: it drops what it accepts" },
	{ OF(RCVBUF_FULL_DROPS), VERDICT(BUFFER_FULL), true,
	  "raise `SO_RCVBUF`, or let the program read faster" },
	{ OF(TRIM_FAIL_DROPS), VERDICT(TRIM_FAILED), true,
	  "free memory; let the filter return 0 or the whole length" },
	{ OF(MEMORY_DROPS), VERDICT(NO_MEMORY), true, "free memory" },
	{ OF(FREED_UNREAD), kNoVerdict, true,
	  "let the program read its socket to the end before it closes it" },
	{ OF(PASSED_ON), kNoVerdict, false,
	  "give the rule a first type of a lower number than that of the other socket's copy rule: see `Which treatment "
	  "decides` in sockets.md" },
	{ OF(SENDMSG_ILL_FAILS), VERDICT(REFUSED), true,
	  "correct the program's address and control record; start it outside `/data/var/run/vsd/<number>`" },
	{ OF(MACFUNC_ILL_FAILS), VERDICT(REFUSED), true,
	  "give a destination MAC address of 6 bytes; load the component that provides the device's own address" },
	{ OF(DSTINTF_ILL_FAILS), VERDICT(REFUSED), true,
	  "give the platform's index of an interface that exists" },
	{ OF(SRCINTF_ILL_FAILS), VERDICT(REFUSED), true,
	  "correct the source interface in the control record" },
	{ OF(INTF_LINKDOWN_FAILS), VERDICT(REFUSED), true, "bring the link of the interface up" },
	{ OF(ALLOC_EFBUFF_FAILS), VERDICT(REFUSED), true,
	  "free buffers of the platform; send shorter frames" },
	{ OF(PKT_COPY_FAILS), VERDICT(REFUSED), true,
	  "correct the program: it passes a bad address" },
	{ OF(EF_SEND_FAILS), VERDICT(REFUSED), true,
	  "look at the platform's counters of the interface: it dropped the frame" },
	{ NO_COUNTER, VERDICT(CLONED), false, "none: a record of the delivery follows" },
	{ NO_COUNTER, VERDICT(TAKEN), false, "none: a record of the delivery follows" },
	{ NO_COUNTER, VERDICT(PUT), false,
	  "none: the frame arrived; if the program does not see it, it does not read this socket" },
	{ NO_COUNTER, VERDICT(ACCEPTED), false,
	  "none: the frame left the socket; look at the platform's counters, and at sockets that fetch or trap at local" },
};

#define LOCATION(name) MOX_CAPTURE_LOCATION_##name
#define COUNTER(name) MOX_CAPTURE_COUNTERS_##name

constexpr std::uint16_t kSeen[] = { LOCATION(UNWANTED), LOCATION(WANTED) };
constexpr std::uint16_t kWanted[] = { LOCATION(CLONED),         LOCATION(TAKEN),
				      LOCATION(CLONE_FAILED),   LOCATION(COPIES_REFUSED),
				      LOCATION(TAKES_REFUSED),  LOCATION(RNFP_DROPS),
				      LOCATION(RNFP_WLAN_DROPS) };
constexpr std::uint16_t kDelivered[] = { LOCATION(KEPT), LOCATION(UNKEPT), LOCATION(UNMATCHED),
					 LOCATION(FREED), LOCATION(QUEUED) };
constexpr std::uint16_t kMatched[] = { COUNTER(RECV_PACKETS), kReceiveDrops[0], kReceiveDrops[1],
				       kReceiveDrops[2], kReceiveDrops[3] };
constexpr std::uint16_t kReceived[] = { COUNTER(READ), COUNTER(FREED_UNREAD) };
constexpr std::uint16_t kSends[] = { COUNTER(SEND_PACKETS),       COUNTER(SENDMSG_ILL_FAILS),
				     COUNTER(MACFUNC_ILL_FAILS),  COUNTER(DSTINTF_ILL_FAILS),
				     COUNTER(SRCINTF_ILL_FAILS),  COUNTER(INTF_LINKDOWN_FAILS),
				     COUNTER(ALLOC_EFBUFF_FAILS), COUNTER(PKT_COPY_FAILS),
				     COUNTER(EF_SEND_FAILS) };

constexpr std::uint16_t kSeenSum[] = { LOCATION(SEEN) }, kWantedSum[] = { LOCATION(WANTED) },
			kQueuedSum[] = { LOCATION(CLONED), LOCATION(TAKEN) },
			kMatchedSum[] = { COUNTER(MATCHED) },
			kReceivedSum[] = { COUNTER(RECV_PACKETS) },
			kSendsSum[] = { COUNTER(SENDS) };

/** A sum and its parts, which are equal while no frame is on its way. */
struct Balance {
	Set set;
	std::string_view name;
	std::span<const std::uint16_t> sum, parts;
	bool with_queue; /**< frames on the socket's receive queue are one more part */
};

constexpr Balance kBalances[] = {
	{ Set::kLocation, "seen", kSeenSum, kSeen, false },
	{ Set::kLocation, "wanted", kWantedSum, kWanted, false },
	{ Set::kLocation, "cloned + taken", kQueuedSum, kDelivered, false },
	{ Set::kCounters, "matched", kMatchedSum, kMatched, false },
	{ Set::kCounters, "recv_packets", kReceivedSum, kReceived, true },
	{ Set::kCounters, "sends", kSendsSum, kSends, false },
};

/**
 * What the sum has beyond its parts, of which waiting is one; nothing when counters are absent. Counters begin again
 * at 0 behind their last number, and so does the sum of two: differences of unsigned numbers are right all the same.
 */
std::optional<std::int64_t> difference(const Record &ledger, const Balance &balance,
				       std::uint64_t waiting)
{
	std::uint64_t frames = 0;
	for (std::uint16_t each : balance.sum) {
		if (!ledger.has(each))
			return std::nullopt;
		frames += ledger.number(each);
	}
	for (std::uint16_t each : balance.parts) {
		if (!ledger.has(each))
			return std::nullopt;
		frames -= ledger.number(each);
	}
	return static_cast<std::int64_t>(frames - waiting);
}

} // namespace

std::string ReasonRow::counter() const
{
	return attribute == 0 ? std::string() : lower_name(attributes_of(set)[attribute - 1].name);
}

std::string_view ReasonRow::meaning() const
{
	if (attribute == 0)
		return capture_verdicts()[verdict - 1].meaning;
	// The header's rows refer to the one before them.
	constexpr std::string_view kPart = "Of these: ";
	std::string_view text = attributes_of(set)[attribute - 1].meaning;
	return text.starts_with(kPart) ? text.substr(kPart.size()) : text;
}

std::span<const ReasonRow> capture_reasons()
{
	return kReasons;
}

const ReasonRow *reason_of_verdict(std::uint32_t verdict)
{
	auto row = std::find_if(std::begin(kReasons), std::end(kReasons),
				[&](const ReasonRow &each) { return each.verdict == verdict; });
	return verdict == 0 || row == std::end(kReasons) ? nullptr : row;
}

std::vector<InFlight> in_flight(const Record &record)
{
	std::vector<InFlight> found;
	bool of_socket = record.set() == Set::kSocket;
	const Record *ledger = of_socket ? record.nest(MOX_CAPTURE_SOCKET_COUNTERS) : &record;
	if (!ledger)
		return found;
	for (const Balance &balance : kBalances) {
		if (balance.set != ledger->set())
			continue;
		std::uint64_t waiting = balance.with_queue ? record.number(MOX_CAPTURE_SOCKET_QUEUE)
							   : 0;
		std::optional<std::int64_t> frames = difference(*ledger, balance, waiting);
		if (frames.value_or(0) != 0)
			found.push_back({ balance.name, *frames });
	}
	return found;
}

} // namespace moxctl
