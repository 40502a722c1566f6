// SPDX-License-Identifier: GPL-2.0-only
// The load and unload entries alone: the six units, the family for reading behind them, and the
// times of arrival around them are stand-ins that write down when they are called, and any of
// them that can fail can be made to fail.
#include "base/module_state.hpp"
#include "fake/fixture.h"
#include "receive/arrivals.hpp"
#include "seam/seam.h"

using fake::kernel;

namespace {

std::string failing_unit;
int failing_result;

int init(const char *unit)
{
	EXPECT_FALSE(mox::module_up()) << unit;
	kernel().journal.push_back(std::string(unit) + "+");
	return failing_unit == unit ? failing_result : 0;
}

size_t lines_at_first_deinit;

void deinit(const char *unit)
{
	EXPECT_FALSE(mox::module_up()) << unit;
	if (lines_at_first_deinit == SIZE_MAX)
		lines_at_first_deinit = kernel().log.size();
	kernel().journal.push_back(std::string(unit) + "-");
}

} // namespace

#define STAND_IN(unit, symbol)                \
	extern "C" int symbol##_init(void)    \
	{                                     \
		return init(#unit);           \
	}                                     \
	extern "C" void symbol##_deinit(void) \
	{                                     \
		deinit(#unit);                \
	}
#define STAND_IN_PACKET(unit) STAND_IN(unit, mox_packet_##unit)
STAND_IN_PACKET(sock)
STAND_IN_PACKET(regular)
STAND_IN_PACKET(serv)
STAND_IN_PACKET(msg)
STAND_IN_PACKET(family)
STAND_IN_PACKET(thread)
STAND_IN(capture, mox_capture)

void mox::arrivals_init()
{
	(void)init("arrivals");
}
void mox::arrivals_deinit()
{
	deinit("arrivals");
}

namespace {

using Strings = std::vector<std::string>;

class Main : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		failing_unit.clear();
		lines_at_first_deinit = SIZE_MAX;
	}
};

const Strings kUp{ "arrivals+", "sock+",   "regular+", "serv+",
		   "msg+",      "family+", "thread+",  "capture+" };
// The thread goes first when a load fails and last at unload: both are meant so. The family for
// reading is the last to come up, so a load that fails never has it.
const Strings kUnwind{ "thread-", "family-", "msg-", "serv-", "regular-", "sock-", "arrivals-" };
const Strings kDown{ "capture-", "family-", "grace",   "msg-",     "serv-",
		     "regular-", "sock-",   "thread-", "arrivals-" };

TEST_F(Main, init__brings_the_units_up_in_order)
{
	EXPECT_EQ(mox_packet_init(), 0);
	EXPECT_EQ(kernel().journal, kUp);
	EXPECT_TRUE(kernel().log.empty());
	// Sockets are created from here on, and not while a deinit runs: see init() and deinit().
	EXPECT_TRUE(mox::module_up());
	mox_packet_exit();
	EXPECT_FALSE(mox::module_up());
}

TEST_F(Main, exit__takes_the_units_down_in_its_own_order_with_a_grace_period_behind_the_family)
{
	mox_packet_exit();
	EXPECT_EQ(kernel().journal, kDown);
	EXPECT_TRUE(kernel().log.empty());
}

TEST_F(Main, init__each_unit_failing_unwinds_all_six_and_answers_minus_1)
{
	struct {
		const char *unit, *line;
	} const cases[] = {
		{ "sock", "PACKET-SOCK init failed\n" },
		{ "regular", "PACKET-REGULAR init failed\n" },
		{ "serv", "PACKET-SERV init failed\n" },
		{ "msg", "PACKET-MSG init failed\n" },
		{ "family", "PACKET-FAMILY init failed\n" },
		{ "thread", "PACKET-THREAD init failed\n" },
		{ "capture", "PACKET-CAPTURE init failed\n" },
	};
	size_t brought_up = 1; // the times of arrival, which cannot fail
	for (auto &c : cases) {
		brought_up++;
		// Whatever the unit answers, a positive number too.
		for (int result : { -1, -12, -17, 1 }) {
			SCOPED_TRACE(std::string(c.unit) + " answers " + std::to_string(result));
			kernel().journal.clear();
			kernel().log.clear();
			failing_unit = c.unit;
			failing_result = result;
			EXPECT_EQ(mox_packet_init(), -1);
			EXPECT_FALSE(mox::module_up());
			Strings wanted(kUp.begin(), kUp.begin() + brought_up);
			wanted.insert(wanted.end(), kUnwind.begin(), kUnwind.end());
			EXPECT_EQ(kernel().journal, wanted);
			ASSERT_EQ(kernel().log.size(), 1u);
			EXPECT_EQ(kernel().log[0].text, c.line);
			EXPECT_EQ(kernel().log[0].level, 6);
		}
	}
}

TEST_F(Main, init__line_comes_before_the_unwinding)
{
	failing_unit = "msg";
	failing_result = -1;
	mox_packet_init();
	EXPECT_EQ(lines_at_first_deinit, 1u);
}

} // namespace
