// SPDX-License-Identifier: GPL-2.0-only
// What the tests ask of the lab, in the words of the tests: one frame at one hook on one CPU, the platform's books, its
// registrations, its failures on demand, and the module's own globals. Everything goes over /dev/moxlab.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "contract/locations.h"

namespace lab {

using Bytes = std::vector<uint8_t>;

/// The owner number under which the module holds efbuffs.
inline constexpr uint32_t kOwner = 147;

/// Interfaces that every test finds: two ports with their link up, one with its link down, and the two reserved
/// control-plane interfaces.
inline constexpr uint32_t kPortA = 211, kPortB = 212, kPortDown = 213, kLev2Resv = 4094,
			  kLev3Resv = 4095;
inline constexpr uint8_t kPortAMac[6] = { 0x02, 0x11, 0x22, 0x33, 0x44, 0xa1 };
/// An interface index that no control block has.
inline constexpr uint32_t kNoSuchInterface = 3999;

/// Packet kinds as the platform numbers them.
inline constexpr uint8_t kKindOther = 2, kKindIpv4 = 1, kKindIpv6 = 27;
/// Flag bits of the efbuff.
inline constexpr uint32_t kTraceMark = 0x4000, kFlag40000 = 0x40000, kFlag80 = 0x80;
inline constexpr uint32_t kWlan80211 = 0x40000, kWlanMgmt = 0x8000, kWlan800000 = 0x800000;

/// A frame with the metadata the platform keeps beside it. VLAN words are in host order here.
struct Frame {
	Bytes bytes;
	uint8_t kind = kKindOther;
	uint16_t l2_len = 14;
	int net_off = -1;       ///< from the MAC header; -1: right after the layer-2 header
	int64_t total_len = -1; ///< -1: as many bytes as there are
	uint32_t src_ifx = kPortA;
	uint32_t dst_ifx = 0;
	uint16_t vlan_tci = 0;
	uint16_t inner_tci = 0;
	uint32_t flags = 0;
	uint32_t wlan_flags = 0;
	uint32_t l2ifx = 0;
	uint32_t origifx = 0;
	uint32_t dst_l2ifx = 0;
	uint8_t proxy = 0;
	uint32_t attr = 0;
	uint8_t radio_id = 0;
	uint16_t wlan_id = 0;
	uint16_t ap_wlan_id = 0;
	uint32_t word172 = 0;
	uint8_t code = 0;
	uint8_t sub_code = 0;
	uint16_t half188 = 0;
	/// Bit 0 of the CPU's buffer word, a tag that hooks must not mind: 0, 1, or -1 to have the lab alternate.
	int tag = -1;
	/// Run the hook in a softirq proper and not merely with bottom halves disabled.
	bool softirq = false;
};

/// In the order of contract::HookId.
enum class Hook { Local, Lev2, Ipv4, Ipv6, Mpls, Trill, Resv, WlanIn, WlanOut };

/// The hook function's symbol.
const char *symbol(Hook hook);
/// The hooks that are registered for a location.
std::vector<Hook> hooks_of(uint32_t location);

/// A hook's answers: to the module records and output functions, and inverted for the receive function of RESV.
inline constexpr uint32_t kGoOn = contract::kHooks[contract::kLev2Hook].go_on,
			  kTaken = contract::kHooks[contract::kLev2Hook].taken,
			  kResvGoOn = contract::kHooks[contract::kResvHook].go_on,
			  kResvTaken = contract::kHooks[contract::kResvHook].taken,
			  kDrop = contract::kDropAnswer;

/// Runs the hook over the frame on the CPU (-1: any) and returns its answer. The hook must be registered.
uint32_t inject(Hook hook, const Frame &frame, int cpu = -1);
/// As inject, but calls the function by its symbol, registered or not.
uint32_t inject_unregistered(Hook hook, const Frame &frame, int cpu = -1);
/// Repeats inject `times` times in one call; returns the number of answers that were not "go on".
uint32_t inject_many(Hook hook, const Frame &frame, uint32_t times, int cpu);

/// As inject_many, but no error when the hook is not registered at the moment; returns the frames that found it.
uint32_t flood(Hook hook, const Frame &frame, uint32_t times, int cpu);

/// Whether the function is registered with the platform now.
bool registered(Hook hook);
/// Number of hook functions and module records of mox_ef_socket that are registered now.
size_t registrations();

/// One call of a registration function since the log was cleared.
struct RegCall {
	std::string
		call; ///< "reg_module", "dereg_module", "reg_recv", "dereg_recv", "reg_output", "dereg_output"
	std::string func; ///< symbol of the hook function
	uint32_t point; ///< the function's point, or bytes 12 and 13 of the descriptor (low, high)
	int32_t result;
};
std::vector<RegCall> registration_log();
void clear_registration_log();

/// Whole mox_printk lines since the last clear, oldest first; a leading level marker stays in the text.
std::vector<std::string> printk_lines();
void clear_printk();
/// Whether mox_printk lines go to the kernel's log as well (they do after a start). Long reports flood a console.
void echo_printk(bool on);

/// The platform's books.
struct Books {
	int64_t live;    ///< efbuffs that exist now under the module's owner number
	uint64_t clones; ///< clones made for the module
	uint64_t freed;  ///< efbuffs that the module freed
	uint64_t misuse; ///< double frees, wrong owners, calls from a forbidden context
};
Books books();
/// Waits until the module holds no efbuff: everything queued has been delivered and freed. False after the time, which
/// leaves room for a virtual machine that shares its processors.
bool settle(int milliseconds = 20000);
/// The forward reason (header byte 43) that the hook left in the frame injected last.
uint8_t last_forward_reason();

enum class Fail { Alloc, Clone, RegModule, RegRecv, RegOutput, GetService, RegServHandler };
/// Makes the n-th call from now (1: the next) of that kind fail, count times; result is what a registration returns.
void fail(Fail what, uint32_t nth, uint32_t count = 1, int32_t result = -5);
void clear_failures();

/// Control blocks without a device behind them.
void set_interface(uint32_t ifindex, const char *name, const uint8_t mac[6], bool up);
void remove_interface(uint32_t ifindex);
void set_link(uint32_t ifindex, bool up);

/// Installs (result >= 0) or removes (result < 0) a drop function in pkt_rnfp or, with wlan, in pkt_rnfp_wlan.
void set_rnfp(bool wlan, int result);
uint64_t rnfp_calls(bool wlan);

/// The module's own globals, by symbol.
uint8_t peek8(const char *sym, uint32_t offset = 0);
uint32_t peek32(const char *sym, uint32_t offset = 0);
void poke8(const char *sym, uint32_t offset, uint8_t value);
/// Any number of bytes from there.
Bytes peek(const char *sym, uint32_t offset, uint32_t length);

/// Brings the lab to a known state: interfaces, no failures pending, empty logs.
void reset();

} // namespace lab
