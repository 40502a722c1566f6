/* SPDX-License-Identifier: MIT */
/*
 * Names of the numbers in mox_packet.h: locations, treatments, send flags and rule types, with the short aliases that
 * command lines use.
 *
 * A look-up ignores case, treats '_' and '-' as the same character, and accepts names without the prefix "PACKET_".
 */
#ifndef MOX_NAMES_H
#define MOX_NAMES_H

#include "mox/export.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace mox {

/** One row of a name table. */
struct Name {
	std::uint32_t value;
	std::string_view full;    /**< as in mox_packet.h */
	std::string_view aliases; /**< separated by spaces; the first one is the one to show */
	std::string_view meaning; /**< half a sentence for help texts */

	/** The first alias. */
	constexpr std::string_view alias() const { return aliases.substr(0, aliases.find(' ')); }
};

/** All locations in the order of their numbers; those that PACKET_LOCATION refuses are included. */
MOX_API std::span<const Name> locations();
/** All treatments in the order of their numbers. */
MOX_API std::span<const Name> treatments();
/** All flags of a send's control record in the order of their bits. */
MOX_API std::span<const Name> send_flags();

/** Whether a socket can be set to the location (MPLS and TRILL have names but no receiver). */
constexpr bool location_is_open(std::uint32_t location)
{
	return location != 5 && location != 6;
}

/** The row with this full name or alias; nothing when there is none. */
MOX_API std::optional<Name> find_name(std::span<const Name> table, std::string_view text);

/**
 * The number of a location that captures. Throws UsageError listing the allowed names for an unknown name, for
 * "none" and for the locations that the module refuses.
 */
MOX_API std::uint32_t parse_location(std::string_view text);

/** The number of a treatment that captures (not "none"). Throws UsageError listing the allowed names. */
MOX_API std::uint32_t parse_treatment(std::string_view text);

/** The bit of a send flag. Throws UsageError listing the allowed names. */
MOX_API std::uint32_t parse_send_flag(std::string_view text);
/** First aliases of the flags in a word, blanks between them; bits without a name as one hexadecimal number. */
MOX_API std::string send_flags_text(std::uint32_t flags);

/** Full name of a location, "Unknown" beyond the table, as the module prints it. */
MOX_API std::string_view location_name(std::uint32_t location);
/** Full name of a treatment, "Unknown" beyond the table. */
MOX_API std::string_view treatment_name(std::uint32_t treatment);

/** Whether two names are the same but for case and '_' against '-'. */
MOX_API bool same_name(std::string_view a, std::string_view b);
/** The text without a leading "PACKET_" in any case. */
MOX_API std::string_view without_prefix(std::string_view text);
/** Whether the text is one of the words of a space-separated list (compared with same_name). */
MOX_API bool in_word_list(std::string_view words, std::string_view text);

} // namespace mox

#endif
