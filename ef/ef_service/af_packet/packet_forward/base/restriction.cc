// SPDX-License-Identifier: GPL-2.0-only
#include "base/restriction.hpp"

#include "base/sync.hpp"

namespace mox {
namespace {

constinit u8 g_restricted = 0;

} // namespace

void restriction_set(bool on)
{
	store(g_restricted, static_cast<u8>(on));
}

bool restriction_on()
{
	return load(g_restricted) != 0;
}

} // namespace mox
