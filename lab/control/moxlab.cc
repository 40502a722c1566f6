// SPDX-License-Identifier: GPL-2.0-only
#include "moxlab.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace moxlab {
namespace {

[[noreturn]] void fail_with(int error, const std::string &what)
{
	throw Error(error, std::generic_category(), what);
}

template <size_t N> void copy_name(char (&to)[N], std::string_view from, const char *what)
{
	if (from.size() >= N)
		fail_with(ENAMETOOLONG, std::string(what) + " \"" + std::string(from) +
						"\" (at most " + std::to_string(N - 1) +
						" characters)");
	std::memcpy(to, from.data(), from.size());
	to[from.size()] = '\0';
}

uint64_t user_pointer(const void *at)
{
	return reinterpret_cast<uintptr_t>(at);
}

} // namespace

bool module_loaded(const std::string &name)
{
	std::ifstream modules("/proc/modules");
	for (std::string line; std::getline(modules, line);)
		if (line.starts_with(name + " "))
			return true;
	return false;
}

Injection::Injection(uint32_t point, Bytes frame) : bytes(std::move(frame))
{
	request.point = point;
	request.cpu = MOXLAB_ANY_CPU;
}

Injection &Injection::port(uint32_t ifindex)
{
	request.port_ifindex = ifindex;
	return *this;
}

Injection &Injection::source(uint32_t ifindex)
{
	request.src_ifindex = ifindex;
	request.set |= MOXLAB_SET_SRC;
	return *this;
}

Injection &Injection::destination(uint32_t ifindex)
{
	request.dst_ifindex = ifindex;
	request.set |= MOXLAB_SET_DST;
	return *this;
}

Injection &Injection::cpu(uint32_t number)
{
	request.cpu = number;
	return *this;
}

Injection &Injection::repeat(uint32_t times)
{
	request.repeat = times;
	return *this;
}

Injection &Injection::only(std::string_view symbol)
{
	copy_name(request.symbol, symbol, "function name");
	return *this;
}

Injection &Injection::kind(uint8_t value)
{
	request.kind = value;
	request.set |= MOXLAB_SET_KIND;
	return *this;
}

Injection &Injection::flags(uint32_t value)
{
	request.flags = value;
	request.set |= MOXLAB_SET_FLAGS;
	return *this;
}

Injection &Injection::vlan(uint16_t tci)
{
	request.vlan = tci;
	request.set |= MOXLAB_SET_VLAN;
	return *this;
}

Injection &Injection::l2_length(uint16_t value)
{
	request.l2_len = value;
	request.set |= MOXLAB_SET_L2_LEN;
	return *this;
}

Injection &Injection::total_length(uint32_t value)
{
	request.total_len = value;
	request.set |= MOXLAB_SET_TOTAL_LEN;
	return *this;
}

Injection &Injection::options(uint32_t moxlab_inj_bits)
{
	request.options = moxlab_inj_bits;
	return *this;
}

Device::Device(const char *path) : fd_(::open(path, O_RDWR | O_CLOEXEC))
{
	if (fd_ < 0)
		fail_with(errno, std::string("cannot open ") + path +
					 " (is the lab's efmp module loaded?)");
	uint32_t abi = settings().abi;
	if (abi != MOXLAB_ABI) {
		::close(fd_);
		fail_with(EPROTO, "the loaded efmp speaks version " + std::to_string(abi) +
					  " of the control interface, this program " +
					  std::to_string(MOXLAB_ABI) + ": build both anew");
	}
}

Device::~Device()
{
	::close(fd_);
}

void Device::verb(unsigned long request, void *argument, const std::string &what) const
{
	if (::ioctl(fd_, request, argument))
		fail_with(errno, what);
}

moxlab_inject Device::inject(const Injection &injection) const
{
	moxlab_inject request = injection.request;
	request.frame = user_pointer(injection.bytes.data());
	request.frame_len = uint32_t(injection.bytes.size());
	verb(MOXLAB_INJECT, &request,
	     "inject " + std::to_string(request.frame_len) + " bytes at point " +
		     std::to_string(request.point));
	return request;
}

uint32_t Device::add_port(const std::string &name) const
{
	moxlab_port port{};
	copy_name(port.name, name, "device name");
	return add_port(port);
}

uint32_t Device::add_port(moxlab_port port) const
{
	verb(MOXLAB_PORT_ADD, &port, std::string("add port ") + port.name);
	return port.ifindex;
}

void Device::remove_port(const std::string &name) const
{
	moxlab_port port{};
	copy_name(port.name, name, "device name");
	verb(MOXLAB_PORT_DEL, &port, "remove port " + name);
}

void Device::set_interface(const moxlab_intf &intf) const
{
	moxlab_intf request = intf;
	verb(MOXLAB_INTF_SET, &request, "set interface " + std::to_string(intf.ifindex));
}

void Device::remove_interface(uint32_t ifindex) const
{
	moxlab_intf request{};
	request.ifindex = ifindex;
	verb(MOXLAB_INTF_DEL, &request, "remove interface " + std::to_string(ifindex));
}

moxlab_fail Device::fail(uint32_t call, uint32_t count, uint32_t skip, int32_t value) const
{
	moxlab_fail request{};
	request.call = call;
	request.count = count;
	request.skip = skip;
	request.value = value;
	verb(MOXLAB_FAIL, &request, "make call " + std::to_string(call) + " fail");
	return request;
}

void Device::fail_nothing() const
{
	for (uint32_t call = 0; call < MOXLAB_FAIL_COUNT; ++call)
		fail(call, 0);
}

void Device::override_outcome(int32_t outcome, uint32_t count, bool send) const
{
	moxlab_outcome_override request{};
	request.outcome = outcome;
	request.count = count;
	request.send = send;
	verb(MOXLAB_OUTCOME, &request, "override the outcome of sends");
}

moxlab_service Device::service(moxlab_service request) const
{
	verb(MOXLAB_SERVICE, &request,
	     "service " + std::to_string(request.service_class) + "/" +
		     std::to_string(request.instance));
	return request;
}

/// Calls each(bytes of one record) for all there are; returns how many were lost.
template <class Each> uint64_t Device::read_all(uint32_t what, const char *name, Each each) const
{
	// Aligned for the 64-bit fields of the records.
	std::vector<uint64_t> room(8192);
	moxlab_read request{};
	request.what = what;
	request.size = uint32_t(room.size() * sizeof(uint64_t));
	request.buf = user_pointer(room.data());
	do {
		verb(MOXLAB_READ, &request, std::string("read ") + name);
		const auto *at = reinterpret_cast<const uint8_t *>(room.data());
		for (uint32_t n = 0; n < request.count; ++n) {
			each(at);
			at += reinterpret_cast<const moxlab_rec *>(at)->size;
		}
		request.from = request.next;
	} while (request.count);
	return request.lost;
}

template <class Record> Records<Record> Device::read_plain(uint32_t what, const char *name) const
{
	Records<Record> records;
	records.lost = read_all(what, name, [&](const uint8_t *at) {
		Record record;
		std::memcpy(&record, at, sizeof record);
		records.all.push_back(record);
	});
	return records;
}

Records<LeftFrame> Device::left() const
{
	Records<LeftFrame> records;
	records.lost = read_all(MOXLAB_LEFT, "frames that left", [&](const uint8_t *at) {
		const auto &r = *reinterpret_cast<const moxlab_left_rec *>(at);
		records.all.push_back({ r.rec, r.ifindex, r.outcome, r.sent != 0, r.length,
					Bytes(r.header, r.header + MOXLAB_HEADER_ALL),
					Bytes(r.frame, r.frame + r.kept) });
	});
	return records;
}

Records<PrintkLine> Device::printk() const
{
	Records<PrintkLine> records;
	records.lost = read_all(MOXLAB_PRINTK, "printk lines", [&](const uint8_t *at) {
		const auto &r = *reinterpret_cast<const moxlab_printk_rec *>(at);
		records.all.push_back({ r.rec, r.level, r.length, std::string(r.text, r.kept) });
	});
	return records;
}

Records<moxlab_reglog_rec> Device::registration_log() const
{
	return read_plain<moxlab_reglog_rec>(MOXLAB_REGLOG, "the registration log");
}

Records<moxlab_reg_rec> Device::registrations() const
{
	return read_plain<moxlab_reg_rec>(MOXLAB_REGS, "registrations");
}

Records<moxlab_live_rec> Device::live() const
{
	return read_plain<moxlab_live_rec>(MOXLAB_LIVE, "live efbuffs");
}

Records<moxlab_port_rec> Device::ports() const
{
	return read_plain<moxlab_port_rec>(MOXLAB_PORTS, "ports");
}

Records<moxlab_intf_rec> Device::interfaces() const
{
	return read_plain<moxlab_intf_rec>(MOXLAB_INTFS, "interfaces");
}

void Device::clear(uint32_t what) const
{
	moxlab_clear request{};
	request.what = what;
	verb(MOXLAB_CLEAR, &request, "clear records of kind " + std::to_string(what));
}

void Device::record_left(bool on) const
{
	moxlab_clear request{};
	request.what = MOXLAB_LEFT;
	request.enable = on;
	verb(MOXLAB_CLEAR, &request, "record frames that leave");
}

moxlab_balance Device::balance(uint32_t owner) const
{
	moxlab_balance request{};
	request.owner = owner;
	verb(MOXLAB_BALANCE, &request, "balance of owner " + std::to_string(owner));
	return request;
}

moxlab_stats Device::stats() const
{
	moxlab_stats reply{};
	verb(MOXLAB_STATS, &reply, "statistics");
	return reply;
}

void Device::clear_stats() const
{
	verb(MOXLAB_CLEAR_STATS, nullptr, "clear statistics");
}

moxlab_misuse Device::misuse() const
{
	moxlab_misuse request{};
	request.query = 1;
	verb(MOXLAB_MISUSE, &request, "query misuse");
	return request;
}

moxlab_misuse Device::expect_misuse(uint32_t count) const
{
	moxlab_misuse request{};
	request.expect = count;
	verb(MOXLAB_MISUSE, &request, "announce misuse");
	return request;
}

moxlab_misuse Device::commit_misuse(uint32_t kind) const
{
	moxlab_misuse request{};
	request.query = 1;
	request.commit = kind + 1;
	verb(MOXLAB_MISUSE, &request, "commit misuse " + std::to_string(kind));
	return request;
}

moxlab_settings Device::settings() const
{
	moxlab_settings request{};
	verb(MOXLAB_SETTINGS, &request, "read settings");
	return request;
}

moxlab_settings Device::set(moxlab_settings settings) const
{
	settings.set = 1;
	verb(MOXLAB_SETTINGS, &settings, "change settings");
	return settings;
}

void Device::read_memory(uint64_t address, std::span<uint8_t> to) const
{
	moxlab_memory request{};
	request.address = address;
	request.length = uint32_t(to.size());
	verb(MOXLAB_MEMORY, &request, "read memory");
	std::memcpy(to.data(), request.bytes, to.size());
}

void Device::write_memory(uint64_t address, std::span<const uint8_t> from) const
{
	moxlab_memory request{};
	if (from.size() > sizeof request.bytes)
		fail_with(EMSGSIZE, "write memory");
	request.address = address;
	request.length = uint32_t(from.size());
	request.write = 1;
	std::memcpy(request.bytes, from.data(), from.size());
	verb(MOXLAB_MEMORY, &request, "write memory");
}

moxlab_bench Device::bench(moxlab_bench request) const
{
	verb(MOXLAB_BENCH, &request, "measure part " + std::to_string(request.part) + " of sends");
	return request;
}

moxlab_measure Device::measure(moxlab_measure request) const
{
	verb(MOXLAB_MEASURE, &request,
	     "measure a batch of frames, kind " + std::to_string(request.what));
	return request;
}

moxlab_latency Device::latency(moxlab_latency request) const
{
	verb(MOXLAB_LATENCY, &request, "measure how long bottom halves wait");
	return request;
}

void Device::sync() const
{
	verb(MOXLAB_SYNC, nullptr, "wait for running hooks");
}

void Device::flush_fdb() const
{
	verb(MOXLAB_FDB_FLUSH, nullptr, "forget learned addresses");
}

} // namespace moxlab
