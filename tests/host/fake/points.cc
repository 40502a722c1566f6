// SPDX-License-Identifier: GPL-2.0-only
#include "points.h"

#include <gtest/gtest.h>

namespace fake {
namespace {

#define FAKE_TEXT(name, text) text,
const char *const kPointTexts[] = { FAKE_POINTS(FAKE_TEXT) };
const char *const kFailureTexts[] = { FAKE_FAILURES(FAKE_TEXT) };
#undef FAKE_TEXT

} // namespace

Interleavings::Interleavings()
{
	for (size_t i = 0; i < slots_.size(); i++)
		slots_[i].point_ = static_cast<Point>(i);
}

void Interleavings::Slot::end()
{
	if (owed_)
		ADD_FAILURE() << "armed and never reached: "
			      << kPointTexts[static_cast<size_t>(point_)];
	owed_ = false;
	act_ = nullptr;
	generation_++;
}

Interleavings::Slot &Interleavings::Slot::operator=(Act act)
{
	end();
	act_ = std::move(act);
	owed_ = true;
	return *this;
}

void Interleavings::watch(Point point, Act act)
{
	(*this)[point] = std::move(act);
	(*this)[point].owed_ = false;
}

void Interleavings::clear()
{
	for (Slot &slot : slots_)
		slot.end();
}

void Interleavings::happen(Point point, const void *what)
{
	Slot &slot = (*this)[point];
	if (!slot.act_)
		return;
	// A callback may do what leads to the same point: it runs once per level. It may also arm
	// the point anew, or take itself away.
	slot.owed_ = false;
	Act act = std::move(slot.act_);
	slot.act_ = nullptr;
	const unsigned generation = slot.generation_;
	act(what);
	if (slot.generation_ == generation)
		slot.act_ = std::move(act);
}

void Failures::arm(Fail call, int nth)
{
	armed_[call].insert(calls_[call] + nth);
}

bool Failures::due(Fail call)
{
	const uint64_t now = ++calls_[call];
	auto it = armed_.find(call);
	return it != armed_.end() && it->second.erase(now);
}

uint64_t Failures::calls(Fail call) const
{
	auto it = calls_.find(call);
	return it == calls_.end() ? 0 : it->second;
}

void Failures::audit() const
{
	for (auto &[call, nths] : armed_)
		if (!nths.empty())
			ADD_FAILURE() << "armed to fail and never called so often: "
				      << kFailureTexts[static_cast<size_t>(call)];
}

} // namespace fake
