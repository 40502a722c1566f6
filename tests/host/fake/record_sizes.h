/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The host's answer to the header that a kernel build generates: room for the
 * fake kernel's own locks and sockets. The two views of a record are one here,
 * so the offsets simply name the record.
 */
#ifndef FAKE_RECORD_SIZES_H
#define FAKE_RECORD_SIZES_H

#define SEAM_SOCK_SIZE 512
#define SEAM_SOCK_ALIGN 16
#define SEAM_SPINLOCK_SIZE 64
#define SEAM_SPINLOCK_ALIGN 8
#define SEAM_RWLOCK_SIZE 64
#define SEAM_RWLOCK_ALIGN 8
#define SEAM_MUTEX_SIZE 128
#define SEAM_MUTEX_ALIGN 8
#define SEAM_WAITQUEUE_SIZE 128
#define SEAM_WAITQUEUE_ALIGN 8
#define SEAM_LIST_POISON1 0x100
#define SEAM_LIST_POISON2 0x122

#define SEAM_EPERM 1
#define SEAM_ENOENT 2
#define SEAM_EINTR 4
#define SEAM_EBUSY 16
#define SEAM_ERANGE 34
#define SEAM_EMSGSIZE 90
#define SEAM_ENXIO 6
#define SEAM_ENOMEM 12
#define SEAM_EFAULT 14
#define SEAM_ENODEV 19
#define SEAM_EINVAL 22
#define SEAM_ENOPROTOOPT 92
#define SEAM_ESOCKTNOSUPPORT 94
#define SEAM_EOPNOTSUPP 95
#define SEAM_EAFNOSUPPORT 97
#define SEAM_ENETDOWN 100
#define SEAM_ENETUNREACH 101
#define SEAM_ENOBUFS 105
#define SEAM_ENOIOCTLCMD 515
#define SEAM_MSG_PEEK 0x2
#define SEAM_MSG_TRUNC 0x20
#define SEAM_MSG_DONTWAIT 0x40
#define SEAM_SOCK_DGRAM 2
#define SEAM_SOCK_RAW 3
#define SEAM_SIOCOUTQ 0x5411
#define SEAM_SIOCINQ 0x541B
#define SEAM_SIOCGSTAMP 0x8906
#define SEAM_SIOCGSTAMPNS 0x8907
#define SEAM_PACKET_OTHERHOST 3

#define SEAM_PO_SIZE sizeof(struct mox_packet_sock)
#define SEAM_PO_FILTER_DROPS offsetof(struct mox_packet_sock, filter_drops)
#define SEAM_PO_VSD offsetof(struct mox_packet_sock, vsd)
#define SEAM_PO_REGULAR offsetof(struct mox_packet_sock, regular)
#define SEAM_PO_BIND_LOCK offsetof(struct mox_packet_sock, bind_lock)
#define SEAM_PO_PG_VEC_LOCK offsetof(struct mox_packet_sock, pg_vec_lock)
#define SEAM_PO_FLAGS offsetof(struct mox_packet_sock, flags)
#define SEAM_PO_IFINDEX offsetof(struct mox_packet_sock, ifindex)
#define SEAM_PO_PROTOCOL offsetof(struct mox_packet_sock, protocol)
#define SEAM_PO_RULE_LOCK offsetof(struct mox_packet_sock, rule_lock)
#define SEAM_LIB_SIZE sizeof(struct packet_regular_lib)
#define SEAM_LIB_FILTER_LIST offsetof(struct packet_regular_lib, filter_list)
#define SEAM_QUEUE_SIZE sizeof(struct efbuff_queue)
#define SEAM_QUEUE_LOCK offsetof(struct efbuff_queue, lock)
#define SEAM_TOP_SIZE sizeof(struct packet_thread_top)
#define SEAM_TOP_WAIT_QUEUE offsetof(struct packet_thread_top, wait_queue)
#define SEAM_TOP_PENDING offsetof(struct packet_thread_top, pending)

#endif
