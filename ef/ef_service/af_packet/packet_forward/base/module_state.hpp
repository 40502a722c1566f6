// SPDX-License-Identifier: GPL-2.0-only
/* Whether the module is up, for paths that must not run before a load has succeeded. */
#pragma once

namespace mox {

/** Whether every unit is up. Any context. */
bool module_up();
/** Set by load and unload alone: true behind the last unit's init, false before the first deinit. */
void set_module_up(bool up);

} // namespace mox
