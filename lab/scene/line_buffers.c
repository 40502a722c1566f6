/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Preloaded into the program of lab/try. Its output goes to a pipe, for which
 * the C library collects some kilobytes before it writes; each line is to be
 * seen when it is printed, and the last ones not to be lost with a signal.
 */
#include <stdio.h>

__attribute__((constructor)) static void buffer_by_line(void)
{
	setvbuf(stdout, NULL, _IOLBF, 0);
}
