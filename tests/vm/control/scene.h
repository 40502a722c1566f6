// SPDX-License-Identifier: GPL-2.0-only
// Known sockets, and what every report must say of them.
#pragma once

#include "golden.h"
#include "support/socket.h"

namespace vm {

/// Four sockets at layer 2 (one of them stopped), with rules that share keys of the filter list, in the order in which
/// they were made: copy, trap, fetch, none.
struct LayerTwoScene {
	LayerTwoScene();

	Socket copy, trap, fetch, stopped;

	/// What the report has of them, in its order: by treatment.
	static std::vector<SocketText> sockets();
	static std::vector<EntryText> entries();
	static constexpr uint32_t kKeys = 3, kCopies = 4;
};

/// One socket in each location that a socket can have, of all frames, and the reports of the eight locations.
struct EveryLocationScene {
	EveryLocationScene();

	std::vector<Socket> sockets;

	static std::vector<SocketText> sockets_at(unsigned report);
	static std::vector<EntryText> entries_at(unsigned location);
};

} // namespace vm
