// SPDX-License-Identifier: GPL-2.0-only
// The debug lines of setsockopt, letter by letter: operators search logs for them, spelling mistakes included.
#include <cerrno>
#include <string>

#include "support/failnth.h"
#include "support/fixture.h"

namespace {

using namespace vm;

class OptionText : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		pin(1);
	}
	void TearDown() override
	{
		pin(-1);
		VmTest::TearDown();
	}
	/// The lines of one call with the switch on.
	template <class Call> std::vector<std::string> lines_of(Call call)
	{
		DebugOn debug;
		call();
		return lab::printk_lines();
	}
	Socket socket_;
	uint32_t word_ = 1;
};

TEST_F(OptionText, foreign_level)
{
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.option_raw(0, 15, &word_, 4); }),
			    "PACKET-SETSOCKOPT: level is not SOL_PACKET!", 1));
}

TEST_F(OptionText, short_words)
{
	EXPECT_TRUE(HasLine(
		lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, PACKET_TREATMENT, &word_, 3); }),
		"SETSOCKOPT: PACKET_TREATMENT len error.", 1));
	EXPECT_TRUE(HasLine(
		lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, PACKET_CTRL_INFO, &word_, 3); }),
		"SETSOCKOPT: PACKET_CTRL_INFO len error", 1));
	EXPECT_TRUE(HasLine(
		lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, PACKET_LOCATION, &word_, 3); }),
		"SETSOCKOPT: PACKET_LOCATION len error", 1));
}

TEST_F(OptionText, unreadable_words)
{
	for (int option : { PACKET_TREATMENT, PACKET_CTRL_INFO, PACKET_LOCATION }) {
		int error = 0;
		auto lines = lines_of([&] {
			error = socket_.option_raw(MOX_SOL_PACKET, option,
						   reinterpret_cast<void *>(8), 4);
		});
		EXPECT_EQ(error, EFAULT) << option;
		EXPECT_TRUE(HasLine(lines, "SETSOCKOPT: copy from user failed", 1)) << option;
	}
}

TEST_F(OptionText, treatments_by_name)
{
	for (uint32_t value = 0; value < contract::kTreatments; ++value)
		EXPECT_TRUE(HasLine(
			lines_of([&] { socket_.treatment(value); }),
			std::string("SETSOCKOPT: process: ") + contract::treatment_name(value), 1));
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.treatment(6); }),
			    "SETSOCKOPT: PACKET_TREATMENT type illegal.", 1));
}

TEST_F(OptionText, locations_by_name)
{
	for (uint32_t value : { 0u, 1u, 2u, 3u, 4u, 7u, 8u, 9u, 10u, 11u, 0xffffffffu })
		EXPECT_TRUE(HasLine(lines_of([&] { socket_.location(value); }),
				    std::string("SETSOCKOPT: PACKET_LOCATION ") +
					    contract::location_name(value),
				    1));
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.location(5); }),
			    "SETSOCKOPT: PACKET_LOCATION location type 5 error", 1));
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.location(6); }),
			    "SETSOCKOPT: PACKET_LOCATION location type 6 error", 1));
}

TEST_F(OptionText, a_location_out_of_range_is_printed_by_the_library)
{
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.location(11); }),
			    "MOX-PACKET-HANDLE-REGULAR: location illegal!", 1));
}

TEST_F(OptionText, control_records_on_and_off)
{
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.ctrl(true); }),
			    "SETSOCKOPT: PACKET_CTRL_INFO require", 1));
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.ctrl(false); }),
			    "SETSOCKOPT: PACKET_CTRL_INFO unrequire", 1));
}

TEST_F(OptionText, success_of_every_type_for_add_and_delete)
{
	for (uint16_t type = 0; type < contract::kTypes; ++type) {
		const Rule one = type == PACKET_ALL
					 ? all()
					 : rule(type, { Bytes(contract::width(type), 1) });
		std::string line = contract::edited_line(type);
		line.pop_back();
		EXPECT_TRUE(HasLine(lines_of([&] { EXPECT_EQ(socket_.add(one), 0); }), line, 1));
		EXPECT_TRUE(HasLine(lines_of([&] { EXPECT_EQ(socket_.del(one), 0); }), line, 1))
			<< "deleting";
		EXPECT_TRUE(HasLine(lines_of([&] { EXPECT_EQ(socket_.del(one), 0); }), line, 1))
			<< "deleting nothing";
	}
}

TEST_F(OptionText, refused_rule_records)
{
	uint8_t record[16] = { 3, 0, 2, 0, 9, 0 };
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, 11, record, 5); }),
			    "PACKET-SETSOCKOPT: optlen illegal, optlen: 5", 1));
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, 12, record, 0); }),
			    "PACKET-SETSOCKOPT: optlen illegal, optlen: 0", 1));
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, 11, record, 16); }),
			    "PACKET-SETSOCKOPT: optlen illegal, optlen: 16", 1))
		<< "nine elements of two bytes do not fit";
	record[2] = 0;
	EXPECT_TRUE(HasLine(lines_of([&] { socket_.option_raw(MOX_SOL_PACKET, 11, record, 16); }),
			    "PACKET-SETSOCKOPT: optlen illegal, optlen: 16", 1))
		<< "nor do they with the type's own stride";
	EXPECT_TRUE(HasLine(lines_of([&] {
				    socket_.option_raw(MOX_SOL_PACKET, 11,
						       reinterpret_cast<void *>(8), 16);
			    }),
			    "PACKET-SETSOCKOPT: copy from user failed", 1));
	EXPECT_TRUE(HasLine(lines_of([&] {
				    socket_.add(Rule{ 20, 0, 0, {} });
			    }),
			    "ADD-REGUALR: type error", 1));
}

TEST_F(OptionText, a_record_without_memory_for_it)
{
	if (!vm::can_inject_failures())
		GTEST_SKIP() << "this kernel cannot make allocations fail";
	int error = 0;
	uint8_t record[8] = { 16 };
	auto lines = lines_of([&] {
		vm::FailNth injector;
		injector.arm(1);
		error = socket_.option_raw(MOX_SOL_PACKET, 11, record, sizeof record);
		EXPECT_EQ(injector.disarm(), 0u);
	});
	EXPECT_EQ(error, ENOMEM);
	EXPECT_TRUE(HasLine(lines, "PACKET-SETSOCKOPT: ENOMEM", 1));
}

// No memory is taken for what no record can use, but it must be readable.
TEST_F(OptionText, a_record_longer_than_what_the_caller_has)
{
	int error = 0;
	uint8_t record[8] = { 16 };
	auto lines = lines_of(
		[&] { error = socket_.option_raw(MOX_SOL_PACKET, 11, record, 0x7fffffff); });
	EXPECT_EQ(error, EFAULT);
	EXPECT_TRUE(HasLine(lines, "PACKET-SETSOCKOPT: copy from user failed", 1));
}

TEST_F(OptionText, filing_and_unfiling_rules)
{
	Socket one = capture(PACKET_LEV2_LOC, PACKET_COPY, ethertype(0x0806));
	Socket two;
	ASSERT_EQ(two.add(ethertype(0x0806)), 0);
	ASSERT_EQ(two.treatment(PACKET_COPY), 0);
	EXPECT_TRUE(HasLine(lines_of([&] { two.location(PACKET_LEV2_LOC); }),
			    "PKT-ADD-REGULAR-TO-FILTER-LIST: same regular data", 1));
	auto lines = lines_of([&] { two.location(0); });
	EXPECT_TRUE(HasLine(lines, "PKT-DEL-REGULAR-FROM-FILTER-LIST: same data in lib", 1));
	EXPECT_TRUE(HasLine(lines, "PKT-DEL-REGULAR-FROM-FILTER-LIST: same data in match list, del",
			    1));
	lines = lines_of([&] { one.location(0); });
	EXPECT_TRUE(
		HasLine(lines, "PKT-DEL-RULE-FROM-FILTER-LIST: same data in filter list, del", 1));
	EXPECT_TRUE(HasLine(
		lines, "PKT-DEL-RULE-FROM-FILTER-LIST: same data in filter list, empty match list",
		1));
}

TEST_F(OptionText, filing_and_unfiling_rules_without_values)
{
	Socket one = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
	Socket two;
	ASSERT_EQ(two.add(all()), 0);
	ASSERT_EQ(two.treatment(PACKET_COPY), 0);
	EXPECT_TRUE(HasLine(lines_of([&] { two.location(PACKET_LEV2_LOC); }),
			    "PKT-ADD-REGULAR-TO-FILTER-LIST: same regular data", 1));
	auto lines = lines_of([&] { two.location(0); });
	EXPECT_TRUE(HasLine(lines, "PKT-DEL-REGULAR-FROM-FILTER-LIST: same item in lib", 1));
	EXPECT_TRUE(HasLine(
		lines, "PKT-DEL-REGULAR-FROM-FILTER-LIST: same item data in match list, del", 1));
	lines = lines_of([&] { one.location(0); });
	EXPECT_TRUE(HasLine(
		lines, "PKT-DEL-RULE-FROM-FILTER-LIST: same item data in filter list, del", 1));
	EXPECT_TRUE(HasLine(
		lines,
		"PKT-DEL-RULE-FROM-FILTER-LIST: same item data in filter list, empty match list",
		1));
}

} // namespace
