/* SPDX-License-Identifier: MIT */
/*
 * Rule records: what MOX_PACKET_ADD_RULE and MOX_PACKET_DEL_RULE take.
 *
 * A socket captures a frame when every rule type it has holds (AND), and a type holds when one of its values
 * does (OR). A Rule is one type with its values, laid out as the module reads them.
 */
#ifndef MOX_RULE_H
#define MOX_RULE_H

#include "mox/export.h"
#include "mox/values.h"
#include "mox_packet.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mox {

/** How the text of one value becomes the bytes of one element. */
enum class ValueKind {
	kNone,           /**< no value; one element of no bytes */
	kAll,            /**< no value and no element */
	kCode,           /**< code[.sub-code], each 0 to 255 */
	kMac,            /**< 6 bytes as in the frame */
	kEtherType,      /**< u16, network order */
	kPort,           /**< u16, network order */
	kIpProtocol,     /**< one byte */
	kInterfaceIndex, /**< u32, host order */
	kIcmpv6Type,     /**< one byte */
	kEapolType,      /**< one byte */
	kFiller,         /**< one byte that the module does not compare; optional */
	kAttribute,      /**< u32, host order; "any" is 0xffffffff */
	kArpOperation,   /**< u16, network order */
};

/** One row of the table of rule types. */
struct RuleType {
	std::uint16_t value;
	std::string_view full;    /**< as in mox_packet.h */
	std::uint16_t width;      /**< bytes of one element */
	std::string_view aliases; /**< separated by spaces; the first one is the one to show */
	ValueKind kind;
	std::string_view meaning; /**< half a sentence for help texts, with an example value */

	constexpr std::string_view alias() const { return aliases.substr(0, aliases.find(' ')); }
};

/** All rule types in the order of their numbers. */
MOX_API std::span<const RuleType> rule_types();

/** The row of a name or alias. Throws UsageError listing the allowed names. */
MOX_API const RuleType &find_rule_type(std::string_view text);

/** One rule type with its values. */
class MOX_API Rule {
public:
	/** A rule without values yet. Throws UsageError for a number that is no rule type. */
	explicit Rule(std::uint32_t type);

	/**
     * Parses "NAME" or "NAME=VALUE[,VALUE...]". lookup resolves interface names. Throws UsageError naming what
     * is wrong and listing what is allowed, also when a value is missing or there is one too many.
     */
	static Rule parse(std::string_view text, const InterfaceLookup &lookup);

	const RuleType &type() const { return *type_; }
	std::size_t count() const { return count_; }

	/**
     * Adds one value given as text / as the element's bytes. Throws UsageError for a value that the type does
     * not take, for bytes of another length than the type's element, and beyond 65535 values.
     */
	void add_value(std::string_view text, const InterfaceLookup &lookup);
	void add_element(std::span<const std::uint8_t> element);
	/**
     * Adds one value given as a number in host order; the record has it in the byte order and width of the type.
     * Throws UsageError for a number that does not fit, and for types whose values are no numbers.
     */
	void add_number(std::uint32_t number);

	/** The whole record for setsockopt: the head and count elements of the type's own size. */
	std::vector<std::uint8_t> record() const;

private:
	const RuleType *type_;
	std::size_t count_ = 0;
	std::vector<std::uint8_t> elements_;
};

/**
 * The rules in an order, and with additions, that make the hooks find the frames that the rules match. The frames
 * that match stay the same:
 *
 *  - The module files a socket under its first type (its key). ARP operations are looked up by one byte only
 *    and would never be found as a key, so they go last, and behind "eth=arp" when they would come first.
 *  - Exclusions are no key at all: alone they get "all" in front.
 *  - No rules would match nothing: they become "all".
 *
 * protocol_given says that the socket was opened with a protocol, which is a first EtherType rule already.
 */
MOX_API std::vector<Rule> in_filing_order(std::vector<Rule> rules, bool protocol_given);

} // namespace mox

#endif
