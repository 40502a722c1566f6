/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/say.h"

#include <errno.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Whether a line is to be written: new, and one of the first. Programs try again what has failed. */
static bool is_new(const char *line)
{
	static uint32_t said[MOX_MAX_LINES];
	static unsigned int count;
	const unsigned int have = __atomic_load_n(&count, __ATOMIC_ACQUIRE);
	uint32_t hash = 2166136261u; /* FNV-1a */
	unsigned int i;

	for (; *line; ++line)
		hash = (hash ^ (unsigned char)*line) * 16777619u;
	for (i = 0; i < have && i < MOX_MAX_LINES; ++i) {
		if (said[i] == hash)
			return false;
	}
	i = __atomic_fetch_add(&count, have < MOX_MAX_LINES, __ATOMIC_ACQ_REL);
	if (i >= MOX_MAX_LINES)
		return false;
	said[i] = hash;
	return true;
}

void mox_say(const char *format, ...)
{
	const int error = errno;
	struct stat state;
	char line[768];
	va_list arguments;
	int length;

	if (fstat(STDERR_FILENO, &state) != 0 || S_ISSOCK(state.st_mode)) {
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
		if (is_new(line)) {
			line[length++] = '\n';
			(void)!syscall(SYS_write, STDERR_FILENO, line, (size_t)length);
		}
	}
	errno = error;
}
