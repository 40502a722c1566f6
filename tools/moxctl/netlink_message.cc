/* SPDX-License-Identifier: GPL-2.0-only */
#include "netlink_message.h"

#include <linux/genetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace moxctl {
namespace {

/** The message at the end of an acknowledgement: an attribute after the part of fixed length. */
std::string extended_text(const nlmsghdr *message, std::size_t fixed)
{
	int left = nlmsg_datalen(message) - static_cast<int>(fixed);
	if (!(message->nlmsg_flags & NLM_F_ACK_TLVS) || left <= 0)
		return {};
	auto first = reinterpret_cast<const nlattr *>(
		static_cast<const char *>(nlmsg_data(message)) + fixed);
	const nlattr *text = nla_find(first, left, NLMSGERR_ATTR_MSG);
	if (!text)
		return {};
	auto characters = static_cast<const char *>(nla_data(text));
	return std::string(characters,
			   strnlen(characters, static_cast<std::size_t>(nla_len(text))));
}

} // namespace

void append_attribute(std::vector<std::uint8_t> &to, std::uint16_t type,
		      std::span<const std::uint8_t> payload)
{
	if (payload.size() > 0xffff - NLA_HDRLEN)
		throw Failure("an attribute of " + std::to_string(payload.size()) +
			      " bytes does not fit into a netlink message");
	const std::uint16_t head[] = { static_cast<std::uint16_t>(NLA_HDRLEN + payload.size()),
				       type };
	auto bytes = reinterpret_cast<const std::uint8_t *>(head);
	to.insert(to.end(), bytes, bytes + sizeof(head));
	to.insert(to.end(), payload.begin(), payload.end());
	to.resize(NLA_ALIGN(to.size()));
}

std::vector<std::uint8_t> make_message(const MessageHead &head,
				       std::span<const std::uint8_t> attributes)
{
	const nlmsghdr netlink = {
		.nlmsg_len = static_cast<std::uint32_t>(NLMSG_HDRLEN + GENL_HDRLEN +
							attributes.size()),
		.nlmsg_type = head.type,
		.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | head.flags),
		.nlmsg_seq = head.sequence,
		.nlmsg_pid = head.port,
	};
	const genlmsghdr generic = { .cmd = head.command, .version = head.version, .reserved = 0 };
	std::vector<std::uint8_t> bytes(NLMSG_HDRLEN + GENL_HDRLEN);
	std::memcpy(bytes.data(), &netlink, sizeof(netlink));
	std::memcpy(bytes.data() + NLMSG_HDRLEN, &generic, sizeof(generic));
	bytes.insert(bytes.end(), attributes.begin(), attributes.end());
	return bytes;
}

std::span<const std::uint8_t> attributes_in(const nlmsghdr *message)
{
	int length = nlmsg_datalen(message) - static_cast<int>(GENL_HDRLEN);
	if (length <= 0)
		return {};
	return { static_cast<const std::uint8_t *>(nlmsg_data(message)) + GENL_HDRLEN,
		 static_cast<std::size_t>(length) };
}

std::optional<std::uint8_t> command_of(const nlmsghdr *message)
{
	if (nlmsg_datalen(message) < static_cast<int>(GENL_HDRLEN))
		return std::nullopt;
	return static_cast<const genlmsghdr *>(nlmsg_data(message))->cmd;
}

namespace {

/** An errno as messages have it, negative; the least number has no positive one and stays. */
int negated(std::int32_t error)
{
	return static_cast<int>(0u - static_cast<std::uint32_t>(error));
}

} // namespace

std::optional<Acknowledgement> acknowledgement(const nlmsghdr *message, std::uint32_t sequence)
{
	if (message->nlmsg_seq != sequence)
		return std::nullopt;
	if (message->nlmsg_type == NLMSG_DONE) {
		std::int32_t error = 0;
		if (nlmsg_datalen(message) < static_cast<int>(sizeof(error)))
			return Acknowledgement{};
		std::memcpy(&error, nlmsg_data(message), sizeof(error));
		return Acknowledgement{ error < 0 ? negated(error) : 0,
					extended_text(message, sizeof(error)) };
	}
	if (message->nlmsg_type != NLMSG_ERROR ||
	    nlmsg_datalen(message) < static_cast<int>(sizeof(nlmsgerr)))
		return std::nullopt;
	auto answer = static_cast<const nlmsgerr *>(nlmsg_data(message));
	// The request follows its head, unless the kernel left it out.
	std::size_t fixed = sizeof(nlmsgerr);
	if (!(message->nlmsg_flags & NLM_F_CAPPED) && answer->msg.nlmsg_len > NLMSG_HDRLEN)
		fixed += std::min<std::size_t>(NLMSG_ALIGN(answer->msg.nlmsg_len) - NLMSG_HDRLEN,
					       static_cast<std::size_t>(nlmsg_datalen(message)));
	return Acknowledgement{ negated(answer->error), extended_text(message, fixed) };
}

std::optional<std::uint16_t> find_family(NetlinkSocket &socket, const std::string &name,
					 std::uint32_t sequence, Milliseconds timeout)
{
	std::vector<std::uint8_t> attributes;
	append_attribute(attributes, CTRL_ATTR_FAMILY_NAME,
			 { reinterpret_cast<const std::uint8_t *>(name.c_str()), name.size() + 1 });
	socket.send(make_message(
		{ GENL_ID_CTRL, 0, sequence, socket.port(), CTRL_CMD_GETFAMILY, 1 }, attributes));
	std::optional<std::uint16_t> found;
	bool absent = false;
	bool answered = receive_until(socket, timeout, [&](const nlmsghdr *head) {
		if (auto answer = acknowledgement(head, sequence)) {
			if (answer->error != 0 && answer->error != ENOENT)
				throw Failure("cannot look up the family " + name + ": " +
					      std::strerror(answer->error));
			absent = answer->error == ENOENT;
			return absent;
		}
		if (head->nlmsg_type != GENL_ID_CTRL || head->nlmsg_seq != sequence)
			return false;
		auto bytes = attributes_in(head);
		const nlattr *id = nla_find(reinterpret_cast<const nlattr *>(bytes.data()),
					    static_cast<int>(bytes.size()), CTRL_ATTR_FAMILY_ID);
		if (!id || nla_len(id) < static_cast<int>(sizeof(std::uint16_t)))
			throw Failure("the kernel's answer about the family " + name +
				      " has no id");
		found = nla_get_u16(id);
		return true;
	});
	if (!answered)
		throw unanswered(timeout);
	return found;
}

Failure unanswered(Milliseconds timeout)
{
	return Failure("the kernel did not acknowledge the request within " +
			       std::to_string(timeout.count()) +
			       " ms; another request may be in progress: try again",
		       status_timeout);
}

} // namespace moxctl
