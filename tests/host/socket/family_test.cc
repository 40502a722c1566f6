// SPDX-License-Identifier: GPL-2.0-only
// A packet socket's life: create, release, destructor, and what each leaves.
#include "socket_fixture.h"
#include "socket/registry.hpp"

namespace {

class Family : public SocketTest {
protected:
	void SetUp() override
	{
		SocketTest::SetUp();
		debug();
	}
};

const u16 kArp = 0x0608; // htons(0x0806)

// ---- create -----------------------------------------------------------------

TEST_F(Family, create__only_dgram_and_raw)
{
	for (int type = 0; type <= 12; type++) {
		SCOPED_TRACE(type);
		Sock s;
		bool allowed = type == 2 || type == 3;
		EXPECT_EQ(s.create(type), allowed ? 0 : -94);
		Strings wanted{ "PACKET-CREATE\n" };
		// SOCK_PACKET (10) too, despite the text.
		if (!allowed)
			wanted.push_back("SOCK TYPE is not SOCK_DGRAM, SOCK_RAW or SOCK_PACKET\n");
		EXPECT_EQ(lines(), wanted);
		EXPECT_EQ(kernel().socks.size(), allowed ? 1u : 0u);
		if (allowed)
			s.release();
		lines();
	}
}

TEST_F(Family, create__without_debug_prints_nothing)
{
	debug(false);
	Sock bad, good;
	EXPECT_EQ(bad.create(10), -94);
	kernel().fail(Fail::kSkAlloc);
	EXPECT_EQ(bad.create(), -105);
	EXPECT_EQ(good.create(), 0);
	good.release();
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Family, create__fills_the_record)
{
	kernel().pid = 1234;
	kernel().comm = "a-very-long-command-name";
	Sock s;
	ASSERT_EQ(s.create(kDgram), 0);
	mox_packet_sock &po = s.po();
	EXPECT_EQ(po.pid, 1234);
	EXPECT_STREQ(po.process, "a-very-long-com");
	EXPECT_EQ(po.vsd, 0u);
	EXPECT_EQ(po.protocol, 0);
	EXPECT_EQ(po.flags, 0);
	EXPECT_EQ(po.ifindex, 0u);
	EXPECT_EQ(po.reserved, 0u);
	EXPECT_EQ(po.regular.owner, &po);
	EXPECT_EQ(po.regular.treatment, 0u);
	EXPECT_EQ(po.regular.location, 0u);
	EXPECT_EQ(po.regular.items.next, &po.regular.items);
	EXPECT_EQ(po.regular.lib_node.next, &po.regular.lib_node);
	EXPECT_EQ(s.sk->type, kDgram);
	EXPECT_TRUE(s.socket.ops_set);
	const mox_packet_counters none{};
	EXPECT_EQ(memcmp(&po.counters, &none, sizeof none), 0);
	// Both spin locks are ready for use.
	seam_spin_lock(&po.bind_lock);
	seam_spin_unlock(&po.bind_lock);
	seam_spin_lock(&po.rule_lock);
	seam_spin_unlock(&po.rule_lock);
}

// The record is written before whatever makes the socket known.
TEST_F(Family, create__the_record_is_visible_first)
{
	u32 known = ~0u;
	int barriers = 0;
	kernel().at.watch(Point::kStoreBarrier, [&](const void *) {
		barriers++;
		known = registry_size();
	});
	Sock s;
	ASSERT_EQ(s.create(), 0);
	EXPECT_EQ(barriers, 1);
	EXPECT_EQ(known, 0u);
}

TEST_F(Family, create__without_protocol_is_not_running_and_has_no_rule_data)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	EXPECT_FALSE(s.running());
	EXPECT_TRUE(items(s).empty());
	EXPECT_EQ(s.refs(), 2u) << "the kernel's and the list's";
	EXPECT_EQ(lines(), Strings{ "PACKET-CREATE\n" });
}

TEST_F(Family, create__protocol_becomes_one_datum_as_passed_and_the_socket_runs)
{
	Sock s;
	ASSERT_EQ(s.create(kRaw, kArp), 0);
	EXPECT_TRUE(s.running());
	EXPECT_EQ(s.po().protocol, kArp);
	EXPECT_EQ(items(s), (Items{ { PACKET_ETH_PROT_EQUAL, { value_of({ 0x08, 0x06 }) } } }));
	EXPECT_EQ(s.refs(), 3u) << "the kernel's, the list's and running's";
	// Running, but in no library: there is no location yet.
	for (u32 location = 1; location <= 8; location++)
		EXPECT_EQ(filed(location), 0u);
	EXPECT_TRUE(efmp().registrations.empty());
}

TEST_F(Family, create__protocols_low_16_bits_count)
{
	Sock high, both;
	ASSERT_EQ(high.create(kRaw, 0x10000), 0);
	EXPECT_EQ(high.po().protocol, 0);
	EXPECT_FALSE(high.running());
	ASSERT_EQ(both.create(kRaw, 0x7fff0608), 0);
	EXPECT_EQ(both.po().protocol, kArp);
	EXPECT_TRUE(both.running());
}

TEST_F(Family, create__kern_flag_changes_nothing)
{
	for (int kern : { 0, 1 }) {
		::socket socket;
		ASSERT_EQ(mox_packet_create(&fake::init_net(), &socket, 0, kern), 0);
		EXPECT_EQ(socket.sk->refs, 2u);
		EXPECT_EQ(fake::init_net().refs, 2);
		mox_packet_release(&socket);
	}
}

TEST_F(Family, create__enters_the_namespaces_list_at_the_head_under_its_mutex)
{
	Sock first, second;
	ASSERT_EQ(first.create(kRaw, 0, &other_ns), 0);
	LockTrace trace;
	ASSERT_EQ(second.create(kRaw, 0, &other_ns), 0);
	EXPECT_EQ(trace.steps, (Strings{ "+ns", "-ns", "+registry", "-registry" }));
	EXPECT_EQ(other_ns.list, (std::vector<sock *>{ second.sk, first.sk }));
	EXPECT_EQ(other_ns.inuse, 2);
	EXPECT_EQ(other_ns.refs, 3) << "each socket pins its namespace";
	EXPECT_TRUE(fake::init_net().list.empty());
	EXPECT_EQ(fake::init_net().inuse, 0);
}

TEST_F(Family, create__without_a_socket_record)
{
	kernel().fail(Fail::kSkAlloc);
	Sock s;
	EXPECT_EQ(s.create(), -105);
	EXPECT_EQ(lines(), (Strings{ "PACKET-CREATE\n", "Can not alloc sock\n" }));
	EXPECT_EQ(fake::init_net().refs, 1);
}

// A create that fails half way frees the record through its last reference, and
// the destructor notes that it had not been declared dead. That line is intended.
TEST_F(Family, create__each_later_failure_drops_the_record_with_the_destructors_line)
{
	const char *const alive = "<3>Attempt to release alive packet socket: ";
	struct {
		const char *what;
		std::function<void()> arrange;
		int protocol, error;
		Strings lines;
	} const cases[] = {
		{ "in a vsd",
		  [] { kernel().cwd = "/data/var/run/vsd/3/further/path"; },
		  kArp,
		  -22,
		  { "Get vsd id 3 fail\n" } },
		{ "no datum",
		  [] { kernel().fail(Fail::kDataAlloc); },
		  kArp,
		  -12,
		  { "MOX-PACKET-ALLOC-INIT-DATA: alloc failed!\n" } },
		{ "no item",
		  [] { kernel().fail(Fail::kItemAlloc); },
		  kArp,
		  -12,
		  { "MOX-PACKET-ALLOC-INIT-ITEM: alloc failed!\n",
		    "MOX-PACKET-ADD-DATA-TO-REGULAR: alloc item failed\n" } },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.what);
		kernel().cwd = "/root";
		c.arrange();
		Sock s;
		EXPECT_EQ(s.create(kRaw, c.protocol), c.error);
		Strings said = lines();
		ASSERT_EQ(said.size(), c.lines.size() + 2);
		EXPECT_EQ(said.front(), "PACKET-CREATE\n");
		EXPECT_EQ(Strings(said.begin() + 1, said.end() - 1), c.lines);
		EXPECT_EQ(said.back().compare(0, strlen(alive), alive), 0) << said.back();
		EXPECT_TRUE(kernel().socks.empty());
		EXPECT_EQ(fake::init_net().refs, 1);
		EXPECT_TRUE(fake::init_net().list.empty());
		EXPECT_EQ(fake::init_net().inuse, 0);
	}
}

TEST_F(Family, create__without_memory_for_the_path_takes_vsd_0)
{
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().fail(Fail::kKmalloc);
	Sock s;
	EXPECT_EQ(s.create(), 0);
	EXPECT_EQ(s.po().vsd, 0u);
	EXPECT_EQ(lines(), (Strings{ "PACKET-CREATE\n", "<0>Failed to kmalloc buf.\n" }));
}

TEST_F(Family, create__in_vsd_0_succeeds)
{
	kernel().cwd = "/data/var/run/vsd/0/some/where";
	Sock s;
	EXPECT_EQ(s.create(), 0);
	EXPECT_EQ(s.po().vsd, 0u);
}

// ---- release ----------------------------------------------------------------

TEST_F(Family, release__without_sk)
{
	::socket socket;
	EXPECT_EQ(mox_packet_release(&socket), 0);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-RELEASE\n", "PACKET-RELEASE: EINVAL\n" }));
}

TEST_F(Family, release__frees_an_idle_socket)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	lines();
	EXPECT_EQ(s.release(), 0);
	EXPECT_EQ(lines(), Strings{ "MOX-PACKET-RELEASE\n" }) << "the destructor prints nothing";
	EXPECT_TRUE(kernel().socks.empty());
	EXPECT_EQ(fake::init_net().refs, 1);
	EXPECT_EQ(fake::init_net().inuse, 0);
}

TEST_F(Family, release__running_is_cleared_before_its_reference_is_dropped)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	int puts = 0;
	kernel().at[Point::kSockPut] = [&](const void *sk) {
		puts++;
		EXPECT_EQ(reinterpret_cast<const mox_packet_sock *>(sk)->flags & PO_RUNNING, 0)
			<< "drop " << puts;
	};
	EXPECT_EQ(s.release(), 0);
	kernel().at.clear();
	EXPECT_EQ(puts, 2) << "that of running and the socket's own";
}

// Running with a protocol alone: the rule is in no library, which the library prints.
TEST_F(Family, release__of_a_socket_that_runs_without_a_location)
{
	Sock s;
	ASSERT_EQ(s.create(kRaw, kArp), 0);
	lines();
	EXPECT_EQ(s.release(), 0);
	EXPECT_EQ(lines(), (Strings{ "MOX-PACKET-RELEASE\n",
				     "MOX-PACKET-HANDLE-REGULAR: location illegal!\n" }));
	EXPECT_TRUE(kernel().socks.empty());
}

TEST_F(Family, release__takes_the_rule_out_of_its_library_and_frees_its_data)
{
	for (u32 location : { 1, 2, 3, 4, 7, 8, 9, 10 }) {
		SCOPED_TRACE(location);
		Sock s;
		ASSERT_EQ(s.create(kRaw, kArp), 0);
		ASSERT_EQ(s.add(PACKET_SRC_MAC_EQUAL, 2, Bytes(12, 7)), 0);
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, location), 0);
		ASSERT_EQ(filed(location), 1u);
		EXPECT_EQ(s.release(), 0);
		EXPECT_EQ(filed(location), 0u);
		EXPECT_EQ(counters(), oracle::Counters{});
		for (auto &[name, on] : efmp().registered)
			EXPECT_FALSE(on) << name;
	}
}

TEST_F(Family, release__leaves_other_sockets_in_the_library)
{
	Sock one, other;
	one.capture(PACKET_LEV2_LOC, PACKET_COPY);
	other.capture(PACKET_LEV2_LOC, PACKET_COPY);
	one.release();
	EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u);
	EXPECT_TRUE(hooked("lev2"));
	other.release();
	EXPECT_FALSE(hooked("lev2"));
}

TEST_F(Family, release__in_the_initial_namespace_takes_one_mutex)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	LockTrace trace;
	s.release();
	EXPECT_EQ(trace.steps, (Strings{ "+ns", "-ns", "+sock", "-sock", "+registry", "+closed",
					 "-closed", "-registry" }));
}

// The initial namespace's mutex always, and the socket's own within it.
TEST_F(Family, release__in_another_namespace_takes_both_mutexes_nested)
{
	Sock s;
	ASSERT_EQ(s.create(kRaw, 0, &other_ns), 0);
	Strings held;
	{
		LockTrace trace;
		trace.look = [&](const std::string &step) {
			held.push_back(step + (fake::init_net().lock.writers ? " init" : "") +
				       (other_ns.lock.writers ? " other" : ""));
		};
		s.release();
	}
	EXPECT_EQ(held,
		  (Strings{ "+ns init", "+ns-nested init other", "-ns-nested init", "-ns", "+sock",
			    "-sock", "+registry", "+closed", "-closed", "-registry" }));
	EXPECT_EQ(other_ns.inuse, 0);
	EXPECT_EQ(other_ns.refs, 1);
	EXPECT_EQ(fake::init_net().inuse, 0);
}

// Counted out whether it is listed or not.
TEST_F(Family, release__of_a_socket_that_left_the_list_counts_it_out_all_the_same)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	seam_ns_lock(&fake::init_net());
	seam_ns_list_del(s.sk);
	seam_ns_unlock(&fake::init_net());
	EXPECT_EQ(s.refs(), 1u);
	EXPECT_EQ(fake::init_net().inuse, 1);
	EXPECT_EQ(s.release(), 0);
	EXPECT_EQ(fake::init_net().inuse, 0);
	EXPECT_TRUE(kernel().socks.empty());
}

TEST_F(Family, release__of_one_of_three_keeps_the_others_listed)
{
	Sock s[3];
	for (Sock &each : s)
		ASSERT_EQ(each.create(), 0);
	s[1].release();
	EXPECT_EQ(fake::init_net().list, (std::vector<sock *>{ s[2].sk, s[0].sk }));
	EXPECT_EQ(fake::init_net().inuse, 2);
}

sk_buff *queue_buffer(Sock &s, u32 len)
{
	sk_buff *skb = fake::skb_alloc(len);
	memset(fake::skb_put(skb, len), 0x11, len);
	skb->iif = 7;
	skb->has_dev = false;
	EXPECT_TRUE(fake::deliver(s.sk, skb));
	return skb;
}

TEST_F(Family, release__counts_and_frees_what_is_queued)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	for (int i = 0; i < 5; i++)
		queue_buffer(s, 60);
	g_free_skb_num = 100;
	EXPECT_EQ(s.release(), 0);
	EXPECT_EQ(g_free_skb_num, 105u);
	EXPECT_TRUE(kernel().skbs.empty());
	EXPECT_TRUE(kernel().warnings.empty());
}

// Orphaned only when no library can lead to the socket any more, and before the
// queue is counted.
TEST_F(Family, release__orphans_behind_the_rule_and_before_the_queue)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	queue_buffer(s, 60);
	g_free_skb_num = 0;
	bool seen = false;
	kernel().at[Point::kOrphan] = [&](const void *) {
		seen = true;
		EXPECT_EQ(filed(PACKET_LEV2_LOC), 0u);
		EXPECT_TRUE(items(s).empty());
		EXPECT_FALSE(s.running());
		EXPECT_EQ(s.socket.sk, s.sk) << "still tied";
		EXPECT_EQ(s.queued(), 1u);
		EXPECT_EQ(g_free_skb_num, 0u);
		EXPECT_EQ(s.refs(), 1u);
		EXPECT_EQ(fake::init_net().refs, 2) << "the namespace is still pinned";
	};
	s.release();
	EXPECT_TRUE(seen);
	EXPECT_EQ(g_free_skb_num, 1u);
}

// Delivery may still hold the socket: it lives on, dead, until that lets go.
TEST_F(Family, release__while_somebody_else_holds_the_socket)
{
	Sock s;
	s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	sock *sk = s.sk;
	seam_sock_hold(sk);
	s.release();
	ASSERT_EQ(kernel().socks.size(), 1u);
	EXPECT_EQ(sk->refs, 1u);
	EXPECT_TRUE(sk->dead);
	EXPECT_EQ(fake::init_net().refs, 1) << "the namespace is let go at release";
	seam_sock_put(sk);
	EXPECT_TRUE(kernel().socks.empty());
}

TEST_F(Family, references__by_state)
{
	Sock s;
	ASSERT_EQ(s.create(), 0);
	EXPECT_EQ(s.refs(), 2u);
	ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
	EXPECT_EQ(s.refs(), 3u) << "running";
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
	EXPECT_EQ(s.refs(), 3u) << "still running";
	ASSERT_EQ(s.add(PACKET_ALL), 0);
	ASSERT_EQ(s.bind(0), 0);
	EXPECT_EQ(s.refs(), 3u);
	ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_NONE_LOC), 0);
	EXPECT_EQ(s.refs(), 2u) << "stopped";
}

// ---- destructor ---------------------------------------------------------------

TEST_F(Family, destructor__by_what_is_left)
{
	struct {
		int rmem, wmem;
		bool dead;
		size_t warnings;
		bool line;
	} const cases[] = {
		{ 0, 0, true, 0, false }, { 640, 0, true, 1, false }, { 0, 640, true, 1, false },
		{ 1, 1, true, 2, false }, { 0, 0, false, 0, true },   { 640, 640, false, 2, true },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.rmem << " " << c.wmem << " " << c.dead);
		::socket socket;
		sock *sk = seam_sk_alloc(&fake::init_net());
		seam_sock_setup(&socket, sk);
		sk->rmem = c.rmem;
		sk->wmem = c.wmem;
		sk->dead = c.dead;
		// As in the destructor: the last reference has gone.
		kernel().log.clear();
		debug(false);
		char address[32];
		snprintf(address, sizeof address, "%08lx",
			 reinterpret_cast<unsigned long>(sk) & 0xffffffffUL);
		seam_sock_put(sk);
		EXPECT_EQ(kernel().warnings.size(), c.warnings);
		kernel().warnings.clear();
		ASSERT_EQ(kernel().log.size(), c.line ? 1u : 0u);
		if (c.line) {
			EXPECT_EQ(kernel().log[0].level, 3) << "printed with debug off, too";
			EXPECT_EQ(kernel().log[0].text,
				  std::string("Attempt to release alive packet socket: ") +
					  address + "\n");
		}
	}
}

} // namespace
