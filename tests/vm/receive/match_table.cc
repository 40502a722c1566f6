// SPDX-License-Identifier: GPL-2.0-only
#include "receive/match_table.h"

namespace vm {

static void try_one(uint32_t location, lab::Hook hook, const MatchRow &row, bool behind_all)
{
	SCOPED_TRACE(std::string(row.what) + (behind_all ? " [as a condition]" : " [as the key]"));
	Socket socket;
	ASSERT_EQ(socket.error(), 0);
	if (behind_all) {
		ASSERT_EQ(socket.add(all()), 0);
	}
	ASSERT_EQ(socket.add(row.rule), 0);
	ASSERT_EQ(socket.treatment(PACKET_FETCH), 0);
	ASSERT_EQ(socket.location(location), 0);
	bool taken = behind_all ? row.match : row.key;
	EXPECT_EQ(lab::inject(hook, row.frame), taken ? lab::kTaken : lab::kGoOn);
	ASSERT_TRUE(lab::settle());
	EXPECT_EQ(socket.receive_now().has_value(), taken && row.match);
}

void try_rows(uint32_t location, lab::Hook hook, const std::vector<MatchRow> &rows)
{
	for (const MatchRow &row : rows) {
		try_one(location, hook, row, false);
		try_one(location, hook, row, true);
	}
}

} // namespace vm
