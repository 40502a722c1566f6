/* SPDX-License-Identifier: GPL-2.0-only */
#include "status.h"

#include "error.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace lldp {
namespace {

constexpr suseconds_t kClientPatience = 250'000; // microseconds

[[noreturn]] void fail(const std::string &what, const char *remedy = "")
{
	std::string text = what + ": " + std::strerror(errno);
	throw SystemError(*remedy ? text + " (" + remedy + ")" : text);
}

sockaddr_un address_of(const std::string &path)
{
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	if (path.empty() || path.size() >= sizeof(address.sun_path)) {
		errno = ENAMETOOLONG;
		fail("cannot use " + path);
	}
	std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
	return address;
}

class Closing {
public:
	explicit Closing(int fd) : fd_(fd) {}
	~Closing()
	{
		if (fd_ >= 0)
			close(fd_);
	}
	Closing(const Closing &) = delete;
	int release() { return std::exchange(fd_, -1); }

private:
	int fd_;
};

int open_unix()
{
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		fail("cannot open a Unix socket");
	return fd;
}

bool is_served(const sockaddr_un &address)
{
	int fd = open_unix();
	Closing closing(fd);
	return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

bool send_all(int fd, const std::string &text)
{
	std::size_t done = 0;
	while (done < text.size()) {
		// A client that has closed its end must not cause a signal.
		ssize_t sent = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
		if (sent < 0)
			return false;
		done += static_cast<std::size_t>(sent);
	}
	return true;
}

} // namespace

StatusServer::StatusServer(const std::string &path) : path_(path), fd_(-1)
{
	sockaddr_un address = address_of(path);
	if (is_served(address))
		throw SystemError("another agent is running and answers at " + path +
				  ": choose another --status");
	// A socket without a listener was left by an agent that was killed. Anything else is not removed.
	struct stat found;
	if (lstat(path.c_str(), &found) == 0 && S_ISSOCK(found.st_mode))
		unlink(path.c_str());

	int fd = open_unix();
	Closing closing(fd);
	mode_t before = umask(0177);
	int bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
	umask(before);
	if (bound != 0)
		fail("cannot listen at " + path,
		     "does its directory exist, and is it writable? see --status");
	if (listen(fd, 8) != 0)
		fail("cannot listen at " + path);
	fd_ = closing.release();
}

StatusServer::~StatusServer()
{
	unlink(path_.c_str());
	close(fd_);
}

void StatusServer::answer(const std::function<std::string(StateForm)> &state)
{
	int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
	if (client < 0)
		return; // it has closed the connection
	Closing closing(client);
	// The agent has one thread: a client must not delay its announcements.
	timeval patience{ 0, kClientPatience };
	setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
	setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));

	char question;
	if (recv(client, &question, 1, 0) != 1)
		return;
	if (question == static_cast<char>(StateForm::kText) ||
	    question == static_cast<char>(StateForm::kJson))
		send_all(client, state(static_cast<StateForm>(question)));
}

std::string ask_status(const std::string &path, StateForm form)
{
	sockaddr_un address = address_of(path);
	int fd = open_unix();
	Closing closing(fd);
	if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
		fail("no agent answers at " + path, "is the agent running? is this its --status?");
	if (!send_all(fd, std::string(1, static_cast<char>(form))))
		fail("cannot ask at " + path);

	std::string answer;
	char part[4096];
	for (;;) {
		ssize_t length = recv(fd, part, sizeof(part), 0);
		if (length < 0)
			fail("cannot read the answer of " + path);
		if (length == 0)
			break;
		answer.append(part, static_cast<std::size_t>(length));
	}
	// The answer ends with a newline; without it the agent closed the connection early.
	if (answer.empty() || answer.back() != '\n')
		throw SystemError("the agent at " + path +
				  " sent only a part of its answer: try again");
	return answer;
}

} // namespace lldp
