// SPDX-License-Identifier: GPL-2.0-only
// One packet against rules: as items of a rule, and as keys of a filter list.
#pragma once

#include "packets.h"
#include "rules_fixture.h"

using namespace packets;
using V = std::vector<u8>;

inline V n16(uint16_t host)
{
	return be16(host);
}
inline V n32(uint32_t v)
{
	V out(4);
	memcpy(out.data(), &v, 4);
	return out;
}

const Bytes kHost4{ 10, 0, 0, 1 };
const Bytes kHost6 = addr6(0x20, 1, 1);

class PktMatch : public RulesTest {
protected:
	void SetUp() override
	{
		RulesTest::SetUp();
		const uint8_t mac[6] = { 2, 0, 0, 0, 0, 9 };
		port = fake::word(efmp().add_interface(7, "eth7", mac));
		lev2 = fake::word(efmp().add_interface(4094, "lev2", mac));
		lev3 = fake::word(efmp().add_interface(4095, "lev3", mac));
	}
	void *frame(const Bytes &bytes, Meta m = {})
	{
		m.source = port;
		return make(m, bytes);
	}
	void *ip4(u8 proto, const Bytes &dst, const Bytes &payload = {})
	{
		return frame(eth(0x0800) + ipv4(proto, dst, payload), { .kind = 1 });
	}
	void *ip6(u8 next, const Bytes &dst, const Bytes &payload)
	{
		return frame(eth(0x86dd) + ipv6(next, dst, payload), { .kind = 27 });
	}

	static int match(void *e, Rule &rule)
	{
		pkt_info info;
		pkt_info_build(e, &info);
		return pkt_rule_match(&info, &rule.regular());
	}
	// One condition of a rule.
	static int item(void *e, u32 type, const std::vector<V> &values)
	{
		Rule rule(PACKET_LEV2_LOC, PACKET_COPY);
		if (values.empty())
			rule.item(type);
		for (const V &v : values)
			rule.data(type, v);
		return match(e, rule);
	}
	static int wlan_item(void *e, u32 type, const std::vector<V> &values)
	{
		Rule rule(PACKET_WLAN_LOC, PACKET_COPY);
		if (values.empty())
			rule.item(type);
		for (const V &v : values)
			rule.data(type, v);
		pkt_wlan_info info;
		pkt_wlan_info_build(e, &info);
		return pkt_wlan_rule_match(&info, &rule.regular());
	}
	static u32 filter(void *e, packet_regular_lib *lib = &g_lev2_packet_regular_lib)
	{
		pkt_info info;
		pkt_info_build(e, &info);
		kernel().bh_disabled++; // as a hook
		seam_read_lock(&lib->lock);
		u32 treatment = pkt_fast_filter(&info, lib);
		seam_read_unlock(&lib->lock);
		kernel().bh_disabled--;
		return treatment;
	}
	static u32 wlan_filter(void *e)
	{
		pkt_wlan_info info;
		pkt_wlan_info_build(e, &info);
		kernel().bh_disabled++; // as a hook
		seam_read_lock(&g_wlan_packet_regular_lib.lock);
		u32 treatment = pkt_wlan_fast_filter(&info);
		seam_read_unlock(&g_wlan_packet_regular_lib.lock);
		kernel().bh_disabled--;
		return treatment;
	}
	// The key of a rule.
	static u32 key(void *e, u32 type, const std::vector<V> &values)
	{
		Rule rule(PACKET_LEV2_LOC, PACKET_FETCH);
		if (values.empty())
			rule.item(type);
		for (const V &v : values)
			rule.data(type, v);
		rule.add();
		return filter(e);
	}
	static u32 wlan_key(void *e, u32 type, const V &value)
	{
		Rule rule(PACKET_WLAN_LOC, PACKET_TRAP);
		rule.data(type, value).add();
		return wlan_filter(e);
	}

	u32 port = 0, lev2 = 0, lev3 = 0;
};
