// SPDX-License-Identifier: GPL-2.0-only
#include "ledger.h"

#include <gtest/gtest.h>

#include "kernel.h"

// Only where the program under test has queues.
extern "C" __attribute__((weak)) efbuff_queue g_cpu_pkt_que[CPU_QUEUE_SLOTS][CPU_QUEUES];

namespace fake {

uint64_t total(const mox_total &of)
{
	EXPECT_EQ(of.high & 1u << 31, 0u) << "a carry has not ended";
	return uint64_t{ of.high } << 32 | of.low;
}

uint64_t total(const mox_packet_sock *po, mox_capture_counters_attr which)
{
	return total(po->ledger.totals[which - 1]);
}

void audit_frames()
{
	for (int cpu = 0; cpu < kernel().cpu_ids; cpu++)
		for (int number = 0; number < CPU_QUEUES; number++) {
			const hook_ledger &hook = kernel().hook_cpus[cpu].hooks[number];
			const delivery_ledger &behind = kernel().hook_cpus[cpu].delivered[number];
			SCOPED_TRACE("ledger of CPU " + std::to_string(cpu) + ", queue " +
				     std::to_string(number));
			EXPECT_GE(total(hook.seen), total(hook.wanted));
			EXPECT_EQ(total(hook.wanted),
				  total(hook.cloned) + total(hook.taken) +
					  total(hook.clone_failed) + total(hook.copies_refused) +
					  total(hook.takes_refused) + total(hook.rnfp_drops) +
					  total(hook.rnfp_wlan_drops));
			const uint64_t queued = g_cpu_pkt_que ? g_cpu_pkt_que[cpu][number].count
							      : 0;
			EXPECT_EQ(total(hook.cloned) + total(hook.taken),
				  total(behind.kept) + total(behind.unkept) +
					  total(behind.unmatched) + total(behind.freed) + queued);
			EXPECT_GE(total(behind.offers), total(behind.kept) + total(behind.unkept));
		}
}

void audit_socket(const mox_packet_sock *po, uint64_t queued)
{
	const auto of = [po](mox_capture_counters_attr which) { return total(po, which); };

	SCOPED_TRACE(std::string("ledger of a socket of ") + po->process);
	EXPECT_EQ(of(MOX_CAPTURE_COUNTERS_MATCHED),
		  of(MOX_CAPTURE_COUNTERS_RECV_PACKETS) + of(MOX_CAPTURE_COUNTERS_FILTER_DROPS) +
			  of(MOX_CAPTURE_COUNTERS_TRIM_FAIL_DROPS) +
			  of(MOX_CAPTURE_COUNTERS_RCVBUF_FULL_DROPS) +
			  of(MOX_CAPTURE_COUNTERS_MEMORY_DROPS));
	EXPECT_EQ(of(MOX_CAPTURE_COUNTERS_RECV_PACKETS),
		  of(MOX_CAPTURE_COUNTERS_READ) + of(MOX_CAPTURE_COUNTERS_FREED_UNREAD) + queued);
	EXPECT_LE(of(MOX_CAPTURE_COUNTERS_PASSED_ON), of(MOX_CAPTURE_COUNTERS_MATCHED));
	uint64_t ended = of(MOX_CAPTURE_COUNTERS_SEND_PACKETS);
	for (int which = MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS;
	     which <= MOX_CAPTURE_COUNTERS_EF_SEND_FAILS; which++)
		ended += of(static_cast<mox_capture_counters_attr>(which));
	EXPECT_EQ(of(MOX_CAPTURE_COUNTERS_SENDS), ended);
}

bool deliver(sock *sk, sk_buff *skb)
{
	auto *po = reinterpret_cast<mox_packet_sock *>(sk);

	if (seam_rcvq_offer(sk, skb, 0) != SEAM_OFFER_QUEUED)
		return false;
	po->ledger.totals[MOX_CAPTURE_COUNTERS_MATCHED - 1].low++;
	po->ledger.totals[MOX_CAPTURE_COUNTERS_RECV_PACKETS - 1].low++;
	return true;
}

void read_all(sock *sk)
{
	auto *po = reinterpret_cast<mox_packet_sock *>(sk);

	po->ledger.totals[MOX_CAPTURE_COUNTERS_READ - 1].low += seam_rcvq_len(sk);
	seam_rcvq_purge(sk);
}

} // namespace fake
