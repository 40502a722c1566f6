// SPDX-License-Identifier: GPL-2.0-only
// Frames as efbuffs of the fake platform.
#pragma once

#include "fake/efmp.h"
#include "fake/kernel.h"
#include "oracle/frames.h"
#include "oracle/packet.h"
#include "locations/table.hpp"
#include "packet/info.hpp"
#include "receive/queue.hpp"
#include "rules/match.hpp"
#include "rules/matching.hpp"
#include "rules/search.hpp"

using namespace mox;

// Queues of a CPU's slot, in the order of a drain.
enum CpuQueue {
	kQueueLev2,
	kQueueLocal,
	kQueueIpv4,
	kQueueIpv6,
	kQueueMpls,
	kQueueTrill,
	kQueueResv,
	kQueueWlan,
};

namespace packets {

using namespace oracle;

// A frame in an efbuff of the platform; the fields that no rule reads carry marks.
inline void *make(const Meta &meta, const Bytes &frame)
{
	return fake::efmp().efbuff(efbuff(meta, frame));
}

// Queues an efbuff of the module's as a hook does with a taken one, whatever the limits are.
inline void enqueue(efbuff_queue *queue, void *e, Held held = Held::kTaken)
{
	const size_t place = queue - &g_cpu_pkt_que[0][0];
	CpuHeld &cpu = g_cpu_held[place / CPU_QUEUES];
	cpu.queues[place % CPU_QUEUES].queued += static_cast<u32>(held);
	cpu.all.queued += static_cast<u32>(held);
	hook_ledger &ledger =
		fake::kernel().hook_cpus[place / CPU_QUEUES].hooks[place % CPU_QUEUES];
	for (mox_total *total : { &ledger.seen, &ledger.wanted,
				  held == Held::kTaken ? &ledger.taken : &ledger.cloned })
		total->low++;
	queue_append(queue, e, held);
}

// The reference's reading of an efbuff that stands in the fake platform. Copies
// what may be read, so that the reference cannot trip over poisoned bytes.
Packet read(const void *efbuff);
WlanPacket read_wlan(const void *efbuff);

} // namespace packets
