// SPDX-License-Identifier: GPL-2.0-only
/* Yielding the CPU in loops over as many values as a user likes. */
#pragma once

#include "seam/seam.h"

namespace mox {

/** Yields once in 64 steps. The caller holds no spin lock. Process. */
class Pauses {
public:
	void step()
	{
		if (++steps_ % 64 == 0)
			seam_cond_resched();
	}

private:
	u32 steps_ = 0;
};

} // namespace mox
