// SPDX-License-Identifier: GPL-2.0-only
// The lab platform's control device for C++ programs. Every call either does what it says or throws an Error that
// names the call, the thing and the reason. A Device may be used by several threads at once.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "moxlab.h"

namespace moxlab {

using Bytes = std::vector<uint8_t>;

/// What went wrong, with the errno that the device gave in code().
struct Error : std::system_error {
	using std::system_error::system_error;
};

/// Whether the kernel has a module loaded.
bool module_loaded(const std::string &name);

/// One frame to inject, with the metadata that is to differ from a plain Ethernet frame's. Set the fields of
/// `request` that have no setter here directly, with their MOXLAB_SET_ bit. `request.frame` is filled on injecting.
struct Injection {
	explicit Injection(uint32_t point, Bytes frame = {});

	Injection &port(uint32_t ifindex);
	Injection &source(uint32_t ifindex);
	Injection &destination(uint32_t ifindex);
	Injection &cpu(uint32_t number);
	Injection &repeat(uint32_t times);
	Injection &only(std::string_view symbol);
	Injection &kind(uint8_t value);
	Injection &flags(uint32_t value);
	Injection &vlan(uint16_t tci);
	Injection &l2_length(uint16_t value);
	Injection &total_length(uint32_t value);
	Injection &options(uint32_t moxlab_inj_bits);

	Bytes bytes;
	moxlab_inject request{};
};

/// Records with variable tails, unpacked.
struct LeftFrame {
	moxlab_rec rec;
	uint32_t ifindex; ///< the port; 0: none
	uint32_t outcome; ///< MOXLAB_OUT_LEFT or MOXLAB_OUT_NOWHERE
	bool sent;        ///< by efmp_output_pkt()
	uint32_t length;  ///< of the frame; bytes holds at most MOXLAB_LEFT_KEPT of it
	Bytes header;     ///< MOXLAB_HEADER_ALL bytes
	Bytes bytes;
};

struct PrintkLine {
	moxlab_rec rec;
	uint32_t level;  ///< 0 to 7, or 0xffffffff without one
	uint32_t length; ///< as formatted; text holds at most MOXLAB_PRINTK_KEPT of it
	std::string text;
};

/// All records of one kind, oldest first, and how many were lost before them.
template <class Record> struct Records {
	std::vector<Record> all;
	uint64_t lost = 0;
};

class Device {
public:
	explicit Device(const char *path = MOXLAB_DEVICE);
	~Device();
	Device(const Device &) = delete;
	Device &operator=(const Device &) = delete;

	/// Injects; the reply has the out fields filled.
	moxlab_inject inject(const Injection &injection) const;

	/// A network device by name as a port; returns its ifindex. `port` may give more than the name.
	uint32_t add_port(const std::string &name) const;
	uint32_t add_port(moxlab_port port) const;
	void remove_port(const std::string &name) const;

	void set_interface(const moxlab_intf &intf) const;
	void remove_interface(uint32_t ifindex) const;

	/// The reply has the numbers of the previous arming of the same call.
	moxlab_fail fail(uint32_t call, uint32_t count, uint32_t skip = 0,
			 int32_t value = -1) const;
	void fail_nothing() const;
	void override_outcome(int32_t outcome, uint32_t count, bool send) const;

	moxlab_service service(moxlab_service request) const;

	Records<LeftFrame> left() const;
	Records<moxlab_reglog_rec> registration_log() const;
	Records<PrintkLine> printk() const;
	Records<moxlab_reg_rec> registrations() const;
	Records<moxlab_live_rec> live() const;
	Records<moxlab_port_rec> ports() const;
	Records<moxlab_intf_rec> interfaces() const;
	void clear(uint32_t what) const;
	/// Starts or stops recording frames that leave; forgets those recorded.
	void record_left(bool on) const;

	moxlab_balance balance(uint32_t owner) const;
	moxlab_stats stats() const;
	void clear_stats() const;

	moxlab_misuse misuse() const;
	/// Announces so many breaches: the next ones are counted, but no kernel warnings.
	moxlab_misuse expect_misuse(uint32_t count) const;
	/// Commits one on purpose, MOXLAB_MISUSE_*.
	moxlab_misuse commit_misuse(uint32_t kind) const;

	moxlab_settings settings() const;
	moxlab_settings set(moxlab_settings settings) const;

	/// Reads or writes a global of the platform's or the capture module's.
	void read_memory(uint64_t address, std::span<uint8_t> to) const;
	void write_memory(uint64_t address, std::span<const uint8_t> from) const;

	/// Measures; the reply has the times.
	moxlab_bench bench(moxlab_bench request) const;

	moxlab_measure measure(moxlab_measure request) const;
	moxlab_latency latency(moxlab_latency request) const;

	/// Returns when every hook that is running now has come back.
	void sync() const;
	void flush_fdb() const;

private:
	void verb(unsigned long request, void *argument, const std::string &what) const;
	template <class Each> uint64_t read_all(uint32_t what, const char *name, Each each) const;
	template <class Record> Records<Record> read_plain(uint32_t what, const char *name) const;

	int fd_;
};

} // namespace moxlab
