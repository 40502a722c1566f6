// SPDX-License-Identifier: GPL-2.0-only
// Load and unload of the real units together, and the family unit's own init.
#include "base/module_state.hpp"
#include "packets.h"
#include "locations/table.hpp"
#include "packet/info.hpp"
#include "rules/search.hpp"
#include "services/services.hpp"
#include "control/capture.hpp"
#include "control/requests.hpp"
#include "control/switches.hpp"
#include "socket_fixture.h"

using namespace mox;

namespace {

Strings caches(const std::string &what)
{
	Strings out;
	for (const contract::CacheFacts &cache : contract::kCaches)
		out.push_back(what + cache.name);
	return out;
}

const Strings kCachesUp = caches("cache+ "), kCachesDown = caches("cache- ");
const Strings kGenlUp{ "genl+" }, kGenlDown{ "genl-" };
const Strings kCaptureUp{ "capture+" }, kCaptureDown{ "capture-" };
const Strings kFamilyUp{ "proto+", "family+", "pernet+", "ns init" };
const Strings kFamilyDown{ "pernet-", "family-", "proto-" };

Strings operator+(Strings a, const Strings &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

class Load : public fake::KernelTest {
protected:
	void SetUp() override
	{
		KernelTest::SetUp();
		memset(mox_packet_debug, 0, sizeof mox_packet_debug);
	}
	// Every unit's own flag: sock, regular, serv, msg, family, thread, capture.
	static Strings up()
	{
		Strings s;
		for (auto &[flag, name] : std::initializer_list<std::pair<u8, const char *>>{
			     { mox_packet_sock_inited, "sock" },
			     { mox_packet_regular_inited, "regular" },
			     { mox_packet_serv_inited, "serv" },
			     { mox_packet_msg_inited, "msg" },
			     { mox_packet_family_init_ok, "family" },
			     { mox_packet_thread_init_ok, "thread" },
			     { mox_capture_inited, "capture" } })
			if (flag)
				s.push_back(name);
		return s;
	}
};

const Strings kAll{ "sock", "regular", "serv", "msg", "family", "thread", "capture" };

TEST_F(Load, load__everything_is_up_and_registered)
{
	ASSERT_EQ(mox_packet_init(), 0);
	EXPECT_EQ(kernel().journal, kCachesUp + kGenlUp + kFamilyUp +
					    (Strings{ "waitqueue", "thread+ packet-copy" }) +
					    kCaptureUp);
	EXPECT_EQ(up(), kAll);
	EXPECT_EQ(mox_packet_family_had_init(), 1);
	EXPECT_EQ(mox_packet_thread_had_init(), 1);
	EXPECT_TRUE(kernel().log.empty());
	mox_packet_exit();
}

TEST_F(Load, unload__families_first_then_a_grace_period_and_the_thread_last)
{
	ASSERT_EQ(mox_packet_init(), 0);
	kernel().journal.clear();
	mox_packet_exit();
	EXPECT_EQ(kernel().journal, kCaptureDown + kFamilyDown + Strings{ "grace" } + kGenlDown +
					    kCachesDown + Strings{ "thread- packet-copy" });
	EXPECT_EQ(up(), Strings{});
	EXPECT_EQ(mox_packet_family_had_init(), 0);
	EXPECT_TRUE(kernel().log.empty());
}

// What a hook queued in its last moment is freed, after the hook has returned and
// before the thread is gone.
TEST_F(Load, unload__queues_are_emptied_behind_the_grace_period_and_before_the_thread_stops)
{
	ASSERT_EQ(mox_packet_init(), 0);
	bool queued = false, freed_at_stop = false;
	kernel().at[Point::kGrace] = [&](const void *) {
		packets::enqueue(&g_cpu_pkt_que[1][3],
				 efmp().efbuff(Bytes(256), fake::Owner::kModule));
		queued = true;
	};
	kernel().at[Point::kStop] = [&](const void *) { freed_at_stop = efmp().freed == 1; };
	mox_packet_exit();
	EXPECT_TRUE(queued);
	EXPECT_TRUE(freed_at_stop);
	EXPECT_EQ(efmp().live.size(), 0u);
}

TEST_F(Load, unload__services_do_not_outlive_it)
{
	ASSERT_EQ(mox_packet_init(), 0);
	for (auto [service_class, instance] : { std::pair{ 11u, 10u }, { 32u, 0u }, { 32u, 3u } })
		efmp().publish(service_class, instance, reinterpret_cast<void *>(0x1230));
	EXPECT_NE(mox_packet_get_local, nullptr);
	EXPECT_NE(pkt_rnfp, nullptr);
	EXPECT_NE(pkt_rnfp_wlan, nullptr);
	mox_packet_exit();
	EXPECT_EQ(mox_packet_get_local, nullptr);
	EXPECT_EQ(pkt_rnfp, nullptr);
	EXPECT_EQ(pkt_rnfp_wlan, nullptr);
}

TEST_F(Load, load_and_unload__can_be_repeated)
{
	for (int round = 0; round < 3; round++) {
		kernel().journal.clear();
		ASSERT_EQ(mox_packet_init(), 0);
		EXPECT_EQ(kernel().journal.size(), 12u);
		mox_packet_exit();
	}
}

TEST_F(Load, load__each_cache_failing)
{
	for (int nth = 1; nth <= 4; nth++) {
		SCOPED_TRACE(nth);
		kernel().log.clear();
		kernel().journal.clear();
		kernel().fail(Fail::kCacheCreate, nth);
		EXPECT_EQ(mox_packet_init(), -1);
		EXPECT_EQ(kernel().text(), std::string(contract::kCaches[nth - 1].not_created) +
						   "PACKET-REGULAR init failed\n");
		EXPECT_EQ(kernel().journal.size(), 2u * (nth - 1)) << "made and destroyed again";
		EXPECT_EQ(up(), Strings{});
	}
}

// The platform does not let the module follow its services.
TEST_F(Load, load__services_failing)
{
	kernel().fail(Fail::kRegServ);
	EXPECT_EQ(mox_packet_init(), -1);
	ASSERT_EQ(kernel().log.size(), 2u);
	EXPECT_EQ(kernel().log[0].text, "Reg serv change handler error\n");
	EXPECT_EQ(kernel().log[0].level, -1);
	EXPECT_EQ(kernel().log[1].text, "PACKET-SERV init failed\n");
	EXPECT_EQ(kernel().log[1].level, 6);
	EXPECT_EQ(efmp().service_calls, (Strings{ "get 11 10", "get 32 0", "get 32 3", "reg" }))
		<< "and not unregistered";
	EXPECT_EQ(kernel().journal, kCachesUp + kCachesDown);
	EXPECT_EQ(up(), Strings{});
}

// What comes up behind the services takes them down again when it fails.
TEST_F(Load, load__services_are_taken_back)
{
	efmp().services[{ 32, 0 }] = reinterpret_cast<void *>(0x1230);
	for (Fail call : { Fail::kProtoRegister, Fail::kFamilyRegister, Fail::kThreadCreate }) {
		SCOPED_TRACE(static_cast<int>(call));
		efmp().service_calls.clear();
		kernel().fail(call);
		EXPECT_EQ(mox_packet_init(), -1);
		EXPECT_EQ(efmp().service_calls,
			  (Strings{ "get 11 10", "get 32 0", "get 32 3", "reg", "unreg" }));
		EXPECT_EQ(pkt_rnfp, nullptr);
		EXPECT_EQ(up(), Strings{});
	}
}

TEST_F(Load, load__family_failing)
{
	struct {
		Fail call;
		int error;
		const char *line;
		Strings journal;
	} const cases[] = {
		{ Fail::kProtoRegister, -12, "PROTO-REGISTER return -12.\n", { "proto+ fails" } },
		{ Fail::kProtoRegister, -105, "PROTO-REGISTER return -105.\n", { "proto+ fails" } },
		// Family 17 is held by another module.
		{ Fail::kFamilyRegister,
		  -17,
		  "SOCK-REGISTER: return -17\n",
		  { "proto+", "family+ fails", "proto-" } },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.line);
		kernel().log.clear();
		kernel().journal.clear();
		kernel().error[c.call] = c.error;
		kernel().fail(c.call);
		EXPECT_EQ(mox_packet_init(), -1) << "not the unit's own error";
		EXPECT_EQ(kernel().text(), std::string(c.line) + "PACKET-FAMILY init failed\n");
		ASSERT_EQ(kernel().log.size(), 2u);
		EXPECT_EQ(kernel().log[0].level, 6);
		EXPECT_EQ(kernel().log[1].level, 6);
		EXPECT_EQ(kernel().journal,
			  kCachesUp + kGenlUp + c.journal + kGenlDown + kCachesDown);
		EXPECT_EQ(up(), Strings{});
	}
}

TEST_F(Load, load__control_channel_failing)
{
	for (int error : { -17, -12 }) {
		kernel().log.clear();
		kernel().journal.clear();
		kernel().error[Fail::kGenlRegister] = error;
		kernel().fail(Fail::kGenlRegister);
		EXPECT_EQ(mox_packet_init(), -1);
		EXPECT_EQ(kernel().text(), "Failed to register generic netlink family, errno " +
						   std::to_string(error) +
						   "\nPACKET-MSG init failed\n");
		EXPECT_EQ(kernel().journal, kCachesUp + Strings{ "genl+ fails" } + kCachesDown);
		EXPECT_EQ(up(), Strings{});
	}
}

TEST_F(Load, load__thread_failing_takes_the_registered_family_back)
{
	kernel().fail(Fail::kThreadCreate);
	EXPECT_EQ(mox_packet_init(), -1);
	EXPECT_EQ(kernel().text(),
		  "CAN NOT CREATE PACKET-COPY-THREAD !\nPACKET-THREAD init failed\n");
	EXPECT_EQ(kernel().journal, kCachesUp + kGenlUp + kFamilyUp + Strings{ "waitqueue" } +
					    kFamilyDown + kGenlDown + kCachesDown);
	EXPECT_EQ(up(), Strings{});
}

TEST_F(Load, load__family_for_reading_failing_takes_everything_back)
{
	for (int error : { -17, -12 }) {
		kernel().log.clear();
		kernel().journal.clear();
		kernel().error[Fail::kCaptureRegister] = error;
		kernel().fail(Fail::kCaptureRegister);
		EXPECT_EQ(mox_packet_init(), -1);
		EXPECT_EQ(kernel().text(),
			  "Failed to register generic netlink family mox_capture, errno " +
				  std::to_string(error) + "\nPACKET-CAPTURE init failed\n");
		EXPECT_EQ(kernel().journal,
			  kCachesUp + kGenlUp + kFamilyUp +
				  (Strings{ "waitqueue", "thread+ packet-copy", "capture+ fails",
					    "thread- packet-copy" }) +
				  kFamilyDown + kGenlDown + kCachesDown);
		EXPECT_EQ(up(), Strings{});
	}
}

// The result is not used: the load succeeds, and unload leaves alone what is
// not there.
TEST_F(Load, load__namespace_operations_failing_is_no_failure)
{
	kernel().fail(Fail::kPernetRegister);
	ASSERT_EQ(mox_packet_init(), 0);
	EXPECT_EQ(up(), kAll);
	EXPECT_TRUE(kernel().log.empty());
	kernel().journal.clear();
	mox_packet_exit();
	EXPECT_EQ(kernel().journal, (Strings{ "capture-", "family-", "proto-", "grace" }) +
					    kGenlDown + kCachesDown +
					    Strings{ "thread- packet-copy" });
	// The next load starts afresh.
	ASSERT_EQ(mox_packet_init(), 0);
	EXPECT_TRUE(kernel().pernet_registered);
	mox_packet_exit();
}

TEST_F(Load, units__second_init_changes_nothing_and_second_deinit_is_harmless)
{
	struct {
		const char *name;
		int (*init)();
		void (*deinit)();
	} const units[] = {
		{ "sock", mox_packet_sock_init, mox_packet_sock_deinit },
		{ "regular", mox_packet_regular_init, mox_packet_regular_deinit },
		{ "serv", mox_packet_serv_init, mox_packet_serv_deinit },
		{ "msg", mox_packet_msg_init, mox_packet_msg_deinit },
		{ "family", mox_packet_family_init, mox_packet_family_deinit },
		{ "thread", mox_packet_thread_init, mox_packet_thread_deinit },
		{ "capture", mox_capture_init, mox_capture_deinit },
	};
	for (auto &u : units) {
		SCOPED_TRACE(u.name);
		u.deinit(); // never brought up
		kernel().journal.clear();
		EXPECT_EQ(u.init(), 0);
		EXPECT_EQ(up(), Strings{ u.name });
		Strings once = kernel().journal;
		EXPECT_EQ(u.init(), 0);
		EXPECT_EQ(kernel().journal, once);
		u.deinit();
		EXPECT_EQ(up(), Strings{});
		Strings down = kernel().journal;
		u.deinit();
		EXPECT_EQ(kernel().journal, down);
	}
}

TEST_F(Load, family_init__answers_the_kernels_error)
{
	for (Fail call : { Fail::kProtoRegister, Fail::kFamilyRegister }) {
		SCOPED_TRACE(static_cast<int>(call));
		kernel().error[call] = -98;
		kernel().fail(call);
		EXPECT_EQ(mox_packet_family_init(), -98);
		EXPECT_EQ(mox_packet_family_had_init(), 0);
	}
}

TEST_F(Load, family_init__zeroes_the_freed_buffers_once)
{
	g_free_skb_num = 77;
	ASSERT_EQ(mox_packet_family_init(), 0);
	EXPECT_EQ(g_free_skb_num, 0u);
	g_free_skb_num = 5;
	ASSERT_EQ(mox_packet_family_init(), 0);
	EXPECT_EQ(g_free_skb_num, 5u) << "the second call does nothing";
	mox_packet_family_deinit();
}

TEST_F(Load, net_init__readies_the_namespaces_list)
{
	::net ns;
	ns.name = "fresh";
	EXPECT_EQ(mox_packet_net_init(&ns), 0);
	EXPECT_TRUE(ns.list_ready);
	seam_ns_lock(&ns);
	seam_ns_unlock(&ns);
	mox_packet_net_exit(&ns);
	EXPECT_EQ(ns.refs, 1);
}

// Until the last unit is up a load may still fail, and would leave an early socket
// without code.
TEST_F(Load, create__before_the_module_is_up_is_refused_and_takes_nothing)
{
	ASSERT_EQ(mox_packet_regular_init(), 0);
	ASSERT_EQ(mox_packet_family_init(), 0);
	ASSERT_EQ(mox_packet_thread_init(), 0);
	Sock s;
	EXPECT_EQ(s.create(), -97);
	EXPECT_EQ(s.create(kRaw, 0x0608), -97);
	EXPECT_EQ(kernel().calls(Fail::kSkAlloc), 0u);
	EXPECT_EQ(fake::init_net().refs, 1);
	set_module_up(true);
	EXPECT_EQ(s.create(), 0);
	EXPECT_EQ(s.release(), 0);
	set_module_up(false);
	EXPECT_EQ(s.create(), -97);
	mox_packet_thread_deinit();
	mox_packet_family_deinit();
	mox_packet_regular_deinit();
}

// The type is looked at before.
TEST_F(Load, create__of_a_wrong_type_before_the_module_is_up)
{
	Sock s;
	EXPECT_EQ(s.create(10), -94);
}

} // namespace
