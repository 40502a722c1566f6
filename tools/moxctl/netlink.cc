/* SPDX-License-Identifier: GPL-2.0 */
#include "netlink.h"

#include "mox_packet.h"
#include "status.h"

#include <linux/genetlink.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace moxctl {
namespace {

struct FreeMessage {
	void operator()(nl_msg *message) const { nlmsg_free(message); }
};

Failure no_family()
{
	return Failure(
		"the kernel has no generic netlink family " MOX_PACKET_GENL_NAME
		": is mox_ef_socket.ko loaded (lsmod), and is this the initial network namespace? The family exists "
		"in no other one; from a container or namespace run: nsenter -t 1 -n moxctl ...");
}

Failure refused(int error)
{
	std::string text = std::string("the module refused the request: ") + std::strerror(error);
	if (error == EOPNOTSUPP)
		text += "; is this moxctl's own mox_ef_socket.ko?";
	return Failure(text);
}

Failure silent(std::chrono::milliseconds timeout)
{
	return Failure("the kernel did not acknowledge the request within " +
			       std::to_string(timeout.count()) +
			       " ms; another request may be in progress: try again",
		       status_timeout);
}

/** The errno value (0: done) of an acknowledgement of a request; nothing when the message is not one. */
std::optional<int> acknowledgement(const nlmsghdr *message, std::uint32_t sequence)
{
	if (message->nlmsg_type != NLMSG_ERROR || message->nlmsg_seq != sequence ||
	    nlmsg_datalen(message) < static_cast<int>(sizeof(nlmsgerr)))
		return std::nullopt;
	return -static_cast<const nlmsgerr *>(nlmsg_data(message))->error;
}

/** The attributes of a generic netlink message whose length is known to hold its header; or null. */
const nlattr *attribute(const nlmsghdr *message, int type)
{
	int length = nlmsg_datalen(message) - GENL_HDRLEN;
	if (length < 0)
		return nullptr;
	auto first = reinterpret_cast<const nlattr *>(
		static_cast<const char *>(nlmsg_data(message)) + GENL_HDRLEN);
	return nla_find(first, length, type);
}

} // namespace

std::vector<std::uint8_t> Channel::message(std::uint16_t type, std::uint16_t flags,
					   std::uint8_t command, std::uint8_t version,
					   std::uint16_t attribute,
					   std::span<const std::uint8_t> payload)
{
	std::unique_ptr<nl_msg, FreeMessage> made(nlmsg_alloc());
	if (!made ||
	    !genlmsg_put(made.get(), socket_.port(), ++sequence_, type, 0, NLM_F_REQUEST | flags,
			 command, version) ||
	    nla_put(made.get(), attribute, static_cast<int>(payload.size()), payload.data()) < 0)
		throw Failure("no memory for a netlink message");
	const nlmsghdr *head = nlmsg_hdr(made.get());
	auto bytes = reinterpret_cast<const std::uint8_t *>(head);
	return { bytes, bytes + head->nlmsg_len };
}

/** Passes every message to take until that returns true; false when the time is over first. */
template <typename Take> bool Channel::receive_until(Take take)
{
	auto end = std::chrono::steady_clock::now() + timeout_;
	for (;;) {
		auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
			end - std::chrono::steady_clock::now());
		auto datagram = socket_.receive(std::max(left, std::chrono::milliseconds(0)));
		if (datagram.empty()) {
			if (left.count() <= 0)
				return false;
			continue;
		}
		bool taken = false;
		int length = static_cast<int>(datagram.size());
		for (auto head = reinterpret_cast<nlmsghdr *>(datagram.data());
		     nlmsg_ok(head, length); head = nlmsg_next(head, &length)) {
			// The module's answer has sequence number 0, and arrives before the acknowledgement.
			if (family_ != 0 && head->nlmsg_type == family_ && head->nlmsg_seq == 0)
				++answers_;
			taken = take(head) || taken;
		}
		if (taken)
			return true;
	}
}

Channel::Channel(NetlinkSocket &socket, std::chrono::milliseconds timeout)
	: socket_(socket), timeout_(timeout)
{
	constexpr char name[] = MOX_PACKET_GENL_NAME;
	socket_.send(message(GENL_ID_CTRL, 0, CTRL_CMD_GETFAMILY, 1, CTRL_ATTR_FAMILY_NAME,
			     { reinterpret_cast<const std::uint8_t *>(name), sizeof(name) }));
	std::uint16_t found = 0;
	bool answered = receive_until([&](const nlmsghdr *head) {
		if (auto error = acknowledgement(head, sequence_)) {
			if (*error == ENOENT)
				throw no_family();
			if (*error != 0)
				throw Failure(
					std::string(
						"cannot look up the family " MOX_PACKET_GENL_NAME
						": ") +
					std::strerror(*error));
			return false;
		}
		if (head->nlmsg_type != GENL_ID_CTRL || head->nlmsg_seq != sequence_)
			return false;
		const nlattr *id = attribute(head, CTRL_ATTR_FAMILY_ID);
		if (!id || nla_len(id) < static_cast<int>(sizeof(found)))
			throw Failure("the kernel's answer about the family " MOX_PACKET_GENL_NAME
				      " has no id");
		found = nla_get_u16(id);
		return true;
	});
	if (!answered)
		throw silent(timeout_);
	family_ = found;
}

void Channel::request(const Request &request)
{
	socket_.send(message(family_, NLM_F_ACK, MOX_PACKET_GENL_CMD, MOX_PACKET_GENL_VERSION,
			     MOX_PACKET_GENL_ATTR, request));
	int result = 0;
	bool answered = receive_until([&](const nlmsghdr *head) {
		auto error = acknowledgement(head, sequence_);
		if (error)
			result = *error;
		return error.has_value();
	});
	if (!answered)
		throw silent(timeout_);
	if (result == ENOENT)
		throw no_family(); // unloaded since it was found
	if (result != 0)
		throw refused(result);
}

bool Channel::wait_for_answer()
{
	return answers_ > 0 || receive_until([&](const nlmsghdr *) { return answers_ > 0; });
}

} // namespace moxctl
