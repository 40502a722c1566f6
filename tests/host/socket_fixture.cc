// SPDX-License-Identifier: GPL-2.0-only
#include "socket_fixture.h"

namespace {

const char *name_of(fake::LockKind kind)
{
	static const char *const names[] = { "none",         "ns",       "ns-nested", "request",
					     "dump",         "sock",     "change",    "bind",
					     "rule",         "hook",     "lib",       "queue",
					     "rcvq",         "mutex",    "registry",  "closed",
					     "tracer-mutex", "arrivals", "tracer" };
	return names[static_cast<int>(kind)];
}

} // namespace

LockTrace::LockTrace()
{
	arm();
}

LockTrace::~LockTrace()
{
	kernel().at.erase(Point::kLock);
	kernel().at.erase(Point::kUnlock);
}

void LockTrace::arm()
{
	kernel().at.watch(Point::kLock, [this](const void *lock) {
		std::string name = name_of(kernel().held.back().second);
		names_[lock] = name;
		steps.push_back("+" + name);
		if (look)
			look(steps.back());
	});
	kernel().at.watch(Point::kUnlock, [this](const void *lock) {
		// The socket lock's end names the socket.
		auto it = names_.find(lock);
		steps.push_back("-" + (it == names_.end() ? "sock" : it->second));
		if (look)
			look(steps.back());
	});
}

void SocketTest::SetUp()
{
	ModuleTest::SetUp();
	other_ns = ::net{};
	other_ns.name = "other";
	fake::Kernel::init_lock(&other_ns.lock, fake::LockKind::kNsMutex);
	other_ns.list_ready = true;
}

void SocketTest::TearDown()
{
	EXPECT_EQ(other_ns.refs, 1) << "references on the other namespace";
	EXPECT_EQ(other_ns.inuse, 0);
	EXPECT_TRUE(other_ns.list.empty());
	ModuleTest::TearDown();
}

void CreatedSocketTest::SetUp()
{
	SocketTest::SetUp();
	debug();
	ASSERT_EQ(s.create(), 0);
	lines();
}

void CreatedSocketTest::TearDown()
{
	if (s.sk)
		s.release();
	SocketTest::TearDown();
}

Strings SocketTest::lines()
{
	const std::string tag = tagged("");
	Strings out;
	for (const fake::Line &line : kernel().log) {
		if (line.level >= 0)
			out.push_back("<" + std::to_string(line.level) + ">" + line.text);
		else if (line.text.compare(0, tag.size(), tag) == 0)
			out.push_back(line.text.substr(tag.size()));
		else
			out.push_back("untagged: " + line.text);
	}
	kernel().log.clear();
	return out;
}

void SocketTest::on_other_cpu(const std::function<void()> &act)
{
	auto held = std::move(kernel().held);
	int bh_disabled = kernel().bh_disabled;
	kernel().held.clear();
	kernel().bh_disabled = 0;
	act();
	EXPECT_TRUE(kernel().held.empty());
	EXPECT_EQ(kernel().bh_disabled, 0);
	kernel().held = std::move(held);
	kernel().bh_disabled = bh_disabled;
}

size_t SocketTest::interleave(Sock &s, const std::function<void()> &prepare,
			      const std::function<void()> &call, const std::function<void()> &other,
			      const std::function<void()> &check)
{
	size_t waited = 0;
	for (size_t step = 0;; step++) {
		SCOPED_TRACE("at lock step " + std::to_string(step));
		prepare();
		size_t at = 0;
		bool played = false, late = false;
		auto visit = [&](const void *) {
			if (at++ != step)
				return;
			if (s.sk->lock.writers) {
				late = true;
			} else {
				played = true;
				on_other_cpu(other);
			}
		};
		// Only one of the steps acts, and the last round comes to none.
		for (Point point : { Point::kLocking, Point::kLock, Point::kUnlock })
			kernel().at.watch(point, visit);
		call();
		for (Point point : { Point::kLocking, Point::kLock, Point::kUnlock })
			kernel().at.erase(point);
		if (late) {
			waited++;
			other();
		}
		if (!late && !played)
			return waited;
		check();
		if (testing::Test::HasFailure())
			return waited;
	}
}
