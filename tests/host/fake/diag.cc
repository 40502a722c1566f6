// SPDX-License-Identifier: GPL-2.0-only
// The kernel's socket diagnosis.
#include <cerrno>

#include "kernel.h"

using fake::breach;
using fake::Fail;
using fake::kernel;

int seam_diag_register(void)
{
	kernel().may_sleep("sock_diag_register");
	if (kernel().failing(Fail::kDiagRegister))
		return kernel().error_of(Fail::kDiagRegister, -EBUSY);
	if (kernel().diag_registered)
		breach("socket diagnosis registered twice");
	kernel().diag_registered = true;
	return 0;
}

void seam_diag_unregister(void)
{
	kernel().may_sleep("sock_diag_unregister");
	if (!kernel().diag_registered)
		breach("socket diagnosis unregistered, but not registered");
	kernel().diag_registered = false;
}

int seam_diag_put(sk_buff *, netlink_callback *, const seam_diag_socket *socket, sock *sk)
{
	if (!kernel().socks.count(sk))
		breach("a freed socket listed");
	if (kernel().diag_room == 0)
		return -EMSGSIZE;
	kernel().diag_room--;
	kernel().diag_listed.push_back({ sk, *socket });
	return 0;
}
