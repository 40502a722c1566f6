// SPDX-License-Identifier: GPL-2.0-only
/*
 * The service unit: the platform's services that the module uses, and the slot
 * for a handler of the control hook's socket option.
 *
 * Every pointer here is a word that the platform changes while other CPUs read
 * it: load it once with load(), test the loaded value, and call that.
 */
#pragma once

#include "seam/seam.h"

extern "C" {
/** Puts the device's MAC address into mac; 0 on success. Unit 0 is the device itself. */
typedef int (*mox_packet_local_mac_func)(u32 unit, u8 mac[6]);
/** Whether the platform asks to drop the packet: non-zero for yes. A hook's context. */
typedef int (*pkt_rnfp_func)(void *efbuff);

/* Null while the platform has no such service. */
extern mox_packet_local_mac_func mox_packet_get_local;
extern pkt_rnfp_func pkt_rnfp;
extern pkt_rnfp_func pkt_rnfp_wlan;

/**
 * Handler of the control hook's option: the command and 40 bytes; those
 * that the caller did not fill are zero. Its result is the option's. Process.
 */
typedef int (*packet_cpp_ioctl_func)(unsigned int command, void *buffer);
/** Null while no handler is registered. */
extern packet_cpp_ioctl_func mox_packet_cpp_ioctl_func;

/**
 * Install or remove the handler. 0, or -1 when another one is installed, or
 * handler is not the installed one. There is no lock: call at the load and at
 * the unload of the handler's module. Any context.
 */
int packet_reg_cpp_ioctl(packet_cpp_ioctl_func handler);
int packet_unreg_cpp_ioctl(packet_cpp_ioctl_func handler);

extern u8 mox_packet_serv_inited;

/** Look the services up and follow their changes. 0, also when already up; -1. Process. */
int mox_packet_serv_init(void);
/** Follow no more, and forget the services, if up. Process. */
void mox_packet_serv_deinit(void);
/** The platform's change handler; platform::service_record. Any context. */
void mox_packet_on_service_change(u32 event, void *service_record);
}
