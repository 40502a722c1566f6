// SPDX-License-Identifier: GPL-2.0
/* The kernel's error, flag and command numbers that the units use (ARM Linux ABI). */
#pragma once

namespace err {
inline constexpr int kNxIo = -6;
inline constexpr int kNoMem = -12;
inline constexpr int kFault = -14;
inline constexpr int kNoDev = -19;
inline constexpr int kInval = -22;
inline constexpr int kNoProtoOpt = -92;
inline constexpr int kSockTNoSupport = -94;
inline constexpr int kOpNotSupp = -95;
inline constexpr int kAfNoSupport = -97;
inline constexpr int kNetDown = -100;
inline constexpr int kNetUnreach = -101;
inline constexpr int kNoBufs = -105;
inline constexpr int kNoIoctlCmd = -515; /* never seen by user space: the socket layer goes on */
} // namespace err

namespace msg {
inline constexpr int kPeek = 0x2;
inline constexpr int kTrunc = 0x20;
inline constexpr int kDontWait = 0x40;
} // namespace msg

namespace sock_type {
inline constexpr int kDgram = 2;
inline constexpr int kRaw = 3;
} // namespace sock_type
