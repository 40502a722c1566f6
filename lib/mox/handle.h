/* SPDX-License-Identifier: MIT */
/* Inside the library: the handle of the C API, and handles on other system calls, for tests. Not installed. */
#ifndef MOX_HANDLE_H
#define MOX_HANDLE_H

#include "mox/capture_socket.h"
#include "mox/error.h"
#include "mox/mox.h"

#include <cerrno>
#include <cstdint>
#include <optional>
#include <vector>

/** What is set up, and the socket once it is open. */
struct mox_socket {
	explicit mox_socket(mox::SocketCalls &a_calls) : calls(a_calls) {}

	mox::SocketCalls &calls;
	mox::SocketKind kind = mox::SocketKind::kRaw;
	std::optional<mox::CaptureSocket> socket;
	bool running = false;
	/** Whether the socket has rules already: then it has a key as well. */
	bool has_rules = false;

	// What is set up; rules only until they are added to the socket.
	std::vector<mox::Rule> rules;
	std::uint32_t location = PACKET_NONE_LOC;
	std::optional<std::uint32_t> treatment; /**< nothing: as the adopted socket has it */
	std::uint32_t interface = 0;
	bool control = true, timestamps = false;
	std::optional<int> receive_buffer;
	mox::StatisticsSum sum;

	mox::CaptureSocket &open_socket()
	{
		if (!socket)
			throw mox::SocketError(
				"the socket is not open: call mox_open or mox_start first", EBADF);
		return *socket;
	}
	void add(const mox::Rule &rule)
	{
		if (running)
			socket->add_rule(rule);
		else
			rules.push_back(rule);
	}
};

namespace mox {

/** As mox_new and mox_adopt. calls has to outlive the handle. */
mox_socket *new_handle(std::uint32_t kind, SocketCalls &calls);
mox_socket *adopt_handle(int fd, SocketCalls &calls);

} // namespace mox

#endif
