// SPDX-License-Identifier: GPL-2.0-only
// A case of calls, frames, requests and dumps that run in the middle of each other. Where a call
// holds no lock, another CPU can do anything; where it holds only locks that sleep, a hook can run.
#pragma once

#include "capture_fixture.h"
#include "input.h"
#include "oracle/near_frames.h"
#include "rest_check.h"

namespace fuzz {

class Play : public CaptureTest {
public:
	// Plays the case; at rest the libraries are compared with the reference.
	void run(Input &input);

protected:
	void SetUp() override;
	void TearDown() override;

private:
	static constexpr int kSockets = 5, kSteps = 48;
	static constexpr int kDeepest = 3; // calls in the middle of each other

	enum class Place { kAnywhere, kHookOnly };
	struct Action {
		const char *name;
		void (Play::*act)(int id);
		u32 chances;
	};

	u32 below(u32 n) { return u32(rng_.below(n)); }
	bool there(int id) const { return socks_[id] != nullptr; }
	void step();
	void act(Place place);
	void at_point(Point point);
	void on_other_cpu(Place place);
	bool hook_only_locks() const;
	void plan();
	bool fails(Fail call);
	void rest();

	// play_calls.cc: what a process or the kernel does.
	void create(int id);
	void release(int id);
	void set_treatment(int id);
	void set_location(int id);
	void add_rule(int id);
	void del_rule(int id);
	void crowd(int id);
	void bind(int id);
	void receive(int id);
	void send(int id);
	void query(int id);
	void option(int id);
	void look(int id);
	void frame(int id);
	void deliver(int id);
	void reload(int);
	// play_operator.cc: what others do.
	void request(int);
	void dump(int);
	void trace(int);
	void diagnose(int);
	void service(int);
	void surroundings(int);
	void do_capture(u8 command, const Bytes &attributes, u32 client = kClient);

	Bytes element(u32 type);
	const HookTraits &hook_for(int id);
	void learn(int id);
	void receive_request(const Bytes &record);
	void compare_answer(const HookTraits &hook, const Bytes &content);

	const Action &chosen();

	static const Action kActions[22];

	oracle::Choices rng_;
	std::vector<std::unique_ptr<Sock>> socks_;
	std::array<std::vector<oracle::Item>, kSockets> known_; // rules, as they were at rest
	std::array<int, kSockets> calls_{};                     // that run on a socket
	std::unique_ptr<Reader> reader_;
	bool filling_ = false, delivering_ = false, unloading_ = false;
	int depth_ = 0;
	u32 until_other_ = 0; // points before another CPU acts; 0: none does
	u32 until_failure_ = 0;
	u32 until_signal_ = 0; // points before a fatal signal for the call
	bool compares_each_ = true;
	const bool shown_ = getenv("MOX_FUZZ_STEPS") != nullptr;
	RestCheck check_;
};

} // namespace fuzz
