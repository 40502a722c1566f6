/* SPDX-License-Identifier: MIT */
#include "mox/vlan.h"

#include <algorithm>

namespace mox {
namespace {

constexpr std::size_t kTypeAt = 12, kHeader = 14;

void add(VlanTagBytes &tags, std::uint16_t protocol, std::uint16_t control)
{
	for (std::uint16_t word : { protocol, control }) {
		tags.bytes[tags.length++] = static_cast<std::uint8_t>(word >> 8);
		tags.bytes[tags.length++] = static_cast<std::uint8_t>(word);
	}
}

std::uint16_t u16(std::span<const std::uint8_t> bytes, std::size_t at)
{
	return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

} // namespace

VlanTagBytes missing_vlan_tags(const mox_packet_ctrl_info &control, std::uint16_t ether_type,
			       std::optional<std::uint16_t> tag_control)
{
	VlanTagBytes tags;
	VlanTags record = vlan_tags(control);
	if (!record.has_outer())
		return tags;

	bool tagged = is_vlan_protocol(ether_type);
	// The id of a tag that is cut off is that of the outer tag: no platform leaves the inner one alone.
	std::uint16_t id = tag_control ? *tag_control & kVlanIdMask : record.id;
	if (tagged && id == record.id)
		return tags;
	bool inner = record.inner_id != 0 && !(tagged && id == record.inner_id);
	add(tags, inner || tagged ? kServiceTag : kVlanTag,
	    static_cast<std::uint16_t>(record.priority << 13 | record.id));
	if (inner)
		add(tags, kVlanTag, record.inner_id);
	return tags;
}

std::size_t restore_vlan_tags(std::span<std::uint8_t> buffer, std::size_t captured,
			      const mox_packet_ctrl_info &control)
{
	captured = std::min(captured, buffer.size());
	if (captured < kHeader)
		return 0;
	std::optional<std::uint16_t> tag_control;
	if (captured >= kHeader + sizeof(*tag_control))
		tag_control = u16(buffer, kHeader);
	VlanTagBytes tags = missing_vlan_tags(control, u16(buffer, kTypeAt), tag_control);
	if (tags.length == 0)
		return 0;

	// From the end, so that no byte is overwritten before it has moved.
	std::size_t end = std::min(captured + tags.length, buffer.size());
	std::size_t moved = end > kTypeAt + tags.length ? end - kTypeAt - tags.length : 0;
	std::copy_backward(buffer.begin() + kTypeAt,
			   buffer.begin() + static_cast<std::ptrdiff_t>(kTypeAt + moved),
			   buffer.begin() + static_cast<std::ptrdiff_t>(end));
	std::copy_n(tags.bytes.begin(), std::min(tags.length, end - kTypeAt),
		    buffer.begin() + kTypeAt);
	return tags.length;
}

} // namespace mox
