// SPDX-License-Identifier: GPL-2.0-only
/*
 * The kernel's error, flag and command numbers that the units use. No number
 * stands here: seam/seam_sizes.c takes each from the kernel's own headers.
 */
#pragma once

#include "seam/seam_types.h"

namespace mox {

namespace err {
inline constexpr int kPerm = -SEAM_EPERM;
inline constexpr int kNoEnt = -SEAM_ENOENT;
inline constexpr int kIntr = -SEAM_EINTR;
inline constexpr int kNxIo = -SEAM_ENXIO;
inline constexpr int kNoMem = -SEAM_ENOMEM;
inline constexpr int kFault = -SEAM_EFAULT;
inline constexpr int kNoDev = -SEAM_ENODEV;
inline constexpr int kBusy = -SEAM_EBUSY;
inline constexpr int kInval = -SEAM_EINVAL;
inline constexpr int kRange = -SEAM_ERANGE;
inline constexpr int kMsgSize = -SEAM_EMSGSIZE;
inline constexpr int kNoProtoOpt = -SEAM_ENOPROTOOPT;
inline constexpr int kSockTNoSupport = -SEAM_ESOCKTNOSUPPORT;
inline constexpr int kOpNotSupp = -SEAM_EOPNOTSUPP;
inline constexpr int kAfNoSupport = -SEAM_EAFNOSUPPORT;
inline constexpr int kNetDown = -SEAM_ENETDOWN;
inline constexpr int kNetUnreach = -SEAM_ENETUNREACH;
inline constexpr int kNoBufs = -SEAM_ENOBUFS;
/* The socket layer goes on with its own commands; user space never sees it. */
inline constexpr int kNoIoctlCmd = -SEAM_ENOIOCTLCMD;
} // namespace err

/** Flags of recvmsg and sendmsg. */
namespace msg {
inline constexpr int kPeek = SEAM_MSG_PEEK;
inline constexpr int kTrunc = SEAM_MSG_TRUNC;
inline constexpr int kDontWait = SEAM_MSG_DONTWAIT;
} // namespace msg

namespace sock_type {
inline constexpr int kDgram = SEAM_SOCK_DGRAM;
inline constexpr int kRaw = SEAM_SOCK_RAW;
} // namespace sock_type

/** Commands of ioctl. */
namespace cmd {
inline constexpr unsigned int kOutQ = SEAM_SIOCOUTQ;
inline constexpr unsigned int kInQ = SEAM_SIOCINQ;
inline constexpr unsigned int kGetStamp = SEAM_SIOCGSTAMP;
inline constexpr unsigned int kGetStampNs = SEAM_SIOCGSTAMPNS;
} // namespace cmd

} // namespace mox
