// SPDX-License-Identifier: GPL-2.0-only
// Where the globals of a loaded module lie.
#pragma once

#include <cstdint>
#include <string>

namespace vm {

/// The address of a symbol of mox_ef_socket or efmp as loaded now; it moves with every load. Throws when there is none.
uint64_t symbol_address(const std::string &symbol);

/// Where the two modules are loaded now: a text that changes when one of them is loaded at another address.
std::string load_addresses();

} // namespace vm
