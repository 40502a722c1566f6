// SPDX-License-Identifier: GPL-2.0
// Any efbuff, header and frame, through a hook and delivery. What lies behind the frame's end, or
// behind what a hook may read, is poisoned.
#include "capture_fixture.h"
#include "fixture_case.h"

namespace {

// The reference reads as much of the frame as the platform promises to be there.
constexpr size_t kMostBytes = 512;

class Frames : public CaptureTest {
public:
	// The operator's filter for debug lines, and a trace.
	void watch(fuzz::Input &input, bool filter, bool trace)
	{
		if (filter) {
			Bytes body = input.bytes(sizeof(mox_packet_filter));
			body.resize(sizeof(mox_packet_filter));
			body[0] = 1;
			ask(MOX_MSG_FILTER, body);
		}
		if (trace)
			ask_one(MOX_CAPTURE_CMD_TRACE_START, input.bytes(input.byte() % 64));
	}
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Frames>::run([&](Frames &frames) {
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
		const u8 watched = input.byte();
		frames.watch(input, watched & 1, watched & 2);
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
