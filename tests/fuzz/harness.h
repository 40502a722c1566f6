// SPDX-License-Identifier: GPL-2.0-only
// What a target defines. A failed expectation ends the process, as a crash does.
#pragma once

#include "input.h"

// Plays one case.
void fuzz_case(fuzz::Input input);
// What a target may define: runs before the first case.
void fuzz_begin();
