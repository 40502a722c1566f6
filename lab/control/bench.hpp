// SPDX-License-Identifier: GPL-2.0-only
// What lab-bench measures besides sends.
#pragma once

#include <string>
#include <vector>

namespace bench {

/// Instructions that one received frame costs in a hook, with the debug filter off and with each kind of filter in force.
/// Right only where the guest's clock counts instructions. The platform and the module are loaded.
void filter_instructions(unsigned batches);

/// Instructions that a received frame costs in the hook and in the copy thread, with 1 to 1,024 listeners in every shape or
/// only in those named.
void receive_instructions(const std::vector<std::string> &only);

/// Instructions of rule changes, system calls included: of one value among 1,024 rules, and of each of so many values in
/// one rule; and the memory that rules take.
void change_instructions(const std::vector<unsigned> &values);

/// Instructions of recvmsg, and those of the kernel's own packet socket: of a received frame, and of recvmsg.
void kernel_instructions();

/// The longest time with bottom halves off in each of several scenarios, with so many values in one rule; and, where the
/// loaded module records them, the longest holds of its locks.
void longest_sections(const std::vector<unsigned> &counts);

/// Opens that many capture sockets of one rule each at layer 2, runs the command and prints how long it took, by the
/// guest's clock. Returns the command's status.
int with_sockets(unsigned count, char **command);

} // namespace bench
