// SPDX-License-Identifier: GPL-2.0-only
// Everything that an offer of a frame to a socket can end in, each made to happen.
#pragma once

#include <functional>
#include <vector>

#include "socket_fixture.h"

struct OfferOutcome {
	mox_capture_counters_attr counter;
	mox_capture_verdict verdict; // of a trace
	std::function<void()> make, undo;
};

// For the next frame that the socket is offered.
inline std::vector<OfferOutcome> offer_outcomes(Sock &s)
{
	return {
		{ MOX_CAPTURE_COUNTERS_RECV_PACKETS, MOX_CAPTURE_VERDICT_PUT, [] {}, [] {} },
		{ MOX_CAPTURE_COUNTERS_FILTER_DROPS, MOX_CAPTURE_VERDICT_FILTERED,
		  [&s] {
			  s.sk->has_filter = true;
			  s.sk->verdict = 0;
		  },
		  [&s] { s.sk->has_filter = false; } },
		{ MOX_CAPTURE_COUNTERS_TRIM_FAIL_DROPS, MOX_CAPTURE_VERDICT_TRIM_FAILED,
		  [&s] {
			  s.sk->has_filter = true;
			  s.sk->verdict = 20;
			  kernel().nonlinear_skbs = true;
			  kernel().fail(Fail::kSkbTrim);
		  },
		  [&s] {
			  s.sk->has_filter = false;
			  kernel().nonlinear_skbs = false;
		  } },
		{ MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS, MOX_CAPTURE_VERDICT_BUFFER_FULL,
		  [&s] { s.sk->rcvbuf = 1; }, [&s] { s.sk->rcvbuf = 100000; } },
		{ MOX_CAPTURE_COUNTERS_MEMORY_DROPS, MOX_CAPTURE_VERDICT_NO_MEMORY,
		  [] { kernel().fail(Fail::kSkbAlloc); }, [] {} },
	};
}
