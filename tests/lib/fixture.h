/* SPDX-License-Identifier: GPL-2.0-only */
/* A handle of the C API on a fake of the socket calls. */
#ifndef FIXTURE_H
#define FIXTURE_H

#include "fake_calls.h"
#include "mox/handle.h"

#include <gtest/gtest.h>

#include <string>

class Handle : public testing::Test {
protected:
	~Handle() override { mox_free(s); }

	void make(mox_kind kind = MOX_RAW)
	{
		mox_free(s);
		s = mox::new_handle(kind, calls);
		ASSERT_NE(s, nullptr) << error();
	}
	/** A handle that captures at LEV2. */
	void start(const char *rule)
	{
		make();
		ASSERT_EQ(mox_add_rule(s, rule), 0) << error();
		ASSERT_EQ(mox_set_location(s, PACKET_LEV2_LOC), 0);
		ASSERT_EQ(mox_start(s), 0) << error();
	}
	static std::string error() { return mox_error(); }

	FakeCalls calls;
	mox_socket *s = nullptr;
};

#endif
