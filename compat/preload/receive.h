/* SPDX-License-Identifier: MIT */
#ifndef MOX_PRELOAD_RECEIVE_H
#define MOX_PRELOAD_RECEIVE_H

#include <sys/socket.h>
#include <sys/types.h>

/**
 * recvmsg on a packet socket with a relay. At most MOX_MAX_PARTS buffers (EMSGSIZE); ENETDOWN when the relay has ended.
 * Notes the time of the frame for SIOCGSTAMP.
 */
ssize_t mox_receive(int fd, struct msghdr *message, int flags);

#endif
