// SPDX-License-Identifier: GPL-2.0-only
#include "support/capture.h"
#include "support/fixture.h"

#include <cctype>

#include <pthread.h>

#include "support/cpus.h"
#include "support/module.h"

namespace vm {

void pin(int cpu, pthread_t thread)
{
	const cpu_set_t set = affinity_for(cpu);
	ASSERT_EQ(pthread_setaffinity_np(thread, sizeof set, &set), 0);
}

DebugOn::DebugOn()
{
	lab::clear_printk();
	lab::poke8("mox_packet_debug", 0, 1);
}

DebugOn::~DebugOn()
{
	lab::poke8("mox_packet_debug", 0, 0);
}

namespace {

std::string_view without_end(std::string_view line)
{
	while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
		line.remove_suffix(1);
	return line;
}

/// The line's text and the CPU of its tag; -1 when there is no tag.
std::string_view untagged(std::string_view line, int &cpu)
{
	constexpr std::string_view kTag = "[MOX-PACKET(";
	cpu = -1;
	if (line.size() > 1 && line[0] == '\1')
		line.remove_prefix(2);
	if (line.substr(0, kTag.size()) != kTag)
		return line;
	size_t close = line.find(")]: ");
	if (close == std::string_view::npos)
		return line;
	cpu = 0;
	for (char digit : line.substr(kTag.size(), close - kTag.size()))
		cpu = cpu * 10 + (digit - '0');
	return line.substr(close + 4);
}

std::string joined(const std::vector<std::string> &lines)
{
	std::string all;
	for (const std::string &line : lines)
		all += "  | " + std::string(without_end(line)) + "\n";
	return all.empty() ? "  (no line)\n" : all;
}

/// Matches a text in which "%p" stands for any printed pointer and "%u" for any number.
bool fits(std::string_view line, std::string_view text)
{
	while (!text.empty()) {
		bool pointer = text.substr(0, 2) == "%p", number = text.substr(0, 2) == "%u";
		if (!pointer && !number) {
			if (line.empty() || line[0] != text[0])
				return false;
			line.remove_prefix(1);
			text.remove_prefix(1);
			continue;
		}
		size_t digits = 0;
		while (digits < line.size() &&
		       (pointer ? std::isxdigit(static_cast<unsigned char>(line[digits]))
				: std::isdigit(static_cast<unsigned char>(line[digits]))))
			++digits;
		if (!digits)
			return false;
		line.remove_prefix(digits);
		text.remove_prefix(2);
	}
	return line.empty();
}

} // namespace

::testing::AssertionResult HasLine(const std::vector<std::string> &lines, std::string_view text,
				   int cpu)
{
	for (const std::string &line : lines) {
		int printed = -1;
		if (untagged(without_end(line), printed) == text &&
		    (cpu < 0 || printed == cpu_for(cpu)))
			return ::testing::AssertionSuccess();
	}
	return ::testing::AssertionFailure()
	       << "no line \"" << text << "\"" << (cpu >= 0 ? " of CPU " : "")
	       << (cpu >= 0 ? std::to_string(cpu_for(cpu)) : "") << " among\n"
	       << joined(lines);
}

::testing::AssertionResult HasNoLine(const std::vector<std::string> &lines, std::string_view text)
{
	if (!HasLine(lines, text))
		return ::testing::AssertionSuccess();
	return ::testing::AssertionFailure() << "unexpected line \"" << text << "\"";
}

::testing::AssertionResult HasLineLike(const std::vector<std::string> &lines, std::string_view text)
{
	for (const std::string &line : lines) {
		int printed = -1;
		if (fits(untagged(without_end(line), printed), text) && printed >= 0)
			return ::testing::AssertionSuccess();
	}
	return ::testing::AssertionFailure() << "no line \"" << text << "\" among\n"
					     << joined(lines);
}

::testing::AssertionResult LinesAre(const std::vector<std::string> &lines,
				    const std::vector<std::string> &texts)
{
	bool equal = lines.size() == texts.size();
	for (size_t i = 0; equal && i < lines.size(); ++i) {
		int printed = -1;
		equal = fits(untagged(without_end(lines[i]), printed), texts[i]) && printed >= 0 &&
			lines[i].back() == '\n';
	}
	if (equal)
		return ::testing::AssertionSuccess();
	return ::testing::AssertionFailure() << "wanted\n"
					     << joined(texts) << "got\n"
					     << joined(lines);
}

RuleRecords RuleRecords::read()
{
	RuleRecords now{};
	for (uint32_t i = 0; i < 23; ++i) {
		now.data[i] = lab::peek32("g_regular_data_stats", i * 4);
		now.items[i] = lab::peek32("g_regular_item_stats", i * 4);
	}
	now.buffers_alloc = lab::peek32("g_packet_regular_data_alloc");
	now.buffers_free = lab::peek32("g_packet_regular_data_free");
	return now;
}

void VmTest::SetUp()
{
	lab::reset();
	ASSERT_TRUE(module_present("mox_ef_socket") || load_module("mox_ef_socket") == 0)
		<< "mox_ef_socket.ko does not load";
	ASSERT_TRUE(lab::settle()) << "efbuffs left by an earlier test";
	ASSERT_EQ(lab::registrations(), 0u) << "hooks left by an earlier test";
	before_ = lab::books();
	records_ = RuleRecords::read();
}

void VmTest::TearDown()
{
	lab::clear_failures();
	EXPECT_TRUE(lab::settle()) << "efbuffs that the module still holds: " << lab::books().live;
	EXPECT_EQ(lab::books().misuse, before_.misuse) << "the platform was misused";
	EXPECT_EQ(lab::registrations(), 0u) << "hooks still registered";
	ASSERT_TRUE(module_present("mox_ef_socket"));
	audit_ledgers();
	// The module counts without atomics: what several CPUs counted at once may have drifted, for good.
	if (!compare_records_)
		return;
	RuleRecords now = RuleRecords::read();
	EXPECT_EQ(now.buffers_alloc - now.buffers_free,
		  records_.buffers_alloc - records_.buffers_free)
		<< "rule buffers of setsockopt not given back";
	for (int i = 0; i < contract::kFailedAllocations; ++i) {
		EXPECT_EQ(now.data[i], records_.data[i]) << "rule data counter " << i;
		EXPECT_EQ(now.items[i], records_.items[i]) << "rule item counter " << i;
	}
}

uint32_t VmTest::put(lab::Hook hook, const lab::Frame &frame, int cpu)
{
	uint32_t answer = lab::inject(hook, frame, cpu);
	EXPECT_TRUE(lab::settle()) << "the copy thread did not deliver";
	return answer;
}

} // namespace vm
