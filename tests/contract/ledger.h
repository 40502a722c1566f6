// SPDX-License-Identifier: GPL-2.0-only
// What adds up in a location's ledger, at rest.
#pragma once

#include <gtest/gtest.h>

#include "mox_capture.h"

namespace contract {

/// of(attribute) is a word of the ledger.
template <typename Words> void expect_location_sums(const Words &of)
{
	EXPECT_EQ(of(MOX_CAPTURE_LOCATION_SEEN),
		  of(MOX_CAPTURE_LOCATION_UNWANTED) + of(MOX_CAPTURE_LOCATION_WANTED));
	EXPECT_EQ(of(MOX_CAPTURE_LOCATION_WANTED),
		  of(MOX_CAPTURE_LOCATION_CLONED) + of(MOX_CAPTURE_LOCATION_TAKEN) +
			  of(MOX_CAPTURE_LOCATION_CLONE_FAILED) +
			  of(MOX_CAPTURE_LOCATION_COPIES_REFUSED) +
			  of(MOX_CAPTURE_LOCATION_TAKES_REFUSED) +
			  of(MOX_CAPTURE_LOCATION_RNFP_DROPS) +
			  of(MOX_CAPTURE_LOCATION_RNFP_WLAN_DROPS));
	EXPECT_EQ(of(MOX_CAPTURE_LOCATION_CLONED) + of(MOX_CAPTURE_LOCATION_TAKEN),
		  of(MOX_CAPTURE_LOCATION_KEPT) + of(MOX_CAPTURE_LOCATION_UNKEPT) +
			  of(MOX_CAPTURE_LOCATION_UNMATCHED) + of(MOX_CAPTURE_LOCATION_FREED) +
			  of(MOX_CAPTURE_LOCATION_QUEUED));
}

} // namespace contract
