// SPDX-License-Identifier: GPL-2.0-only
/*
 * Sizes and numbers that the kernel decides, for the C++ units.
 *
 * Compiled to assembly only; Kbuild turns the marker lines into
 * record_sizes.h, as the kernel does for its own asm-offsets.
 */
#include <asm/ioctls.h>
#include <linux/errno.h>
#include <linux/if_packet.h>
#include <linux/kbuild.h>
#include <linux/net.h>
#include <linux/poison.h>
#include <linux/socket.h>
#include <linux/sockios.h>

#include "../mox_ef_socket.h"

/* From 5.1 on these are the names of the numbers that 32-bit user space has always used. */
#ifndef SIOCGSTAMP_OLD
#define SIOCGSTAMP_OLD SIOCGSTAMP
#define SIOCGSTAMPNS_OLD SIOCGSTAMPNS
#endif

int main(void);

int main(void)
{
	DEFINE(SEAM_SOCK_SIZE, sizeof(seam_sock));
	DEFINE(SEAM_SOCK_ALIGN, __alignof__(seam_sock));
	DEFINE(SEAM_SPINLOCK_SIZE, sizeof(seam_spinlock));
	DEFINE(SEAM_SPINLOCK_ALIGN, __alignof__(seam_spinlock));
	DEFINE(SEAM_RWLOCK_SIZE, sizeof(seam_rwlock));
	DEFINE(SEAM_RWLOCK_ALIGN, __alignof__(seam_rwlock));
	DEFINE(SEAM_MUTEX_SIZE, sizeof(seam_mutex));
	DEFINE(SEAM_MUTEX_ALIGN, __alignof__(seam_mutex));
	DEFINE(SEAM_WAITQUEUE_SIZE, sizeof(seam_waitqueue));
	DEFINE(SEAM_WAITQUEUE_ALIGN, __alignof__(seam_waitqueue));
	DEFINE(SEAM_LIST_POISON1, (unsigned long)LIST_POISON1);
	DEFINE(SEAM_LIST_POISON2, (unsigned long)LIST_POISON2);

	/* Numbers of the kernel that the C++ units answer with, test or send. */
	DEFINE(SEAM_EPERM, EPERM);
	DEFINE(SEAM_ENOENT, ENOENT);
	DEFINE(SEAM_EINTR, EINTR);
	DEFINE(SEAM_EBUSY, EBUSY);
	DEFINE(SEAM_ERANGE, ERANGE);
	DEFINE(SEAM_EMSGSIZE, EMSGSIZE);
	DEFINE(SEAM_ENXIO, ENXIO);
	DEFINE(SEAM_ENOMEM, ENOMEM);
	DEFINE(SEAM_EFAULT, EFAULT);
	DEFINE(SEAM_ENODEV, ENODEV);
	DEFINE(SEAM_EINVAL, EINVAL);
	DEFINE(SEAM_ENOPROTOOPT, ENOPROTOOPT);
	DEFINE(SEAM_ESOCKTNOSUPPORT, ESOCKTNOSUPPORT);
	DEFINE(SEAM_EOPNOTSUPP, EOPNOTSUPP);
	DEFINE(SEAM_EAFNOSUPPORT, EAFNOSUPPORT);
	DEFINE(SEAM_ENETDOWN, ENETDOWN);
	DEFINE(SEAM_ENETUNREACH, ENETUNREACH);
	DEFINE(SEAM_ENOBUFS, ENOBUFS);
	DEFINE(SEAM_ENOIOCTLCMD, ENOIOCTLCMD);
	DEFINE(SEAM_MSG_PEEK, MSG_PEEK);
	DEFINE(SEAM_MSG_TRUNC, MSG_TRUNC);
	DEFINE(SEAM_MSG_DONTWAIT, MSG_DONTWAIT);
	DEFINE(SEAM_SOCK_DGRAM, SOCK_DGRAM);
	DEFINE(SEAM_SOCK_RAW, SOCK_RAW);
	DEFINE(SEAM_SIOCOUTQ, SIOCOUTQ);
	DEFINE(SEAM_SIOCINQ, SIOCINQ);
	DEFINE(SEAM_SIOCGSTAMP, SIOCGSTAMP_OLD);
	DEFINE(SEAM_SIOCGSTAMPNS, SIOCGSTAMPNS_OLD);
	DEFINE(SEAM_PACKET_OTHERHOST, PACKET_OTHERHOST);

	/* The two views of each shared record, compared by the C++ units. */
	DEFINE(SEAM_PO_SIZE, sizeof(struct mox_packet_sock));
	DEFINE(SEAM_PO_FILTER_DROPS, offsetof(struct mox_packet_sock, filter_drops));
	DEFINE(SEAM_PO_VSD, offsetof(struct mox_packet_sock, vsd));
	DEFINE(SEAM_PO_REGULAR, offsetof(struct mox_packet_sock, regular));
	DEFINE(SEAM_PO_BIND_LOCK, offsetof(struct mox_packet_sock, bind_lock));
	DEFINE(SEAM_PO_PG_VEC_LOCK, offsetof(struct mox_packet_sock, pg_vec_lock));
	DEFINE(SEAM_PO_FLAGS, offsetof(struct mox_packet_sock, flags));
	DEFINE(SEAM_PO_IFINDEX, offsetof(struct mox_packet_sock, ifindex));
	DEFINE(SEAM_PO_PROTOCOL, offsetof(struct mox_packet_sock, protocol));
	DEFINE(SEAM_PO_RULE_LOCK, offsetof(struct mox_packet_sock, rule_lock));
	DEFINE(SEAM_LIB_SIZE, sizeof(struct packet_regular_lib));
	DEFINE(SEAM_LIB_FILTER_LIST, offsetof(struct packet_regular_lib, filter_list));
	DEFINE(SEAM_QUEUE_SIZE, sizeof(struct efbuff_queue));
	DEFINE(SEAM_QUEUE_LOCK, offsetof(struct efbuff_queue, lock));
	DEFINE(SEAM_TOP_SIZE, sizeof(struct packet_thread_top));
	DEFINE(SEAM_TOP_WAIT_QUEUE, offsetof(struct packet_thread_top, wait_queue));
	DEFINE(SEAM_TOP_PENDING, offsetof(struct packet_thread_top, pending));
	return 0;
}
