// SPDX-License-Identifier: GPL-2.0-only
/*
 * efmp - a forwarding platform for the lab. Network devices become ports of a
 * learning bridge; each frame becomes an efbuff, passes the functions that other
 * modules registered, and leaves by its port. Tests steer it over /dev/moxlab.
 */
#include <linux/module.h>
#include "efmp.h"

static int __init efmp_init(void)
{
	int err;

	err = efmp_buff_init();
	if (err)
		return err;
	err = efmp_hooks_init();
	if (err)
		goto buff;
	err = efmp_left_init();
	if (err)
		goto hooks;
	err = efmp_host_init();
	if (err)
		goto left;
	err = efmp_ports_init();
	if (err)
		goto host;
	err = efmp_ctl_init();
	if (err)
		goto ports;
	return 0;

ports:
	efmp_ports_exit();
host:
	efmp_host_exit();
left:
	efmp_left_exit();
hooks:
	efmp_hooks_exit();
buff:
	efmp_buff_exit();
	return err;
}

/*
 * No importing module is left. Frames stop first, then what they use goes; the
 * accounts come last and report what was not freed.
 */
static void __exit efmp_exit(void)
{
	efmp_ctl_exit();
	efmp_ports_exit();
	efmp_host_exit();
	efmp_fdb_flush(NULL);
	efmp_left_exit();
	efmp_hooks_exit();
	efmp_buff_exit();
}

module_init(efmp_init);
module_exit(efmp_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Lab stand-in for the packet-forwarding platform");
