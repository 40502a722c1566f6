// SPDX-License-Identifier: GPL-2.0-only
// Sends of any name, control record and data on a few sockets, in a world that changes, beside the
// reference. What they are, a generator or the bytes of a case choose.
#pragma once

#include "oracle/choices.h"
#include "oracle/send.h"
#include "send_fixture.h"

class RandomSendTest : public SendTest {
protected:
	void SetUp() override;
	void TearDown() override;
	// Perhaps a change of the world; then a send, and its result, every counter, every line and
	// the whole efbuff against what the reference has.
	void step();

	oracle::Choices rng;
	std::array<int, kCounters> seen{}; // sends by how they ended

private:
	static constexpr int kSockets = 4;

	u32 below(u32 n) { return u32(rng.below(n)); }
	bool one_in(u32 n) { return below(n) == 0; }
	u32 pick(std::initializer_list<u32> of) { return *(of.begin() + below(u32(of.size()))); }
	u32 ifindex() { return pick({ 0, 7, 7, 7, 8, 8, 9, 77, 4094, 4095 }); }
	Bytes noise(size_t len);
	Bytes name();
	Bytes record();
	void change();
	void change_binding();

	oracle::SendWorld world;
	oracle::SendSocket models[kSockets];
	Sock socks[kSockets];
	Counters13 totals[kSockets] = {};
};
