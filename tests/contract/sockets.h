// SPDX-License-Identifier: GPL-2.0-only
// The socket calls as the tests expect them: counters, option numbers, and what a send does.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

namespace contract {

/// The counters of a socket, in the order of its record.
enum Counter {
	kFilterDrops,
	kRcvbufFullDrops,
	kTrimFailDrops,
	kRecvPackets,
	kSendmsgIll,
	kMacfuncIll,
	kDstintfIll,
	kSrcintfIll,
	kLinkdown,
	kAllocFails,
	kCopyFails,
	kEfSendFails,
	kSendPackets,
	kCounters
};

/// Their labels in the socket's report.
inline constexpr const char *kCounterLabels[kCounters] = {
	"sk filter drops:        ", "sk rcvbuff full drops:  ", "sk trim fail drops:     ",
	"sk recv packets:        ", "sk sendmsg ill fails:   ", "sk macfunc ill fails:   ",
	"sk dstintf ill fails:   ", "sk srcintf ill fails:   ", "sk intf linkdown fails: ",
	"sk alloc efbuff fails:  ", "sk pkt copy fails:      ", "sk ef send fails:       ",
	"sk send packet:         ",
};

/// The order of that report.
inline constexpr Counter kCounterOrder[kCounters] = {
	kRecvPackets, kFilterDrops, kRcvbufFullDrops, kTrimFailDrops, kSendPackets,
	kSendmsgIll,  kMacfuncIll,  kDstintfIll,      kSrcintfIll,    kLinkdown,
	kAllocFails,  kCopyFails,   kEfSendFails,
};

/// Errno of setsockopt with four zero bytes, by option number.
constexpr int set_option_error(int option)
{
	switch (option) {
	case 1:
	case 2:
	case 8:
	case 9:
	case 13:
	case 14: // the kernel's own, refused here
	case 11:
	case 12: // four bytes are no rule record
		return EINVAL;
	case 15:
	case 16:
	case 17:
	case 18:
	case 19:
		return 0;
	}
	return ENOPROTOOPT;
}

/// Errno of getsockopt with room for a reply, by option number.
constexpr int get_option_error(int option)
{
	return option == 6 || option == 8 || option == 9 ? 0 : ENOPROTOOPT;
}

/// Flags of a send control record: the bits that they set in two words of the efbuff's header, and
/// the debug line that they print.
struct SendFlag {
	uint32_t flag;
	uint32_t at32, at60;
	const char *line;
};
inline constexpr SendFlag kSendFlags[] = {
	{ 0x2, 0x4000, 0, nullptr },
	{ 0x4, 0x40000, 0, nullptr },
	{ 0x100, 0, 0x1, "vxlan encap flag." },
	{ 0x200, 0, 0x2, "block send." },
	{ 0x400, 0, 0x4, nullptr },
	{ 0x4000, 0, 0x20, nullptr },
	{ 0x10000, 0, 0x40, nullptr },
	{ 0x20000, 0, 0x80, nullptr },
	{ 0x40000, 0, 0x8, "not match acl." },
	{ 0x100000, 0, 0x10, "proxy capture packet, resend." },
};
inline constexpr uint32_t kDebugSend = 0x2, kProxySend = 0x100000;

/// Everything that a send is refused for, in the order of the checks.
enum Refusal {
	kVsd,
	kControlLength,
	kNameLength,
	kNoEfbuff,
	kNoDstMac,
	kNoMacService,
	kMacServiceFails,
	kDataFault,
	kNoDst,
	kDstDown,
	kNoSrc,
	kDropped,
	kRefusals
};

struct RefusalFacts {
	int error;
	Counter counter;
	const char *line;   ///< printed while debugging; '#' stands for what it names
	bool datagram_only; ///< of SOCK_DGRAM sockets only
	bool allocated;     ///< there is an efbuff by then
};
inline constexpr RefusalFacts kRefusalFacts[kRefusals] = {
	{ EINVAL, kSendmsgIll, "get vsd id # fail.", false, false },
	{ EINVAL, kSendmsgIll, "msg controllen # illegal.", false, false },
	{ EINVAL, kSendmsgIll, "msg namelen # illegal.", false, false },
	{ ENOMEM, kAllocFails, "alloc ebuff failed.", false, false },
	{ EINVAL, kMacfuncIll, "sock_dgram but dst mac addr is null.", true, true },
	{ EINVAL, kMacfuncIll, "sock_dgram but get mac addr func is null.", true, true },
	{ EINVAL, kMacfuncIll, "sock_dgram but get local mac error.", true, true },
	{ EFAULT, kCopyFails, "copy pkt failed", false, true },
	{ ENXIO, kDstintfIll, "get dst intf # fail", false, true },
	{ ENETDOWN, kLinkdown, "send # is link down", false, true },
	{ ENXIO, kSrcintfIll, "get src intf # fail!", false, true },
	{ ENETUNREACH, kEfSendFails, "process #, fail: drop.", false, true },
};

/// The line of a refusal, without tag and event name.
inline std::string refusal_line(Refusal refusal, const std::string &named = {})
{
	std::string line = kRefusalFacts[refusal].line;
	if (size_t at = line.find('#'); at != std::string::npos)
		line.replace(at, 1, named);
	return line;
}

} // namespace contract
