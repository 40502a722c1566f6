/* SPDX-License-Identifier: GPL-2.0-only */
/* Reading of frames that may end anywhere. */
#ifndef MOXCAP_READER_H
#define MOXCAP_READER_H

#include "mox/values.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace moxcap {

/** Thrown where a header is not all there; never leaves the decoder. */
struct CutShort {};

/** A run of bytes in network order; reads beyond its end throw CutShort. */
class Reader {
public:
	explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

	std::size_t size() const { return bytes_.size(); }

	std::uint8_t u8(std::size_t at) const
	{
		if (at >= bytes_.size())
			throw CutShort();
		return bytes_[at];
	}
	std::uint16_t u16(std::size_t at) const
	{
		return static_cast<std::uint16_t>(u8(at) << 8 | u8(at + 1));
	}
	std::uint32_t u32(std::size_t at) const
	{
		return static_cast<std::uint32_t>(u16(at)) << 16 | u16(at + 2);
	}
	mox::MacAddress mac(std::size_t at) const
	{
		mox::MacAddress mac;
		std::span<const std::uint8_t> bytes = some(at, mac.size());
		std::copy(bytes.begin(), bytes.end(), mac.begin());
		return mac;
	}
	/** Exactly length bytes. */
	std::span<const std::uint8_t> some(std::size_t at, std::size_t length) const
	{
		if (at > bytes_.size() || length > bytes_.size() - at)
			throw CutShort();
		return bytes_.subspan(at, length);
	}
	/** What follows an offset; nothing is left at the very end. */
	Reader from(std::size_t at) const
	{
		if (at > bytes_.size())
			throw CutShort();
		return Reader(bytes_.subspan(at));
	}

private:
	std::span<const std::uint8_t> bytes_;
};

} // namespace moxcap

#endif
