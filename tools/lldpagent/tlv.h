/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The type-length-value elements that an LLDPDU is made of: a 16-bit header (7 bits of type, 9 bits of length, network
 * order) and up to 511 bytes of value.
 */
#ifndef LLDPAGENT_TLV_H
#define LLDPAGENT_TLV_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace lldp {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

enum TlvType : std::uint8_t {
	tlv_end = 0,
	tlv_chassis_id = 1,
	tlv_port_id = 2,
	tlv_ttl = 3,
	tlv_port_description = 4,
	tlv_system_name = 5,
	tlv_system_description = 6,
	tlv_system_capabilities = 7,
	tlv_management_address = 8,
	tlv_organisation = 127,
};

constexpr std::size_t kTlvHeader = 2, kLongestTlvValue = 511;

struct Tlv {
	std::uint8_t type = tlv_end;
	View value; /**< lies in the reader's bytes */
};

/** Walks the TLVs of an LLDPDU. The bytes have to outlive the reader. */
class TlvReader {
public:
	explicit TlvReader(View bytes) : rest_(bytes) {}

	enum class Step {
		kTlv, /**< there was one */
		kEnd, /**< end of the LLDPDU: its End TLV, or no more bytes */
		kBroken, /**< a header or a value that does not fit into what is left, or an End TLV with a value */
	};

	/** The next TLV, stored in tlv when the step is Step::kTlv. After end and broken it stays that way. */
	Step next(Tlv &tlv);

private:
	View rest_;
	Step last_ = Step::kTlv;
};

/** Appends a TLV. type is at most 127; throws std::length_error for a value above 511 bytes. */
void append_tlv(Bytes &out, std::uint8_t type, View value);

} // namespace lldp

#endif
