/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/say.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

void mox_say(const char *format, ...)
{
	static int lines;
	const int error = errno;
	struct stat state;
	char line[768];
	va_list arguments;
	int length;

	if (fstat(STDERR_FILENO, &state) != 0 || S_ISSOCK(state.st_mode) ||
	    __atomic_fetch_add(&lines, 1, __ATOMIC_RELAXED) >= MOX_MAX_LINES) {
		errno = error;
		return;
	}
	length = snprintf(line, sizeof(line), "mox-compat: %s: ", program_invocation_short_name);
	if (length > 0 && length < (int)sizeof(line)) {
		va_start(arguments, format);
		length += vsnprintf(line + length, sizeof(line) - (size_t)length, format,
				    arguments);
		va_end(arguments);
		if (length > (int)sizeof(line) - 2)
			length = (int)sizeof(line) - 2;
		line[length++] = '\n';
		(void)!syscall(SYS_write, STDERR_FILENO, line, (size_t)length);
	}
	errno = error;
}
