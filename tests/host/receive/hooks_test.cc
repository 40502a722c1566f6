// SPDX-License-Identifier: GPL-2.0-only
// The hooks: classify, clone or take, queue, answer; and their trace lines.
#include "module_fixture.h"
#include "read_trap.h"
#include "services/services.hpp"
#include "base/sync.hpp"
#include "fake/backlog.h"

using namespace mox;

namespace {

using namespace packets;
namespace ef = platform::ef;

class Rcv : public ModuleTest {
protected:
	void TearDown() override
	{
		fake::max_backlog = fake::kBacklogDefault;
		pkt_rnfp = pkt_rnfp_wlan = nullptr;
		rules.clear();
		socks.clear();
		drain();
		ModuleTest::TearDown();
	}
	// Of the ledger of CPU 0.
	static uint64_t refused_copies(u32 queue)
	{
		return fake::total(kernel().hook_cpus[0].hooks[queue].copies_refused);
	}
	static uint64_t refused_takes(u32 queue)
	{
		return fake::total(kernel().hook_cpus[0].hooks[queue].takes_refused);
	}
	// A regular at a location that the option would refuse (MPLS, TRILL) as well.
	void listen(u32 location, u32 treatment)
	{
		if (location != 5 && location != 6) {
			socks.push_back(std::make_unique<Sock>());
			socks.back()->capture(location, treatment);
			return;
		}
		rules.push_back(std::make_unique<Rule>(location, treatment));
		rules.back()->item(PACKET_ALL).add();
	}
	void silence()
	{
		for (efbuff_queue &q : g_cpu_pkt_que[0])
			mox_packet_efbuff_queue_deinit(&q);
		memset(g_packet_thread_top.pending, 0, 8);
		g_packet_thread_top.wake = 0;
		socks.clear();
		rules.clear();
	}
	void *packet(Meta m = {}, const ::Bytes &bytes = eth(0x88cc))
	{
		m.source = port;
		return make(m, bytes);
	}
	static u8 reason(void *e) { return static_cast<u8 *>(e)[43]; }

	std::vector<std::unique_ptr<Sock>> socks;
	std::vector<std::unique_ptr<Rule>> rules;
};

TEST_F(Rcv, answers__per_location_and_treatment)
{
	for (const HookTraits &h : kHooks)
		for (u32 treatment = 0; treatment <= 5; treatment++) {
			SCOPED_TRACE(std::string(h.name) + " treatment " +
				     std::to_string(treatment));
			listen(h.location, treatment);
			void *e = packet();
			bool wlan = h.location == 8;
			bool taken = treatment == PACKET_FETCH ||
				     (treatment == PACKET_TRAP && !wlan);
			bool copied = treatment == PACKET_COPY ||
				      (treatment == PACKET_TRAP && wlan);
			int wakeups = kernel().wakeups;
			EXPECT_EQ(hook(h.func, e), taken ? h.taken : h.go_on);
			const efbuff_queue &q = g_cpu_pkt_que[0][h.queue];
			EXPECT_EQ(q.count, taken || copied ? 1u : 0u);
			EXPECT_EQ(kernel().wakeups - wakeups, taken || copied ? 1 : 0);
			EXPECT_EQ(g_packet_thread_top.pending[h.queue], taken || copied);
			if (taken)
				EXPECT_EQ(q.head, e);
			if (copied)
				EXPECT_NE(q.head, e);
			silence();
		}
}

TEST_F(Rcv, queue__is_that_of_the_cpu_that_runs_the_hook)
{
	listen(PACKET_IPv4_LOC, PACKET_COPY);
	hook(mox_packet_ipv4_rcv, packet(), 3);
	EXPECT_EQ(g_cpu_pkt_que[3][kQueueIpv4].count, 1u);
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueIpv4].count, 0u);
	mox_packet_efbuff_queue_deinit(&g_cpu_pkt_que[3][kQueueIpv4]);
}

TEST_F(Rcv, reason__written_only_for_a_taken_packet_with_services)
{
	const struct {
		u8 kind, reason;
	} cases[] = { { 1, 7 }, { 27, 7 }, { 2, 13 }, { 0, 1 }, { 3, 1 }, { 255, 1 } };
	for (const HookTraits &h : kHooks)
		for (auto &c : cases) {
			SCOPED_TRACE(std::string(h.name) + " kind " + std::to_string(c.kind));
			listen(h.location, PACKET_FETCH);
			void *e = packet({ .kind = c.kind });
			static_cast<u8 *>(e)[43] = 0x55;
			hook(h.func, e);
			EXPECT_EQ(reason(e), h.location == 7 ? 0x55 : c.reason);
			silence();
			listen(h.location, PACKET_COPY);
			e = packet({ .kind = c.kind });
			static_cast<u8 *>(e)[43] = 0x55;
			hook(h.func, e);
			EXPECT_EQ(reason(e), 0x55);
			silence();
		}
}

int g_drop = 0, g_drop_wlan = 0, g_asked = 0, g_asked_wlan = 0;
int rnfp(void *)
{
	g_asked++;
	return g_drop;
}
int rnfp_wlan(void *)
{
	g_asked_wlan++;
	return g_drop_wlan;
}

TEST_F(Rcv, services__drop_what_would_be_taken_and_nothing_else)
{
	pkt_rnfp = rnfp;
	pkt_rnfp_wlan = rnfp_wlan;
	for (const HookTraits &h : kHooks)
		for (int which = 0; which < 3; which++) {
			SCOPED_TRACE(std::string(h.name) + " " + std::to_string(which));
			g_drop = which == 1;
			g_drop_wlan = which == 2;
			g_asked = g_asked_wlan = 0;
			listen(h.location, PACKET_FETCH);
			kernel().log.clear();
			void *e = packet({ .flags = ef::kFlagTrace });
			bool resv = h.location == 7;
			EXPECT_EQ(hook(h.func, e), resv || which == 0 ? h.taken : 1u);
			EXPECT_EQ(g_asked, resv ? 0 : 1);
			EXPECT_EQ(g_asked_wlan, resv || which == 1 ? 0 : 1);
			EXPECT_EQ(g_cpu_pkt_que[0][h.queue].count, resv || which == 0 ? 1u : 0u);
			bool lines = !resv && h.location != 8;
			EXPECT_EQ(kernel().count_said("drop pkt"), lines && which ? 1u : 0u);
			if (lines && which)
				EXPECT_EQ(kernel().count_said(which == 1 ? "for rnfp\n"
									 : "for wlan rnfp\n"),
					  1u);
			silence();

			// A copy is made without asking anybody.
			listen(h.location, PACKET_COPY);
			g_asked = g_asked_wlan = 0;
			EXPECT_EQ(hook(h.func, packet()), h.go_on);
			EXPECT_EQ(g_asked + g_asked_wlan, 0);
			EXPECT_EQ(g_cpu_pkt_que[0][h.queue].count, 1u);
			silence();
		}
}

TEST_F(Rcv, services__untraced_drop_prints_nothing)
{
	pkt_rnfp = rnfp;
	g_drop = 1;
	listen(PACKET_LEV2_LOC, PACKET_TRAP);
	kernel().log.clear();
	EXPECT_EQ(hook(mox_packet_lev2_rcv, packet()), 1u);
	EXPECT_TRUE(kernel().log.empty());
}

// The other CPU withdraws a service right behind the look at it: what was taken is called.
TEST_F(Rcv, services__withdrawn_between_the_look_and_the_call)
{
	g_drop = g_drop_wlan = 0;
	for (const HookTraits &h : { kHooks[1], kHooks[7] })
		for (pkt_rnfp_func *service : { &pkt_rnfp, &pkt_rnfp_wlan }) {
			SCOPED_TRACE(h.name);
			listen(h.location, PACKET_FETCH);
			pkt_rnfp = rnfp;
			pkt_rnfp_wlan = rnfp_wlan;
			g_asked = g_asked_wlan = 0;
			int looks = 0;
			void *e = packet();
			{
				ReadTrap trap(service, [&] {
					if (looks++ == 0)
						store(*service, pkt_rnfp_func{ nullptr });
				});
				EXPECT_EQ(hook(h.func, e), h.taken);
			}
			EXPECT_EQ(looks, 1);
			EXPECT_EQ(g_asked, 1);
			EXPECT_EQ(g_asked_wlan, 1);
			EXPECT_EQ(*service, nullptr);
			silence();
		}
}

TEST_F(Rcv, clone__failure_leaves_the_packet_with_the_platform)
{
	for (const HookTraits &h : kHooks)
		for (bool trace : { false, true }) {
			SCOPED_TRACE(h.name);
			listen(h.location, PACKET_COPY);
			kernel().log.clear();
			kernel().fail(Fail::kClone);
			EXPECT_EQ(hook(h.func, packet({ .flags = trace ? ef::kFlagTrace : 0 })),
				  h.go_on);
			EXPECT_EQ(g_cpu_pkt_que[0][h.queue].count, 0u);
			EXPECT_EQ(kernel().count_said("MOX-PACKET-RCV: alloc buff error!\n"),
				  trace ? 1u : 0u);
			silence();
		}
}

TEST_F(Rcv, clone__says_nothing_of_failure_when_there_is_none)
{
	for (const HookTraits &h : kHooks) {
		listen(h.location, PACKET_COPY);
		kernel().log.clear();
		EXPECT_EQ(hook(h.func, packet({ .flags = ef::kFlagTrace })), h.go_on) << h.name;
		EXPECT_EQ(g_cpu_pkt_que[0][h.queue].count, 1u);
		EXPECT_EQ(kernel().count_said("alloc buff error"), 0u);
		silence();
	}
}

TEST_F(Rcv, clone__is_whole)
{
	listen(PACKET_LEV2_LOC, PACKET_COPY);
	::Bytes bytes = eth(0x88cc) + ::Bytes(300, 0x5c);
	hook(mox_packet_lev2_rcv, packet({ .attr = 77 }, bytes));
	auto *clone = static_cast<u8 *>(g_cpu_pkt_que[0][kQueueLev2].head);
	ASSERT_NE(clone, nullptr);
	EXPECT_EQ(memcmp(clone + 272, bytes.data(), bytes.size()), 0);
	EXPECT_EQ(field<u32>(clone, ef::kAttr), 77u);
}

TEST_F(Rcv, mpls_and_trill__are_never_registered)
{
	listen(5, PACKET_COPY);
	listen(6, PACKET_COPY);
	EXPECT_TRUE(efmp().registrations.empty());
}

// --------------------------------------------------------------------------
// Trace

TEST_F(Rcv, trace__only_the_mark_prints)
{
	memset(mox_packet_debug, 1, sizeof mox_packet_debug);
	for (const HookTraits &h : kHooks) {
		kernel().log.clear();
		hook(h.func, packet());
		EXPECT_TRUE(kernel().log.empty()) << h.name;
	}
	memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

TEST_F(Rcv, trace__lines_of_an_unmatched_packet)
{
	const char *const mac_line =
		"[MOX-PACKET(2)]: MOX-PACKET-RCV: src_mac: 02:00:00:00:00:02, dst_mac: "
		"02:00:00:00:00:01, eth_type: %s, vid: 291\n";
	const ::Bytes host4{ 10, 0, 0, 1 }, host6 = addr6(0x20, 1, 1);
	const struct {
		u8 kind;
		::Bytes bytes;
		const char *eth_type, *last;
	} cases[] = {
		{ 1, eth(0x0800) + ipv4(17, host4, ports(68, 67, 9)), "0800",
		  "ip: 10.0.0.1, ip protocol: 17, dst port: 67, src port: 68\n" },
		{ 1, eth(0x0800) + ipv4(1, host4, {}), "0800",
		  "ip: 10.0.0.1, ip protocol: 1, dst port: 0, src port: 0\n" },
		{ 27, eth(0x86dd) + ipv6(17, host6, ports(546, 547)), "86dd",
		  "ip: 2001:0000:0000:0000:0000:0000:0000:0001, ip protocol: 17, dst port: 547, src port: 546\n" },
		{ 27, eth(0x86dd) + ipv6(58, host6, { 135, 0, 0, 0 }), "86dd",
		  "ip: 2001:0000:0000:0000:0000:0000:0000:0001, ip protocol: 58, icmpv6 type: 135\n" },
		{ 27, eth(0x86dd) + ipv6(103, host6, { 1, 0, 0, 0 }), "86dd",
		  "ip: 2001:0000:0000:0000:0000:0000:0000:0001, ip protocol: 103\n" },
		{ 2, eth(0x888e) + ::Bytes{ 1, 3 }, "888e", "eapol pkt, type: 3\n" },
		{ 2, eth(0x88cc), "88cc", "packet type: 2\n" },
		{ 27, eth(0x86dd) + ::Bytes(10, 0), "86dd", "packet type: 27\n" },
	};
	for (const HookTraits &h : kHooks) {
		if (h.location == 8)
			continue;
		for (auto &c : cases) {
			SCOPED_TRACE(std::string(h.name) + " " + c.last);
			void *e = packet({ .kind = c.kind,
					   .flags = ef::kFlagTrace,
					   .outer_tci = 0xe123,
					   .code = 5,
					   .sub_code = 6 },
					 c.bytes);
			char address[16], macs[200];
			snprintf(address, sizeof address, "%08x", fake::word(e));
			snprintf(macs, sizeof macs, mac_line, c.eth_type);
			kernel().log.clear();
			hook(h.func, e, 2);
			const std::string tag = "[MOX-PACKET(2)]: ";
			EXPECT_EQ(kernel().text(),
				  tag + "MOX-PACKET-RCV: rcv pkt " + address + ", loc " + h.name +
					  ", src_intf: eth7, src_ifx: 7, in vsd: 0\n" + macs + tag +
					  "MOX-PACKET-RCV: code: 5, sub_code: 6\n" + tag +
					  "MOX-PACKET-RCV: " + c.last + tag +
					  "MOX-PACKET-RCV: rcv pkt " + address + ", fast filter\n");
		}
	}
}

TEST_F(Rcv, trace__wlan_lines)
{
	const struct {
		u32 flags;
		const char *what;
	} cases[] = { { 0, "wlan data" },
		      { 0x40000, "wlan data" },
		      { 0x48000, "wlan mgnt" },
		      { 0x8000, "wlan data" } };
	for (auto func : { mox_packet_wlan_in_rcv, mox_packet_wlan_out_rcv })
		for (auto &c : cases) {
			void *e = packet({ .wlan_flags = c.flags,
					   .flags = ef::kFlagTrace,
					   .outer_tci = 0xf00f });
			auto *b = static_cast<u8 *>(e);
			b[144] = 1;
			b[146] = 2;
			b[149] = 1;
			char address[16];
			snprintf(address, sizeof address, "%08x", fake::word(e));
			kernel().log.clear();
			hook(func, e);
			EXPECT_EQ(
				kernel().text(),
				tagged(std::string("MOX-PACKET-RCV: rcv ") + c.what + " pkt " +
				       address + ", loc PACKET_WLAN_LOC, in vsd: 0\n") +
					tagged("MOX-PACKET-RCV: packet type: 2, src_intf: eth7, src_ifx: 7, vid: 15\n") +
					tagged("MOX-PACKET-RCV: radio id: 1, wlan id: 2, ap wlan id: 256\n") +
					tagged(std::string("MOX-PACKET-RCV: rcv pkt ") + address +
					       ", fast filter\n"));
		}
}

// A packet that the device made itself came in on no interface.
TEST_F(Rcv, source__packet_without_one_is_matched_and_traced_as_interface_0)
{
	for (const HookTraits &h : kHooks) {
		SCOPED_TRACE(h.name);
		listen(h.location, PACKET_COPY);
		kernel().log.clear();
		void *e = make({ .flags = ef::kFlagTrace }, eth(0x88cc));
		EXPECT_EQ(hook(h.func, e), h.go_on);
		EXPECT_EQ(kernel().count_said("src_intf: , src_ifx: 0"), 1u);
		EXPECT_EQ(g_cpu_pkt_que[0][h.queue].count, 1u);
		// The rules at MPLS and TRILL are no socket's.
		if (!socks.empty()) {
			drain();
			EXPECT_EQ(socks.back()->ctrl().pkt_ifx, 0u);
		}
		silence();
	}
}

// The library lock is let go before the queue lock is taken, and both with
// bottom halves off; a release on another CPU in between does no harm.
TEST_F(Rcv, race__rule_withdrawn_between_filter_and_queue)
{
	listen(PACKET_LEV2_LOC, PACKET_FETCH);
	bool played = false;
	kernel().at[Point::kUnlock] = [&](const void *lock) {
		if (lock != &g_lev2_packet_regular_lib.lock || played)
			return;
		played = true;
		// The other CPU runs in process context of its own.
		int bh = std::exchange(kernel().bh_disabled, 0);
		bool in_hook = std::exchange(kernel().in_hook, false);
		socks.clear();
		kernel().bh_disabled = bh;
		kernel().in_hook = in_hook;
	};
	EXPECT_EQ(hook(mox_packet_lev2_rcv, packet()), 3u);
	kernel().at.clear();
	EXPECT_TRUE(played);
	drain();
	EXPECT_EQ(efmp().freed, 1u);
}

// ---- full queues ---------------------------------------------------------------------------

// A frame that a rule takes and the queue does not is dropped, never forwarded; a copy is not
// made, as when there is no memory for it.
TEST_F(Rcv, full__per_location_and_treatment)
{
	pkt_rnfp = rnfp;
	pkt_rnfp_wlan = rnfp_wlan;
	fake::max_backlog = 4;
	for (const HookTraits &h : kHooks)
		for (u32 treatment : { PACKET_COPY, PACKET_FETCH, PACKET_TRAP }) {
			SCOPED_TRACE(std::string(h.name) + " treatment " +
				     std::to_string(treatment));
			const bool resv = h.location == 7, wlan = h.location == 8;
			const bool takes = treatment == PACKET_FETCH ||
					   (treatment == PACKET_TRAP && !wlan);
			g_drop = g_drop_wlan = 0;
			listen(h.location, treatment);
			const efbuff_queue &q = g_cpu_pkt_que[0][h.queue];
			const u32 room = takes ? 4 : 2;
			for (u32 i = 0; i < room; i++)
				EXPECT_EQ(hook(h.func, packet()), takes ? h.taken : h.go_on);
			EXPECT_EQ(q.count, room);
			const uint64_t refused = refused_copies(h.queue);
			const uint64_t dropped = refused_takes(h.queue);
			const uint64_t clones = efmp().clones, freed = efmp().freed;
			const int wakeups = kernel().wakeups;
			for (bool trace : { false, true }) {
				g_asked = g_asked_wlan = 0;
				kernel().log.clear();
				void *e = packet(
					{ .kind = 1, .flags = trace ? ef::kFlagTrace : 0 });
				static_cast<u8 *>(e)[43] = 0x55;
				const uint64_t tried = kernel().calls(Fail::kClone);
				EXPECT_EQ(hook(h.func, e), !takes ? h.go_on
							   : resv ? h.taken
								  : platform::kDrop);
				EXPECT_EQ(kernel().calls(Fail::kClone), tried) << "not even tried";
				EXPECT_EQ(
					kernel().count_said("MOX-PACKET-RCV: alloc buff error!\n"),
					trace && !takes ? 1u : 0u);
				EXPECT_EQ(g_asked, takes && !resv) << "the services come first";
				EXPECT_EQ(g_asked_wlan, takes && !resv);
				if (!(takes && resv))
					EXPECT_EQ(reason(e), takes ? 7 : 0x55);
			}
			EXPECT_EQ(q.count, room);
			EXPECT_EQ(efmp().clones, clones);
			EXPECT_EQ(efmp().freed - freed, takes && resv ? 2u : 0u);
			EXPECT_EQ(kernel().wakeups, wakeups);
			EXPECT_EQ(refused_copies(h.queue) - refused, takes ? 0u : 2u);
			EXPECT_EQ(refused_takes(h.queue) - dropped, takes ? 2u : 0u);
			// What a service drops is no drop of the queue's.
			if (takes && !resv) {
				g_drop = 1;
				EXPECT_EQ(hook(h.func, packet()), platform::kDrop);
				EXPECT_EQ(refused_takes(h.queue) - dropped, 2u);
				g_drop = 0;
			}
			// Room again, once they are freed.
			mox_packet_efbuff_queue_deinit(&g_cpu_pkt_que[0][h.queue]);
			EXPECT_EQ(hook(h.func, packet()), takes ? h.taken : h.go_on);
			EXPECT_EQ(q.count, 1u);
			silence();
		}
}

TEST_F(Rcv, full__copies_of_a_location_do_not_crowd_out_traps)
{
	fake::max_backlog = 100;
	listen(PACKET_LEV2_LOC, PACKET_COPY);
	listen(PACKET_IPv4_LOC, PACKET_COPY);
	listen(PACKET_IPv6_LOC, PACKET_COPY);
	listen(PACKET_LOCAL_LOC, PACKET_TRAP);
	for (int i = 0; i < 300; i++)
		for (auto func : { mox_packet_lev2_rcv, mox_packet_ipv4_rcv, mox_packet_ipv6_rcv })
			EXPECT_EQ(hook(func, packet()), 0u);
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueLev2].count + g_cpu_pkt_que[0][kQueueIpv4].count +
			  g_cpu_pkt_que[0][kQueueIpv6].count,
		  100u)
		<< "half of what a CPU may hold";
	u32 taken = 0;
	for (int i = 0; i < 300; i++)
		taken += hook(mox_packet_local_rcv, packet()) == 3;
	EXPECT_EQ(taken, 100u);
}

// A clone that fails leaves no trace in the counts.
TEST_F(Rcv, full__a_failed_clone_is_not_held)
{
	fake::max_backlog = 4;
	listen(PACKET_LEV2_LOC, PACKET_COPY);
	for (int i = 0; i < 10; i++) {
		kernel().fail(Fail::kClone);
		EXPECT_EQ(hook(mox_packet_lev2_rcv, packet()), 0u);
	}
	EXPECT_EQ(refused_copies(kQueueLev2), 0u);
	for (int i = 0; i < 3; i++)
		hook(mox_packet_lev2_rcv, packet());
	EXPECT_EQ(g_cpu_pkt_que[0][kQueueLev2].count, 2u);
	EXPECT_EQ(refused_copies(kQueueLev2), 1u);
}

} // namespace
