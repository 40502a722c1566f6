/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The kernel as moxctl sees it: generic netlink with the module's family behind it, and the kernel log. Netlink
 * messages are made and read byte by byte here, without the library that the program uses.
 */
#ifndef FAKE_MODULE_H
#define FAKE_MODULE_H

#include "kernel_log.h"
#include "netlink.h"
#include "status.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/** Appends a number in host order. */
template <typename Number> void put(Bytes &to, Number number)
{
	auto bytes = reinterpret_cast<const std::uint8_t *>(&number);
	to.insert(to.end(), bytes, bytes + sizeof(number));
}

/** A netlink message: the 16 bytes of its head, and a body padded to a multiple of four. */
inline Bytes netlink_message(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence,
			     std::uint32_t port, const Bytes &body)
{
	Bytes message;
	put(message, static_cast<std::uint32_t>(16 + body.size()));
	put(message, type);
	put(message, flags);
	put(message, sequence);
	put(message, port);
	message.insert(message.end(), body.begin(), body.end());
	message.resize((message.size() + 3) & ~std::size_t{ 3 });
	return message;
}

/** The kernel log: what log() adds is read by the program under test, from another thread. */
class FakeLog : public moxctl::KernelLog {
public:
	void log(const std::string &raw)
	{
		std::lock_guard guard(mutex_);
		records_.push_back(raw);
		changed_.notify_all();
	}
	/** Stands for overwritten records: the next read says so. */
	void overwrite() { log(""); }
	void fail(int error) { error_ = error; }

	Read read(std::string &raw) override
	{
		std::lock_guard guard(mutex_);
		if (error_)
			throw moxctl::Failure(moxctl::kernel_log_error(error_));
		if (records_.empty())
			return Read::kNone;
		raw = records_.front();
		records_.pop_front();
		return raw.empty() ? Read::kOverwritten : Read::kRecord;
	}
	void wait() override
	{
		std::unique_lock guard(mutex_);
		changed_.wait(guard, [this] { return interrupted_ || !records_.empty(); });
	}
	void interrupt() override
	{
		std::lock_guard guard(mutex_);
		interrupted_ = true;
		changed_.notify_all();
	}

private:
	std::mutex mutex_;
	std::condition_variable changed_;
	std::deque<std::string> records_;
	std::atomic<int> error_ = 0;
	bool interrupted_ = false;
};

/** One socket, and the kernel and the module at its other end. */
class FakeNetlink : public moxctl::NetlinkSocket {
public:
	static constexpr std::uint32_t own_port = 4711;
	static constexpr std::uint16_t family = 0x1b;
	static constexpr std::uint16_t capture_family = 0x1c;

	// How it answers.
	int family_error = 0; /**< to the look-up of the family */
	int request_error = 0;
	bool acknowledges = true;
	bool answers_tech = true;
	bool foreign_messages = false; /**< others come in between */
	bool overrun = false; /**< once, when there is nothing to receive: messages were lost */
	Bytes family_answer;  /**< instead of the usual one */
	std::function<void(const Bytes &payload)> on_request;
	/** The module's family for reading; without it the module is an older one. */
	std::function<void(const Bytes &datagram)> on_capture;

	// What was sent.
	std::vector<Bytes> datagrams;
	std::vector<Bytes> payloads;
	unsigned capture_look_ups = 0;

	std::uint32_t port() const override { return own_port; }

	void send(std::span<const std::uint8_t> datagram) override
	{
		datagrams.emplace_back(datagram.begin(), datagram.end());
		ASSERT_GE(datagram.size(), 20u);
		std::uint16_t type = word<std::uint16_t>(datagram, 4);
		std::uint32_t sequence = word<std::uint32_t>(datagram, 8);
		if (foreign_messages) {
			queue(netlink_message(0x77, 0, 0, own_port, Bytes(4)));
			queue(acknowledgement(sequence + 1000, EBUSY));
		}
		if (type == 16 && asks_for("mox_capture", datagram)) {
			++capture_look_ups;
			queue(on_capture
				      ? netlink_message(16, 0, sequence, own_port,
							family_body("mox_capture", capture_family))
				      : acknowledgement(sequence, ENOENT));
			return;
		}
		if (type == capture_family) {
			on_capture(datagrams.back());
			return;
		}
		if (type == 16) {
			queue(family_error ? acknowledgement(sequence, family_error)
			      : !family_answer.empty()
				      ? netlink_message(16, 0, sequence, own_port, family_answer)
				      : netlink_message(16, 0, sequence, own_port,
							family_body("PACKET_GENL", family)));
			return;
		}
		std::uint16_t length = word<std::uint16_t>(datagram, 20);
		ASSERT_LE(20u + length, datagram.size());
		payloads.emplace_back(datagram.begin() + 24, datagram.begin() + 20 + length);
		if (on_request)
			on_request(payloads.back());
		if (answers_tech && payloads.back()[0] == MOX_MSG_TECH)
			queue(netlink_message(family, 0, 0, own_port, { 0, 1, 0, 0, 4, 0, 1, 0 }));
		if (acknowledges)
			queue(acknowledgement(sequence, request_error));
	}

	Bytes receive(std::chrono::milliseconds time) override
	{
		if (queue_.empty() && overrun) {
			overrun = false;
			throw moxctl::Overrun("messages were lost");
		}
		if (queue_.empty()) {
			std::this_thread::sleep_for(time);
			return {};
		}
		Bytes datagram = queue_.front();
		queue_.pop_front();
		return datagram;
	}

	/** Puts one more message in front of the program. */
	void queue(Bytes message) { queue_.push_back(std::move(message)); }

	static Bytes acknowledgement(std::uint32_t sequence, int error)
	{
		Bytes body;
		put(body, static_cast<std::int32_t>(-error));
		body.resize(4 + 16); // the head of the message that it is about
		return netlink_message(2, 0x100, sequence, own_port, body);
	}

private:
	template <typename Number>
	static Number word(std::span<const std::uint8_t> bytes, std::size_t at)
	{
		Number number;
		std::memcpy(&number, bytes.data() + at, sizeof(number));
		return number;
	}

	static bool asks_for(const std::string &name, std::span<const std::uint8_t> datagram)
	{
		std::string text(datagram.begin() + std::min<std::ptrdiff_t>(
							    24, datagram.end() - datagram.begin()),
				 datagram.end());
		return text.starts_with(name + '\0');
	}

	/** CTRL_CMD_NEWFAMILY with the name, the id, and an attribute that is not needed. */
	static Bytes family_body(const std::string &name, std::uint16_t id)
	{
		Bytes body = { 1, 2, 0, 0 };
		put(body, static_cast<std::uint16_t>(4 + name.size() + 1));
		put(body, std::uint16_t{ 2 });
		body.insert(body.end(), name.c_str(), name.c_str() + name.size() + 1);
		body.resize((body.size() + 3) & ~std::size_t{ 3 });
		put(body, std::uint16_t{ 6 });
		put(body, std::uint16_t{ 1 });
		put(body, id);
		for (std::uint8_t byte : { 0, 0, 8, 0, 3, 0, 1, 0, 0, 0 })
			body.push_back(byte);
		return body;
	}

	std::deque<Bytes> queue_;
};

#endif
