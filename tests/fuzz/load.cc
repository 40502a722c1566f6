// SPDX-License-Identifier: GPL-2.0-only
// Loads and unloads of the module and of its units, with calls that fail, services that come and
// go, and frames of the last moment.
#include "base/module_state.hpp"
#include "control/capture.hpp"
#include "control/requests.hpp"
#include "fixture_case.h"
#include "packets.h"
#include "receive/thread.hpp"
#include "rules/memory.hpp"
#include "services/services.hpp"
#include "socket_fixture.h"
#include "surroundings.h"

namespace {

struct Unit {
	int (*init)();
	void (*deinit)();
	const u8 &up;
};

// Alone as well: each is up or not, whatever is asked of it twice.
const Unit kUnits[] = {
	{ mox_packet_sock_init, mox_packet_sock_deinit, mox_packet_sock_inited },
	{ mox_packet_regular_init, mox_packet_regular_deinit, mox_packet_regular_inited },
	{ mox_packet_serv_init, mox_packet_serv_deinit, mox_packet_serv_inited },
	{ mox_packet_msg_init, mox_packet_msg_deinit, mox_packet_msg_inited },
	{ mox_packet_family_init, mox_packet_family_deinit, mox_packet_family_init_ok },
	{ mox_packet_thread_init, mox_packet_thread_deinit, mox_packet_thread_init_ok },
	{ mox_capture_init, mox_capture_deinit, mox_capture_inited },
};

class Loads : public fake::KernelTest {
public:
	void play(fuzz::Input &input)
	{
		for (int steps = 0; steps < 12 && !input.empty(); steps++)
			step(input);
		unload(0);
	}

private:
	void step(fuzz::Input &input)
	{
		const u8 what = input.byte();
		const Unit &unit = kUnits[what / 8 % std::size(kUnits)];

		if (what % 8 == 0)
			return load(input);
		if (what % 8 == 1)
			return unload(what);
		if (what % 8 == 2)
			return service(what / 8);
		fuzz::World world(input);
		if (what % 8 == 3) {
			::socket socket;
			socket.type = what & 16 ? kRaw : kDgram;
			// Before a load the kernel does not know the family.
			if (unit_up(4) && mox_packet_create(&fake::init_net(), &socket, 0, 0) == 0)
				mox_packet_release(&socket);
			return;
		}
		if (what % 8 == 4) {
			mox_packet_dump_thread();
			return;
		}
		if (what % 8 == 5) {
			EXPECT_EQ(mox_packet_thread_had_init() != 0, unit_up(5));
			EXPECT_EQ(mox_packet_family_had_init() != 0, unit_up(4));
			if (loaded_) {
				mox_packet_thread_active(what / 8);
				kernel().run_thread();
			}
			return;
		}
		// Of a module that is not up, or whose units are up once more.
		if (loaded_ != unit_up(0))
			return;
		if (loaded_) {
			EXPECT_EQ(unit.init(), 0) << "up already";
			EXPECT_TRUE(unit.up);
		} else {
			unit.deinit();
			EXPECT_FALSE(unit.up);
		}
	}

	static bool unit_up(u32 unit) { return kUnits[unit].up != 0; }

	void load(fuzz::Input &input)
	{
		if (loaded_)
			return;
		int result;
		{
			fuzz::World world(input);
			result = mox_packet_init();
		}
		loaded_ = result == 0;
		for (const Unit &unit : kUnits)
			EXPECT_EQ(unit.up != 0, loaded_);
		EXPECT_EQ(mox::module_up(), loaded_);
		if (loaded_)
			return;
		EXPECT_TRUE(kernel().blocks.empty())
			<< "memory of a load that failed, of " << kernel().blocks.begin()->second;
		EXPECT_TRUE(kernel().caches.empty());
		EXPECT_TRUE(kernel().tasks.empty());
		EXPECT_FALSE(kernel().family_registered || kernel().genl_registered ||
			     kernel().capture_registered || kernel().proto_registered ||
			     kernel().pernet_registered || kernel().diag_registered);
		EXPECT_FALSE(efmp().change_handler);
	}

	void unload(u8 how)
	{
		if (!loaded_)
			return;
		if (how & 8)
			kernel().at.watch(Point::kGrace, [how](const void *) {
				for (u32 frames = 1 + how / 64; frames != 0; frames--)
					packets::enqueue(&g_cpu_pkt_que[how / 16 % 2]
								       [how / 32 * 3 % CPU_QUEUES],
							 efmp().efbuff(Bytes(256),
								       fake::Owner::kModule),
							 how & 16 ? Held::kCopy : Held::kTaken);
			});
		mox_packet_exit();
		kernel().at.erase(Point::kGrace);
		loaded_ = false;
		kernel().thread_stop_asked = false;
		for (const Unit &unit : kUnits)
			EXPECT_FALSE(unit.up);
		EXPECT_TRUE(efmp().live.empty());
	}

	void service(u8 how)
	{
		const std::pair<u32, u32> services[] = {
			{ 11, 10 }, { 32, 0 }, { 32, 3 }, { 1, 1 }
		};
		const auto [service_class, instance] = services[how / 4 % std::size(services)];

		if (how % 4 == 0)
			efmp().publish(service_class, instance, reinterpret_cast<void *>(0x1230));
		else if (how % 4 == 1)
			efmp().withdraw(service_class, instance);
		else
			efmp().announce(how, service_class, instance, nullptr);
	}

	bool loaded_ = false;
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Loads>::run([&](Loads &loads) { loads.play(input); });
}
