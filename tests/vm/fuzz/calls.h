// SPDX-License-Identifier: GPL-2.0-only
// A case: a byte string that stands for a sequence of system calls and frames.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "support/failnth.h"
#include "support/genl.h"
#include "support/socket.h"

#include "fuzz/input.h"

namespace fuzz {

using vm::Bytes;

/// What a worker has before it gives its privileges away.
struct Families {
	uint16_t control = 0; ///< of the operators' family
	uint16_t capture = 0; ///< of the family for reading
};

/// User memory that ends where a case has it end.
class Window {
public:
	static constexpr size_t kSize = 8192;

	Window();
	~Window();
	Window(const Window &) = delete;

	/// The address of a copy of the bytes, of which only `reach` are followed by no hole.
	uint8_t *put(const Bytes &bytes, size_t reach);
	/// Room for so many bytes, the hole behind them.
	uint8_t *room(size_t size) { return put({}, 0) - std::min(size, kSize); }

private:
	uint8_t *begin_, *end_;
};

/// Plays cases in the calling process. Nothing of a case is left when play() returns.
class Player {
public:
	/// operates: the process has an operator's capabilities, and may make its own allocations fail
	/// where the kernel can.
	Player(const Families &families, bool operates);

	void play(Input input);
	/// What ends a case, for one that an exception has ended.
	void rest();
	uint64_t calls() const { return calls_; }

	/// A new case: calls that mean something, more often than not.
	static Bytes invent(std::minstd_rand &random);

	/// At most so many calls of a case, so many bytes of it, and so many sockets at once.
	static constexpr size_t kCalls = 32, kBytes = 1024, kSockets = 6;

private:
	using Call = void (Player::*)(Input &);
	static const Call kTable[];
	static const size_t kTableSize;

	int fd(Input &input) { return sockets_[input.below(kSockets)]; }
	/// A pointer to the bytes: mostly good, else null, not mapped, or into a hole.
	void *pointer(Input &input, const Bytes &bytes);

	void open(Input &input);
	void close(Input &input);
	void rule(Input &input);
	void where_and_how(Input &input);
	void option(Input &input);
	void read_option(Input &input);
	void bind(Input &input);
	void send(Input &input);
	void receive(Input &input);
	void other(Input &input);
	void frame(Input &input);
	void control(Input &input);
	void capture(Input &input);
	void diag(Input &input);
	void fail(Input &input);

	void lift_switches();

	Families families_;
	bool operates_;
	Window window_;
	std::array<int, kSockets> sockets_;
	std::unique_ptr<vm::GenlSocket> genl_;
	std::optional<vm::FailNth> injector_;
	uint64_t calls_ = 0;
};

} // namespace fuzz
