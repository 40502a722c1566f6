// SPDX-License-Identifier: GPL-2.0-only
/* The fields of efbuffs and of the platform's other records. */
#pragma once

#include "base/owned.hpp"
#include "platform.h"

namespace mox {

/** A field of a platform record; platform records are only aligned to 4 bytes. */
template <typename T> inline T field(const void *record, u32 offset)
{
	T value;
	__builtin_memcpy(&value, static_cast<const u8 *>(record) + offset, sizeof(value));
	return value;
}

template <typename T> inline void set_field(void *record, u32 offset, T value)
{
	__builtin_memcpy(static_cast<u8 *>(record) + offset, &value, sizeof(value));
}

/** The address that a 32-bit pointer word of the platform holds. */
inline void *address_of(u32 word)
{
	return reinterpret_cast<void *>(static_cast<uintptr_t>(word));
}

/** A platform address as the platform's records hold it. */
inline u32 word_of(const void *address)
{
	return static_cast<u32>(reinterpret_cast<uintptr_t>(address));
}

inline const u8 *mac_header(const void *efbuff)
{
	return static_cast<const u8 *>(efbuff) + field<u16>(efbuff, platform::ef::kMacOffset);
}

inline const u8 *net_header(const void *efbuff)
{
	return static_cast<const u8 *>(efbuff) + field<u16>(efbuff, platform::ef::kNetOffset);
}

/** Whether the platform asks for every hook's trace of this packet. */
inline bool traced(const void *efbuff)
{
	return (field<u32>(efbuff, platform::ef::kFlags) & platform::ef::kFlagTrace) != 0;
}

/** The control block of the interface that the packet came in on; null for one that the device made. */
inline const void *source_intf(const void *efbuff)
{
	return address_of(field<u32>(efbuff, platform::ef::kSrcIntf));
}

/** Index of the source interface, 0 without one. */
inline u32 source_ifindex(const void *efbuff)
{
	const void *intf = source_intf(efbuff);
	return intf ? field<u32>(intf, platform::intf::kIfindex) : 0;
}

/** Name of the source interface, empty without one. */
inline const char *source_name(const void *efbuff)
{
	const void *intf = source_intf(efbuff);
	return intf ? static_cast<const char *>(intf) + platform::intf::kName : "";
}

/** The VLAN id, 0 to 4095, out of a VLAN word masked with kVlanIdMask. */
inline u32 vlan_id(u32 vlan_word)
{
	return __builtin_bswap32(vlan_word);
}

/** The same id straight from an efbuff. */
inline u32 vlan_id_of(const void *efbuff)
{
	return vlan_id(field<u32>(efbuff, platform::ef::kVlan) & platform::ef::kVlanIdMask);
}

/** A host-order view of a network-order u16. */
inline u16 host16(u16 network)
{
	return __builtin_bswap16(network);
}

/** Give an efbuff of the module's back. Any context. */
inline void free_efbuff(void *efbuff)
{
	efmp_buff_free_sw_with_owner(efbuff, platform::kOwner);
}

/** An efbuff that the module owns: given back at the end of the scope. */
using OwnedEfbuff = Owned<void, free_efbuff>;

} // namespace mox
