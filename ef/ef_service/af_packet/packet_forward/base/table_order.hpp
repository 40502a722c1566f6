// SPDX-License-Identifier: GPL-2.0-only
/* The order in which a report prints the rows of a table. */
#pragma once

#include "seam/seam_types.h"

namespace mox {

/** Numbers of rows, as a range. */
template <u32 N> struct RowOrder {
	u8 row[N];

	constexpr const u8 *begin() const { return row; }
	constexpr const u8 *end() const { return row + N; }
};

/**
 * The rows of a table in the order of their column "line", which numbers them
 * from 0 without a gap; anything else does not compile.
 */
template <typename Row, size_t N> consteval RowOrder<N> rows_by_line(const Row (&table)[N])
{
	static_assert(N <= 255);
	RowOrder<N> order{};
	bool taken[N]{};

	for (u32 row = 0; row < N; row++) {
		u32 line = table[row].line;
		if (taken[line])
			__builtin_unreachable(); /* two rows have one line */
		taken[line] = true;
		order.row[line] = static_cast<u8>(row);
	}
	return order;
}

} // namespace mox
