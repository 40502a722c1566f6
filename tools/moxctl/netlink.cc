/* SPDX-License-Identifier: GPL-2.0-only */
#include "netlink.h"

#include "mox_packet.h"
#include "netlink_message.h"

#include <cerrno>
#include <cstring>

namespace moxctl {
namespace {

Failure no_family()
{
	return Failure(
		"the kernel has no generic netlink family " MOX_PACKET_GENL_NAME
		": is mox_ef_socket.ko loaded (lsmod), and is this the initial network namespace? The family exists "
		"in no other one; from a container or namespace run: nsenter -t 1 -n moxctl ...");
}

Failure refused(const Acknowledgement &answer)
{
	std::string text = std::string("the module refused the request: ") +
			   std::strerror(answer.error);
	if (!answer.text.empty())
		text += " (" + answer.text + ")";
	if (answer.error == EOPNOTSUPP)
		text += "; is this moxctl's own mox_ef_socket.ko?";
	return Failure(text);
}

} // namespace

/** Passes every message to take until that returns true, and counts the module's answers. */
template <typename Take> bool Channel::receive_messages(Take take)
{
	return receive_until(socket_, timeout_, [&](const nlmsghdr *head) {
		// The module's answer has sequence number 0, and arrives before the acknowledgement.
		if (head->nlmsg_type == family_ && head->nlmsg_seq == 0)
			++answers_;
		return take(head);
	});
}

Channel::Channel(NetlinkSocket &socket, std::chrono::milliseconds timeout)
	: socket_(socket), timeout_(timeout)
{
	auto family = find_family(socket_, MOX_PACKET_GENL_NAME, ++sequence_, timeout_);
	if (!family)
		throw no_family();
	family_ = *family;
}

void Channel::request(const Request &request)
{
	std::vector<std::uint8_t> attributes;
	append_attribute(attributes, MOX_PACKET_GENL_ATTR, request);
	++sequence_;
	socket_.send(make_message({ family_, NLM_F_ACK, sequence_, socket_.port(),
				    MOX_PACKET_GENL_CMD, MOX_PACKET_GENL_VERSION },
				  attributes));
	Acknowledgement result;
	bool answered = receive_messages([&](const nlmsghdr *head) {
		auto answer = acknowledgement(head, sequence_);
		if (answer)
			result = *answer;
		return answer.has_value();
	});
	if (!answered)
		throw unanswered(timeout_);
	if (result.error == ENOENT)
		throw no_family(); // unloaded since it was found
	if (result.error != 0)
		throw refused(result);
}

bool Channel::wait_for_answer()
{
	return answers_ > 0 || receive_messages([&](const nlmsghdr *) { return answers_ > 0; });
}

} // namespace moxctl
