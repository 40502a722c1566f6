// SPDX-License-Identifier: GPL-2.0-only
#include "near_frames.h"

#include <algorithm>

namespace oracle {
namespace {

constexpr uint8_t kTcp = 6, kUdp = 17, kIcmp6Proto = 58, kIgmp = 2;
constexpr uint8_t kV4Kind = 1, kV6Kind = 27, kOtherKind = 2;
constexpr uint32_t kDot11 = 0x40000, kManagement = 0x48000;

uint16_t net16(uint16_t host)
{
	return __builtin_bswap16(host);
}

Bytes raw16(uint16_t net)
{
	return { uint8_t(net), uint8_t(net >> 8) };
}

void with_ports(AimedFrame &f)
{
	if (f.proto != kTcp && f.proto != kUdp)
		f.proto = kUdp;
}

} // namespace

Bytes AimedFrame::bytes() const
{
	Bytes b(kL2Len, 0);
	std::copy(dst_mac.begin(), dst_mac.end(), b.begin());
	std::copy(src_mac.begin(), src_mac.end(), b.begin() + 6);
	std::memcpy(&b[12], &eth_net, 2);
	b[14] = byte14;
	b[15] = byte15;
	std::memcpy(&b[20], &word20_net, 2);
	b[22] = byte22;
	b[29] = byte29;
	Bytes upper = raw16(src_port_net) + raw16(dst_port_net);
	if (meta.kind == kV6Kind && proto == kIcmp6Proto)
		upper = { icmp6, 0, 0, 0 };
	upper.resize(20);
	if (meta.kind == kV4Kind)
		return b + ipv4(proto,
				multicast    ? Bytes{ 239, 1, 1, 1 }
				: link_local ? Bytes{ 224, 0, 0, 9 }
					     : Bytes{ 10, 0, 0, 1 },
				upper);
	if (meta.kind == kV6Kind)
		return b + ipv6(proto,
				multicast    ? addr6(0xff, 5, 1)
				: link_local ? addr6(0xff, 2, 1)
					     : addr6(0x20, 1, 1),
				upper);
	return b + Bytes(40, 0);
}

AimedFrame any_frame(Choices &rng)
{
	uint64_t bits = rng();
	auto below = [&](uint32_t n) {
		uint32_t v = bits % n;
		bits /= n;
		return v;
	};
	AimedFrame f;
	f.meta.l2_len = AimedFrame::kL2Len;
	f.meta.kind = std::array<uint8_t, 3>{ kV4Kind, kOtherKind, kV6Kind }[below(3)];
	f.meta.wlan_flags = below(4) ? 0 : below(2) ? kDot11 : kManagement;
	f.meta.attr = below(2);
	f.meta.code = below(2);
	f.meta.sub_code = below(2);
	f.ifindex = 7 + below(2);
	f.dst_mac[5] = 1 + below(2);
	f.src_mac[5] = 1 + below(2);
	f.eth_net = net16(
		std::array<uint16_t, 6>{ 0x0800, 0x86dd, 0x888e, 0x0806, 0x0300, 0 }[below(6)]);
	if (below(3) == 0)
		f.byte14 = f.byte15 = 0xaa;
	else
		f.byte15 = below(3);
	f.word20_net = std::array<uint16_t, 6>{ 0, 1, 2, 256, 257, 3 }[below(6)];
	if (below(3) == 0)
		f.byte22 = 0xfe, f.byte29 = 1;
	f.proto = std::array<uint8_t, 5>{ kTcp, kUdp, kUdp, kIcmp6Proto, kIgmp }[below(5)];
	f.src_port_net = net16(below(3));
	f.dst_port_net = net16(below(3));
	f.icmp6 = std::array<uint8_t, 3>{ 0, 130, 135 }[below(3)];
	f.multicast = below(2);
	f.link_local = below(2);
	if (f.meta.kind != kOtherKind && below(16) == 0)
		f.meta.l2_len = 0;
	return f;
}

void satisfy(AimedFrame &f, const Item &item, Choices &rng)
{
	const Value v = item.datas.empty() ? Value{} : item.datas[rng.below(item.datas.size())];
	const uint16_t half = load<uint16_t>(v.data());
	switch (item.type) {
	case kCode:
		f.meta.code = v[0];
		f.meta.sub_code = v[1];
		break;
	case kDstMac:
		std::copy_n(v.begin(), 6, f.dst_mac.begin());
		break;
	case kSrcMac:
		std::copy_n(v.begin(), 6, f.src_mac.begin());
		break;
	case kEth:
		if (half != contract::kAnyEth)
			f.eth_net = half;
		break;
	case kSnap:
		f.byte14 = f.byte15 = 0xaa;
		if (half != contract::kAnyEth)
			f.word20_net = half;
		break;
	case kV4Proto:
		f.meta.kind = kV4Kind;
		f.proto = v[0];
		break;
	case kV6Proto:
		f.meta.kind = kV6Kind;
		f.proto = v[0];
		break;
	case kV4DstPort:
	case kV6DstPort:
		f.meta.kind = item.type == kV4DstPort ? kV4Kind : kV6Kind;
		f.dst_port_net = half;
		with_ports(f);
		break;
	case kV4SrcPort:
		f.meta.kind = kV4Kind;
		f.src_port_net = half;
		with_ports(f);
		break;
	case kIntf:
		f.ifindex = load<uint32_t>(v.data());
		break;
	case kIcmp6:
		f.meta.kind = kV6Kind;
		f.proto = kIcmp6Proto;
		f.icmp6 = v[0];
		break;
	case kV4Mcast:
		f.meta.kind = kV4Kind;
		f.multicast = true;
		if (f.proto == kIgmp)
			f.proto = kUdp;
		break;
	case kV6Mcast:
		f.meta.kind = kV6Kind;
		f.multicast = true;
		if (f.icmp6 == 130)
			f.icmp6 = 135;
		break;
	case kEapol:
		f.eth_net = net16(0x888e);
		f.byte15 = v[0];
		f.meta.wlan_flags = 0;
		break;
	case kWps:
		f.eth_net = net16(0x888e);
		f.byte22 = 0xfe;
		f.byte29 = 1;
		f.meta.wlan_flags = 0;
		break;
	case kPid:
		f.meta.attr = 0;
		for (const Value &excluded : item.datas)
			if (load<uint32_t>(excluded.data()) == 0)
				f.meta.attr = 5;
		break;
	case kWlanMgnt:
		f.meta.wlan_flags = kManagement;
		break;
	case kArp:
		f.eth_net = net16(0x0806);
		// Of a value above 255 the first byte alone, as a key compares it, as well.
		f.word20_net = half > 255 && rng.below(2) ? v[0] : half;
		break;
	default:
		break;
	}
}

void spoil(AimedFrame &f, const Item &item, Choices &rng)
{
	// Half of the time a value that other rules have, otherwise one that no rule has.
	const uint8_t flip = rng.below(2) ? 3 : 0x80;
	const bool other_way = rng.below(2);
	const Value v = item.datas.empty() ? Value{} : item.datas.front();
	switch (item.type) {
	case kCode:
		(other_way ? f.meta.code : f.meta.sub_code) ^= flip;
		break;
	case kDstMac:
		f.dst_mac[rng.below(6)] ^= flip;
		break;
	case kSrcMac:
		f.src_mac[rng.below(6)] ^= flip;
		break;
	case kEth:
		f.eth_net ^= other_way ? flip : flip << 8;
		break;
	case kSnap:
		if (other_way)
			f.byte14 = 0xab;
		else
			f.word20_net ^= flip;
		break;
	case kV4Proto:
	case kV6Proto:
		if (other_way)
			f.meta.kind = f.meta.kind == kV4Kind ? kV6Kind : kV4Kind;
		else
			f.proto = f.proto == kTcp ? kUdp : kTcp;
		break;
	case kV4DstPort:
	case kV6DstPort:
	case kV4SrcPort: {
		uint16_t &port = item.type == kV4SrcPort ? f.src_port_net : f.dst_port_net;
		if (other_way)
			f.meta.kind = f.meta.kind == kV4Kind ? kV6Kind : kV4Kind;
		else
			port = rng.below(2) ? 0 : port ^ (flip << 8);
		break;
	}
	case kIntf:
		f.ifindex = f.ifindex == 7 ? 8 : 7;
		break;
	case kIcmp6:
		if (other_way)
			f.icmp6 ^= flip;
		else
			f.proto = kUdp;
		break;
	case kV4Mcast:
		if (other_way)
			f.proto = kIgmp;
		else
			f.multicast = false;
		break;
	case kV6Mcast:
		if (other_way) {
			f.proto = kIcmp6Proto;
			f.icmp6 = 130;
		} else {
			f.multicast = false;
		}
		break;
	case kEapol:
		if (other_way)
			f.byte15 ^= flip;
		else
			f.eth_net = net16(0x888f);
		break;
	case kWps:
		f.byte22 = 0;
		break;
	case kPid:
		f.meta.attr = load<uint32_t>(v.data());
		if (f.meta.attr == 0xffffffffu)
			f.meta.attr = 1;
		break;
	case kWlanMgnt:
		f.meta.wlan_flags = kDot11;
		break;
	case kArp:
		f.word20_net ^= other_way ? flip : flip << 8;
		break;
	default:
		break;
	}
}

} // namespace oracle
