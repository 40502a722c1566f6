// SPDX-License-Identifier: GPL-2.0-only
// What the files of the platform's own test share. It runs in the virtual machine with the platform loaded and the
// capture module not needed: a platform that overlooks a misuse or miscounts would make every other result worthless.
#pragma once

#include "moxlab.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace selftest {

using moxlab::Bytes;
using moxlab::Device;
using moxlab::Injection;
using moxlab::module_loaded;

inline constexpr uint32_t kA = 2001, kB = 2002; // interfaces without a device

inline Bytes frame(std::initializer_list<uint8_t> dst, uint16_t ethertype, size_t length)
{
	Bytes bytes(length, 0x11);
	std::copy(dst.begin(), dst.end(), bytes.begin());
	const uint8_t src[] = { 0x02, 0, 0, 0, 0, 0x77 };
	std::copy(std::begin(src), std::end(src), bytes.begin() + 6);
	bytes[12] = uint8_t(ethertype >> 8);
	bytes[13] = uint8_t(ethertype);
	return bytes;
}

inline int errno_of(const auto &call)
{
	try {
		call();
	} catch (const moxlab::Error &e) {
		return e.code().value();
	}
	return 0;
}

class Platform : public ::testing::Test {
protected:
	void SetUp() override
	{
		lab.fail_nothing();
		lab.override_outcome(0, 0, false);
		lab.record_left(true);
		for (uint32_t ifindex : { kA, kB }) {
			moxlab_intf intf{};
			intf.ifindex = ifindex;
			lab.set_interface(intf);
		}
		before = lab.misuse();
	}

	void TearDown() override
	{
		lab.record_left(false);
		EXPECT_EQ(lab.balance(0).live_all, 0u) << "efbuffs left over";
		EXPECT_EQ(lab.misuse().unexpected, before.unexpected) << "see the kernel log";
		lab.set(saved);
	}

	/// Guard and poison on, also where KASAN would watch instead: the two tests need to see ours.
	void watch_memory()
	{
		moxlab_settings s = saved;
		s.redzone = 32;
		s.hold_memory = 1;
		lab.set(s);
	}

	uint32_t host_port() const
	{
		for (const auto &p : lab.ports().all)
			if (p.port.flags & MOXLAB_PORT_HOST)
				return p.port.ifindex;
		throw std::runtime_error("the platform has no host port");
	}

	/// The interface index of a block that a header names.
	static uint32_t block_at(const Bytes &header, size_t offset)
	{
		uint32_t ifindex;
		std::memcpy(&ifindex, &header[offset], sizeof ifindex);
		return ifindex;
	}

	uint32_t seen(uint32_t kind) const { return lab.misuse().seen[kind] - before.seen[kind]; }

	Device lab;
	moxlab_settings saved = lab.settings();
	moxlab_misuse before{};
};

} // namespace selftest
