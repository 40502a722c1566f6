// SPDX-License-Identifier: GPL-2.0-only
// For tests of the socket calls: the order of locks, what one socket owns, a
// second namespace, and the other CPU played at every point of a call.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/errors.hpp"
#include "module_fixture.h"

using namespace mox;

using Strings = std::vector<std::string>;

// Records every lock taken ("+sock") and dropped ("-sock") while it lives.
class LockTrace {
public:
	LockTrace();
	~LockTrace();
	LockTrace(const LockTrace &) = delete;
	LockTrace &operator=(const LockTrace &) = delete;

	Strings steps;
	// Asked at each step, with the lock of it held (or just dropped).
	std::function<void(const std::string &)> look;

private:
	void arm();
	std::map<const void *, std::string> names_;
};

// One datum of a rule, read straight from a socket's record.
inline oracle::Value value_of(const Bytes &bytes)
{
	oracle::Value v{};
	std::copy(bytes.begin(), bytes.end(), v.begin());
	return v;
}

using Items = std::vector<std::pair<u32, std::vector<oracle::Value>>>;

class SocketTest : public ModuleTest {
protected:
	void SetUp() override;
	void TearDown() override;

	// The debug lines since the last call, without the CPU's tag; other lines
	// are kept as they are, with "<level>" in front when they carry one.
	Strings lines();
	// The rules that are in a location's library.
	static size_t filed(u32 location) { return rules_in(&lib_of(location)->regulars).size(); }
	// How often a hook stands registered with the platform.
	static bool hooked(const std::string &name) { return efmp().registered[name] != 0; }
	static Items items(Sock &s) { return view(s.po().regular).items; }

	// Runs act() as another CPU does: with none of this one's locks, and bottom
	// halves on.
	static void on_other_cpu(const std::function<void()> &act);

	// Runs call() once for every lock step n of it, with other() played by
	// another CPU there; where that CPU would wait for the socket lock, it is
	// played right behind the call. check() sees the outcome of each.
	// Returns at how many steps the other CPU had to wait.
	size_t interleave(Sock &s, const std::function<void()> &prepare,
			  const std::function<void()> &call, const std::function<void()> &other,
			  const std::function<void()> &check);

	::net other_ns;
};

// With a socket that is there before the test, and debug lines on; those of its creation are read.
class CreatedSocketTest : public SocketTest {
protected:
	void SetUp() override;
	// A test may have released it.
	void TearDown() override;

	Sock s;
};
