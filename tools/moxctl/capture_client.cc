/* SPDX-License-Identifier: GPL-2.0-only */
#include "capture_client.h"

#include "mox_version.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace moxctl {
namespace {

const CommandRow &row_of(mox_capture_cmd command)
{
	return capture_commands()[command - 1];
}

/** The feature that a module without the request lacks, as MOX_CAPTURE_FEATURE_TABLE names it; nothing if it has none. */
std::string_view feature_of(mox_capture_cmd command)
{
	switch (command) {
	case MOX_CAPTURE_CMD_LOCATIONS:
	case MOX_CAPTURE_CMD_SOCKETS:
		return "ledger";
	case MOX_CAPTURE_CMD_RULES:
		return "rules";
	case MOX_CAPTURE_CMD_RESTRICT:
		return "restrict";
	case MOX_CAPTURE_CMD_TRACE_START:
	case MOX_CAPTURE_CMD_TRACE_STOP:
		return "trace";
	default:
		return {};
	}
}

} // namespace

Failure CaptureClient::refused(mox_capture_cmd command, const Acknowledgement &answer)
{
	std::string text = "the module refused the request \"" + lower_name(row_of(command).name) +
			   "\": ";
	text += std::strerror(answer.error);
	if (!answer.text.empty())
		text += " (" + answer.text + ")";
	if (answer.error == EPERM || answer.error == EACCES)
		text += "; the capability CAP_NET_ADMIN is needed: run moxctl as root";
	else if (answer.error == EOPNOTSUPP)
		text += "; mox_ef_socket.ko is older than this moxctl" + what_it_lacks(command);
	else if (answer.error == EBUSY && command == MOX_CAPTURE_CMD_TRACE_START)
		text += "; at most " + std::to_string(MOX_CAPTURE_TRACES) +
			" traces run at the same time: end one of them";
	return Failure(text);
}

std::string CaptureClient::what_it_lacks(mox_capture_cmd command)
{
	std::string_view feature = feature_of(command);
	std::string text;
	if (!feature.empty())
		text += " and lacks the feature \"" + std::string(feature) + "\"";
	// The one request that every module of the family answers.
	if (command != MOX_CAPTURE_CMD_INFO) {
		try {
			Record info = ask(MOX_CAPTURE_CMD_INFO, {});
			text += "; its version is " +
				std::string(info.text(MOX_CAPTURE_INFO_MODULE_VERSION));
		} catch (const std::runtime_error &) {
			// The refusal that is being reported matters more.
		}
	}
	return text + ": load one of version " MOX_VERSION " or later (moxctl info lists features)";
}

std::optional<CaptureClient> CaptureClient::find(NetlinkSocket &socket, Milliseconds timeout)
{
	auto family = find_family(socket, MOX_CAPTURE_NAME, 1, timeout);
	if (!family)
		return std::nullopt;
	return CaptureClient(socket, timeout, *family);
}

CaptureClient CaptureClient::find_or_fail(NetlinkSocket &socket, Milliseconds timeout)
{
	auto found = find(socket, timeout);
	if (!found)
		throw Failure(
			"the kernel has no generic netlink family " MOX_CAPTURE_NAME
			": is mox_ef_socket.ko loaded (lsmod), is it as new as this moxctl, and is this the initial "
			"network namespace? From a container or namespace run: nsenter -t 1 -n moxctl ...; reports of an "
			"older module: moxctl show rules");
	return std::move(*found);
}

void CaptureClient::send(mox_capture_cmd command, std::uint16_t flags,
			 const CaptureRequest &request)
{
	++sequence_;
	socket_->send(make_message({ family_, flags, sequence_, socket_->port(),
				     static_cast<std::uint8_t>(command), MOX_CAPTURE_VERSION },
				   request.attributes()));
}

Record CaptureClient::ask(mox_capture_cmd command, const CaptureRequest &request)
{
	Record reply(row_of(command).reply);
	bool replied = reply.set() == Set::kNone;
	send(command, NLM_F_ACK, request);
	Acknowledgement result;
	bool answered = receive_until(*socket_, timeout_, [&](const nlmsghdr *head) {
		if (take_event(head))
			return false;
		if (head->nlmsg_type == family_ && head->nlmsg_seq == sequence_) {
			reply = decode_record(reply.set(), attributes_in(head));
			replied = true;
			return false;
		}
		auto answer = acknowledgement(head, sequence_);
		if (answer)
			result = *answer;
		return answer.has_value();
	});
	if (!answered)
		throw unanswered(timeout_);
	if (result.error != 0)
		throw refused(command, result);
	if (!replied)
		throw Failure("the module acknowledged the request \"" +
			      lower_name(row_of(command).name) + "\", but sent no answer");
	return reply;
}

Dump CaptureClient::dump_once(mox_capture_cmd command, const CaptureRequest &request)
{
	Dump dump;
	send(command, NLM_F_DUMP, request);
	Set set = row_of(command).reply;
	std::optional<Acknowledgement> result;
	while (!result) {
		// The time limit is for each datagram: a dump ends when the module has no more entries.
		bool arrived = receive_until(*socket_, timeout_, [&](const nlmsghdr *head) {
			if (head->nlmsg_seq != sequence_ || result)
				return false;
			if (head->nlmsg_flags & NLM_F_DUMP_INTR)
				dump.interrupted = true;
			if (head->nlmsg_type == family_)
				dump.entries.push_back(decode_record(set, attributes_in(head)));
			else
				result = acknowledgement(head, sequence_);
			return true;
		});
		if (!arrived)
			throw unanswered(timeout_);
		if (dump.entries.size() > kMostEntries)
			throw Failure("the module's answer has more than " +
				      std::to_string(kMostEntries) +
				      " entries; moxctl stops there");
	}
	if (result->error != 0)
		throw refused(command, *result);
	return dump;
}

Dump CaptureClient::dump(mox_capture_cmd command, const CaptureRequest &request)
{
	Dump dump;
	for (unsigned attempt = 0; attempt < kDumpAttempts; ++attempt) {
		dump = dump_once(command, request);
		if (!dump.interrupted)
			break;
	}
	return dump;
}

Dump CaptureClient::dump_rules(const CaptureRequest &request)
{
	Dump parts = dump(MOX_CAPTURE_CMD_RULES, request);
	Dump rules;
	rules.interrupted = parts.interrupted;
	bool more = false;
	for (Record &part : parts.entries) {
		bool continues = more && rules.entries.back().number(MOX_CAPTURE_RULE_COOKIE) ==
						 part.number(MOX_CAPTURE_RULE_COOKIE);
		// The rest of a rule that changed or left between two messages is missing.
		rules.interrupted = rules.interrupted || (more && !continues);
		more = part.has(MOX_CAPTURE_RULE_MORE);
		if (continues)
			rules.entries.back().append_nests(std::move(part));
		else
			rules.entries.push_back(std::move(part));
	}
	rules.interrupted = rules.interrupted || more;
	return rules;
}

bool CaptureClient::take_event(const nlmsghdr *head)
{
	if (!take_ || head->nlmsg_type != family_ || command_of(head) != MOX_CAPTURE_CMD_TRACE)
		return false;
	take_(decode_record(Set::kTrace, attributes_in(head)));
	return true;
}

void CaptureClient::start_trace(const CaptureRequest &request, TakeEvent take)
{
	take_ = std::move(take);
	ask(MOX_CAPTURE_CMD_TRACE_START, request);
}

bool CaptureClient::receive_events(Milliseconds time)
try {
	auto datagram = socket_->receive(time);
	for_each_message(datagram, [this](const nlmsghdr *head) { return take_event(head); });
	return false;
} catch (const Overrun &) {
	return true;
}

} // namespace moxctl
