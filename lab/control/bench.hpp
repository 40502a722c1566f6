// SPDX-License-Identifier: GPL-2.0
// What lab-bench measures besides sends.
#pragma once

namespace bench {

/// Instructions that one received frame costs in a hook, with the debug filter off and with each kind of filter in force.
/// Right only where the guest's clock counts instructions. The platform and the module are loaded.
void filter_instructions(unsigned batches);

/// Opens that many capture sockets of one rule each at layer 2, runs the command and prints how long it took, by the
/// guest's clock. Returns the command's status.
int with_sockets(unsigned count, char **command);

} // namespace bench
