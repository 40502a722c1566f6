/* SPDX-License-Identifier: GPL-2.0-only */
/* Reads a pcapng file of this machine's byte order, written from the format's description, and checks its form. */
#ifndef PCAPNG_READER_H
#define PCAPNG_READER_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

struct PcapngReaderBlock {
	std::uint32_t type = 0;
	std::vector<std::uint8_t> fields;                           // what precedes the options
	std::map<std::uint16_t, std::vector<std::uint8_t>> options; // of each code one

	std::uint16_t u16(std::size_t at) const { return number<std::uint16_t>(fields, at); }
	std::uint32_t u32(std::size_t at) const { return number<std::uint32_t>(fields, at); }
	std::uint64_t u64(std::size_t at) const { return number<std::uint64_t>(fields, at); }
	/** Two words, the upper one first. */
	std::uint64_t time(std::size_t at) const
	{
		return static_cast<std::uint64_t>(u32(at)) << 32 | u32(at + 4);
	}
	std::string text(std::uint16_t option) const
	{
		auto found = options.find(option);
		return found == options.end()
			       ? "(none)"
			       : std::string(found->second.begin(), found->second.end());
	}
	template <typename Number> Number option(std::uint16_t code) const
	{
		auto found = options.find(code);
		EXPECT_NE(found, options.end()) << "option " << code;
		if (found == options.end())
			return 0;
		EXPECT_EQ(found->second.size(), sizeof(Number));
		return number<Number>(found->second, 0);
	}
	std::uint64_t option_time(std::uint16_t code) const
	{
		auto value = option<std::uint64_t>(code);
		return value << 32 | value >> 32; // on a little-endian machine
	}

private:
	template <typename Number>
	static Number number(const std::vector<std::uint8_t> &from, std::size_t at)
	{
		Number value{};
		EXPECT_LE(at + sizeof(value), from.size());
		if (at + sizeof(value) <= from.size())
			std::memcpy(&value, from.data() + at, sizeof(value));
		return value;
	}
};

class PcapngReader {
public:
	/** The blocks up to the first error in the form, which fails the test. */
	static std::vector<PcapngReaderBlock> read(const std::string &path)
	{
		std::ifstream file(path, std::ios::binary);
		std::vector<std::uint8_t> bytes{ std::istreambuf_iterator<char>(file), {} };
		std::vector<PcapngReaderBlock> blocks;
		for (std::size_t at = 0; at < bytes.size();) {
			PcapngReaderBlock block;
			std::size_t length = read_block(bytes, at, block);
			if (length == 0)
				break;
			at += length;
			blocks.push_back(block);
		}
		return blocks;
	}

private:
	/** Its length, 0 when it is malformed. */
	static std::size_t read_block(const std::vector<std::uint8_t> &bytes, std::size_t at,
				      PcapngReaderBlock &block)
	{
		std::size_t left = bytes.size() - at;
		std::uint32_t length = 0, again = 0;
		if (left < 12)
			return malformed(at, "the end is no whole block");
		std::memcpy(&block.type, &bytes[at], 4);
		std::memcpy(&length, &bytes[at + 4], 4);
		if (length < 12 || length % 4 != 0 || length > left)
			return malformed(at, "length of a block");
		std::memcpy(&again, &bytes[at + length - 4], 4);
		if (again != length)
			return malformed(at, "second length of a block");

		std::size_t end = at + length - 4;
		std::size_t fields = fields_of(bytes, at, block.type);
		if (fields > end - at - 8)
			return malformed(at, "fields of a block");
		block.fields.assign(&bytes[at + 8], &bytes[at + 8] + fields);
		std::size_t next = at + 8 + (fields + 3) / 4 * 4;
		for (;;) {
			std::uint16_t code = 0, size = 0;
			if (next + 4 > end)
				return malformed(at, "options without an end");
			std::memcpy(&code, &bytes[next], 2);
			std::memcpy(&size, &bytes[next + 2], 2);
			next += 4;
			std::size_t padded = (size + 3u) / 4 * 4;
			if (padded > end - next)
				return malformed(at, "length of an option");
			for (std::size_t i = size; i < padded; ++i)
				EXPECT_EQ(bytes[next + i], 0) << "padding";
			if (code == 0)
				break;
			EXPECT_FALSE(block.options.contains(code)) << "option twice: " << code;
			block.options[code].assign(
				bytes.begin() + static_cast<std::ptrdiff_t>(next),
				bytes.begin() + static_cast<std::ptrdiff_t>(next + size));
			next += padded;
		}
		EXPECT_EQ(next, end) << "bytes after the options";
		return length;
	}

	/** Bytes of the fields before the options, without padding. */
	static std::size_t fields_of(const std::vector<std::uint8_t> &bytes, std::size_t at,
				     std::uint32_t type)
	{
		std::uint32_t captured = 0;
		switch (type) {
		case 1:
			return 8;
		case 5:
			return 12;
		case 6:
			if (bytes.size() - at >= 24)
				std::memcpy(&captured, &bytes[at + 20], 4);
			return std::size_t{ 20 } + captured;
		case 0x0a0d0d0a:
			return 16;
		default:
			return SIZE_MAX;
		}
	}

	static std::size_t malformed(std::size_t at, const char *what)
	{
		ADD_FAILURE() << "block at " << at << ": " << what;
		return 0;
	}
};

#endif
