/* SPDX-License-Identifier: MIT */
#define _GNU_SOURCE
#include "preload/real.h"

#include "preload/say.h"

#include <dlfcn.h>
#include <stdlib.h>

void *mox_real(mox_real_slot *slot, const char *name)
{
	void *found = __atomic_load_n(slot, __ATOMIC_RELAXED);

	if (found)
		return found;
	found = dlsym(RTLD_NEXT, name);
	if (!found) {
		mox_say("the C library has no %s", name);
		abort();
	}
	__atomic_store_n(slot, found, __ATOMIC_RELAXED);
	return found;
}
