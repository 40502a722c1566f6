// SPDX-License-Identifier: GPL-2.0-only
/* sendmsg: one frame, straight to the platform in the sender's context. */
#include "base/counters.hpp"
#include "base/errors.hpp"
#include "base/log.hpp"
#include "base/socket_record.hpp"
#include "packet/efbuff.hpp"
#include "receive/tracer.hpp"
#include "services/services.hpp"
#include "services/vsd.hpp"
#include "socket/address.hpp"

namespace mox {

namespace ef = platform::ef;
namespace intf = platform::intf;
namespace outcome = platform::outcome;

namespace {

constexpr u32 kEthHeader = 14;
constexpr u32 kMacSize = 6;
/* The shortest name: that of an address with 6 bytes of MAC and the 2 behind them. */
constexpr int kShortestName = sizeof(link_layer_address);

/** The parts of a message besides its data. */
struct Message {
	const link_layer_address *name; /* null without one; the kernel's copy */
	bool has_ctrl;
	mox_packet_ctrl_info ctrl; /* without one only what is asked of every message is 0 */

	Message() : name(nullptr), has_ctrl(false)
	{
		ctrl.flags = 0;
		ctrl.pkt_ifx = 0;
	}

	bool debug() const { return (ctrl.flags & MOX_SEND_DEBUG) != 0; }
};

/** A control flag, and the one bit of the efbuff that it sets. */
struct SendFlag {
	u32 control;
	u32 word;
	u32 bit;
	const char *line; /* while debugging; null for none */
};

constexpr SendFlag kSendFlags[] = {
	{ MOX_SEND_DEBUG, ef::kFlags, ef::kFlagTrace, nullptr },
	{ MOX_SEND_EF_40000, ef::kFlags, ef::kFlag40000, nullptr },
	{ MOX_SEND_VXLAN_ENCAP, ef::kSendFlags, ef::kSendVxlanEncap, "vxlan encap flag.\n" },
	{ MOX_SEND_BLOCK, ef::kSendFlags, ef::kSendBlock, "block send.\n" },
	{ MOX_SEND_400, ef::kSendFlags, ef::kSend4, nullptr },
	{ MOX_SEND_4000, ef::kSendFlags, ef::kSend20, nullptr },
	{ MOX_SEND_10000, ef::kSendFlags, ef::kSend40, nullptr },
	{ MOX_SEND_20000, ef::kSendFlags, ef::kSend80, nullptr },
	{ MOX_SEND_NO_ACL, ef::kSendFlags, ef::kSendNoAcl, "not match acl.\n" },
	{ MOX_SEND_PROXY_CAPTURE, ef::kSendFlags, ef::kSendProxyCapture,
	  "proxy capture packet, resend.\n" },
};

constexpr const char *kOutcomes[] = { "normal",    "drop",           "reserve",   "lost",
				      "broadcast", "resv broadcast", "multicast", "direct" };
static_assert(sizeof(kOutcomes) / sizeof(kOutcomes[0]) == outcome::kHighest + 1);

/** An outcome's name, null for a number that has none: printk makes "(null)" of that. */
const char *outcome_name(int number)
{
	return number >= 0 && number <= outcome::kHighest ? kOutcomes[number] : nullptr;
}

/** Count a failure and return its errno. */
template <Tally which> int fail(mox_packet_sock *po, int error)
{
	tally_shared<which>(po);
	return error;
}

/** The control record, when there is a control buffer. 0 or a negative errno. */
int read_control(mox_packet_sock *po, msghdr *msg, Message *message)
{
	const void *control = seam_msg_control(msg);

	if (!control)
		return 0;
	size_t len = seam_msg_controllen(msg);
	if (len < sizeof(message->ctrl)) {
		MOX_DEBUG("MOX-PACKET-SEND: msg controllen %u illegal.\n",
			  static_cast<unsigned int>(len));
		return fail<MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS>(po, err::kInval);
	}
	__builtin_memcpy(&message->ctrl, control, sizeof(message->ctrl));
	message->has_ctrl = true;

	const mox_packet_ctrl_info &ctrl = message->ctrl;
	MOX_DEBUG(
		"MOX-PACKET-SEND: ctrl pkt_ifx:%u, pkt_origifx:%u, pkt_l2ifx:%u, pkt_dst_l2ifx:%u\n",
		ctrl.pkt_ifx, ctrl.pkt_origifx, ctrl.pkt_l2ifx, ctrl.pkt_dst_l2ifx);
	MOX_DEBUG("MOX-PACKET-SEND: ctrl eth_info.inner_vid:0x%x, ex_inner_vlan:0x%x.\n",
		  ctrl.inner_vid >> 4, ctrl.ex_inner_vlan);
	MOX_DEBUG("MOX-PACKET-SEND: ctrl wlan_id:0x%x, ap_wlan_id:0x%x, radio_id:0x%x.\n",
		  ctrl.wlan_id, ctrl.ap_wlan_id, ctrl.radio_id);
	return 0;
}

/** The name, when there is one: long enough for its own MAC length. 0 or a negative errno. */
int read_name(mox_packet_sock *po, msghdr *msg, Message *message)
{
	const auto *name = static_cast<const link_layer_address *>(seam_msg_name(msg));

	if (!name)
		return 0;
	int len = seam_msg_namelen(msg);
	/* The MAC length is only there to be read once the name is long enough for it. */
	if (len < kShortestName || len < static_cast<int>(kAddressHead) + name->address_len) {
		MOX_DEBUG("MOX-PACKET-SEND: msg namelen %d illegal.\n", len);
		return fail<MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS>(po, err::kInval);
	}
	message->name = name;
	return 0;
}

/** An efbuff for the data and, on a datagram socket, the header before it; null when there is none. */
void *alloc_efbuff(size_t len, u32 header)
{
	u32 size;

	return __builtin_add_overflow(len, header, &size)
		       ? nullptr
		       : efmp_buff_alloc_sw_with_owner(size, platform::kOwner);
}

/** Where the frame begins: at the offset that the platform wrote into the efbuff. */
u8 *frame_of(void *efbuff)
{
	return static_cast<u8 *>(efbuff) + field<u16>(efbuff, ef::kMacOffset);
}

/** The Ethernet header of a datagram. 0 or a negative errno. */
int build_header(mox_packet_sock *po, const link_layer_address *name, u8 *header)
{
	if (!name || name->address_len < kMacSize) {
		MOX_DEBUG("MOX-PACKET-SEND: sock_dgram but dst mac addr is null.\n");
		return fail<MOX_CAPTURE_COUNTERS_MACFUNC_ILL_FAILS>(po, err::kInval);
	}
	/* Taken once: the platform may withdraw the service at any moment. */
	mox_packet_local_mac_func get_local = load(mox_packet_get_local);
	if (!get_local) {
		MOX_DEBUG("MOX-PACKET-SEND: sock_dgram but get mac addr func is null.\n");
		return fail<MOX_CAPTURE_COUNTERS_MACFUNC_ILL_FAILS>(po, err::kInval);
	}
	u8 local[kMacSize]{};
	if (get_local(0, local)) {
		MOX_DEBUG("MOX-PACKET-SEND: sock_dgram but get local mac error.\n");
		return fail<MOX_CAPTURE_COUNTERS_MACFUNC_ILL_FAILS>(po, err::kInval);
	}
	u16 protocol = name->protocol ? name->protocol : load(po->protocol);
	__builtin_memcpy(header, name->address, kMacSize);
	__builtin_memcpy(header + kMacSize, local, kMacSize);
	__builtin_memcpy(header + size_t{ 2 } * kMacSize, &protocol, sizeof(protocol));
	return 0;
}

/** Write the offsets and lengths by which every reader of the efbuff finds the frame. */
void describe_frame(void *efbuff, u32 frame_len)
{
	/* Too short for a layer-2 header means none; the network header is then where it would be. */
	u16 l2_len = frame_len < kEthHeader ? 0 : kEthHeader;
	u16 mac_offset = field<u16>(efbuff, ef::kMacOffset);

	set_field<u16>(efbuff, ef::kL2Len, l2_len);
	set_field<u16>(efbuff, ef::kNetOffset, static_cast<u16>(mac_offset + l2_len));
	set_field<u32>(efbuff, ef::kTotalLen, frame_len);
}

const char *intf_name(const void *intf)
{
	return static_cast<const char *>(intf) + intf::kName;
}

/** The destination and the source interface. 0 or a negative errno. */
int set_interfaces(mox_packet_sock *po, const Message &message, void *efbuff)
{
	/* A name with interface 0 overrides bind: the platform then chooses the interface. */
	u32 dst_index = message.name ? message.name->ifindex : load(po->ifindex);
	const void *dst = nullptr;
	if (dst_index) {
		dst = lsm_get_intfcb(dst_index);
		if (!dst) {
			MOX_DEBUG("MOX-PACKET-SEND: get dst intf %u fail\n", dst_index);
			return fail<MOX_CAPTURE_COUNTERS_DSTINTF_ILL_FAILS>(po, err::kNxIo);
		}
		if (!field<u32>(dst, intf::kLink)) {
			MOX_DEBUG("MOX-PACKET-SEND: send %s is link down\n", intf_name(dst));
			return fail<MOX_CAPTURE_COUNTERS_INTF_LINKDOWN_FAILS>(po, err::kNetDown);
		}
		set_field<u32>(efbuff, ef::kDstIntf, word_of(dst));
	}

	/* Zero without a control record. */
	u32 src_index = message.ctrl.pkt_ifx;
	if (!src_index)
		return 0;
	const void *src = lsm_get_intfcb(src_index);
	if (!src) {
		MOX_DEBUG("MOX-PACKET-SEND: get src intf %u fail!\n", src_index);
		return fail<MOX_CAPTURE_COUNTERS_SRCINTF_ILL_FAILS>(po, err::kNxIo);
	}
	set_field<u32>(efbuff, ef::kSrcIntf, word_of(src));
	MOX_DEBUG("MOX-PACKET-SEND: send src intf: %s, dst intf: %s.\n", intf_name(src),
		  dst ? intf_name(dst) : "no dst");
	return 0;
}

/** A VLAN id as the efbuff's tag words have it. */
u16 tag_of(u16 vlan)
{
	return host16(vlan & MOX_SEND_VLAN_MASK);
}

void set_bits(void *efbuff, u32 word, u32 bits)
{
	set_field<u32>(efbuff, word, field<u32>(efbuff, word) | bits);
}

/** The control record's fields and flags. */
void apply_control(const mox_packet_ctrl_info &ctrl, void *efbuff)
{
	set_field<u16>(efbuff, ef::kOuterTag, tag_of(ctrl.vlan));
	set_field<u16>(efbuff, ef::kInnerTag, tag_of(ctrl.inner_vlan));
	set_field<u32>(efbuff, ef::kL2Ifx, ctrl.pkt_l2ifx);
	set_field<u32>(efbuff, ef::kOrigIfx, ctrl.pkt_origifx);
	set_field<u32>(efbuff, ef::kDstL2Ifx, ctrl.pkt_dst_l2ifx);
	set_field<u32>(efbuff, ef::kWord172, ctrl.word28);
	set_field<u16>(efbuff, ef::kHalf188, ctrl.half38);
	for (const SendFlag &flag : kSendFlags) {
		if (!(ctrl.flags & flag.control))
			continue;
		set_bits(efbuff, flag.word, flag.bit);
		if (flag.line)
			MOX_DEBUG("MOX-PACKET-SEND: %s", flag.line);
	}
	/* The byte counts only together with its flag. */
	if (ctrl.flags & MOX_SEND_PROXY_CAPTURE)
		set_field<u8>(efbuff, ef::kProxyCapture, ctrl.proxy_capture);
	set_field<u16>(efbuff, ef::kWlanId, ctrl.wlan_id);
	set_field<u16>(efbuff, ef::kApWlanId, ctrl.ap_wlan_id);
	set_field<u8>(efbuff, ef::kRadioId, ctrl.radio_id);
}

/** Fill the efbuff for a message of len bytes. 0 or a negative errno. */
int fill_efbuff(mox_packet_sock *po, msghdr *msg, const Message &message, void *efbuff, u32 header,
		size_t len)
{
	u8 *frame = frame_of(efbuff);

	if (header) {
		int error = build_header(po, message.name, frame);
		if (error)
			return error;
	}
	if (seam_copy_from_msg(frame + header, msg, len)) {
		MOX_DEBUG("MOX-PACKET-SEND: copy pkt failed\n");
		return fail<MOX_CAPTURE_COUNTERS_PKT_COPY_FAILS>(po, err::kFault);
	}
	describe_frame(efbuff, header + static_cast<u32>(len));
	int error = set_interfaces(po, message, efbuff);
	if (error)
		return error;
	if (message.has_ctrl)
		apply_control(message.ctrl, efbuff);
	return 0;
}

/** Hand the efbuff over. 0 or -ENETUNREACH; it is the platform's either way. */
int output(mox_packet_sock *po, const Message &message, void *efbuff)
{
	constexpr u32 kVsd = 0; /* no other vsd gets this far */
	int result = efmp_output_pkt(efbuff);

	/* Negative numbers pass: only the named drop and what is beyond the last name are failures. */
	if (result == outcome::kDrop || result > outcome::kHighest) {
		if (message.debug())
			MOX_DEBUG(
				"MOX-PACKET-SEND: process %s send debug pkt %p in vsd %u, fail: %s.\n",
				po->process, efbuff, kVsd, outcome_name(result));
		else
			MOX_DEBUG("MOX-PACKET-SEND: process %s send pkt %p in vsd %u, fail: %s.\n",
				  po->process, efbuff, kVsd, outcome_name(result));
		return fail<MOX_CAPTURE_COUNTERS_EF_SEND_FAILS>(po, err::kNetUnreach);
	}
	if (message.debug())
		MOX_DEBUG("MOX-PACKET-SEND: process %s send debug pkt %p in vsd %u success.\n",
			  po->process, efbuff, kVsd);
	else
		MOX_DEBUG("MOX-PACKET-SEND: process %s send pkt %p in vsd %u success.\n",
			  po->process, efbuff, kVsd);
	tally_shared<MOX_CAPTURE_COUNTERS_SEND_PACKETS>(po);
	return 0;
}

/** What a trace records of a send. */
class SendTrace {
public:
	explicit SendTrace(mox_packet_sock *po) : po_(po), on_(tracer_on())
	{
		if (on_) [[unlikely]]
			headers_ = {};
	}

	/** The efbuff is complete, and about to be handed over. */
	void frame(const void *efbuff)
	{
		if (on_) [[unlikely]]
			read(efbuff);
	}
	void end(int error) const
	{
		if (on_) [[unlikely]]
			record(error);
	}

private:
	[[gnu::noinline]] void read(const void *efbuff)
	{
		const void *dst = address_of(field<u32>(efbuff, ef::kDstIntf));

		headers_ = read_headers(efbuff);
		headers_.ifindex = dst ? field<u32>(dst, intf::kIfindex) : 0;
	}
	[[gnu::noinline]] void record(int error) const
	{
		TraceHop hop{};

		hop.hop = MOX_CAPTURE_HOP_SEND;
		hop.verdict = error ? MOX_CAPTURE_VERDICT_REFUSED : MOX_CAPTURE_VERDICT_ACCEPTED;
		hop.cpu = static_cast<u32>(seam_cpu());
		hop.error = error;
		trace_socket(&hop, po_);
		tracer_record(headers_, hop);
	}

	mox_packet_sock *po_;
	bool on_;
	FrameHeaders headers_;
};

/** Everything behind the control record. 0 or a negative errno. */
int send_frame(mox_packet_sock *po, msghdr *msg, Message *message, size_t len, SendTrace &trace)
{
	/* For failures before the platform gets the efbuff; its refusals have a line of their own. */
	auto report = [&](int error) {
		if (message->debug())
			MOX_DEBUG("MOX-PACKET-SEND: process %s send debug pkt fail: %d.\n",
				  po->process, error);
		return error;
	};

	int error = read_name(po, msg, message);
	if (error)
		return report(error);
	u32 header = seam_sk_type(sk_of(po)) == sock_type::kDgram ? kEthHeader : 0;
	OwnedEfbuff efbuff(alloc_efbuff(len, header));
	if (!efbuff) {
		MOX_DEBUG("MOX-PACKET-SEND: alloc ebuff failed.\n");
		return report(fail<MOX_CAPTURE_COUNTERS_ALLOC_EFBUFF_FAILS>(po, err::kNoMem));
	}
	error = fill_efbuff(po, msg, *message, efbuff.get(), header, len);
	if (error)
		return report(error);
	trace.frame(efbuff.get());
	return output(po, *message, efbuff.release());
}

} // namespace
} // namespace mox

using namespace mox;

/*
 * sendmsg takes no lock: the socket's fields are read as they are, and those of its
 * counters that a reading clears may drift when two CPUs send at once.
 */
extern "C" int mox_packet_sendmsg(struct socket *socket, msghdr *msg, size_t len)
{
	mox_packet_sock *po = po_of(seam_socket_sk(socket));
	tally_shared<MOX_CAPTURE_COUNTERS_SENDS>(po);
	SEAM_UNINITIALIZED SendTrace trace(po);
	u32 vsd = current_vsd();
	if (vsd != 0) {
		MOX_DEBUG("MOX-PACKET-SEND: get vsd id %d fail.\n", static_cast<int>(vsd));
		trace.end(err::kInval);
		return fail<MOX_CAPTURE_COUNTERS_SENDMSG_ILL_FAILS>(po, err::kInval);
	}
	MOX_DEBUG("MOX-PACKET-SEND: process %s send pkt, len %zu.\n", po->process, len);

	SEAM_UNINITIALIZED Message message;
	int error = read_control(po, msg, &message);
	if (!error)
		error = send_frame(po, msg, &message, len, trace);
	trace.end(error);
	return error ? error : static_cast<int>(len);
}
