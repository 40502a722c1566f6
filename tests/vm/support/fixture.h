// SPDX-License-Identifier: GPL-2.0-only
// What every test in the machine starts from, and what it must leave behind: no efbuff, no hook, no rule record, no
// misuse of the platform.
#pragma once

#include <pthread.h>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "contract/rules.h"
#include "support/frames.h"
#include "support/lab.h"
#include "support/socket.h"

namespace vm {

/// Pins a thread, by default the calling one, to the CPU that stands for `cpu` (see cpus.h); -1 allows all of them.
void pin(int cpu, pthread_t thread = pthread_self());

/// The module's debug lines of byte 0 of mox_packet_debug, switched on for the life of the object.
class DebugOn {
public:
	DebugOn();
	~DebugOn();
	DebugOn(const DebugOn &) = delete;
};

/// Whether one of the lines has the text after its "[MOX-PACKET(cpu)]: " tag (tagged), or is the text as a whole.
::testing::AssertionResult HasLine(const std::vector<std::string> &lines, std::string_view text,
				   int cpu = -1);
::testing::AssertionResult HasNoLine(const std::vector<std::string> &lines, std::string_view text);
/// As HasLine for a tagged line whose text may hold "%p" (any printed pointer) and "%u" (any number).
::testing::AssertionResult HasLineLike(const std::vector<std::string> &lines,
				       std::string_view text);
/// Whether the lines are exactly these tagged ones in this order, each ended by a newline; texts as of HasLineLike.
::testing::AssertionResult LinesAre(const std::vector<std::string> &lines,
				    const std::vector<std::string> &texts);

/// The module's record counters: live rule data, filter entries and match copies, and live items.
struct RuleRecords {
	uint32_t data[contract::kRecordCounters];
	uint32_t items[contract::kRecordCounters];
	uint32_t buffers_alloc, buffers_free;
	static RuleRecords read();
};

class VmTest : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	/// Injects and waits until the copy thread has delivered what was queued.
	uint32_t put(lab::Hook hook, const lab::Frame &frame, int cpu = -1);

	lab::Books before_{};
	RuleRecords records_{};
	/// A test that takes the module down and up again has no counters to compare.
	bool compare_records_ = true;
};

} // namespace vm
