/* SPDX-License-Identifier: GPL-2.0 */
#include "tlv.h"

#include <stdexcept>

namespace lldp {
namespace {

constexpr unsigned length_bits = 9;

} // namespace

TlvReader::Step TlvReader::next(Tlv& tlv)
{
    if (last_ != Step::tlv)
        return last_;
    // The End TLV may be left out where the frame ends as well.
    if (rest_.empty())
        return last_ = Step::end;
    if (rest_.size() < tlv_header)
        return last_ = Step::broken;

    unsigned header = rest_[0] << 8 | rest_[1];
    std::size_t length = header & longest_tlv_value;
    auto type = static_cast<std::uint8_t>(header >> length_bits);
    rest_ = rest_.subspan(tlv_header);
    if (length > rest_.size())
        return last_ = Step::broken;
    // What follows the End TLV is padding up to the shortest Ethernet frame and of no meaning.
    if (type == tlv_end)
        return last_ = length == 0 ? Step::end : Step::broken;

    tlv = {type, rest_.first(length)};
    rest_ = rest_.subspan(length);
    return Step::tlv;
}

void append_tlv(Bytes& out, std::uint8_t type, View value)
{
    if (value.size() > longest_tlv_value)
        throw std::length_error("a TLV holds at most 511 bytes");
    unsigned header = static_cast<unsigned>(type) << length_bits | static_cast<unsigned>(value.size());
    out.push_back(static_cast<std::uint8_t>(header >> 8));
    out.push_back(static_cast<std::uint8_t>(header));
    out.insert(out.end(), value.begin(), value.end());
}

} // namespace lldp
