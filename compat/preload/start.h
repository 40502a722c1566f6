/* SPDX-License-Identifier: MIT */
/*
 * Starting the relay of a new packet socket.
 */
#ifndef MOX_PRELOAD_START_H
#define MOX_PRELOAD_START_H

/** Most variables of the environment that a relay gets. */
#define MOX_MAX_VARIABLES 512

enum mox_started {
	MOX_STARTED,     /* the descriptor is the program's */
	MOX_NOT_STARTED, /* errno is set, the reason was said on standard error */
	MOX_LEFT_NATIVE, /* the program is to have the socket itself */
};

/**
 * Starts mox-relay for socket(AF_PACKET, type, protocol) as no child of the program, so that neither SIGCHLD nor wait
 * shows it. On MOX_STARTED *fd is the program's end of the pair, with the flags of type.
 */
enum mox_started mox_start_relay(int type, int protocol, int *fd);

#endif
