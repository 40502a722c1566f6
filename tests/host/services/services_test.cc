// SPDX-License-Identifier: GPL-2.0-only
// The service unit: services taken at start and followed, and the control hook's slot.
#include "services/services.hpp"

#include <climits>

#include "fake/fixture.h"
#include "base/log.hpp"
#include "platform.h"

using namespace mox;

namespace {

using fake::efmp;
using fake::Fail;
using fake::kernel;
using Strings = std::vector<std::string>;

// Where the module keeps each service.
struct Slot {
	const char *name;
	u32 service_class, instance;
	void *(*pointer)();
};
const Slot kSlots[] = {
	{ "local MAC", 11, 10, [] { return reinterpret_cast<void *>(mox_packet_get_local); } },
	{ "drop", 32, 0, [] { return reinterpret_cast<void *>(pkt_rnfp); } },
	{ "WLAN drop", 32, 3, [] { return reinterpret_cast<void *>(pkt_rnfp_wlan); } },
};

// Entry points; none is ever called here.
void *entry(int number)
{
	return reinterpret_cast<void *>(uintptr_t(0x1000) + number * 16);
}

std::vector<void *> pointers()
{
	std::vector<void *> out;
	for (const Slot &slot : kSlots)
		out.push_back(slot.pointer());
	return out;
}
const std::vector<void *> kNone(3, nullptr);

const Strings kStart{ "get 11 10", "get 32 0", "get 32 3", "reg" };

int handler_a(unsigned int, void *)
{
	return 1;
}
int handler_b(unsigned int, void *)
{
	return 2;
}

class Serv : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		mox_packet_debug[0] = 0;
		ASSERT_EQ(mox_packet_serv_inited, 0);
		ASSERT_EQ(pointers(), kNone);
		ASSERT_EQ(mox_packet_cpp_ioctl_func, nullptr);
	}
	void TearDown() override
	{
		mox_packet_serv_deinit();
		EXPECT_EQ(pointers(), kNone);
		mox_packet_cpp_ioctl_func = nullptr;
		mox_packet_debug[0] = 0;
		KernelTest::TearDown();
	}
	// Every service in the platform's table: entry(1), entry(2) and entry(3).
	void fill_table()
	{
		for (int i = 0; i < 3; i++)
			efmp().services[{ kSlots[i].service_class, kSlots[i].instance }] = entry(i +
												 1);
	}
	const std::vector<void *> kAll{ entry(1), entry(2), entry(3) };
};

// ---- start and stop ---------------------------------------------------------------------

TEST_F(Serv, init__asks_in_order_and_then_follows)
{
	EXPECT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(efmp().service_calls, kStart);
	EXPECT_EQ(efmp().change_handler, mox_packet_on_service_change);
	EXPECT_EQ(mox_packet_serv_inited, 1);
	EXPECT_EQ(pointers(), kNone) << "what is absent is no error";
}

TEST_F(Serv, init__takes_what_there_is)
{
	for (int present = 0; present < 8; present++) {
		SCOPED_TRACE(present);
		efmp().services.clear();
		std::vector<void *> wanted = kNone;
		for (int i = 0; i < 3; i++)
			if (present & 1 << i)
				wanted[i] = efmp().services[{ kSlots[i].service_class,
							      kSlots[i].instance }] = entry(i + 1);
		// Neighbouring numbers are other services.
		for (u32 instance : { 1, 2, 4, 9, 11 })
			efmp().services[{ 32, instance }] = efmp().services[{ 11, instance }] =
				entry(9);
		EXPECT_EQ(mox_packet_serv_init(), 0);
		EXPECT_EQ(pointers(), wanted);
		mox_packet_serv_deinit();
	}
}

TEST_F(Serv, init__is_quiet_the_first_time)
{
	mox_packet_debug[0] = 1;
	EXPECT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(kernel().text(), "");
}

// The line of a repeated start, and of no other, is how it is meant to be.
TEST_F(Serv, init__repeated_asks_nothing)
{
	fill_table();
	ASSERT_EQ(mox_packet_serv_init(), 0);
	efmp().service_calls.clear();
	efmp().services.clear();
	EXPECT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(kernel().text(), "") << "not debugging";
	mox_packet_debug[0] = 1;
	kernel().cpu = 1;
	EXPECT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(kernel().text(), "[MOX-PACKET(1)]: SERV INIT OK!\n");
	EXPECT_EQ(efmp().service_calls, Strings{});
	EXPECT_EQ(pointers(), kAll);
	EXPECT_EQ(mox_packet_serv_inited, 1);
}

TEST_F(Serv, init__handler_refused)
{
	fill_table();
	for (int error : { -5, -12, 1, INT_MIN })
		for (u8 printing : { 0, 1 }) {
			SCOPED_TRACE(error);
			mox_packet_debug[0] = printing;
			efmp().service_calls.clear();
			kernel().log.clear();
			kernel().error[Fail::kRegServ] = error;
			kernel().fail(Fail::kRegServ);
			EXPECT_EQ(mox_packet_serv_init(), -1);
			ASSERT_EQ(kernel().log.size(), 1u);
			EXPECT_EQ(kernel().log[0].text, "Reg serv change handler error\n");
			EXPECT_EQ(kernel().log[0].level, -1);
			EXPECT_EQ(efmp().service_calls, kStart);
			EXPECT_EQ(pointers(), kNone);
			EXPECT_EQ(mox_packet_serv_inited, 0);
			// Not up: neither is there anything to take down.
			mox_packet_serv_deinit();
			EXPECT_EQ(efmp().service_calls, kStart);
		}
	mox_packet_debug[0] = 1;
	kernel().log.clear();
	EXPECT_EQ(mox_packet_serv_init(), 0) << "tries again";
	EXPECT_EQ(pointers(), kAll);
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Serv, deinit__forgets_and_follows_no_more)
{
	fill_table();
	ASSERT_EQ(mox_packet_serv_init(), 0);
	efmp().service_calls.clear();
	mox_packet_serv_deinit();
	EXPECT_EQ(efmp().service_calls, Strings{ "unreg" });
	EXPECT_EQ(efmp().change_handler, nullptr);
	EXPECT_EQ(pointers(), kNone);
	EXPECT_EQ(mox_packet_serv_inited, 0);
	mox_packet_serv_deinit();
	EXPECT_EQ(efmp().service_calls, Strings{ "unreg" }) << "once is enough";
	EXPECT_EQ(kernel().text(), "");
	efmp().service_calls.clear();
	EXPECT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(efmp().service_calls, kStart);
	EXPECT_EQ(pointers(), kAll);
}

TEST_F(Serv, deinit__of_a_unit_that_was_never_up)
{
	mox_packet_get_local = reinterpret_cast<mox_packet_local_mac_func>(entry(1));
	mox_packet_serv_deinit();
	EXPECT_EQ(efmp().service_calls, Strings{});
	EXPECT_NE(mox_packet_get_local, nullptr);
	mox_packet_get_local = nullptr;
}

// Forgetting comes last: a service that is announced until the handler is gone is forgotten, too.
TEST_F(Serv, deinit__forgets_what_came_until_the_handler_was_gone)
{
	ASSERT_EQ(mox_packet_serv_init(), 0);
	efmp().publish(11, 10, entry(1));
	efmp().publish(32, 0, entry(2));
	efmp().publish(32, 3, entry(3));
	ASSERT_EQ(pointers(), kAll);
	mox_packet_serv_deinit();
	EXPECT_EQ(pointers(), kNone);
}

// ---- changes --------------------------------------------------------------------------------

// Every event for every service there might be, with and without services before.
TEST_F(Serv, change__class_instance_and_event)
{
	for (bool before : { false, true }) {
		mox_packet_serv_deinit();
		efmp().services.clear();
		if (before)
			fill_table();
		const std::vector<void *> start = before ? kAll : kNone;
		for (u32 service_class : { 0u, 10u, 11u, 12u, 31u, 32u, 33u, 0xffffffffu })
			for (u32 instance : { 0u, 1u, 2u, 3u, 4u, 9u, 10u, 11u, 0xffffffffu })
				for (u32 event :
				     { 0u, 1u, 2u, 3u, 255u, 256u, 257u, 0xffffffffu }) {
					SCOPED_TRACE(testing::Message()
						     << "class " << service_class << " instance "
						     << instance << " event " << event);
					mox_packet_serv_deinit();
					ASSERT_EQ(mox_packet_serv_init(), 0);
					efmp().announce(event, service_class, instance, entry(7));
					std::vector<void *> wanted = start;
					for (int i = 0; i < 3; i++)
						if (kSlots[i].service_class == service_class &&
						    kSlots[i].instance == instance && event < 2)
							wanted[i] = event == 0 ? entry(7) : nullptr;
					ASSERT_EQ(pointers(), wanted);
				}
	}
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Serv, change__class_11_instance_9_changes_nothing)
{
	fill_table();
	ASSERT_EQ(mox_packet_serv_init(), 0);
	for (u32 event : { 0, 1 }) {
		efmp().announce(event, 11, 9, entry(7));
		EXPECT_EQ(pointers(), kAll);
	}
}

TEST_F(Serv, change__event_2_changes_nothing)
{
	fill_table();
	ASSERT_EQ(mox_packet_serv_init(), 0);
	efmp().announce(2, 32, 0, entry(7));
	EXPECT_EQ(pointers(), kAll);
	// Not even a record is needed for what means nothing.
	mox_packet_on_service_change(2, nullptr);
	EXPECT_EQ(pointers(), kAll);
}

TEST_F(Serv, change__replaced_without_a_withdrawal)
{
	ASSERT_EQ(mox_packet_serv_init(), 0);
	for (const Slot &slot : kSlots)
		for (int number : { 1, 2, 2, 3 }) {
			efmp().announce(0, slot.service_class, slot.instance, entry(number));
			EXPECT_EQ(slot.pointer(), entry(number)) << slot.name;
		}
}

// The end of the service is announced, not that of one implementation.
TEST_F(Serv, change__withdrawal_with_another_entry_point)
{
	for (int i = 0; i < 3; i++)
		for (void *named : { entry(8), static_cast<void *>(nullptr) }) {
			mox_packet_serv_deinit();
			fill_table();
			ASSERT_EQ(mox_packet_serv_init(), 0);
			efmp().announce(1, kSlots[i].service_class, kSlots[i].instance, named);
			std::vector<void *> wanted = kAll;
			wanted[i] = nullptr;
			EXPECT_EQ(pointers(), wanted) << kSlots[i].name;
		}
}

TEST_F(Serv, change__available_with_null_is_absent)
{
	fill_table();
	ASSERT_EQ(mox_packet_serv_init(), 0);
	efmp().announce(0, 32, 0, nullptr);
	EXPECT_EQ(pkt_rnfp, nullptr);
}

TEST_F(Serv, change__withdrawn_twice_and_published_again)
{
	fill_table();
	ASSERT_EQ(mox_packet_serv_init(), 0);
	efmp().withdraw(11, 10);
	efmp().withdraw(11, 10);
	EXPECT_EQ(mox_packet_get_local, nullptr);
	efmp().publish(11, 10, entry(5));
	EXPECT_EQ(kSlots[0].pointer(), entry(5));
}

// The platform may announce from any context, and the handler takes no lock of its own.
TEST_F(Serv, change__in_atomic_context)
{
	ASSERT_EQ(mox_packet_serv_init(), 0);
	kernel().bh_disabled++;
	efmp().publish(32, 0, entry(2));
	EXPECT_EQ(kSlots[1].pointer(), entry(2));
	kernel().bh_disabled--;
}

// ---- the slot of the control hook ------------------------------------------------------------

TEST_F(Serv, cpp_ioctl__install_and_remove)
{
	const packet_cpp_ioctl_func a = handler_a, b = handler_b, none = nullptr;
	const std::string had = "[MOX-PACKET(0)]: mox_packet_cpp_ioctl_func had register\n";
	const std::string other =
		"[MOX-PACKET(0)]: mox_packet_cpp_ioctl_func is not func to be register\n";
	const std::string empty = "[MOX-PACKET(0)]: mox_packet_cpp_ioctl_func had not register\n";
	struct {
		packet_cpp_ioctl_func before;
		bool install;
		packet_cpp_ioctl_func handler;
		int result;
		packet_cpp_ioctl_func after;
		std::string line;
	} const cases[] = {
		{ none, true, a, 0, a, "" },         { none, true, none, 0, none, "" },
		{ a, true, b, -1, a, had },          { a, true, a, -1, a, had },
		{ a, true, none, -1, a, had },       { a, false, a, 0, none, "" },
		{ a, false, b, -1, a, other },       { a, false, none, -1, a, other },
		{ none, false, a, -1, none, empty }, { none, false, none, -1, none, empty },
	};
	for (u8 printing : { 0, 1 })
		for (auto &c : cases) {
			SCOPED_TRACE(&c - cases);
			mox_packet_debug[0] = printing;
			mox_packet_cpp_ioctl_func = c.before;
			kernel().log.clear();
			EXPECT_EQ(c.install ? packet_reg_cpp_ioctl(c.handler)
					    : packet_unreg_cpp_ioctl(c.handler),
				  c.result);
			EXPECT_EQ(mox_packet_cpp_ioctl_func, c.after);
			EXPECT_EQ(kernel().text(), printing ? c.line : "");
		}
}

// A handler may be installed before the services are there and stay after they are gone.
TEST_F(Serv, cpp_ioctl__does_not_come_and_go_with_the_unit)
{
	ASSERT_EQ(packet_reg_cpp_ioctl(handler_a), 0);
	ASSERT_EQ(mox_packet_serv_init(), 0);
	EXPECT_EQ(mox_packet_cpp_ioctl_func, handler_a);
	mox_packet_serv_deinit();
	EXPECT_EQ(mox_packet_cpp_ioctl_func, handler_a);
	EXPECT_EQ(packet_unreg_cpp_ioctl(handler_a), 0);
	kernel().fail(Fail::kRegServ);
	ASSERT_EQ(packet_reg_cpp_ioctl(handler_b), 0);
	ASSERT_EQ(mox_packet_serv_init(), -1);
	EXPECT_EQ(mox_packet_cpp_ioctl_func, handler_b);
}

} // namespace
