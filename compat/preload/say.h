/* SPDX-License-Identifier: MIT */
/*
 * Lines on standard error.
 */
#ifndef MOX_PRELOAD_SAY_H
#define MOX_PRELOAD_SAY_H

/** Most lines of one process; later ones are left out. */
#define MOX_MAX_LINES 32

/**
 * One line "mox-compat: PROGRAM: text", the first time that a process has this text. Left out when descriptor 2 is a socket, which a daemon may have opened after it
 * closed its standard error. Keeps errno; any thread.
 */
void mox_say(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
