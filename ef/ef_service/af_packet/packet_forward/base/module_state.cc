// SPDX-License-Identifier: GPL-2.0-only
#include "base/module_state.hpp"

#include "base/sync.hpp"

namespace mox {
namespace {
constinit bool g_module_up = false;
} // namespace

bool module_up()
{
	return load(g_module_up);
}

void set_module_up(bool up)
{
	/* What the units have set up is visible before the flag is. */
	seam_smp_wmb();
	store(g_module_up, up);
}

} // namespace mox
