/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * A kernel made of vectors: it records every call, answers as the test sets it, and returns queued frames. Its
 * descriptor is an event counter that is readable while frames are queued, so that waiting works for real.
 */
#ifndef FAKE_CALLS_H
#define FAKE_CALLS_H

#include "mox/capture_socket.h"

#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct OptionCall {
	int level;
	int option;
	std::vector<std::uint8_t> value;

	std::uint32_t u32() const
	{
		std::uint32_t number = 0;
		EXPECT_EQ(value.size(), sizeof(number));
		std::memcpy(&number, value.data(), std::min(value.size(), sizeof(number)));
		return number;
	}
};

struct QueuedFrame {
	std::vector<std::uint8_t> bytes;
	mox_packet_ctrl_info control{};
	timespec stamp{};    // reported with SO_TIMESTAMPNS only
	bool coarse = false; // reported with SO_TIMESTAMP, too, in microseconds
};

/** What a sendmsg call handed over. */
struct SentMessage {
	std::vector<std::uint8_t> bytes, name, control;
	bool has_name = false, has_control = false;
	int flags = 0;
};

class FakeCalls : public mox::SocketCalls {
public:
	~FakeCalls() override { EXPECT_EQ(open_, 0) << "a socket was left open, or closed twice"; }

	// What to answer: an errno instead of success, by option number (setsockopt) or call.
	int socket_error = 0, bind_error = 0, receive_error = 0, statistics_error = 0;
	bool linux_packet_sockets = false;
	bool wide_stamps =
		false; // the form of time stamps that 32-bit programs with a 64-bit time_t ask for
	std::map<int, int> option_errors;
	int name_error = 0, domain_error = 0; // of getsockname, of getsockopt(SOL_SOCKET)
	std::vector<std::uint8_t> name;       // answer of getsockname
	std::deque<int> send_errors; // of the coming sends, 0: success; success when used up
	mox_packet_stats statistics{};
	std::function<void(const OptionCall &)> on_option;
	std::function<void()> on_receive; // called after a frame was handed out

	// What happened.
	int family = -1, type = -1, protocol = -1;
	std::vector<std::uint8_t> bound_to;
	std::vector<OptionCall> options;
	std::vector<int> receive_flags, many_flags; // of recvmsg, of recvmmsg
	std::vector<SentMessage> sent;              // the refused ones, too
	std::function<void()> on_send;
	int statistics_reads = 0;
	bool is_open() const { return open_ == 1; }
	int descriptor() const { return fd_; }
	/** A caller that releases a descriptor closes it itself. */
	void closed_elsewhere() { --open_; }

	void queue(QueuedFrame frame)
	{
		frames_.push_back(std::move(frame));
		std::uint64_t one = 1;
		ASSERT_EQ(write(fd_, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
	}
	std::size_t queued() const { return frames_.size(); }

	std::vector<int> option_order() const
	{
		std::vector<int> order;
		for (const OptionCall &each : options)
			order.push_back(each.option);
		return order;
	}

	int socket(int a_family, int a_type, int a_protocol) override
	{
		family = a_family;
		type = a_type;
		protocol = a_protocol;
		if (socket_error)
			return fail(socket_error);
		++open_;
		return fd_ = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK);
	}
	int bind(int, const sockaddr *address, socklen_t length) override
	{
		auto bytes = reinterpret_cast<const std::uint8_t *>(address);
		bound_to.assign(bytes, bytes + length);
		return bind_error ? fail(bind_error) : 0;
	}
	int getsockname(int, sockaddr *address, socklen_t *length) override
	{
		if (name_error)
			return fail(name_error);
		EXPECT_GE(*length, name.size());
		if (!name.empty())
			std::memcpy(address, name.data(), name.size());
		*length = static_cast<socklen_t>(name.size());
		return 0;
	}
	ssize_t sendmsg(int, const msghdr *message, int flags) override
	{
		SentMessage one;
		one.flags = flags;
		for (std::size_t i = 0; i < message->msg_iovlen; ++i)
			append(one.bytes, message->msg_iov[i].iov_base,
			       message->msg_iov[i].iov_len);
		one.has_name = message->msg_name != nullptr;
		one.has_control = message->msg_control != nullptr;
		append(one.name, message->msg_name, message->msg_namelen);
		append(one.control, message->msg_control, message->msg_controllen);
		sent.push_back(one);
		if (on_send)
			on_send();
		int error = 0;
		if (!send_errors.empty()) {
			error = send_errors.front();
			send_errors.pop_front();
		}
		return error ? fail(error) : static_cast<ssize_t>(one.bytes.size());
	}
	int setsockopt(int, int level, int option, const void *value, socklen_t length) override
	{
		auto bytes = static_cast<const std::uint8_t *>(value);
		options.push_back(
			{ level, option, std::vector<std::uint8_t>(bytes, bytes + length) });
		if (on_option)
			on_option(options.back());
		auto error = option_errors.find(option);
		return error != option_errors.end() ? fail(error->second) : 0;
	}
	int getsockopt(int, int level, int option, void *value, socklen_t *length) override
	{
		if (level == SOL_SOCKET)
			return get_own_option(option, value, length);
		EXPECT_EQ(level, 263);
		if (option == 10 && linux_packet_sockets)
			return 0;
		if (option != 6)
			return fail(ENOPROTOOPT);
		if (statistics_error)
			return fail(statistics_error);
		++statistics_reads;
		EXPECT_EQ(*length, sizeof(statistics));
		std::memcpy(value, &statistics, sizeof(statistics));
		statistics = {};
		return 0;
	}
	ssize_t recvmsg(int, msghdr *message, int flags) override
	{
		receive_flags.push_back(flags);
		if (receive_error)
			return fail(receive_error);
		if (frames_.empty())
			return fail(EAGAIN);
		std::uint64_t taken;
		EXPECT_EQ(read(fd_, &taken, sizeof(taken)), static_cast<ssize_t>(sizeof(taken)));
		QueuedFrame frame = std::move(frames_.front());
		frames_.pop_front();

		// As the module does: a 26-byte name whose tail belongs to no field, and the record laid down raw.
		std::uint8_t name[26] = { 17, 0, 0x08, 0x06 };
		std::memcpy(name + 4, &frame.control.pkt_ifx, 4);
		EXPECT_GE(message->msg_namelen, sizeof(name));
		std::memcpy(message->msg_name, name, sizeof(name));
		message->msg_namelen = sizeof(name);
		// The kernel's own messages first; the record follows them, whatever room is left, and is not counted.
		auto at = static_cast<std::uint8_t *>(message->msg_control);
		std::size_t used = 0;
		for (const KernelMessage &each : kernel_messages(frame))
			used += put_message(at + used, message->msg_controllen - used, each);
		if (control_info())
			std::memcpy(at + used, &frame.control, sizeof(frame.control));
		message->msg_controllen = used;

		std::size_t copied = std::min(frame.bytes.size(), message->msg_iov[0].iov_len);
		std::memcpy(message->msg_iov[0].iov_base, frame.bytes.data(), copied);
		if (copied < frame.bytes.size())
			message->msg_flags |= MSG_TRUNC;
		if (on_receive)
			on_receive();
		return static_cast<ssize_t>(flags & MSG_TRUNC ? frame.bytes.size() : copied);
	}
	/** As the kernel does: one recvmsg after the other, and of the last one's error nothing once there is a frame. */
	int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags) override
	{
		many_flags.push_back(flags);
		unsigned taken = 0;
		flags &= ~MSG_WAITFORONE;
		for (; taken < count; ++taken) {
			ssize_t length = recvmsg(fd, &messages[taken].msg_hdr,
						 flags | MSG_DONTWAIT);
			if (length < 0)
				break;
			messages[taken].msg_len = static_cast<unsigned>(length);
		}
		return taken == 0 ? -1 : static_cast<int>(taken);
	}
	int close(int fd) override
	{
		EXPECT_EQ(fd, fd_);
		--open_;
		return ::close(fd);
	}

private:
	int get_own_option(int option, void *value, socklen_t *length) const
	{
		int number = option == SO_DOMAIN ? family : option == SO_TYPE ? type & 0xf : -1;
		if (domain_error)
			return fail(domain_error);
		if (number < 0)
			return fail(ENOPROTOOPT);
		EXPECT_EQ(*length, sizeof(number));
		std::memcpy(value, &number, sizeof(number));
		return 0;
	}
	/** The value that a 4-byte option was last set to. */
	std::uint32_t last_set(int level, int option) const
	{
		std::uint32_t value = 0;
		for (const OptionCall &each : options)
			if (each.level == level && each.option == option)
				value = each.u32();
		return value;
	}
	bool control_info() const { return last_set(263, 16) != 0; }

	struct KernelMessage {
		int type;
		std::vector<std::uint8_t> data;
	};

	/** The control messages that the kernel adds for the options that are on. */
	std::vector<KernelMessage> kernel_messages(const QueuedFrame &frame) const
	{
		constexpr struct {
			int option;
			std::size_t data;
		} table[] = { { SO_TIMESTAMP, sizeof(timeval) },
			      { SO_TIMESTAMPNS, sizeof(timespec) },
			      { SO_TIMESTAMPING, 3 * sizeof(timespec) },
			      { SO_WIFI_STATUS, sizeof(int) },
			      { SO_RXQ_OVFL, sizeof(std::uint32_t) } };
		std::vector<KernelMessage> messages;
		for (const auto &each : table) {
			if (last_set(SOL_SOCKET, each.option) == 0)
				continue;
			if (each.option == SO_TIMESTAMP && frame.coarse)
				messages.push_back(stamp_message<long>(
					SO_TIMESTAMP_OLD,
					{ frame.stamp.tv_sec, frame.stamp.tv_nsec / 1000 }));
			else if (each.option == SO_TIMESTAMPNS)
				messages.push_back(
					wide_stamps ? stamp_message<std::int64_t>(
							      SO_TIMESTAMPNS_NEW, frame.stamp)
						    : stamp_message<long>(SO_TIMESTAMPNS_OLD,
									  frame.stamp));
			else
				messages.push_back({ each.option,
						     std::vector<std::uint8_t>(each.data, 0xcc) });
		}
		return messages;
	}

	template <typename Part> static KernelMessage stamp_message(int type, const timespec &stamp)
	{
		Part parts[2] = { static_cast<Part>(stamp.tv_sec),
				  static_cast<Part>(stamp.tv_nsec) };
		KernelMessage message{ type, {} };
		append(message.data, parts, sizeof(parts));
		return message;
	}

	/** Stores one message as far as there is room; how much of it that took. */
	static std::size_t put_message(std::uint8_t *at, std::size_t room,
				       const KernelMessage &message)
	{
		if (room < sizeof(cmsghdr))
			return 0;
		std::size_t length = std::min(room, CMSG_LEN(message.data.size()));
		cmsghdr head{};
		head.cmsg_len = length;
		head.cmsg_level = SOL_SOCKET;
		head.cmsg_type = message.type;
		std::memcpy(at, &head, sizeof(head));
		std::memcpy(at + CMSG_LEN(0), message.data.data(), length - CMSG_LEN(0));
		return std::min(room, CMSG_SPACE(message.data.size()));
	}

	static void append(std::vector<std::uint8_t> &to, const void *from, std::size_t length)
	{
		auto bytes = static_cast<const std::uint8_t *>(from);
		to.insert(to.end(), bytes, bytes + length);
	}
	static int fail(int error)
	{
		errno = error;
		return -1;
	}

	int fd_ = -1;
	int open_ = 0;
	std::deque<QueuedFrame> frames_;
};

#endif
