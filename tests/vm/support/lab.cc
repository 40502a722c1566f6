// SPDX-License-Identifier: GPL-2.0-only
#include "support/lab.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/ioctl.h>

#include <gtest/gtest.h>

#include "support/cpus.h"
#include "support/symbols.h"

#include "moxlab.h"

namespace lab {

namespace {

int device()
{
	static const int fd = [] {
		int opened = ::open(MOXLAB_DEVICE, O_RDWR | O_CLOEXEC);
		if (opened < 0) {
			std::perror(MOXLAB_DEVICE);
			std::exit(2);
		}
		return opened;
	}();
	return fd;
}

/// One verb. The lab refusing a verb is a mistake of the test, never a result: it throws.
void verb(unsigned long request, void *argument, const char *name)
{
	if (::ioctl(device(), request, argument))
		throw std::system_error(errno, std::generic_category(), name);
}

/// Of the last frame that inject() injected; -1 when its buffer was freed, and its record dropped, before it was read.
std::atomic<int> forward_reason;

/// Where the lab calls each of them.
constexpr uint32_t kPoints[contract::kHookIds] = {
	MOXLAB_POINT_OUTPUT, MOXLAB_POINT_LEV2,    MOXLAB_POINT_IPV4,
	MOXLAB_POINT_IPV6,   MOXLAB_POINT_LEV2,    MOXLAB_POINT_LEV2,
	MOXLAB_POINT_RESV,   MOXLAB_POINT_WLAN_IN, MOXLAB_POINT_OUTPUT,
};

moxlab_inject request_of(Hook hook, const Frame &frame, int cpu)
{
	moxlab_inject in{};
	in.point = kPoints[size_t(hook)];
	in.cpu = cpu < 0 ? MOXLAB_ANY_CPU : uint32_t(vm::cpu_for(cpu));
	std::strncpy(in.symbol, symbol(hook), sizeof in.symbol - 1);
	in.frame = reinterpret_cast<uintptr_t>(frame.bytes.data());
	in.frame_len = uint32_t(frame.bytes.size());
	// Every field is the test's own: what the lab would have guessed from the bytes must not show in a result.
	in.set = MOXLAB_SET_KIND | MOXLAB_SET_L2_LEN | MOXLAB_SET_MAC_OFFSET |
		 MOXLAB_SET_NET_OFFSET | MOXLAB_SET_FLAGS | MOXLAB_SET_VLAN |
		 MOXLAB_SET_INNER_VLAN | MOXLAB_SET_SRC | MOXLAB_SET_DST | MOXLAB_SET_WLAN_FLAGS |
		 MOXLAB_SET_L2IFX | MOXLAB_SET_ORIGIFX | MOXLAB_SET_PROXY | MOXLAB_SET_DST_L2IFX |
		 MOXLAB_SET_ATTR | MOXLAB_SET_RADIO_ID | MOXLAB_SET_WLAN_ID |
		 MOXLAB_SET_AP_WLAN_ID | MOXLAB_SET_TOTAL_LEN | MOXLAB_SET_WORD172 |
		 MOXLAB_SET_CODE | MOXLAB_SET_SUB_CODE | MOXLAB_SET_HALF188 | MOXLAB_SET_REASON;
	in.kind = frame.kind;
	in.l2_len = frame.l2_len;
	in.mac_offset = 256 + 64;
	in.net_offset = uint16_t(in.mac_offset +
				 (frame.net_off < 0 ? frame.l2_len : frame.net_off));
	in.flags = frame.flags;
	in.vlan = frame.vlan_tci;
	in.inner_vlan = frame.inner_tci;
	in.src_ifindex = frame.src_ifx;
	in.dst_ifindex = frame.dst_ifx ? frame.dst_ifx : MOXLAB_NO_BLOCK;
	in.wlan_flags = frame.wlan_flags;
	in.l2ifx = frame.l2ifx;
	in.origifx = frame.origifx;
	in.dst_l2ifx = frame.dst_l2ifx;
	in.proxy = frame.proxy;
	in.attr = frame.attr;
	in.radio_id = frame.radio_id;
	in.wlan_id = frame.wlan_id;
	in.ap_wlan_id = frame.ap_wlan_id;
	in.total_len = frame.total_len < 0 ? uint32_t(frame.bytes.size())
					   : uint32_t(frame.total_len);
	in.word172 = frame.word172;
	in.code = frame.code;
	in.sub_code = frame.sub_code;
	in.half188 = frame.half188;
	if (frame.tag >= 0)
		in.options |= frame.tag ? MOXLAB_INJ_TAG_SET : MOXLAB_INJ_TAG_CLEAR;
	if (frame.softirq)
		in.options |= MOXLAB_INJ_HARD_SOFTIRQ;
	return in;
}

/// Every record of one kind, decoded by `each` from its bytes.
template <class Record, class Each> void read_all(uint32_t what, Each each)
{
	std::vector<uint8_t> buffer(64 * 1024);
	moxlab_read read{};
	read.what = what;
	read.size = uint32_t(buffer.size());
	read.buf = reinterpret_cast<uintptr_t>(buffer.data());
	do {
		verb(MOXLAB_READ, &read, "MOXLAB_READ");
		for (uint32_t at = 0; at < read.used;) {
			const auto *record = reinterpret_cast<const Record *>(&buffer[at]);
			each(*record);
			at += record->rec.size;
		}
		read.from = read.next;
	} while (read.count);
	if (read.lost)
		ADD_FAILURE() << "the lab lost " << read.lost << " records of kind " << what;
}

void memory(const char *sym, uint32_t offset, void *bytes, uint32_t length, bool write)
{
	// Looking an address up reads the module's file: it is kept until a module is loaded anew,
	// which may be elsewhere.
	static std::map<std::string, uint64_t> known;
	static std::string loaded_at;
	static std::mutex lock;
	moxlab_memory request{};
	request.length = length;
	request.write = write;
	if (write)
		std::memcpy(request.bytes, bytes, length);
	for (bool fresh : { false, true }) {
		{
			std::lock_guard<std::mutex> guard(lock);
			if (std::string now = vm::load_addresses(); now != loaded_at) {
				known.clear();
				loaded_at = now;
			}
			auto found = known.find(sym);
			if (fresh || found == known.end())
				found = known.insert_or_assign(sym, vm::symbol_address(sym)).first;
			request.address = found->second + offset;
		}
		if (::ioctl(device(), MOXLAB_MEMORY, &request) == 0) {
			if (!write)
				std::memcpy(bytes, request.bytes, length);
			return;
		}
	}
	throw std::system_error(errno, std::generic_category(), sym);
}

void clear(uint32_t what)
{
	moxlab_clear request{};
	request.what = what;
	verb(MOXLAB_CLEAR, &request, "MOXLAB_CLEAR");
}

} // namespace

const char *symbol(Hook hook)
{
	return contract::kHooks[size_t(hook)].symbol;
}

std::vector<Hook> hooks_of(uint32_t location)
{
	std::vector<Hook> out;
	for (const contract::Hook &hook : contract::hooks(location))
		if (hook.call)
			out.push_back(Hook(&hook - contract::kHooks));
	return out;
}

uint32_t inject(Hook hook, const Frame &frame, int cpu)
{
	moxlab_inject in = request_of(hook, frame, cpu);
	verb(MOXLAB_INJECT, &in, symbol(hook));
	if (in.hooks_run != 1)
		throw std::runtime_error(std::string(symbol(hook)) + " is not registered");
	if (cpu >= 0) {
		EXPECT_EQ(in.ran_on_cpu, in.cpu);
	}
	// The platform keeps the records of the last 128 freed buffers: while others flood, that can be too few.
	forward_reason = in.header_valid ? in.header_out[43] : -1;
	return in.answer;
}

uint32_t inject_unregistered(Hook hook, const Frame &frame, int cpu)
{
	moxlab_inject in = request_of(hook, frame, cpu);
	in.options |= MOXLAB_INJ_CALL;
	in.function = vm::symbol_address(symbol(hook));
	verb(MOXLAB_INJECT, &in, symbol(hook));
	return in.answer;
}

uint32_t inject_many(Hook hook, const Frame &frame, uint32_t times, int cpu)
{
	moxlab_inject in = request_of(hook, frame, cpu);
	in.repeat = times;
	verb(MOXLAB_INJECT, &in, symbol(hook));
	return in.outcomes[MOXLAB_OUT_FREED] + in.outcomes[MOXLAB_OUT_TAKEN];
}

uint32_t flood(Hook hook, const Frame &frame, uint32_t times, int cpu)
{
	moxlab_inject in = request_of(hook, frame, cpu);
	in.repeat = times;
	verb(MOXLAB_INJECT, &in, symbol(hook));
	return times - in.outcomes[MOXLAB_OUT_NO_HOOK];
}

bool registered(Hook hook)
{
	bool found = false;
	read_all<moxlab_reg_rec>(MOXLAB_REGS, [&](const moxlab_reg_rec &record) {
		found |= !std::strcmp(record.symbol, symbol(hook));
	});
	return found;
}

size_t registrations()
{
	size_t count = 0;
	read_all<moxlab_reg_rec>(MOXLAB_REGS, [&](const moxlab_reg_rec &record) {
		count += !std::strncmp(record.symbol, "mox_packet_", 11) &&
			 record.call != MOXLAB_REG_SERV;
	});
	return count;
}

std::vector<RegCall> registration_log()
{
	static const char *const names[] = {
		"reg_module", "dereg_module", "reg_recv", "dereg_recv",
		"reg_output", "dereg_output", "reg_serv", "dereg_serv"
	};
	std::vector<RegCall> log;
	read_all<moxlab_reglog_rec>(MOXLAB_REGLOG, [&](const moxlab_reglog_rec &record) {
		bool module = record.call == MOXLAB_REG_MODULE ||
			      record.call == MOXLAB_DEREG_MODULE;
		log.push_back({ record.call < 8 ? names[record.call] : "?", record.symbol,
				module ? record.point | record.byte13 << 8 : record.point,
				record.result });
	});
	return log;
}

void clear_registration_log()
{
	clear(MOXLAB_REGLOG);
}

std::vector<std::string> printk_lines()
{
	std::vector<std::string> lines;
	read_all<moxlab_printk_rec>(MOXLAB_PRINTK, [&](const moxlab_printk_rec &record) {
		std::string line(record.text, record.kept);
		if (record.level <= 7)
			line = std::string{ '\1', char('0' + record.level) } + line;
		lines.push_back(line);
	});
	return lines;
}

void clear_printk()
{
	clear(MOXLAB_PRINTK);
}

void echo_printk(bool on)
{
	moxlab_settings settings{};
	verb(MOXLAB_SETTINGS, &settings, "MOXLAB_SETTINGS");
	settings.set = 1;
	settings.printk_echo = on;
	verb(MOXLAB_SETTINGS, &settings, "MOXLAB_SETTINGS");
}

Books books()
{
	moxlab_balance balance{};
	balance.owner = MOXLAB_OWNER_MODULE;
	verb(MOXLAB_BALANCE, &balance, "MOXLAB_BALANCE");
	moxlab_misuse misuse{};
	misuse.query = 1;
	verb(MOXLAB_MISUSE, &misuse, "MOXLAB_MISUSE");
	return { balance.live, balance.cloned, balance.freed, misuse.unexpected };
}

bool settle(int milliseconds)
{
	auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
	while (books().live) {
		if (std::chrono::steady_clock::now() > end)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	}
	return true;
}

void fail(Fail what, uint32_t nth, uint32_t count, int32_t result)
{
	moxlab_fail request{};
	switch (what) {
	case Fail::Alloc:
		request.call = MOXLAB_FAIL_ALLOC;
		break;
	case Fail::Clone:
		request.call = MOXLAB_FAIL_CLONE;
		break;
	case Fail::RegModule:
		request.call = MOXLAB_FAIL_REG_MODULE;
		break;
	case Fail::RegRecv:
		request.call = MOXLAB_FAIL_REG_RECV;
		break;
	case Fail::RegOutput:
		request.call = MOXLAB_FAIL_REG_OUTPUT;
		break;
	case Fail::GetService:
		request.call = MOXLAB_FAIL_GET_SERVICE;
		break;
	case Fail::RegServHandler:
		request.call = MOXLAB_FAIL_REG_SERV;
		break;
	}
	request.skip = nth - 1;
	request.count = count;
	request.value = result;
	verb(MOXLAB_FAIL, &request, "MOXLAB_FAIL");
}

void clear_failures()
{
	for (uint32_t call = 0; call < MOXLAB_FAIL_COUNT; ++call) {
		moxlab_fail request{};
		request.call = call;
		verb(MOXLAB_FAIL, &request, "MOXLAB_FAIL");
	}
}

void set_interface(uint32_t ifindex, const char *name, const uint8_t mac[6], bool up)
{
	moxlab_intf intf{};
	intf.ifindex = ifindex;
	intf.set = MOXLAB_INTF_SET_MAC | MOXLAB_INTF_SET_LINK | MOXLAB_INTF_SET_NAME;
	intf.link = up;
	std::memcpy(intf.mac, mac, 6);
	std::strncpy(intf.name, name, sizeof intf.name - 1);
	verb(MOXLAB_INTF_SET, &intf, "MOXLAB_INTF_SET");
}

void remove_interface(uint32_t ifindex)
{
	moxlab_intf intf{};
	intf.ifindex = ifindex;
	verb(MOXLAB_INTF_DEL, &intf, "MOXLAB_INTF_DEL");
}

void set_link(uint32_t ifindex, bool up)
{
	moxlab_intf intf{};
	intf.ifindex = ifindex;
	intf.set = MOXLAB_INTF_SET_LINK;
	intf.link = up;
	verb(MOXLAB_INTF_SET, &intf, "MOXLAB_INTF_SET");
}

uint8_t peek8(const char *sym, uint32_t offset)
{
	uint8_t value = 0;
	memory(sym, offset, &value, 1, false);
	return value;
}

uint32_t peek32(const char *sym, uint32_t offset)
{
	uint32_t value = 0;
	memory(sym, offset, &value, 4, false);
	return value;
}

void poke8(const char *sym, uint32_t offset, uint8_t value)
{
	memory(sym, offset, &value, 1, true);
}

Bytes peek(const char *sym, uint32_t offset, uint32_t length)
{
	Bytes bytes(length);
	for (uint32_t at = 0; at < length; at += 64)
		memory(sym, offset + at, &bytes[at], std::min(64u, length - at), false);
	return bytes;
}

void set_rnfp(bool wlan, int result)
{
	uint32_t function = result < 0 ? 0
				       : uint32_t(vm::symbol_address(wlan ? "moxlab_rnfp_wlan"
									  : "moxlab_rnfp"));
	uint32_t none = 0;
	memory("moxlab_rnfp_calls", wlan * 4, &none, 4, true);
	memory("moxlab_rnfp_result", wlan * 4, &result, 4, true);
	memory(wlan ? "pkt_rnfp_wlan" : "pkt_rnfp", 0, &function, 4, true);
}

uint64_t rnfp_calls(bool wlan)
{
	return peek32("moxlab_rnfp_calls", wlan * 4);
}

uint8_t last_forward_reason()
{
	const int reason = forward_reason;
	if (reason < 0)
		throw std::runtime_error("the platform keeps no record of the last frame's buffer");
	return uint8_t(reason);
}

void reset()
{
	clear_failures();
	clear_printk();
	clear_registration_log();
	const uint8_t port_b[6] = { 0x02, 0x11, 0x22, 0x33, 0x44, 0xb2 },
		      down[6] = { 0x02, 0x11, 0x22, 0x33, 0x44, 0xd3 };
	const uint8_t resv[6] = { 0x02, 0x11, 0x22, 0x33, 0x44, 0xee };
	set_interface(kPortA, "port-a", kPortAMac, true);
	set_interface(kPortB, "port-b", port_b, true);
	set_interface(kPortDown, "port-down", down, false);
	set_interface(kLev2Resv, "lev2-resv", resv, true);
	set_interface(kLev3Resv, "lev3-resv", resv, true);
}

} // namespace lab
