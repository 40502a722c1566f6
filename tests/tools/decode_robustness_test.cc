/* SPDX-License-Identifier: GPL-2.0-only */
/* The decoder reads received bytes. Every buffer here is on the heap at its exact size, so that the address
 * sanitizer stops the test at the first byte read beyond it. */
#include "decode.h"
#include "frames.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

void expect_sane(const std::vector<std::uint8_t> &bytes, moxcap::Layout layout,
		 std::uint16_t ether_type)
{
	std::vector<std::uint8_t> exact(bytes);
	exact.shrink_to_fit();
	moxcap::Description description = moxcap::describe(exact, layout, ether_type);
	ASSERT_FALSE(description.protocol.empty());
	ASSERT_LT(description.protocol.size(), 4096u);
	for (char c : description.protocol)
		ASSERT_TRUE(std::isprint(static_cast<unsigned char>(c)));
}

TEST(decode_robustness, every_sample_cut_at_every_byte)
{
	for (const SampleFrame &sample : sample_frames) {
		auto bytes = from_hex(sample.hex);
		for (std::size_t length = 0; length <= bytes.size(); ++length)
			ASSERT_NO_FATAL_FAILURE(
				expect_sane({ bytes.begin(),
					      bytes.begin() + static_cast<std::ptrdiff_t>(length) },
					    sample.layout, sample.ether_type))
				<< sample.name << " cut to " << length;
	}
}

TEST(decode_robustness, a_cut_header_is_said_to_be_cut)
{
	for (std::size_t length = 0; length < 14; ++length)
		EXPECT_EQ(moxcap::describe(std::vector<std::uint8_t>(length),
					   moxcap::Layout::kEthernet)
				  .protocol,
			  "(cut short)");
}

TEST(decode_robustness, samples_with_random_bytes_changed)
{
	const char *wanted = std::getenv("MOX_SEED");
	std::uint32_t seed = wanted ? static_cast<std::uint32_t>(std::strtoul(wanted, nullptr, 0))
				    : std::random_device()();
	SCOPED_TRACE("replay with MOX_SEED=" + std::to_string(seed));
	std::mt19937 random(seed);

	std::vector<std::vector<std::uint8_t>> corpus{ dhcp_frame("63825363 0c0161 350101 ff") };
	for (const SampleFrame &sample : sample_frames)
		corpus.push_back(from_hex(sample.hex));

	for (int round = 0; round < 20000; ++round) {
		auto bytes = corpus[random() % corpus.size()];
		for (unsigned changes = random() % 8; changes > 0 && !bytes.empty(); --changes)
			bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
		bytes.resize(random() % (bytes.size() + 1));
		auto layout = static_cast<moxcap::Layout>(random() % 3);
		ASSERT_NO_FATAL_FAILURE(expect_sane(
			bytes, layout, static_cast<std::uint16_t>(random() % 2 ? 0x0800 : 0)))
			<< "round " << round;
	}
}

} // namespace
