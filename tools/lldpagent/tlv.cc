/* SPDX-License-Identifier: GPL-2.0-only */
#include "tlv.h"

#include <stdexcept>

namespace lldp {
namespace {

constexpr unsigned kLengthBits = 9;

} // namespace

TlvReader::Step TlvReader::next(Tlv &tlv)
{
	if (last_ != Step::kTlv)
		return last_;
	// The End TLV may be left out where the frame ends as well.
	if (rest_.empty())
		return last_ = Step::kEnd;
	if (rest_.size() < kTlvHeader)
		return last_ = Step::kBroken;

	unsigned header = rest_[0] << 8 | rest_[1];
	std::size_t length = header & kLongestTlvValue;
	auto type = static_cast<std::uint8_t>(header >> kLengthBits);
	rest_ = rest_.subspan(kTlvHeader);
	if (length > rest_.size())
		return last_ = Step::kBroken;
	// What follows the End TLV is padding up to the shortest Ethernet frame and of no meaning.
	if (type == tlv_end)
		return last_ = length == 0 ? Step::kEnd : Step::kBroken;

	tlv = { type, rest_.first(length) };
	rest_ = rest_.subspan(length);
	return Step::kTlv;
}

void append_tlv(Bytes &out, std::uint8_t type, View value)
{
	if (value.size() > kLongestTlvValue)
		throw std::length_error("a TLV holds at most 511 bytes");
	unsigned header = static_cast<unsigned>(type) << kLengthBits |
			  static_cast<unsigned>(value.size());
	out.push_back(static_cast<std::uint8_t>(header >> 8));
	out.push_back(static_cast<std::uint8_t>(header));
	out.insert(out.end(), value.begin(), value.end());
}

} // namespace lldp
