// SPDX-License-Identifier: GPL-2.0-only
// Rules that collide all the time, and frames that miss them by one condition at most: see
// dense_fixture.h. SEED=n replays a run; STEPS=n and RULES=n change its size.
#include "dense_fixture.h"

#include "rules/index.hpp"

namespace {

using Dense = DenseTest;

TEST_F(Dense, module_and_reference_agree)
{
	run("Dense.module_and_reference_agree", {}, given_seed());
}

TEST_F(Dense, module_and_reference_agree_without_memory)
{
	run("Dense.module_and_reference_agree_without_memory", { .failing = true }, given_seed());
}

// As many rules as make long lists, and values of which some are rare.
TEST_F(Dense, module_and_reference_agree_on_many_rules)
{
	run("Dense.module_and_reference_agree_on_many_rules",
	    { .rules = 96, .steps = 3000, .compare_every = 10, .verify_every = 100, .spread = 8 },
	    given_seed());
}

// Keys without a value that withdrawal does not find again.
TEST_F(Dense, module_and_reference_agree_on_keys_that_stay)
{
	run("Dense.module_and_reference_agree_on_keys_that_stay",
	    { .steps = 3000, .stray_keys = true }, given_seed());
}

// All values of all types have one hash: what buckets and digests tell apart otherwise is compared
// exactly.
TEST_F(Dense, module_and_reference_agree_when_all_hashes_are_equal)
{
	g_index_seeds = {};
	run("Dense.module_and_reference_agree_when_all_hashes_are_equal", { .steps = 1500 },
	    given_seed());
}

// Only some are: the hash is the value's first word, whatever its type.
TEST_F(Dense, module_and_reference_agree_when_types_share_hashes)
{
	g_index_seeds = {};
	g_index_seeds.low = 1;
	run("Dense.module_and_reference_agree_when_types_share_hashes", { .steps = 1500 },
	    given_seed());
}

} // namespace
