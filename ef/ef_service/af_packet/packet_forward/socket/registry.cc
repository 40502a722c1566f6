// SPDX-License-Identifier: GPL-2.0-only
#include "socket/registry.hpp"

#include "socket/closed.hpp"

namespace mox {
namespace {

constinit seam_mutex g_registry_mutex{};
constinit list_head g_sockets SEAM_GUARDED_BY(g_registry_mutex){};
constinit u64 g_opened SEAM_GUARDED_BY(g_registry_mutex) = 0;
constinit u32 g_departures SEAM_GUARDED_BY(g_registry_mutex) = 0;
constinit u32 g_size = 0;
constinit u32 g_changes = 1;
constinit u32 g_changing = 0; /* rule changes and releases under way */

mox_packet_sock *socket_at(list_head *link)
{
	/* The record begins with the kernel's sock, and is no standard layout in C++. */
	return reinterpret_cast<mox_packet_sock *>(reinterpret_cast<unsigned char *>(link) -
						   offsetof(mox_packet_sock, registered));
}

/** A new number of changes: never 0, which would mean to the kernel that a dump has not begun. */
u32 note_change()
{
	const u32 changes = __atomic_add_fetch(&g_changes, 1u, __ATOMIC_RELAXED);

	return changes ? changes : __atomic_add_fetch(&g_changes, 1u, __ATOMIC_RELAXED);
}

/** The first socket behind a place. */
list_head *behind(const RegistryPlace &place) SEAM_REQUIRES(g_registry_mutex)
{
	if (place.link && place.departures == g_departures)
		return place.link->next;
	list_head *at = g_sockets.next;
	while (at != &g_sockets && socket_at(at)->serial <= place.serial)
		at = at->next;
	return at;
}

} // namespace

void registry_init() SEAM_NO_THREAD_SAFETY_ANALYSIS
{
	seam_registry_mutex_init(&g_registry_mutex);
	list_init(&g_sockets);
	g_opened = 0;
	g_departures = 0;
	g_size = 0;
	closed_init();
}

void registry_add(mox_packet_sock *po)
{
	MutexGuard guard(&g_registry_mutex);

	po->serial = ++g_opened;
	list_link(&po->registered, g_sockets.prev);
	store(g_size, g_size + 1);
	note_change();
}

void registry_remove(mox_packet_sock *po)
{
	MutexGuard guard(&g_registry_mutex);

	list_unlink(&po->registered);
	g_departures++;
	store(g_size, g_size - 1);
	closed_add(po);
	note_change();
}

void registry_change_begins()
{
	__atomic_fetch_add(&g_changing, 1u, __ATOMIC_RELAXED);
	/* Who sees its number sees that it is under way, or over. */
	seam_smp_mb();
	note_change();
}

void registry_change_ends()
{
	note_change();
	seam_smp_mb();
	__atomic_fetch_sub(&g_changing, 1u, __ATOMIC_RELAXED);
}

u32 registry_changes()
{
	const u32 changes = load(g_changes);

	seam_smp_mb();
	if (load(g_changing) != 0)
		return note_change();
	return changes ? changes : 1;
}

bool registry_visit(RegistryPlace *place, u32 most,
		    bool (*visit)(void *context, mox_packet_sock *po), void *context)
{
	MutexGuard guard(&g_registry_mutex);

	for (list_head *at = behind(*place); at != &g_sockets; at = at->next) {
		mox_packet_sock *po = socket_at(at);
		if (most-- == 0 || !visit(context, po))
			return false;
		*place = { po->serial, g_departures, at };
	}
	return true;
}

u32 registry_size()
{
	return load(g_size);
}

} // namespace mox
