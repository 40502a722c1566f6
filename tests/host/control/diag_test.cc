// SPDX-License-Identifier: GPL-2.0-only
// The capture sockets in the kernel's socket diagnosis.
#include "capture_fixture.h"
#include "control/diag.hpp"

namespace {

class Diag : public CaptureTest {
protected:
	using Listed = std::vector<sock *>;

	// One call of the kernel, which has room for so many sockets; which it has listed.
	Listed list(seam_diag_place &at, u32 room = ~0u, ::net *ns = &fake::init_net())
	{
		kernel().diag_room = room;
		kernel().diag_listed.clear();
		mox_packet_diag_dump(nullptr, nullptr, ns, &at);
		EXPECT_TRUE(kernel().held.empty());
		Listed listed;
		for (const auto &row : kernel().diag_listed)
			listed.push_back(row.sk);
		kernel().diag_room = ~0u;
		return listed;
	}
	// Call by call until one adds nothing, as the kernel does.
	Listed list_all(u32 room, ::net *ns = &fake::init_net())
	{
		seam_diag_place at{};
		Listed all;
		for (int calls = 0; calls < 10000; calls++) {
			const Listed more = list(at, room, ns);
			if (more.empty())
				return all;
			all.insert(all.end(), more.begin(), more.end());
		}
		ADD_FAILURE() << "a listing without an end";
		return all;
	}
	// So many sockets of a namespace.
	Listed open(size_t count, ::net *ns = &fake::init_net())
	{
		Listed all;
		for (size_t i = 0; i < count; i++) {
			socks.push_back(std::make_unique<Sock>());
			EXPECT_EQ(socks.back()->create(kRaw, 0, ns), 0);
			all.push_back(socks.back()->sk);
		}
		return all;
	}
	void TearDown() override
	{
		socks.clear();
		CaptureTest::TearDown();
	}
	static Strings features(const Messages &answers)
	{
		return answers.empty() ? Strings{} : answers[0].texts(MOX_CAPTURE_INFO_FEATURE);
	}

	std::vector<std::unique_ptr<Sock>> socks;
};

#define FEATURE(name, ...) name,
const Strings kFeatures = { MOX_CAPTURE_FEATURE_TABLE(FEATURE) };

// ---- registration ---------------------------------------------------------------------

TEST_F(Diag, init__once)
{
	EXPECT_TRUE(diag_up());
	EXPECT_TRUE(kernel().diag_registered);
	diag_init();
	EXPECT_EQ(kernel().calls(Fail::kDiagRegister), 1u);
	diag_deinit();
	EXPECT_FALSE(diag_up());
	EXPECT_FALSE(kernel().diag_registered);
	diag_deinit();
	diag_init();
	EXPECT_TRUE(diag_up());
	EXPECT_TRUE(kernel().diag_registered);
	EXPECT_EQ(said(), "");
}

TEST_F(Diag, init__comes_and_goes_with_the_family)
{
	mox_capture_deinit();
	EXPECT_FALSE(kernel().diag_registered);
	kernel().fail(Fail::kCaptureRegister);
	EXPECT_NE(mox_capture_init(), 0);
	EXPECT_FALSE(kernel().diag_registered);
	EXPECT_EQ(mox_capture_init(), 0);
	EXPECT_TRUE(kernel().diag_registered);
}

// The kernel's own handler is there already: a line, and nothing else changes.
TEST_F(Diag, init__refused)
{
	for (int error : { -EBUSY, -ENOMEM }) {
		mox_capture_deinit();
		lines();
		kernel().error[Fail::kDiagRegister] = error;
		kernel().fail(Fail::kDiagRegister);
		EXPECT_EQ(mox_capture_init(), 0);
		EXPECT_EQ(lines(), Strings{ "<6>No socket diagnosis of family 17, errno " +
					    std::to_string(error) + ": is packet_diag loaded?\n" });
		EXPECT_EQ(mox_capture_inited, 1);
		EXPECT_FALSE(diag_up());
		// Requests are answered, and sockets capture.
		ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_INFO), 0);
		Sock s;
		s.capture(PACKET_LEV2_LOC, PACKET_COPY);
		frame(PACKET_LEV2_LOC, {}, packets::eth(0x88cc) + Bytes(46));
		EXPECT_EQ(s.queued(), 1u);
		// Nothing is unregistered that is not registered: the fake complains.
		mox_capture_deinit();
		EXPECT_EQ(mox_capture_init(), 0);
		EXPECT_TRUE(diag_up());
	}
}

TEST_F(Diag, feature__only_while_registered)
{
	Strings without = kFeatures;
	std::erase(without, "sock-diag");
	ASSERT_EQ(without.size() + 1, kFeatures.size());
	ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_INFO), 0);
	EXPECT_EQ(features(answers), kFeatures);
	diag_deinit();
	ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_INFO), 0);
	EXPECT_EQ(features(answers), without);
	diag_init();
	ASSERT_EQ(ask_one(MOX_CAPTURE_CMD_INFO), 0);
	EXPECT_EQ(features(answers), kFeatures);
}

// ---- listings --------------------------------------------------------------------------

TEST_F(Diag, list__what_is_said_of_a_socket)
{
	Sock idle, running, bound;
	ASSERT_EQ(idle.create(), 0);
	running.capture(PACKET_WLAN_LOC, PACKET_TRAP);
	ASSERT_EQ(bound.create(kDgram), 0);
	ASSERT_EQ(bound.bind(7, __builtin_bswap16(0x88cc)), 0);
	seam_diag_place at{};
	ASSERT_EQ(list(at), (Listed{ idle.sk, running.sk, bound.sk }));
	const struct {
		u32 ifindex, location, treatment;
		u16 protocol;
		u8 running;
	} rows[] = {
		{ 0, 0, 0, 0, 0 },
		{ 0, PACKET_WLAN_LOC, PACKET_TRAP, 0, 1 },
		{ 7, 0, 0, 0x88cc, bound.running() },
	};
	for (size_t i = 0; i < std::size(rows); i++) {
		SCOPED_TRACE(i);
		const seam_diag_socket &got = kernel().diag_listed[i].socket;
		EXPECT_EQ(got.ifindex, rows[i].ifindex);
		EXPECT_EQ(got.location, rows[i].location);
		EXPECT_EQ(got.treatment, rows[i].treatment);
		EXPECT_EQ(got.protocol, rows[i].protocol);
		EXPECT_EQ(got.running, rows[i].running);
	}
}

TEST_F(Diag, list__the_sockets_of_one_namespace)
{
	const Listed first = open(2);
	const Listed second = open(3, &other_ns);
	const Listed third = open(2);
	EXPECT_EQ(list_all(~0u), (Listed{ first[0], first[1], third[0], third[1] }));
	EXPECT_EQ(list_all(~0u, &other_ns), second);
	::net empty{};
	EXPECT_EQ(list_all(~0u, &empty), Listed{});
}

// More sockets than one hold of the registry's lock takes, in buffers of every size.
TEST_F(Diag, list__in_portions)
{
	const Listed all = open(200);
	for (u32 room : { 1u, 2u, 7u, 63u, 64u, 65u, 128u, 199u, 200u, 201u }) {
		SCOPED_TRACE(room);
		EXPECT_EQ(list_all(room), all);
	}
}

// Others may run between two holds.
TEST_F(Diag, list__offers_the_cpu)
{
	open(200);
	seam_diag_place at{};
	const int before = kernel().cond_rescheds;
	EXPECT_EQ(list(at).size(), 200u);
	EXPECT_GE(kernel().cond_rescheds - before, 3);
}

TEST_F(Diag, list__ends_early_for_a_task_that_is_killed)
{
	const Listed all = open(200);
	seam_diag_place at{};
	kernel().killed = true;
	const size_t before = list(at).size();
	kernel().killed = false;
	EXPECT_GT(before, 0u);
	EXPECT_LT(before, all.size());
	// It would go on where it was.
	EXPECT_EQ(list(at), Listed(all.begin() + static_cast<long>(before), all.end()));
}

// Between two portions any socket may leave, the one where the listing goes on included, and
// new ones come. Who stays is listed once.
TEST_F(Diag, list__while_sockets_leave_and_come)
{
	for (u32 seed = 0; seed < 60; seed++) {
		SCOPED_TRACE(seed);
		std::mt19937 rng(seed);
		socks.clear();
		open(100);
		std::set<sock *> stayed;
		for (auto &s : socks)
			stayed.insert(s->sk);
		std::map<sock *, int> listed;
		seam_diag_place at{};
		for (int calls = 0; calls < 1000; calls++) {
			const Listed more = list(at, 1 + rng() % 20);
			if (more.empty())
				break;
			for (sock *sk : more)
				listed[sk]++;
			// The last one listed leaves half of the time.
			for (u32 leave = rng() % 4; leave > 0 && !socks.empty(); leave--) {
				size_t which = rng() % socks.size();
				for (size_t i = 0; i < socks.size() && rng() % 2; i++)
					if (socks[i]->sk == more.back())
						which = i;
				// Its address may be used again.
				stayed.erase(socks[which]->sk);
				listed.erase(socks[which]->sk);
				socks.erase(socks.begin() + static_cast<long>(which));
			}
			if (rng() % 3 == 0 && calls < 20)
				open(1);
		}
		for (sock *sk : stayed)
			EXPECT_EQ(listed[sk], 1);
		for (auto &[sk, times] : listed)
			EXPECT_EQ(times, 1);
	}
}

} // namespace
