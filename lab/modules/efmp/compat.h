/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * compat.h - what differs between the kernels that the lab runs on, 4.19 to 6.18.
 */
#ifndef EFMP_COMPAT_H
#define EFMP_COMPAT_H

#include <linux/etherdevice.h>
#include <linux/hrtimer.h>
#include <linux/netdevice.h>
#include <linux/sched.h>
#include <linux/version.h>

#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 5, 0)
#include <net/gso.h>
#endif

/* Device addresses became read-only to drivers in 5.15. */
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 15, 0)
static inline void efmp_set_mac(struct net_device *dev, const u8 *mac)
{
	ether_addr_copy(dev->dev_addr, mac);
}
#else
static inline void efmp_set_mac(struct net_device *dev, const u8 *mac)
{
	eth_hw_addr_set(dev, mac);
}
#endif

/*
 * No transmit lock of the device's own (its transmit function nests inside other
 * devices'), and fixed to its namespace. Both were feature bits until 6.12. The
 * second one changed its name in 6.15 and within stable releases: Kbuild looks.
 */
static inline void efmp_set_nested_xmit(struct net_device *dev)
{
#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 12, 0)
	dev->features |= NETIF_F_LLTX | NETIF_F_NETNS_LOCAL;
#else
	dev->lltx = true;
#ifdef EFMP_NETNS_IMMUTABLE
	dev->netns_immutable = true;
#else
	dev->netns_local = true;
#endif
#endif
}

/* The CPUs that the caller may run on. */
static inline const struct cpumask *efmp_allowed_cpus(void)
{
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 3, 0)
	return &current->cpus_allowed;
#else
	return current->cpus_ptr;
#endif
}

/* A timer on this CPU. Its function was set apart from the rest until 6.13. */
static inline void efmp_hrtimer_setup(struct hrtimer *timer,
				      enum hrtimer_restart (*function)(struct hrtimer *))
{
#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 13, 0)
	hrtimer_init(timer, CLOCK_MONOTONIC, HRTIMER_MODE_REL_PINNED);
	timer->function = function;
#else
	hrtimer_setup(timer, function, CLOCK_MONOTONIC, HRTIMER_MODE_REL_PINNED);
#endif
}

#endif /* EFMP_COMPAT_H */
