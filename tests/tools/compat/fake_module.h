/* SPDX-License-Identifier: GPL-2.0-only */
/* The test's end of the relay's capture sockets: what the relay asked for, what it sent, and frames for it. */
#ifndef FAKE_MODULE_H
#define FAKE_MODULE_H

#include "compat/fake_wire.h"

#include <cstdint>
#include <string>
#include <vector>

class FakeModule {
public:
	struct Option {
		int level, option;
		std::vector<std::uint8_t> value;
	};
	struct Sent {
		std::vector<std::uint8_t> address, frame;
	};

	/** Listens under a name of its own, and sets the variables for relays that are started from now on. */
	FakeModule();
	~FakeModule();
	FakeModule(const FakeModule &) = delete;
	FakeModule &operator=(const FakeModule &) = delete;

	/** Takes the connection of the next capture socket, whose number is returned. */
	std::size_t accept();

	/** What came since the last call, in its order. */
	std::vector<Option> options(std::size_t capture = 0);
	std::vector<Sent> sent(std::size_t capture = 0);

	void frame(const std::vector<std::uint8_t> &bytes, std::uint32_t in = kPort,
		   const mox_packet_ctrl_info &record = {}, std::size_t capture = 0);
	void drops(int count, std::size_t capture = 0);
	/** Whether the relay closes its capture socket within some seconds. */
	bool is_closed(std::size_t capture = 0);

private:
	void read(std::size_t capture);

	int listener_;
	struct Capture {
		int fd;
		std::vector<Option> options;
		std::vector<Sent> sent;
	};
	std::vector<Capture> captures_;
};

#endif
