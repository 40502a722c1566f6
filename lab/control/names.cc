// SPDX-License-Identifier: GPL-2.0-only
#include "names.hpp"

#include <charconv>
#include <cstdio>
#include <iterator>
#include <net/if.h>

#include "moxlab.h"

namespace moxlab {
namespace {

#define NAME(id, name, ...) name,
constexpr std::string_view points[] = { MOXLAB_POINTS(NAME) };
constexpr std::string_view outcomes[] = { MOXLAB_OUTCOMES(NAME) };
constexpr std::string_view fail_calls[] = { MOXLAB_FAIL_CALLS(NAME) };
constexpr std::string_view service_ops[] = { MOXLAB_SERVICE_OPS(NAME) };
constexpr std::string_view reg_calls[] = { MOXLAB_REG_CALLS(NAME) };
constexpr std::string_view misuse_kinds[] = { MOXLAB_MISUSE_KINDS(NAME) };
constexpr std::string_view tag_modes[] = { MOXLAB_TAG_MODES(NAME) };
#undef NAME

} // namespace

constinit const Names kPoints{ points }, kOutcomes{ outcomes }, kFailCalls{ fail_calls },
	kServiceOps{ service_ops }, kRegCalls{ reg_calls }, kMisuseKinds{ misuse_kinds },
	kTagModes{ tag_modes };

std::string name_of(Names names, uint32_t number)
{
	return number < names.size() ? std::string(names[number]) : std::to_string(number);
}

uint32_t number_of(Names names, std::string_view name, std::string_view what)
{
	std::string allowed;
	for (uint32_t n = 0; n < names.size(); ++n) {
		if (names[n] == name)
			return n;
		allowed += (n ? ", " : "") + std::string(names[n]);
	}
	throw Usage("unknown " + std::string(what) + " \"" + std::string(name) +
		    "\"; there are: " + allowed);
}

uint64_t parse_number(std::string_view text, std::string_view what, uint64_t max)
{
	std::string_view digits = text;
	int base = 10;
	if (digits.starts_with("0x") || digits.starts_with("0X")) {
		digits.remove_prefix(2);
		base = 16;
	}
	uint64_t value = 0;
	auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value,
					    base);
	if (error != std::errc() || end != digits.data() + digits.size() || value > max)
		throw Usage(std::string(what) + " \"" + std::string(text) +
			    "\" is not a number from 0 to " + std::to_string(max) +
			    " (decimal, or hexadecimal with 0x)");
	return value;
}

int32_t parse_signed(std::string_view text, std::string_view what)
{
	bool minus = text.starts_with('-');
	uint64_t value = parse_number(minus ? text.substr(1) : text, what,
				      minus ? 0x80000000u : 0x7fffffffu);
	return int32_t(minus ? -int64_t(value) : int64_t(value));
}

std::vector<uint8_t> parse_hex(std::string_view text)
{
	std::vector<uint8_t> bytes;
	int high = -1;
	for (char c : text) {
		int digit = c >= '0' && c <= '9'   ? c - '0'
			    : c >= 'a' && c <= 'f' ? c - 'a' + 10
			    : c >= 'A' && c <= 'F' ? c - 'A' + 10
						   : -1;
		bool between = c == ' ' || c == ':' || c == '.' || c == '-' || c == '\n';
		if (digit < 0 && !between)
			throw Usage(std::string("'") + c + "' is not a hexadecimal digit");
		if (digit < 0 && high >= 0)
			throw Usage("half a byte before '" + std::string(1, c) +
				    "': write two hexadecimal digits a byte");
		if (digit < 0)
			continue;
		if (high < 0) {
			high = digit;
		} else {
			bytes.push_back(uint8_t(high << 4 | digit));
			high = -1;
		}
	}
	if (high >= 0)
		throw Usage("half a byte at the end: write two hexadecimal digits a byte");
	return bytes;
}

void parse_mac(std::string_view text, uint8_t *mac)
{
	std::vector<uint8_t> bytes = parse_hex(text);
	if (bytes.size() != 6)
		throw Usage("\"" + std::string(text) +
			    "\" is not a MAC address such as 02:00:00:00:00:01");
	std::copy(bytes.begin(), bytes.end(), mac);
}

uint32_t parse_interface(const std::string &text)
{
	if (uint32_t ifindex = if_nametoindex(text.c_str()))
		return ifindex;
	if (text.empty() || text[0] < '0' || text[0] > '9')
		throw Usage("no network device \"" + text +
			    "\"; give its name, or an interface index as a number");
	return uint32_t(parse_number(text, "interface index", 0xffffffff));
}

std::string format_mac(const uint8_t *mac)
{
	char text[18];
	std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
		      mac[3], mac[4], mac[5]);
	return text;
}

std::string format_hex(std::span<const uint8_t> bytes)
{
	static constexpr char digits[] = "0123456789abcdef";
	std::string text;
	for (uint8_t b : bytes) {
		text += digits[b >> 4];
		text += digits[b & 15];
	}
	return text;
}

} // namespace moxlab
