/* SPDX-License-Identifier: MIT */
/* What the shared library exports: everything else is hidden, and lib/abi/libmox.map names the versions. */
#ifndef MOX_EXPORT_H
#define MOX_EXPORT_H

#define MOX_API __attribute__((visibility("default")))

#endif
