// SPDX-License-Identifier: GPL-2.0-only
// Any efbuffs, headers and frames, through a hook and delivery, under filters and traces that are
// about these frames. What lies behind the frame's end, or behind what a hook may read, is
// poisoned.
#include "capture_fixture.h"
#include "fake/backlog.h"
#include "fixture_case.h"
#include "frame_bytes.h"
#include "surroundings.h"

namespace {

int passes(void *)
{
	return 0;
}

int drops(void *)
{
	return 1;
}

class Frames : public CaptureTest {
public:
	void play(fuzz::Input &input)
	{
		fuzz::World world(input);
		const u8 from = input.byte();
		location_ = 1 + from % 8;
		const bool capturing = location_ != 5 && location_ != 6;
		if (capturing)
			open(input);
		const u8 watched = input.byte();
		frame_ = fuzz::any_frame(input);
		frame_.meta.source = from & 128 ? 0 : port;
		frame_.meta.dest = watched & 64 ? port : 0;
		if (watched & 1)
			receive(message(record(MOX_MSG_FILTER, fuzz::filter_on(input, frame_))));
		for (u32 traces = watched / 2 % 4; traces != 0; traces--)
			trace(input, traces);
		if (watched & 8)
			services(input.byte());
		if (watched & 16)
			fake::max_backlog = static_cast<int8_t>(input.byte()) *
					    (watched & 1 ? 64 : 1);
		if (watched & 128)
			age();
		const u32 repeats = watched & 32 ? repeats_of(input.byte()) : 1;
		for (u32 n = 0; n < repeats; n++)
			hook(input.byte());
		// A signal to the thread, which nothing sends, and a second look.
		if (watched & 128)
			kernel().wait_script = { [] { return -ERESTART; } };
		kernel().run_thread();
		receive_all();
		fake::max_backlog = fake::kBacklogDefault;
		for (Sock &s : socks_)
			if (s.sk)
				s.release();
		for (const auto &answer : kernel().capture_answers)
			capture::decode(answer.message);
	}

private:
	// One socket for all frames, and one with a condition.
	void open(fuzz::Input &input)
	{
		const u8 how = input.byte();
		const u32 treatment = PACKET_COPY + how % 4;
		if (all_.create(how & 8 ? kRaw : kDgram) != 0 || some_.create(kRaw) != 0)
			return;
		all_.add(PACKET_ALL);
		all_.set(PACKET_TREATMENT, treatment);
		all_.set(PACKET_LOCATION, location_);
		const u16 type = input.byte() % 22;
		some_.add(type, 1, input.bytes(contract::width(type % contract::kTypes)));
		some_.set(PACKET_TREATMENT, 1 + how / 16 % 3);
		some_.set(PACKET_LOCATION, location_);
		if (!(how & 128))
			return;
		const u8 socket = input.byte();
		all_.sk->has_filter = socket & 1;
		all_.sk->verdict = static_cast<int>(input.byte()) - 1;
		kernel().nonlinear_skbs = socket & 2;
		all_.sk->rcvbuf = socket & 4 ? 600 : 212992;
		some_.sk->stamped = all_.sk->stamped = socket & 8;
		mox_packet_poll(&all_.socket);
		kernel().need_resched = socket & 16;
		if (socket >= 224 && socket & 2)
			kernel().fault = [](Fail call) { return call == Fail::kSkbTrim; };
		if (socket & 32)
			all_.set(PACKET_CTRL_INFO, 1);
		for (u32 n = 2; socket > 248 && n < std::size(socks_); n++)
			if (socks_[n].create(kDgram) == 0) {
				socks_[n].add(PACKET_ALL);
				socks_[n].set(PACKET_TREATMENT, PACKET_COPY);
				socks_[n].set(PACKET_LOCATION, location_);
			}
	}

	void trace(fuzz::Input &input, u32 client)
	{
		std::string text;
		const seam_request request{ &fake::init_net(), client, 99, 0, &text };
		const Bytes attributes = fuzz::trace_of(input, frame_, location_);
		mox_capture_do(MOX_CAPTURE_CMD_TRACE_START, exact(attributes).get(),
			       attributes.size(), &request);
	}

	// Few mostly; hardly ever more than the copy thread delivers in one go.
	static u32 repeats_of(u8 how) { return how == 255 ? 1100 : how > 240 ? 34 : 1 + how % 8; }

	// Hooks and delivery have counted for long: the lower words are about to overflow.
	static void age()
	{
		kernel().monotonic_ns = 0;
		for (int cpu = 0; cpu < kernel().cpu_ids; cpu++)
			for (int number = 0; number < CPU_QUEUES; number++) {
				hook_ledger &hook = kernel().hook_cpus[cpu].hooks[number];
				delivery_ledger &behind = kernel().hook_cpus[cpu].delivered[number];
				for (mox_total *total : { &hook.seen, &hook.wanted, &hook.cloned,
							  &behind.kept, &behind.offers })
					total->low = ~1u;
			}
	}

	void services(u8 which)
	{
		int (*const entries[])(void *) = { passes, drops };
		for (u32 instance : { 0u, 3u }) {
			if (which & 2)
				efmp().publish(32, instance,
					       reinterpret_cast<void *>(entries[which & 1]));
			which /= 4;
		}
	}

	void hook(u8 how)
	{
		const HookTraits &hook =
			kHooks[location_ == PACKET_WLAN_LOC ? 7 + how / 2 % 2 : location_ - 1];
		void *efbuff = packets::make(frame_.meta, frame_.bytes);
		kernel().monotonic_ns += u64{ how } << 20;
		kernel().clock_ticks += how / 64;
		efmp().call(hook.func, efbuff, hook.taken, how & 1);
		const auto still = efmp().live.find(fake::word(efbuff));
		if (still != efmp().live.end() && still->second.owner == fake::Owner::kPlatform)
			efmp().drop(efbuff);
	}

	void receive_all()
	{
		for (Sock &s : socks_)
			for (size_t left = s.sk ? s.queued() : 0; left != 0; left--) {
				msghdr message;
				u8 name[128];
				fake::UserBuf record(sizeof(mox_packet_ctrl_info));
				message.name = name;
				message.control = record.data();
				message.controllen = record.bytes.size();
				mox_packet_recvmsg(&s.socket, &message, 65536, 0);
			}
	}

	u32 location_ = 0;
	fuzz::Frame frame_;
	// All frames, one condition, and more than delivery serves in a turn.
	Sock socks_[70];
	Sock &all_ = socks_[0], &some_ = socks_[1];
};

} // namespace

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<Frames>::run([&](Frames &frames) { frames.play(input); });
}
