// SPDX-License-Identifier: GPL-2.0
// Any efbuff, header and frame, through a hook and delivery. What lies behind the frame's end, or
// behind what a hook may read, is poisoned.
#include "fixture_case.h"
#include "module_fixture.h"

namespace {

// The reference reads as much of the frame as the platform promises to be there.
constexpr size_t kMostBytes = 512;

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<ModuleTest>::run([&](ModuleTest &) {
		Sock all, some;
		const u32 location = 1 + input.below(8);
		const u8 how = input.byte();
		if (location != 5 && location != 6) {
			all.capture(location, PACKET_COPY + how % 3, how & 8 ? kRaw : kDgram);
			EXPECT_EQ(some.create(kRaw), 0);
			const u16 type = input.byte() % 22;
			const u8 width = contract::width(type % contract::kTypes);
			some.add(type, 1, input.bytes(width));
			some.set(PACKET_TREATMENT, 1 + how / 16 % 3);
			some.set(PACKET_LOCATION, location);
		}
		packets::Meta meta;
		meta.kind = input.byte();
		meta.l2_len = input.byte() % 64;
		meta.wlan_flags = input.number<u32>();
		meta.attr = input.byte();
		meta.flags = input.number<u32>();
		meta.inner_tci = input.number<u16>();
		meta.outer_tci = input.number<u16>();
		meta.code = input.byte();
		meta.sub_code = input.byte();
		meta.source = fake::word(fake::efmp().interfaces[7]);
		const Bytes frame = input.bytes(kMostBytes);
		if (how & 128)
			memset(mox_packet_debug, 1, sizeof mox_packet_debug);
		void *efbuff = packets::make(meta, frame);
		const HookTraits &hook = kHooks[location - 1];
		fake::efmp().call(hook.func, efbuff, hook.taken, how & 1);
		const auto still = fake::efmp().live.find(fake::word(efbuff));
		if (still != fake::efmp().live.end() &&
		    still->second.owner == fake::Owner::kPlatform)
			fake::efmp().drop(efbuff);
		kernel().run_thread();
		for (Sock *s : { &all, &some })
			while (s->sk && s->queued()) {
				msghdr message;
				u8 name[128];
				message.name = name;
				mox_packet_recvmsg(&s->socket, &message, 65536, 0);
			}
	});
}
