/* SPDX-License-Identifier: GPL-2.0-only */
#include "stored_frame.h"

#include "mox/vlan.h"

#include <algorithm>
#include <array>
#include <optional>

namespace moxcap {
namespace {

constexpr std::size_t kEthernetHeader = 14, kCookedHeader = 16, kEtherTypeField = 2;

/** A frame whose layer-2 header begins with `header` and continues in `bytes`. */
class Joined {
public:
	Joined(std::span<const std::uint8_t> header, std::span<const std::uint8_t> bytes)
		: header_(header), bytes_(bytes)
	{
	}

	std::size_t size() const { return header_.size() + bytes_.size(); }
	std::uint16_t u16(std::size_t at) const
	{
		return static_cast<std::uint16_t>(u8(at) << 8 | u8(at + 1));
	}

private:
	std::uint8_t u8(std::size_t at) const
	{
		return at < header_.size() ? header_[at] : bytes_[at - header_.size()];
	}

	std::span<const std::uint8_t> header_, bytes_;
};

/** The tags of the control record that the bytes of a frame, with its EtherType field at an offset, do not have. */
mox::VlanTagBytes missing_tags(const Joined &frame, std::size_t type_at,
			       const ReceivedFrame &received)
{
	if (!received.control)
		return {};
	// Where the bytes end before the EtherType, the control record has it.
	std::uint16_t type = frame.size() >= type_at + kEtherTypeField ? frame.u16(type_at)
								       : received.ether_type;
	std::optional<std::uint16_t> tag_control;
	if (frame.size() >= type_at + mox::kVlanTagSize)
		tag_control = frame.u16(type_at + kEtherTypeField);
	return mox::missing_vlan_tags(*received.control, type, tag_control);
}

} // namespace

std::size_t FrameStorer::most_added() const
{
	// Of the two headers the cooked one is the longer.
	return kCookedHeader + (vlan_tags_ ? mox::kMostVlanTags * mox::kVlanTagSize : 0);
}

StoredFrame FrameStorer::store(const ReceivedFrame &received)
{
	// Both headers end in the EtherType; the rest is zero.
	std::array<std::uint8_t, kCookedHeader> header{};
	std::size_t front = layout_ == Layout::kNetwork                            ? kCookedHeader
			    : layout_ == Layout::kEthernet && !received.has_header ? kEthernetHeader
										   : 0;
	if (front != 0) {
		header[front - 2] = static_cast<std::uint8_t>(received.ether_type >> 8);
		header[front - 1] = static_cast<std::uint8_t>(received.ether_type);
	}
	std::span<const std::uint8_t> added(header.data(), front);

	std::size_t type_at = (layout_ == Layout::kNetwork ? kCookedHeader : kEthernetHeader) -
			      kEtherTypeField;
	std::size_t length = front + received.length;
	mox::VlanTagBytes tags;
	if (vlan_tags_ && layout_ != Layout::kWlan && length >= type_at + kEtherTypeField)
		tags = missing_tags(Joined(added, received.bytes), type_at, received);
	if (front + tags.length == 0)
		return { received.bytes, received.length };

	scratch_.assign(added.begin(), added.end());
	scratch_.insert(scratch_.end(), received.bytes.begin(), received.bytes.end());
	// If the bytes end before the place of the tags, only the length counts them.
	if (scratch_.size() >= type_at)
		scratch_.insert(scratch_.begin() + static_cast<std::ptrdiff_t>(type_at),
				tags.bytes.begin(),
				tags.bytes.begin() + static_cast<std::ptrdiff_t>(tags.length));
	return { scratch_, length + tags.length };
}

} // namespace moxcap
