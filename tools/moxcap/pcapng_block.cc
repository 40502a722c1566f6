/* SPDX-License-Identifier: GPL-2.0-only */
#include "pcapng_block.h"

#include <cstring>
#include <string>

namespace moxcap {
namespace {

constexpr std::size_t kWord = 4, kLengthAt = 4;
constexpr std::uint16_t kEndOfOptions = 0;

/** At most kMostOptionText bytes of a text. */
std::string cut(std::string_view text)
{
	if (text.size() <= kMostOptionText)
		return std::string(text);
	constexpr std::string_view mark = "...";
	return std::string(text.substr(0, kMostOptionText - mark.size())) + std::string(mark);
}

} // namespace

void PcapngBlock::begin(std::uint32_t type)
{
	bytes_.clear();
	u32(type);
	u32(0); // the length, set at the end
}

void PcapngBlock::time(std::uint64_t nanoseconds)
{
	u32(static_cast<std::uint32_t>(nanoseconds >> 32));
	u32(static_cast<std::uint32_t>(nanoseconds));
}

void PcapngBlock::padded(std::span<const std::uint8_t> bytes)
{
	put(bytes.data(), bytes.size());
	pad();
}

void PcapngBlock::text_option(std::uint16_t code, std::string_view text)
{
	std::string stored = cut(text);
	option_head(code, stored.size());
	put(stored.data(), stored.size());
	pad();
}

void PcapngBlock::text_option(std::uint16_t code, std::uint8_t front, std::string_view text)
{
	std::string stored = cut(text);
	option_head(code, stored.size() + 1);
	put(&front, 1);
	put(stored.data(), stored.size());
	pad();
}

void PcapngBlock::u8_option(std::uint16_t code, std::uint8_t value)
{
	option_head(code, sizeof(value));
	put(&value, sizeof(value));
	pad();
}

void PcapngBlock::u32_option(std::uint16_t code, std::uint32_t value)
{
	option_head(code, sizeof(value));
	u32(value);
}

void PcapngBlock::u64_option(std::uint16_t code, std::uint64_t value)
{
	option_head(code, sizeof(value));
	u64(value);
}

void PcapngBlock::time_option(std::uint16_t code, std::uint64_t nanoseconds)
{
	option_head(code, sizeof(nanoseconds));
	time(nanoseconds);
}

std::span<const std::uint8_t> PcapngBlock::end()
{
	option_head(kEndOfOptions, 0);
	auto length = static_cast<std::uint32_t>(bytes_.size() + kWord);
	std::memcpy(bytes_.data() + kLengthAt, &length, sizeof(length));
	u32(length);
	return bytes_;
}

void PcapngBlock::put(const void *from, std::size_t length)
{
	auto bytes = static_cast<const std::uint8_t *>(from);
	bytes_.insert(bytes_.end(), bytes, bytes + length);
}

void PcapngBlock::pad()
{
	bytes_.resize((bytes_.size() + kWord - 1) / kWord * kWord);
}

void PcapngBlock::option_head(std::uint16_t code, std::size_t length)
{
	u16(code);
	u16(static_cast<std::uint16_t>(length));
}

} // namespace moxcap
