// SPDX-License-Identifier: GPL-2.0-only
/*
 * The socket buffers of a frame that is delivered: each has the whole frame and the
 * control record that recvmsg hands out. All of it runs in the thread "packet-copy",
 * which alone changes the count of buffers that sockets hold while it adds to it.
 */
#pragma once

#include "receive/deliver.hpp"

#include "base/socket_record.hpp"

namespace mox {

namespace ef = platform::ef;

static_assert(sizeof(mox_packet_ctrl_info) == 48);

/** The control record's flags for a packet. */
inline u32 ctrl_flags(const void *efbuff)
{
	u32 from = field<u32>(efbuff, ef::kFlags);
	u32 flags = 0;

	if (from & ef::kFlagTrace)
		flags |= MOX_RECV_TRACE;
	if (from & ef::kFlag40000)
		flags |= MOX_RECV_EF_40000;
	if (from & ef::kFlag80)
		flags |= MOX_RECV_EF_80;
	if (field<u16>(efbuff, ef::kL2Len) == 0)
		flags |= MOX_RECV_NO_L2;
	if (field<u32>(efbuff, ef::kWlanFlags) & ef::kWlan800000)
		flags |= MOX_RECV_WLAN_800000;
	return flags;
}

/** The receive control record of a packet; what nothing fills is zero. */
[[gnu::always_inline]] inline void fill_ctrl(const void *efbuff, u16 eth_type,
					     mox_packet_ctrl_info *ctrl)
{
	u16 tag = host16(field<u16>(efbuff, ef::kVlan + 2));
	u16 inner = host16(field<u16>(efbuff, ef::kVlan)) & 0x0FFF;

	/* Field by field: clearing the record first would cost as much again. */
	ctrl->pkt_dst_l2ifx = 0;
	ctrl->reserved20 = 0;
	ctrl->inner_vid = 0;
	ctrl->reserved46 = 0;
	ctrl->pkt_ifx = source_ifindex(efbuff);
	ctrl->pkt_origifx = field<u32>(efbuff, ef::kOrigIfx);
	ctrl->pkt_l2ifx = field<u32>(efbuff, ef::kL2Ifx);
	ctrl->eth_type = eth_type;
	ctrl->vlan = static_cast<u16>((tag >> 13) | ((tag & 0x0FFF) << 4));
	ctrl->flags = ctrl_flags(efbuff);
	ctrl->word28 = field<u32>(efbuff, ef::kWord172);
	ctrl->inner_vlan = inner;
	ctrl->ex_inner_vlan = inner;
	ctrl->l2_len = field<u16>(efbuff, ef::kL2Len);
	ctrl->half38 = field<u16>(efbuff, ef::kHalf188);
	ctrl->wlan_id = field<u16>(efbuff, ef::kWlanId);
	ctrl->ap_wlan_id = field<u16>(efbuff, ef::kApWlanId);
	ctrl->radio_id = field<u8>(efbuff, ef::kRadioId);
	ctrl->proxy_capture = field<u8>(efbuff, ef::kProxyCapture);
}

/** Drop a buffer that no queue has; another reference, if any, keeps it and its count. */
inline void drop_skb(sk_buff *skb)
{
	if (seam_skb_users(skb) == 1)
		bump(g_alloc_skb_num, -1);
	seam_consume_skb(skb);
}

using OwnedSkb = Owned<sk_buff, drop_skb>;

/** A socket buffer with the whole frame and its control record, or null. Not counted. */
[[gnu::always_inline]] inline sk_buff *build_skb(const void *efbuff, u16 eth_type)
{
	SEAM_UNINITIALIZED seam_frame frame;
	frame.data = mac_header(efbuff);
	frame.len = field<u32>(efbuff, ef::kTotalLen);
	frame.net_offset = field<u16>(efbuff, ef::kL2Len);
	frame.ifindex = source_ifindex(efbuff);
	frame.vlan_id = static_cast<u16>(vlan_id_of(efbuff));
	sk_buff *skb = seam_skb_of_frame(&frame);

	if (skb)
		fill_ctrl(efbuff, eth_type, static_cast<mox_packet_ctrl_info *>(frame.cb));
	return skb;
}

/**
 * The buffers of one frame. When several sockets get it, they share its data:
 * each has a clone of a master that no socket has.
 */
class FrameBuffers : Pinned {
public:
	FrameBuffers(const void *efbuff, u16 eth_type) : efbuff_(efbuff), eth_type_(eth_type) {}

	/** The next buffer will not be the last. */
	[[gnu::noinline]] void expect_more()
	{
		if (!master_)
			master_ = Owned<sk_buff, seam_consume_skb>(build_skb(efbuff_, eth_type_));
	}

	/** Whether the frame has no bytes. */
	bool empty() const { return field<u32>(efbuff_, ef::kTotalLen) == 0; }

	/** A buffer for one socket, or null, which is counted. */
	[[gnu::always_inline]] OwnedSkb make(bool dgram)
	{
		/* Without memory for a master each socket's own attempt counts. */
		sk_buff *skb = master_ ? seam_skb_clone(master_.get())
				       : build_skb(efbuff_, eth_type_);
		if (!skb) [[unlikely]] {
			bump(g_packet_thread_debug.alloc_skb_failed);
			return OwnedSkb();
		}
		bump(g_alloc_skb_num);
		if (dgram)
			seam_skb_pull(skb, field<u16>(efbuff_, ef::kL2Len));
		return OwnedSkb(skb);
	}

private:
	const void *efbuff_;
	u16 eth_type_;
	Owned<sk_buff, seam_consume_skb> master_;
};

} // namespace mox
