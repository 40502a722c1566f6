// SPDX-License-Identifier: GPL-2.0-only
#include "receive/arrivals.hpp"

namespace mox {
namespace {

static_assert((kQueueLimit & (kQueueLimit - 1)) == 0, "an entry is found with a mask");
constexpr u32 kEntries = kQueueLimit;
/* Bytes of the rings of a CPU. */
constexpr size_t kRingSize = sizeof(u32) * kEntries * CPU_QUEUES;
/* An entry of a frame whose hook noted no time. */
constexpr u32 kNoTick = 0;

constinit seam_mutex g_arrivals_mutex{};
/* Sockets and traces that use times of arrival. */
constinit u32 g_needs SEAM_GUARDED_BY(g_arrivals_mutex) = 0;
/* The rings of each possible CPU, once they were needed. */
constinit u32 *g_rings[CPU_QUEUE_SLOTS]{};

template <typename Visit> void for_cpus(Visit visit)
{
	for (int cpu = seam_next_possible_cpu(-1); cpu < seam_nr_cpu_ids();
	     cpu = seam_next_possible_cpu(cpu))
		visit(cpu);
}

void free_rings()
{
	for (u32 *&ring : g_rings) {
		seam_vfree(ring);
		ring = nullptr;
	}
}

bool make_rings()
{
	bool made = true;

	for_cpus([&](int cpu) {
		if (!g_rings[cpu])
			publish(g_rings[cpu], static_cast<u32 *>(seam_vzalloc(kRingSize)));
		made = made && g_rings[cpu];
	});
	return made;
}

/*
 * Entries that delivery has not read, of frames that left while no times were needed. The next frame
 * with such a number must not get an old time.
 */
void clear_rings()
{
	for (u32 *ring : g_rings)
		for (u32 entry = 0; ring && entry < kEntries * CPU_QUEUES; entry++)
			store(ring[entry], kNoTick);
}

/* A hook that runs now may still write to a ring that is switched off: the rings stay. */
void switch_rings(bool on)
{
	for_cpus([on](int cpu) {
		publish(seam_hook_cpu(cpu)->arrivals, on ? g_rings[cpu] : nullptr);
	});
}

u32 tick_of(u64 time)
{
	const u32 tick = static_cast<u32>(time >> kArrivalShift);

	return tick == kNoTick ? 1 : tick;
}

} // namespace

void arrivals_init() SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	seam_arrivals_mutex_init(&g_arrivals_mutex);
	g_needs = 0;
}

void arrivals_deinit()
{
	switch_rings(false);
	free_rings();
}

bool arrivals_need()
{
	MutexGuard guard(&g_arrivals_mutex);

	if (g_needs == 0) {
		if (!make_rings())
			return false;
		clear_rings();
		switch_rings(true);
	}
	g_needs++;
	return true;
}

void arrivals_release()
{
	MutexGuard guard(&g_arrivals_mutex);

	if (--g_needs == 0)
		switch_rings(false);
}

void arrival_note(const hook_cpu *here, u32 queue, u32 frame)
{
	u32 *ring = published(here->arrivals);

	if (ring)
		store(ring[queue * kEntries + frame % kEntries], tick_of(seam_monotonic_ns()));
}

u64 arrival_of(const efbuff_queue *queue, u32 frame, u64 now)
{
	const u32 place = static_cast<u32>(queue - &g_cpu_pkt_que[0][0]);
	u32 *ring = published(g_rings[place / CPU_QUEUES]);

	if (!ring)
		return kNoArrival;
	u32 &entry = ring[place % CPU_QUEUES * kEntries + frame % kEntries];
	const u32 tick = load(entry);
	/* For the next frame with this number, if its hook notes no time. */
	store(entry, kNoTick);
	if (tick == kNoTick)
		return kNoArrival;
	const u32 ago = tick_of(now) - tick;
	return now - (u64{ ago } << kArrivalShift);
}

} // namespace mox
