/* SPDX-License-Identifier: GPL-2.0-only WITH Linux-syscall-note */
/*
 * mox_version.h - the version of the module, of the library and of the programs. It is
 * here because the module is built of its own folder and this one alone.
 */
#ifndef MOX_VERSION_H
#define MOX_VERSION_H

#define MOX_VERSION_MAJOR 1
#define MOX_VERSION_MINOR 0

#define MOX_VERSION_DIGITS(number) #number
#define MOX_VERSION_JOIN(major, minor) MOX_VERSION_DIGITS(major) "." MOX_VERSION_DIGITS(minor)

/** "MAJOR.MINOR" */
#define MOX_VERSION MOX_VERSION_JOIN(MOX_VERSION_MAJOR, MOX_VERSION_MINOR)

#endif
