// SPDX-License-Identifier: GPL-2.0
/* Load and unload, and what modinfo shows. */
#include <linux/init.h>
#include <linux/module.h>

#include "seam.h"

MODULE_LICENSE("GPL");
MODULE_AUTHOR("The mox_ef_socket developers");
MODULE_DESCRIPTION("Capture sockets of protocol family 17 over the efmp forwarding platform");
MODULE_ALIAS_NETPROTO(PF_PACKET);

int init_module(void)
{
	return mox_packet_init();
}

void cleanup_module(void)
{
	mox_packet_exit();
}
