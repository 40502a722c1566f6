// SPDX-License-Identifier: GPL-2.0-only
// Loading and unloading of kernel modules out of the image's module directory.
#pragma once

#include <string>

namespace vm {

/// The module's file in the image: $MOX_MODULES or /modules.
std::string module_file(const std::string &name);
/// 0, or the errno of init_module(2).
int load_module(const std::string &name);
/// 0, or the errno of delete_module(2) (never waits for users to go).
int unload_module(const std::string &name);
/// Whether /proc/modules lists it.
bool module_present(const std::string &name);
/// Whether the image has the module's file.
bool module_shipped(const std::string &name);

} // namespace vm
