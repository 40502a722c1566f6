// SPDX-License-Identifier: GPL-2.0-only
/* Load and unload, and what modinfo shows. */
#include <linux/init.h>
#include <linux/module.h>

#include "mox_version.h"
#include "seam_capture.h"

MODULE_LICENSE("GPL");
MODULE_AUTHOR("The mox_ef_socket developers");
MODULE_DESCRIPTION("Capture sockets of protocol family 17 over the efmp forwarding platform");
MODULE_VERSION(MOX_VERSION);
MODULE_ALIAS_NETPROTO(PF_PACKET);

const char *seam_module_version(void)
{
	return MOX_VERSION;
}

int init_module(void)
{
	return mox_packet_init();
}

void cleanup_module(void)
{
	mox_packet_exit();
}
