/* SPDX-License-Identifier: GPL-2.0-only */
/* How "lldpagent show" asks a running agent: a Unix socket, one request and one answer for each connection. */
#ifndef LLDPAGENT_STATUS_H
#define LLDPAGENT_STATUS_H

#include <functional>
#include <string>

namespace lldp {

enum class StateForm : char { kText = 't', kJson = 'j' };

class StatusServer {
public:
	/**
     * Listens at path, for the owner of the process only. Replaces the socket of an agent that was killed. Throws
     * SystemError.
     */
	explicit StatusServer(const std::string &path);
	/** Removes the path. */
	~StatusServer();
	StatusServer(const StatusServer &) = delete;
	StatusServer &operator=(const StatusServer &) = delete;

	/** For poll: readable when a client connects. */
	int fd() const { return fd_; }

	/** Answers one request. Closes the connection of a client that neither writes nor reads within 250 ms. */
	void answer(const std::function<std::string(StateForm)> &state);

private:
	std::string path_;
	int fd_;
};

/** What the agent that listens at path answers. Throws SystemError, for instance when there is none. */
std::string ask_status(const std::string &path, StateForm form);

} // namespace lldp

#endif
