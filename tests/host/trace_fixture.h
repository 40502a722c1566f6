// SPDX-License-Identifier: GPL-2.0-only
// For tests of traces: readers that start and stop them, and the records that they get.
#pragma once

#include "capture_fixture.h"
#include "receive/arrivals.hpp"
#include "receive/tracer.hpp"

// The port of a reader of traces.
inline constexpr u32 kReader = 0x501;

template <typename Base> class Tracing : public Base {
protected:
	void TearDown() override
	{
		stop_all();
		Base::TearDown();
	}
	// The result of TRACE_START and TRACE_STOP; the explanation is in `explanation`.
	int start(const Bytes &criteria = {}, u32 reader = kReader)
	{
		return request(MOX_CAPTURE_CMD_TRACE_START, criteria, reader);
	}
	int stop(u32 reader = kReader) { return request(MOX_CAPTURE_CMD_TRACE_STOP, {}, reader); }
	// The records that a reader has got since the last call; those of others stay.
	static Messages records(u32 reader = kReader)
	{
		Messages all;
		auto &answers = kernel().capture_answers;
		for (size_t i = 0; i < answers.size();) {
			if (answers[i].client != reader) {
				i++;
				continue;
			}
			for (const capture::Message &message :
			     capture::decode(answers[i].message)) {
				EXPECT_EQ(message.command, MOX_CAPTURE_CMD_TRACE);
				EXPECT_EQ(message.client, reader);
				EXPECT_EQ(message.sequence, 0u) << "an event answers no request";
				EXPECT_EQ(message.flags, 0u);
				all.push_back(message);
			}
			answers.erase(answers.begin() + static_cast<long>(i));
		}
		return all;
	}
	// A frame through the hook of a location, which stays on its queue if it was queued. The
	// hook's answer.
	u32 hook_only(u32 location, const packets::Meta &meta, const Bytes &bytes, int cpu = 0)
	{
		packets::Meta m = meta;
		if (!m.source)
			m.source = this->port;
		void *e = packets::make(m, bytes);
		const u32 answer = this->hook(kHooks[location - 1].func, e, cpu);
		auto it = efmp().live.find(fake::word(e));
		if (it != efmp().live.end() && it->second.owner == fake::Owner::kPlatform)
			efmp().drop(e);
		return answer;
	}
	// Another tick of the kernel's clock: each CPU may record again.
	static void next_tick() { kernel().clock_ticks++; }

	std::string explanation;

private:
	int request(u8 command, const Bytes &attributes, u32 reader)
	{
		explanation.clear();
		const seam_request req{ &fake::init_net(), reader, 7, 0, &explanation };
		const int result = mox_capture_do(command, exact(attributes).get(),
						  attributes.size(), &req);
		EXPECT_TRUE(kernel().held.empty());
		if (result == 0)
			readers_.insert(reader);
		return result;
	}
	void stop_all()
	{
		for (u32 reader : readers_)
			mox_capture_client_gone(reader);
		EXPECT_FALSE(tracer_on());
	}

	std::set<u32> readers_;
};

using TraceTest = Tracing<CaptureTest>;
