// SPDX-License-Identifier: GPL-2.0-only
// The platform's services as the module follows them: found at load, kept current by events, gone when withdrawn.
#include <cerrno>
#include <cstring>
#include <random>

#include "support/module.h"
#include "support/send.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Hook;

constexpr const char *kModule = "mox_ef_socket";

struct Followed {
	ServiceId id;
	const char *pointer; ///< the module's word for it
};
constexpr Followed kFollowed[] = { { kLocalMacService, "mox_packet_get_local" },
				   { kDropService, "pkt_rnfp" },
				   { kDropWlanService, "pkt_rnfp_wlan" } };

class Services : public SendTest {
protected:
	void TearDown() override
	{
		lab::clear_failures();
		if (!module_present(kModule)) {
			EXPECT_EQ(load_module(kModule), 0);
		}
		SendTest::TearDown();
	}
	void reload()
	{
		compare_records_ = false; // a module loaded anew starts its counters at 0
		ASSERT_EQ(unload_module(kModule), 0);
		ASSERT_EQ(load_module(kModule), 0);
	}
	static std::vector<uint32_t> pointers()
	{
		std::vector<uint32_t> now;
		for (const Followed &f : kFollowed)
			now.push_back(lab::peek32(f.pointer));
		return now;
	}
	/// A datagram; its source MAC as it left.
	Bytes source_of_a_datagram()
	{
		Socket socket(SOCK_DGRAM);
		auto left = leaves(socket, datagram());
		return left.bytes.size() < 12
			       ? Bytes{}
			       : Bytes(left.bytes.begin() + 6, left.bytes.begin() + 12);
	}
	static Send datagram()
	{
		Send send;
		send.data = counting(46);
		send.to(lab::kPortA, 6, 0x88b5);
		return send;
	}
};

const Bytes kFirstMac(kLocalMac[0], kLocalMac[0] + 6), kSecondMac(kLocalMac[1], kLocalMac[1] + 6);

TEST_F(Services, a_datagram_send_while_the_mac_service_is_absent)
{
	EXPECT_EQ(source_of_a_datagram(), kFirstMac);
	withdraw(kLocalMacService);
	Socket socket(SOCK_DGRAM), raw(SOCK_RAW);
	Trial trial = attempt(socket, datagram());
	EXPECT_EQ(trial.error, EINVAL);
	EXPECT_EQ(trial.counters, SendCounters{ .macfunc_ill = 1 });
	EXPECT_EQ(trial.freed, 1u);
	Send whole = datagram();
	EXPECT_EQ(leaves(raw, whole).ifindex, lab::kPortA) << "a raw send needs no service";
	publish(kLocalMacService, 0, 0, kLocalMac[0]);
	EXPECT_EQ(source_of_a_datagram(), kFirstMac);
}

TEST_F(Services, the_mac_service_may_fail_with_any_number)
{
	Socket socket(SOCK_DGRAM);
	for (int32_t result : { 1, -1, -22, 0x7fffffff }) {
		publish(kLocalMacService, 0, result);
		Trial trial = attempt(socket, datagram(), true);
		EXPECT_EQ(trial.error, EINVAL) << "whatever the service answered: " << result;
		EXPECT_EQ(trial.counters, SendCounters{ .macfunc_ill = 1 });
		EXPECT_TRUE(HasLine(trial.lines,
				    "MOX-PACKET-SEND: sock_dgram but get local mac error."));
	}
}

TEST_F(Services, another_implementation_takes_over)
{
	EXPECT_EQ(source_of_a_datagram(), kFirstMac);
	publish(kLocalMacService, 1, 0, kLocalMac[1]);
	EXPECT_EQ(source_of_a_datagram(), kSecondMac);
	publish(kLocalMacService, 0, 0, kLocalMac[0]);
	EXPECT_EQ(source_of_a_datagram(), kFirstMac);
}

TEST_F(Services, each_is_followed_on_its_own)
{
	for (const Followed &f : kFollowed)
		withdraw(f.id);
	EXPECT_EQ(pointers(), (std::vector<uint32_t>{ 0, 0, 0 }));
	for (size_t n = 0; n < std::size(kFollowed); ++n) {
		publish(kFollowed[n].id);
		for (size_t other = 0; other < std::size(kFollowed); ++other)
			EXPECT_EQ(pointers()[other] != 0, other == n) << n << " " << other;
		uint32_t first = pointers()[n];
		publish(kFollowed[n].id, 1);
		EXPECT_NE(pointers()[n], 0u);
		EXPECT_NE(pointers()[n], first);
		withdraw(kFollowed[n].id);
		EXPECT_EQ(pointers(), (std::vector<uint32_t>{ 0, 0, 0 })) << n;
	}
}

TEST_F(Services, events_that_are_not_for_the_module_change_nothing)
{
	publish(kDropWlanService);
	const auto before = pointers();
	for (ServiceId id : { ServiceId{ 11, 9 },
			      { 11, 0 },
			      { 11, 11 },
			      { 32, 1 },
			      { 32, 2 },
			      { 32, 4 },
			      { 32, 10 },
			      { 10, 10 },
			      { 12, 10 },
			      { 0, 0 },
			      { 33, 0 },
			      { 0xffffffff, 0 },
			      { 11, 0xffffffff } })
		for (uint32_t event : { 0, 1 }) {
			announce(event, id);
			EXPECT_EQ(pointers(), before)
				<< id.service_class << "/" << id.instance << " event " << event;
		}
	for (uint32_t event : { 2u, 3u, 256u, 0x80000000u, 0xffffffffu })
		for (const Followed &f : kFollowed) {
			announce(event, f.id, 1);
			EXPECT_EQ(pointers(), before) << f.pointer << " event " << event;
		}
}

TEST_F(Services, a_withdrawal_counts_whatever_entry_point_it_names)
{
	for (size_t n = 0; n < std::size(kFollowed); ++n) {
		publish(kFollowed[n].id, 0);
		ASSERT_NE(pointers()[n], 0u);
		announce(1, kFollowed[n].id, 1);
		EXPECT_EQ(pointers()[n], 0u) << kFollowed[n].pointer;
	}
}

TEST_F(Services, what_is_published_at_load_is_found)
{
	for (const Followed &f : kFollowed)
		publish(f.id, 1);
	const auto published = pointers();
	reload();
	EXPECT_EQ(pointers(), published);
	EXPECT_EQ(service_state(kLocalMacService).handlers, 1u);
	for (const Followed &f : kFollowed)
		withdraw(f.id);
	reload();
	EXPECT_EQ(pointers(), (std::vector<uint32_t>{ 0, 0, 0 })) << "absent at load is no error";
	publish(kDropService);
	EXPECT_NE(pointers()[1], 0u);
}

TEST_F(Services, the_handler_goes_with_the_module)
{
	compare_records_ = false;
	ASSERT_EQ(unload_module(kModule), 0);
	EXPECT_EQ(service_state(kLocalMacService).handlers, 0u);
	for (const Followed &f : kFollowed) {
		publish(f.id, 1); // events that must not reach freed memory
		withdraw(f.id);
	}
	ASSERT_EQ(load_module(kModule), 0);
	EXPECT_EQ(service_state(kLocalMacService).handlers, 1u);
}

TEST_F(Services, a_load_whose_handler_is_refused_leaves_nothing)
{
	compare_records_ = false;
	ASSERT_EQ(unload_module(kModule), 0);
	for (int32_t result : { -1, -12, 1, 77 }) {
		lab::clear_printk();
		lab::clear_registration_log();
		lab::fail(lab::Fail::RegServHandler, 1, 1, result);
		EXPECT_EQ(load_module(kModule), EPERM)
			<< "the load answers -1, whatever the platform said";
		EXPECT_FALSE(module_present(kModule));
		EXPECT_EQ(lab::printk_lines(),
			  (std::vector<std::string>{ "Reg serv change handler error\n",
						     "\1"
						     "6PACKET-SERV init failed\n" }));
		EXPECT_EQ(Socket().error(), EAFNOSUPPORT);
		EXPECT_EQ(lab::registrations(), 0u);
		EXPECT_EQ(service_state(kLocalMacService).handlers, 0u);
		auto log = lab::registration_log();
		ASSERT_EQ(log.size(), 1u) << "what was not registered is not deregistered";
		EXPECT_EQ(log[0].call, "reg_serv");
		EXPECT_EQ(log[0].result, result);
		EXPECT_EQ(lab::books().live, 0);
	}
	ASSERT_EQ(load_module(kModule), 0) << "and then it loads";
	EXPECT_EQ(source_of_a_datagram(), kFirstMac);
}

TEST_F(Services, a_load_while_the_platform_finds_no_service)
{
	compare_records_ = false;
	ASSERT_EQ(unload_module(kModule), 0);
	lab::fail(lab::Fail::GetService, 1, 3);
	ASSERT_EQ(load_module(kModule), 0);
	EXPECT_EQ(pointers(), (std::vector<uint32_t>{ 0, 0, 0 }));
	announce(0, kLocalMacService, 0);
	EXPECT_EQ(source_of_a_datagram(), kFirstMac) << "the event brings it";
}

TEST_F(Services, drop_services_of_the_platform_are_asked_by_the_hooks)
{
	for (ServiceId id : { kDropService, kDropWlanService }) {
		Socket socket = capture(PACKET_LEV2_LOC, PACKET_FETCH, all());
		uint32_t calls = service_state(id).calls;
		EXPECT_EQ(put(Hook::Lev2, plain()), lab::kTaken) << "no drop service";
		publish(id, 0, 0);
		EXPECT_EQ(put(Hook::Lev2, plain()), lab::kTaken) << "asked, and no objection";
		EXPECT_EQ(service_state(id).calls, calls + 1);
		publish(id, 1, -7);
		EXPECT_EQ(put(Hook::Lev2, plain()), lab::kDrop);
		publish(id, 0, 1);
		EXPECT_EQ(put(Hook::Lev2, plain()), lab::kDrop);
		withdraw(id);
		EXPECT_EQ(put(Hook::Lev2, plain()), lab::kTaken);
		EXPECT_EQ(socket.drain(), 3u);
	}
}

TEST_F(Services, the_extended_option_without_a_handler_succeeds)
{
	Socket socket;
	for (socklen_t length : { 0u, 1u, 40u, 41u, 4096u }) {
		Bytes value(4096, 0x5a);
		EXPECT_EQ(socket.option_raw(MOX_SOL_PACKET, 19, value.data(), length), 0) << length;
	}
}

} // namespace
