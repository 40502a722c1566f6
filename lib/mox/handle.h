/* SPDX-License-Identifier: MIT */
/* Inside the library: handles of the C API on other system calls, for tests. Not installed. */
#ifndef MOX_HANDLE_H
#define MOX_HANDLE_H

#include "mox/capture_socket.h"
#include "mox/mox.h"

namespace mox {

/** As mox_new and mox_adopt. calls has to outlive the handle. */
mox_socket *new_handle(std::uint32_t kind, SocketCalls &calls);
mox_socket *adopt_handle(int fd, SocketCalls &calls);

} // namespace mox

#endif
