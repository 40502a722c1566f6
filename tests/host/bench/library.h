// SPDX-License-Identifier: GPL-2.0-only
// The rule library that is measured: that of layer 2, with rules of one shape, each the rule of a
// socket of its own; and the frames that are looked up in it.
#pragma once

#include <cstring>
#include <vector>

#include "base/sync.hpp"
#include "locations/table.hpp"
#include "packet/info.hpp"

namespace bench {

using namespace mox;

// A frame's summary, and the address bytes that it points to.
struct Frame {
	pkt_info info{};
	u8 macs[16]{};

	Frame();
	Frame(const Frame &) = delete;
	Frame &operator=(const Frame &) = delete;
};

inline u16 net16(u32 host)
{
	return __builtin_bswap16(static_cast<u16>(host));
}

inline constexpr u32 kIpv4Type = 0x0800;
inline constexpr u32 kOtherType = 0x0801;

// A condition of a rule.
struct Condition {
	u32 type;
	u8 value[REGULAR_VALUE_SIZE];
};

/*
 * The shapes. rule(n) are the conditions of rule n, choose(frame, n) sets what rule n compares;
 * numbers from that of rules on are values that no rule has. Frames are built by the same
 * functions, so that a wanted frame is one by construction, and the benchmarks count the answers.
 */
struct OwnEtherType {
	static constexpr const char *kName = "own_ethertype";
	static std::vector<Condition> rule(u32 n);
	static void choose(Frame &frame, u32 n) { frame.info.eth_type = net16(value(n)); }

private:
	static constexpr u32 value(u32 n) { return 0x2000 + n; }
};

struct OwnSourceMac {
	static constexpr const char *kName = "own_source_mac";
	static std::vector<Condition> rule(u32 n);
	static void choose(Frame &frame, u32 n)
	{
		const u16 tail = net16(n);
		memcpy(frame.macs + 10, &tail, sizeof tail);
	}
};

struct TypeAndOwnPort {
	static constexpr const char *kName = "shared_ethertype_own_port";
	static std::vector<Condition> rule(u32 n);
	static void choose(Frame &frame, u32 n) { frame.info.dst_port = net16(value(n)); }

private:
	static constexpr u32 value(u32 n) { return 1024 + n; }
};

inline packet_regular_lib &library()
{
	return g_lev2_packet_regular_lib;
}

// Fills the library, which must not be in use, with so many rules; what it held is freed.
void fill(std::vector<Condition> (*rule)(u32 n), u32 rules);

} // namespace bench
