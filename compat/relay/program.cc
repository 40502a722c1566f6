/* SPDX-License-Identifier: MIT */
#include "relay/program.h"

#include "relay/config.h"
#include "relay/relay.h"
#include "wire.h"

#include "mox/error.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace relay {
namespace {

constexpr const char *kUsage =
	"usage: mox-relay PROGRAM TYPE PROTOCOL\n\n"
	"Owns the capture socket of a program that runs with LD_PRELOAD=libmox-compat.so, which starts it. It is of no\n"
	"use by itself. See libmox-compat(7).\n";

/** A number of the command line; false when it is none up to limit. */
bool read_number(const char *text, unsigned long limit, unsigned long &number)
{
	char *end = nullptr;
	errno = 0;
	number = std::strtoul(text, &end, 10);
	return *text >= '0' && *text <= '9' && !*end && errno == 0 && number <= limit;
}

/** The one reply of the start. */
void hello(int error, std::uint32_t flags, const std::string &text)
{
	mox_wire_reply reply{ MOX_WIRE_MAGIC, error, flags, 0 };
	if (!text.empty())
		reply.flags |= MOX_WIRE_TEXT;
	reply.length = static_cast<std::uint32_t>(
		std::min<std::size_t>(text.size(), MOX_WIRE_MAX_REPLY));
	iovec parts[] = { { &reply, sizeof(reply) },
			  { const_cast<char *>(text.data()), reply.length } };
	msghdr message{};
	message.msg_iov = parts;
	message.msg_iovlen = 2;
	(void)!sendmsg(MOX_WIRE_HELLO_FD, &message, MSG_NOSIGNAL);
	close(MOX_WIRE_HELLO_FD);
}

/**
 * The relay ends when the program's descriptor is closed, not before: a program that ends may still ask for its
 * statistics when a terminal or a service manager has already signalled the whole group.
 */
void outlive_the_group()
{
	setsid();
	for (const int signal :
	     { SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2 })
		std::signal(signal, SIG_IGN);
	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);
}

/** Holds none of the program's files open: a reader of its output waits for every writer. */
void release_standard_files()
{
	const int null = open("/dev/null", O_RDWR);
	for (int fd = 0; fd < 3; ++fd) {
		if (null >= 0)
			dup2(null, fd);
		else
			close(fd);
	}
	if (null > 2)
		close(null);
}

} // namespace

int relay_main(int argc, char **argv, mox::SocketCalls &calls, InterfaceSource &source)
{
	unsigned long type = 0, protocol = 0;
	if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
		std::fputs(kUsage, stdout);
		return 0;
	}
	if (argc != 4 || !read_number(argv[2], SOCK_PACKET, type) ||
	    !read_number(argv[3], 65535, protocol) || (type != SOCK_RAW && type != SOCK_DGRAM) ||
	    fcntl(MOX_WIRE_CHANNEL_FD, F_GETFD) < 0 || fcntl(MOX_WIRE_HELLO_FD, F_GETFD) < 0) {
		std::fputs(kUsage, stderr);
		return 2;
	}
	outlive_the_group();

	Settings settings;
	std::unique_ptr<Relay> relay;
	try {
		settings = load_settings(
			argv[1], [](const char *name) -> const char * { return std::getenv(name); },
			mox::system_interface_index);
		if (settings.native) {
			hello(0, MOX_WIRE_NATIVE, {});
			return 0;
		}
		if (!protocol_is_open(static_cast<std::uint16_t>(protocol))) {
			hello(EPROTONOSUPPORT, 0,
			      "socket: protocol " + std::to_string(protocol) + kOpenProtocols);
			return 1;
		}
		// The module's reports name a socket after the process that opened it.
		prctl(PR_SET_NAME, argv[1]);
		relay = std::make_unique<Relay>(
			SocketIdentity{ type == SOCK_DGRAM, static_cast<std::uint16_t>(protocol) },
			settings, calls, source, MOX_WIRE_CHANNEL_FD);
	} catch (const ConfigError &error) {
		hello(EINVAL, 0, error.what());
		return 1;
	} catch (const mox::SocketError &error) {
		// Without the module the program has the kernel's packet sockets, for which it was written.
		const bool other_module = error.error() == EPROTONOSUPPORT;
		hello(other_module ? 0 : error.error(),
		      other_module ? std::uint32_t{ MOX_WIRE_NATIVE } : 0u, error.what());
		return 1;
	} catch (const std::bad_alloc &) {
		hello(ENOMEM, 0, "mox-relay has no memory");
		return 1;
	}
	prctl(PR_SET_NAME, "mox-relay");
	hello(0, 0, {});
	release_standard_files();
	try {
		relay->run();
	} catch (const std::exception &) {
		return 1; // the program's descriptor reports the end
	}
	return 0;
}

} // namespace relay
