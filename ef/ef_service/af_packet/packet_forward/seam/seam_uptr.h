/* SPDX-License-Identifier: GPL-2.0-only */
/* The C side of struct seam_uptr. */
#ifndef SEAM_UPTR_H
#define SEAM_UPTR_H

#include "seam_compat.h"

struct seam_uptr {
	SEAM_OPTVAL value;
};

#endif
