// SPDX-License-Identifier: GPL-2.0-only
#include "packets.h"

#include <algorithm>
#include <cstring>

namespace packets {
namespace {

uint32_t source_index(const Bytes &b)
{
	uint32_t word, index = 0;
	std::memcpy(&word, &b[4], 4);
	if (word)
		std::memcpy(&index, fake::pointer(word), 4);
	return index;
}

Bytes copy_of(const void *efbuff)
{
	auto *p = static_cast<const uint8_t *>(efbuff);
	uint16_t mac, net;
	uint32_t total;
	std::memcpy(&mac, p + 22, 2);
	std::memcpy(&net, p + 24, 2);
	std::memcpy(&total, p + 164, 4);
	Bytes b(std::max<size_t>({ mac + std::max(total, 64u), net + 24u, 512u }), 0xee);
	std::memcpy(b.data(), p, 192);
	std::memcpy(b.data() + mac, p + mac, std::max(total, 64u));
	std::memcpy(b.data() + net, p + net, 24);
	return b;
}

} // namespace

Packet read(const void *efbuff)
{
	Bytes b = copy_of(efbuff);
	return parse(b.data(), source_index(b));
}

WlanPacket read_wlan(const void *efbuff)
{
	Bytes b = copy_of(efbuff);
	return parse_wlan(b.data(), source_index(b));
}

} // namespace packets
