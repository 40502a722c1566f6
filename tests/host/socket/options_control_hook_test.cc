// SPDX-License-Identifier: GPL-2.0-only
// The control hook's option: what another component's handler gets, and what the
// process gets back.
#include "services/services.hpp"
#include "socket_fixture.h"

using namespace mox;

namespace {

// What the handler of the control hook was called with, and what it answers.
struct Hooked {
	int calls = 0;
	unsigned int command = 0;
	Bytes bytes;
	int result = 0;
} g_hooked;

int hook_handler(unsigned int command, void *buffer)
{
	g_hooked.calls++;
	g_hooked.command = command;
	auto *p = static_cast<u8 *>(buffer);
	g_hooked.bytes.assign(p, p + 40);
	// All of it is the handler's to write, and none of it comes back to the process.
	memset(p, 0xee, 40);
	return g_hooked.result;
}

class ControlHook : public CreatedSocketTest {
protected:
	void SetUp() override
	{
		CreatedSocketTest::SetUp();
		g_hooked = {};
		ASSERT_EQ(packet_reg_cpp_ioctl(hook_handler), 0);
	}
	void TearDown() override
	{
		mox_packet_cpp_ioctl_func = nullptr;
		CreatedSocketTest::TearDown();
	}
	int call(size_t len, size_t fault_at = SIZE_MAX)
	{
		return s.setsockopt(MOX_PACKET_CONTROL_HOOK, Bytes(len, 0x5a), MOX_SOL_PACKET, len,
				    fault_at);
	}
};

// Nothing is read and nothing is refused.
TEST_F(ControlHook, none__is_no_error)
{
	mox_packet_cpp_ioctl_func = nullptr;
	for (size_t len : { 0, 1, 40, 41, 1000 })
		EXPECT_EQ(call(len, 0), 0);
	EXPECT_EQ(lines(), Strings{});
}

TEST_F(ControlHook, lengths__the_rest_of_the_40_bytes_is_zero)
{
	for (size_t len = 0; len <= 40; len++) {
		EXPECT_EQ(call(len), 0);
		EXPECT_EQ(g_hooked.calls, int(len + 1));
		EXPECT_EQ(g_hooked.command, 0x8972u);
		Bytes wanted(len, 0x5a);
		wanted.resize(40);
		EXPECT_EQ(g_hooked.bytes, wanted) << len;
	}
	for (size_t len : { 41, 48, 4096 })
		EXPECT_EQ(call(len), -22) << len;
	EXPECT_EQ(s.setsockopt(MOX_PACKET_CONTROL_HOOK, {}, MOX_SOL_PACKET, 0x7fffffff), -22);
	EXPECT_EQ(g_hooked.calls, 41);
	EXPECT_EQ(lines(), Strings{});
}

TEST_F(ControlHook, result__is_the_options)
{
	for (int result : { 0, 1, -1, -22, -515, 4711, 0x7fffffff, -0x7fffffff }) {
		g_hooked.result = result;
		EXPECT_EQ(call(8), result);
	}
	EXPECT_EQ(g_hooked.calls, 8);
	EXPECT_EQ(lines(), Strings{});
}

TEST_F(ControlHook, fault__before_the_handler)
{
	for (size_t len : { 1, 8, 40 })
		for (size_t fault_at : { size_t{ 0 }, len / 2, len - 1 })
			EXPECT_EQ(call(len, fault_at), -14);
	EXPECT_EQ(call(41, 0), -22) << "too long is looked at first";
	EXPECT_EQ(g_hooked.calls, 0);
	EXPECT_EQ(call(0, 0), 0) << "nothing to read";
	EXPECT_EQ(g_hooked.calls, 1);
}

TEST_F(ControlHook, level__is_looked_at_first)
{
	EXPECT_EQ(s.setsockopt(MOX_PACKET_CONTROL_HOOK, Bytes(8), 1), -92);
	EXPECT_EQ(g_hooked.calls, 0);
}

TEST_F(ControlHook, locks__none_is_held_and_the_socket_stays_as_it_is)
{
	LockTrace trace;
	EXPECT_EQ(call(8), 0);
	EXPECT_EQ(trace.steps, Strings{});
	EXPECT_EQ(s.refs(), 2u);
	EXPECT_EQ(s.po().flags, 0);
}

// The handler belongs to another component: a unit that comes down leaves it, an
// unregistration ends it, and the next one may come.
TEST_F(ControlHook, lifetime__is_the_registrations)
{
	mox_packet_serv_deinit();
	EXPECT_EQ(call(8), 0);
	EXPECT_EQ(g_hooked.calls, 1);
	EXPECT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(call(8), 0);
	EXPECT_EQ(g_hooked.calls, 2);
	EXPECT_EQ(packet_unreg_cpp_ioctl(hook_handler), 0);
	EXPECT_EQ(call(8), 0);
	EXPECT_EQ(g_hooked.calls, 2);
	EXPECT_EQ(packet_reg_cpp_ioctl(hook_handler), 0);
	EXPECT_EQ(call(8), 0);
	EXPECT_EQ(g_hooked.calls, 3);
}

} // namespace
