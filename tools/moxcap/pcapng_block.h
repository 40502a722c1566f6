/* SPDX-License-Identifier: GPL-2.0-only */
/* One block of a pcapng file: its fields, and its options. In the byte order of this machine. */
#ifndef MOXCAP_PCAPNG_BLOCK_H
#define MOXCAP_PCAPNG_BLOCK_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace moxcap {

/** The most bytes of a text option; longer texts are cut, with "..." at the end. */
constexpr std::size_t kMostOptionText = 1024;

class PcapngBlock {
public:
	/** Begins a block. The memory of the previous one is used again. */
	void begin(std::uint32_t type);

	void u16(std::uint16_t value) { put(&value, sizeof(value)); }
	void u32(std::uint32_t value) { put(&value, sizeof(value)); }
	void u64(std::uint64_t value) { put(&value, sizeof(value)); }
	/** A time in nanoseconds: two words, the upper one first. */
	void time(std::uint64_t nanoseconds);
	/** Bytes, padded to a whole word. */
	void padded(std::span<const std::uint8_t> bytes);

	/** An option with a text, which must not be empty; in front of it a byte, if one is given. */
	void text_option(std::uint16_t code, std::string_view text);
	void text_option(std::uint16_t code, std::uint8_t front, std::string_view text);
	void u8_option(std::uint16_t code, std::uint8_t value);
	void u32_option(std::uint16_t code, std::uint32_t value);
	void u64_option(std::uint16_t code, std::uint64_t value);
	void time_option(std::uint16_t code, std::uint64_t nanoseconds);

	/** Ends the options and the block, and returns it. Valid until the next begin(). */
	std::span<const std::uint8_t> end();

private:
	void put(const void *from, std::size_t length);
	void pad();
	void option_head(std::uint16_t code, std::size_t length);

	std::vector<std::uint8_t> bytes_;
};

} // namespace moxcap

#endif
