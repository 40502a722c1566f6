/* SPDX-License-Identifier: MIT */
#include "mox/names.h"

#include "mox/error.h"
#include "mox_packet.h"

#include <cctype>
#include <cstdio>

namespace mox {
namespace {

// A row's full name is its enumerator's.
#define ROW(number, ...)                     \
	{                                    \
		number, #number, __VA_ARGS__ \
	}

constexpr Name kLocationTable[] = {
	ROW(PACKET_NONE_LOC, "none", "nowhere"),
	ROW(PACKET_LOCAL_LOC, "local", "frames about to leave"),
	ROW(PACKET_LEV2_LOC, "lev2 l2", "every frame that comes in"),
	ROW(PACKET_IPv4_LOC, "ipv4 ip", "IPv4 packets"),
	ROW(PACKET_IPv6_LOC, "ipv6 ip6", "IPv6 packets"),
	ROW(PACKET_MPLS_LOC, "mpls", "MPLS, refused by the module"),
	ROW(PACKET_TRILL_LOC, "trill", "TRILL, refused by the module"),
	ROW(PACKET_RESV_LOC, "resv", "frames to reserved multicast addresses"),
	ROW(PACKET_WLAN_LOC, "wlan", "frames from and to WLAN interfaces"),
	ROW(PACKET_LEV2_RESV_LOC, "l2resv", "resv, reserved layer-2 addresses only"),
	ROW(PACKET_LEV3_RESV_LOC, "l3resv", "resv, reserved layer-3 addresses only"),
};

constexpr Name kTreatmentTable[] = {
	ROW(PACKET_TREATMENT_NONE, "none", "nothing"),
	ROW(PACKET_COPY, "copy",
	    "the platform forwards the frame, every matching socket gets a copy"),
	ROW(PACKET_FETCH, "fetch", "the frame is taken, every matching socket gets a copy"),
	ROW(PACKET_TRAP, "trap", "the frame is taken for the first matching socket alone"),
	ROW(PACKET_COPY_LOCAL, "copy-local",
	    "a copy of frames that some other rule of the location captures"),
	ROW(PACKET_FETCH_LOCAL, "fetch-local",
	    "as copy-local, placed among the rules that come first"),
};

constexpr Name kSendFlagTable[] = {
	ROW(MOX_SEND_DEBUG, "debug trace", "mark the frame for tracing and log its outcome"),
	ROW(MOX_SEND_EF_40000, "ef40000", "frame flag 0x40000"),
	ROW(MOX_SEND_VXLAN_ENCAP, "vxlan-encap vxlan", "VXLAN encapsulation (send flag 0x1)"),
	ROW(MOX_SEND_BLOCK, "block block-send", "block send (send flag 0x2)"),
	ROW(MOX_SEND_400, "send4 400 0x400", "send flag 0x4"),
	ROW(MOX_SEND_4000, "send20 4000 0x4000", "send flag 0x20"),
	ROW(MOX_SEND_10000, "send40 10000 0x10000", "send flag 0x40"),
	ROW(MOX_SEND_20000, "send80 20000 0x20000", "send flag 0x80"),
	ROW(MOX_SEND_NO_ACL, "no-acl", "do not match access lists (send flag 0x8)"),
	ROW(MOX_SEND_PROXY_CAPTURE, "proxy-capture",
	    "the proxy-capture byte is valid (send flag 0x10)"),
};

#undef ROW

constexpr std::string_view kPrefix = "PACKET_";

char folded(char c)
{
	return c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool allowed_location(const Name &row)
{
	return row.value != PACKET_NONE_LOC && location_is_open(row.value);
}

bool allowed_treatment(const Name &row)
{
	return row.value != PACKET_TREATMENT_NONE;
}

bool allowed_send_flag(const Name &)
{
	return true;
}

std::uint32_t parse(std::string_view what, std::span<const Name> table,
		    bool (*allowed)(const Name &), std::string_view text)
{
	auto row = find_name(table, text);
	if (row && allowed(*row))
		return row->value;

	std::string message = std::string(what) + " \"" + std::string(text) + "\" " +
			      (row ? "cannot capture" : "is unknown") + "; allowed:";
	for (const Name &each : table)
		if (allowed(each))
			message += std::string("\n  ") + std::string(each.alias()) + " (" +
				   std::string(each.full) + "): " + std::string(each.meaning);
	throw UsageError(message);
}

std::string_view name_of(std::span<const Name> table, std::uint32_t value)
{
	return value < table.size() ? table[value].full : std::string_view("Unknown");
}

} // namespace

bool same_name(std::string_view a, std::string_view b)
{
	if (a.size() != b.size())
		return false;
	for (std::size_t i = 0; i < a.size(); ++i)
		if (folded(a[i]) != folded(b[i]))
			return false;
	return true;
}

std::string_view without_prefix(std::string_view text)
{
	if (text.size() > kPrefix.size() && same_name(text.substr(0, kPrefix.size()), kPrefix))
		text.remove_prefix(kPrefix.size());
	return text;
}

bool in_word_list(std::string_view words, std::string_view text)
{
	while (!words.empty()) {
		std::size_t end = words.find(' ');
		if (same_name(words.substr(0, end), text))
			return true;
		if (end == std::string_view::npos)
			break;
		words.remove_prefix(end + 1);
	}
	return false;
}

std::span<const Name> locations()
{
	return kLocationTable;
}

std::span<const Name> treatments()
{
	return kTreatmentTable;
}

std::span<const Name> send_flags()
{
	return kSendFlagTable;
}

std::optional<Name> find_name(std::span<const Name> table, std::string_view text)
{
	std::string_view bare = without_prefix(text);
	for (const Name &row : table) {
		std::string_view full = without_prefix(row.full);
		if (same_name(full, bare) || in_word_list(row.aliases, text))
			return row;
		// "lev2-resv" for PACKET_LEV2_RESV_LOC: the suffix says nothing that the option does not say already.
		if (full.ends_with("_LOC") && same_name(full.substr(0, full.size() - 4), bare))
			return row;
	}
	return std::nullopt;
}

std::uint32_t parse_location(std::string_view text)
{
	return parse("location", kLocationTable, allowed_location, text);
}

std::uint32_t parse_treatment(std::string_view text)
{
	return parse("treatment", kTreatmentTable, allowed_treatment, text);
}

std::uint32_t parse_send_flag(std::string_view text)
{
	return parse("send flag", kSendFlagTable, allowed_send_flag, text);
}

std::string send_flags_text(std::uint32_t flags)
{
	std::string text;
	for (const Name &row : kSendFlagTable)
		if (flags & row.value) {
			text += (text.empty() ? "" : " ") + std::string(row.alias());
			flags &= ~row.value;
		}
	if (flags != 0) {
		char digits[16];
		std::snprintf(digits, sizeof(digits), "0x%x", static_cast<unsigned>(flags));
		text += (text.empty() ? "" : " ") + std::string(digits);
	}
	return text;
}

std::string_view location_name(std::uint32_t location)
{
	return name_of(kLocationTable, location);
}

std::string_view treatment_name(std::uint32_t treatment)
{
	return name_of(kTreatmentTable, treatment);
}

} // namespace mox
