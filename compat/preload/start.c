/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/start.h"

#include "preload/ask.h"
#include "preload/say.h"
#include "wire.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef MOX_RELAY_PATH
#define MOX_RELAY_PATH "/usr/libexec/mox-relay"
#endif

#ifndef SYS_close_range
#define SYS_close_range 436
#endif

/* Descriptors of the program that a relay on a kernel before 5.9 closes one by one. */
#define MAX_CLOSED 65536
/* Names that are tried for one end of a pair. */
#define NAME_ATTEMPTS 64
/* Where the relay's descriptors wait while their places are cleared. */
#define OUT_OF_THE_WAY 10

struct start {
	const char *path;
	char *const *argv;
	char *const *envp;
	int channel;
	int hello;
};

/*
 * The path of mox-relay: of the environment, else beside this library, else where it is installed.
 */
static void find_relay(char *path, size_t room)
{
	static const char name[] = "mox-relay";
	const char *named = secure_getenv("MOX_RELAY");
	const char *slash;
	Dl_info own;

	if (named && *named) {
		snprintf(path, room, "%s", named);
		return;
	}
	if (dladdr((void *)find_relay, &own) && own.dli_fname &&
	    (slash = strrchr(own.dli_fname, '/')) != NULL) {
		snprintf(path, room, "%.*s%s", (int)(slash + 1 - own.dli_fname), own.dli_fname,
			 name);
		if (access(path, X_OK) == 0)
			return;
	}
	snprintf(path, room, "%s", MOX_RELAY_PATH);
}

/* The environment without this library: the relay's own packet sockets are the module's. */
static void copy_environment(char **to)
{
	static const char preload[] = "LD_PRELOAD=", ours[] = "MOX_";
	size_t count = 0;
	int pass;
	char **each;

	/* The relay's own variables first, in case there is no room for all. */
	for (pass = 0; pass < 2; ++pass) {
		for (each = environ; each && *each && count < MOX_MAX_VARIABLES; ++each) {
			const bool is_ours = strncmp(*each, ours, sizeof(ours) - 1) == 0;

			if (is_ours == (pass == 0) &&
			    strncmp(*each, preload, sizeof(preload) - 1) != 0)
				to[count++] = *each;
		}
	}
	to[count] = NULL;
}

/* Gives the relay's end a name by which any process can tell what the other end is. Returns 0, or -1 with errno. */
static int name_end(int fd)
{
	static unsigned int counter;
	struct sockaddr_un name;
	int i, length;

	memset(&name, 0, sizeof(name));
	name.sun_family = AF_UNIX;
	for (i = 0; i < NAME_ATTEMPTS; ++i) {
		length = snprintf(name.sun_path + 1, sizeof(name.sun_path) - 1, "%s%d/%u",
				  MOX_WIRE_NAME, (int)getpid(),
				  __atomic_fetch_add(&counter, 1, __ATOMIC_RELAXED));
		if (syscall(SYS_bind, fd, &name,
			    offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)length) == 0)
			return 0;
		if (errno != EADDRINUSE) /* of a process in another process namespace */
			return -1;
	}
	return -1;
}

/* From here on a forked process of a program with threads: system calls only. */

static void close_from(unsigned int first)
{
	struct rlimit limit;
	unsigned int last = MAX_CLOSED;

	if (syscall(SYS_close_range, first, ~0u, 0) == 0)
		return;
	if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < last)
		last = (unsigned int)limit.rlim_cur;
	for (; first < last; ++first)
		syscall(SYS_close, first);
}

static void run_relay(const struct start *start)
{
	struct mox_wire_reply failed = { MOX_WIRE_MAGIC, 0, 0, 0 };
	const int channel = fcntl(start->channel, F_DUPFD, OUT_OF_THE_WAY);
	const int hello = fcntl(start->hello, F_DUPFD, OUT_OF_THE_WAY);

	if (channel >= 0 && hello >= 0 && syscall(SYS_dup3, channel, MOX_WIRE_CHANNEL_FD, 0) >= 0 &&
	    syscall(SYS_dup3, hello, MOX_WIRE_HELLO_FD, 0) >= 0) {
		close_from(MOX_WIRE_HELLO_FD + 1);
		syscall(SYS_execve, start->path, start->argv, start->envp);
	}
	failed.error = errno;
	(void)!syscall(SYS_write, MOX_WIRE_HELLO_FD, &failed, sizeof(failed));
}

static long fork_quietly(unsigned long signal)
{
	return syscall(SYS_clone, signal, 0, 0, 0, 0);
}

/* Returns 0, or -1 with errno. */
static int fork_relay(const struct start *start)
{
	/* A child without an exit signal is one that the program's own wait calls pass over. */
	const long child = fork_quietly(0);
	int status = 0;

	if (child == 0) {
		const long relay = fork_quietly(SIGCHLD);

		if (relay == 0)
			run_relay(start);
		syscall(SYS_exit_group, relay < 0);
	}
	if (child < 0)
		return -1;
	while (syscall(SYS_wait4, child, &status, __WALL, NULL) < 0) {
		if (errno != EINTR)
			return -1;
	}
	if (status != 0) {
		errno = EAGAIN;
		return -1;
	}
	return 0;
}

/* Back in the program. */

static enum mox_started take_hello(int hello, const char *path)
{
	struct mox_reply_data data;
	struct mox_wire_reply reply;

	if (mox_take_reply(hello, &reply, &data) != 0) {
		const int error = errno;

		mox_say("%s does not start: %s", path, strerror(error));
		errno = error;
		return MOX_NOT_STARTED;
	}
	if (reply.flags & MOX_WIRE_TEXT)
		mox_say("%s", (const char *)data.bytes);
	if (reply.flags & MOX_WIRE_NATIVE)
		return MOX_LEFT_NATIVE;
	if (reply.error) {
		if (!(reply.flags & MOX_WIRE_TEXT))
			mox_say("cannot run %s: %s (MOX_RELAY names another path)", path,
				strerror(reply.error));
		errno = reply.error;
		return MOX_NOT_STARTED;
	}
	return MOX_STARTED;
}

static void close_pair(const int *pair)
{
	const int error = errno;

	syscall(SYS_close, pair[0]);
	syscall(SYS_close, pair[1]);
	errno = error;
}

static enum mox_started start(int type, int protocol, int *fd)
{
	char path[PATH_MAX], kind[12], number[12];
	char *argv[] = { path, program_invocation_short_name, kind, number, NULL };
	char *envp[MOX_MAX_VARIABLES + 1];
	struct start relay = { path, argv, envp, -1, -1 };
	enum mox_started result = MOX_NOT_STARTED;
	int pair[2], hello[2];
	sigset_t all, before;
	bool forked;

	find_relay(path, sizeof(path));
	copy_environment(envp);
	snprintf(kind, sizeof(kind), "%d", type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK));
	snprintf(number, sizeof(number), "%u", (unsigned int)ntohs((uint16_t)protocol));

	if (syscall(SYS_socketpair, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
		return MOX_NOT_STARTED;
	if (syscall(SYS_socketpair, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, hello) != 0) {
		close_pair(pair);
		return MOX_NOT_STARTED;
	}
	relay.channel = pair[1];
	relay.hello = hello[1];

	/* A handler of the program must not run in the forked process. */
	sigfillset(&all);
	pthread_sigmask(SIG_SETMASK, &all, &before);
	forked = name_end(pair[1]) == 0 && fork_relay(&relay) == 0;
	pthread_sigmask(SIG_SETMASK, &before, NULL);
	if (!forked)
		mox_say("cannot start %s: %s", path, strerror(errno));

	syscall(SYS_close, pair[1]);
	syscall(SYS_close, hello[1]);
	if (forked)
		result = take_hello(hello[0], path);
	{
		const int error = errno;

		syscall(SYS_close, hello[0]);
		if (result != MOX_STARTED)
			syscall(SYS_close, pair[0]);
		errno = error;
	}
	if (result != MOX_STARTED)
		return result;

	*fd = pair[0];
	if (!(type & SOCK_CLOEXEC))
		fcntl(*fd, F_SETFD, 0);
	if (type & SOCK_NONBLOCK)
		fcntl(*fd, F_SETFL, fcntl(*fd, F_GETFL) | O_NONBLOCK);
	return result;
}

enum mox_started mox_start_relay(int type, int protocol, int *fd)
{
	enum mox_started result;
	int state;

	pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
	result = start(type, protocol, fd);
	pthread_setcancelstate(state, &state);
	return result;
}
