// SPDX-License-Identifier: GPL-2.0-only
#include "packet/trace.hpp"

#include "base/log.hpp"

namespace mox {

namespace ef = platform::ef;

namespace {

const char *tag_text(TraceTag tag)
{
	return tag == TraceTag::kReceive ? "RCV" : "FW";
}

void trace_l3(const pkt_info &info, const char *tag)
{
	int dst_port = host16(info.dst_port);
	int src_port = host16(info.src_port);
	u32 protocol = info.ip_proto;

	if (info.flags & pkt_flag::kIpv4)
		MOX_TRACE("MOX-PACKET-%s: ip: %pI4, ip protocol: %u, dst port: %d, src port: %d\n",
			  tag, &info.ipv4_dst, protocol, dst_port, src_port);
	else if ((info.flags & pkt_flag::kIpv6) && info.dst_port)
		MOX_TRACE("MOX-PACKET-%s: ip: %pI6, ip protocol: %u, dst port: %d, src port: %d\n",
			  tag, info.ipv6_dst, protocol, dst_port, src_port);
	else if ((info.flags & pkt_flag::kIpv6) && info.icmpv6_type)
		MOX_TRACE("MOX-PACKET-%s: ip: %pI6, ip protocol: %u, icmpv6 type: %d\n", tag,
			  info.ipv6_dst, protocol, info.icmpv6_type);
	else if (info.flags & pkt_flag::kIpv6)
		MOX_TRACE("MOX-PACKET-%s: ip: %pI6, ip protocol: %u\n", tag, info.ipv6_dst,
			  protocol);
	else if (info.flags & pkt_flag::kEapol)
		MOX_TRACE("MOX-PACKET-%s: eapol pkt, type: %d\n", tag, info.eapol_type);
	else
		MOX_TRACE("MOX-PACKET-%s: packet type: %d\n", tag,
			  field<u8>(info.efbuff, ef::kKind));
}

} // namespace

void trace_packet(const pkt_info &info, TraceTag tag)
{
	const char *text = tag_text(tag);

	MOX_TRACE("MOX-PACKET-%s: src_mac: %pM, dst_mac: %pM, eth_type: %04x, vid: %u\n", text,
		  info.src_mac, info.dst_mac, host16(info.eth_type), vlan_id(info.vlan));
	/* "RCV" in both places: log filters of operators look for this one line. */
	MOX_TRACE("MOX-PACKET-RCV: code: %u, sub_code: %u\n", info.code, info.sub_code);
	trace_l3(info, text);
}

void trace_wlan_packet(const void *efbuff, TraceTag tag)
{
	const char *text = tag_text(tag);

	MOX_TRACE("MOX-PACKET-%s: packet type: %d, src_intf: %s, src_ifx: %u, vid: %u\n", text,
		  field<u8>(efbuff, ef::kKind), source_name(efbuff), source_ifindex(efbuff),
		  vlan_id_of(efbuff));
	MOX_TRACE("MOX-PACKET-%s: radio id: %d, wlan id: %d, ap wlan id: %d\n", text,
		  field<u8>(efbuff, ef::kRadioId), field<u16>(efbuff, ef::kWlanId),
		  field<u16>(efbuff, ef::kApWlanId));
}

} // namespace mox
