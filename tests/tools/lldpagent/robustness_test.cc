/* SPDX-License-Identifier: GPL-2.0-only */
/* The parser reads received bytes. Every buffer here is on the heap at its exact size, so that the address
 * sanitizer stops the test at the first byte read beyond it. */
#include "agent.h"
#include "samples.h"
#include "state.h"
#include "text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>

namespace {

using lldp::Bytes;

std::uint32_t seed()
{
	const char *wanted = std::getenv("MOX_SEED");
	std::uint32_t seed = wanted ? static_cast<std::uint32_t>(std::strtoul(wanted, nullptr, 0))
				    : std::random_device()();
	std::cout << "seed " << seed << " (replay with MOX_SEED=" << seed << ")\n";
	return seed;
}

lldp::Decoded decode_exactly(const Bytes &bytes)
{
	std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[bytes.size()]);
	std::copy(bytes.begin(), bytes.end(), exact.get());
	return lldp::decode({ exact.get(), bytes.size() });
}

TEST(lldp_robustness, a_valid_lldpdu_cut_at_every_byte)
{
	Bytes whole = from_hex(sample_hex());
	// Where a TLV ends behind the mandatory ones, the rest is an LLDPDU without an End TLV.
	std::vector<std::size_t> good;
	for (std::size_t at = 0; at + 2 <= whole.size();) {
		at += 2 + ((whole[at] & 1u) << 8 | whole[at + 1]);
		if (at >= from_hex(sample_mandatory).size())
			good.push_back(at);
	}
	ASSERT_EQ(good.back(), whole.size());

	for (std::size_t length = 0; length <= whole.size(); ++length) {
		auto read = decode_exactly(
			{ whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length) });
		bool expected = std::find(good.begin(), good.end(), length) != good.end();
		EXPECT_EQ(read.pdu.has_value(), expected) << "cut to " << length;
		EXPECT_EQ(read.tlvs_discarded, 0u) << "cut to " << length;
	}
}

class NoWire : public lldp::Wire {
public:
	int send(std::uint32_t, lldp::View) override { return 0; }
};

/** What is shown must be clean whatever came in: printable lines, and JSON without a raw control byte. */
void expect_clean(const std::string &text)
{
	for (char c : text)
		ASSERT_TRUE(c == '\n' || (c >= ' ' && c <= '~')) << static_cast<int>(c);
}

TEST(lldp_robustness, a_hundred_thousand_frames_with_random_bytes)
{
	std::mt19937 random(seed());
	NoWire wire;
	lldp::Agent agent({}, { { 3, "port1" } }, { sample_mac }, 16, wire,
			  [](const std::string &line) { expect_clean(line); });

	const Bytes valid = lldp::frame_of(sample_mac, from_hex(sample_hex()));
	std::uint64_t accepted_before = 0;
	lldp::Time now{};
	for (int round = 0; round < 100'000; ++round) {
		Bytes frame;
		if (round % 4 == 0) {
			// Random from the first TLV on.
			frame.assign(valid.begin(), valid.begin() + 14);
			frame.resize(14 + random() % 300);
			std::generate(frame.begin() + 14, frame.end(),
				      [&random] { return static_cast<std::uint8_t>(random()); });
		} else {
			frame = valid;
			for (unsigned changes = random() % 6; changes > 0; --changes)
				frame[14 + random() % (frame.size() - 14)] =
					static_cast<std::uint8_t>(random());
			if (random() % 4 == 0)
				frame.resize(random() % (frame.size() + 1));
		}
		frame.shrink_to_fit();
		agent.receive(3, frame, now);
		now += std::chrono::milliseconds(random() % 20'000);
		agent.run(now);
		if (round % 1000 == 0) {
			ASSERT_NO_FATAL_FAILURE(expect_clean(state_as_text(agent, now)));
			ASSERT_NO_FATAL_FAILURE(expect_clean(state_as_json(agent, now)));
		}
		ASSERT_LE(agent.neighbours().all().size(), 16u);
	}
	const lldp::Counters &counters = agent.ports()[0].counters;
	EXPECT_EQ(counters.received, 100'000u);
	accepted_before = counters.received - counters.discarded;
	EXPECT_GT(counters.discarded, 10'000u) << "hardly anything was malformed";
	EXPECT_GT(accepted_before, 10'000u) << "hardly anything was well-formed";
	EXPECT_GT(counters.aged, 0u);
}

TEST(lldp_robustness, whatever_is_read_can_be_written_and_read_again)
{
	std::mt19937 random(seed());
	const Bytes valid = from_hex(sample_hex());
	int read_twice = 0;
	for (int round = 0; round < 20'000; ++round) {
		Bytes bytes = valid;
		for (unsigned changes = random() % 4; changes > 0; --changes)
			bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
		auto first = decode_exactly(bytes);
		if (!first.pdu)
			continue;
		auto second = decode_exactly(lldp::encode(*first.pdu));
		ASSERT_TRUE(second.pdu) << "round " << round << ": " << second.error;
		ASSERT_EQ(*second.pdu, *first.pdu) << "round " << round;
		ASSERT_EQ(second.tlvs_discarded, 0u) << "round " << round;
		++read_twice;
	}
	EXPECT_GT(read_twice, 1000);
}

} // namespace
