// SPDX-License-Identifier: GPL-2.0-only
// What a received frame costs inside the module: in the hook, in the copy thread behind it, and in recvmsg.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <sys/socket.h>
#include <sys/wait.h>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "bench.hpp"
#include "bench_shapes.hpp"
#include "bench_support.hpp"
#include "mox_packet.h"

namespace bench {

namespace {

constexpr unsigned kListeners[] = { 1, 8, 64, 256, 1024 };
constexpr unsigned kMost = 4096;
constexpr unsigned kBatch = 256;

/// Instructions of the loop around a measured call, and of the functions that stand in for the platform's.
struct Overhead {
	double first = 0, rest = 0, clone = 0, free = 0;
};

class Ruler {
public:
	Ruler()
	{
		quiet_platform(lab_);
		make_interface(lab_, kSource);
		const Frame frame{ plain_frame(0x88b6), kSource };
		moxlab_measure empty = best(MOXLAB_MEASURE_EMPTY, frame, kBatch, false);
		overhead_.first = double(empty.first_ns);
		overhead_.rest = double(empty.rest_ns) / (kBatch - 1);
		overhead_.clone = double(best(MOXLAB_MEASURE_CLONE, frame, kBatch, false).rest_ns) /
				  kBatch;
		overhead_.free = double(best(MOXLAB_MEASURE_FREE, frame, kBatch, false).rest_ns) /
				 kBatch;
	}

	moxlab::Device &lab() { return lab_; }
	const Overhead &overhead() const { return overhead_; }

	/// One batch.
	moxlab_measure once(uint32_t what, const Frame &frame, unsigned count, bool draining)
	{
		moxlab_measure request{};
		request.what = what;
		request.point = MOXLAB_POINT_LEV2;
		request.count = count;
		request.draining = draining;
		request.frame = reinterpret_cast<uintptr_t>(frame.bytes.data());
		request.frame_len = uint32_t(frame.bytes.size());
		request.src_ifindex = frame.source;
		return lab_.measure(request);
	}

	/// The least of several: a timer interrupt falls into one or the other.
	moxlab_measure best(uint32_t what, const Frame &frame, unsigned count, bool draining,
			    const std::vector<Fd> *readers = nullptr)
	{
		moxlab_measure least{};
		for (unsigned n = 0; n < kRepeats; ++n) {
			moxlab_measure out = once(what, frame, count, draining);
			if (readers)
				drain_all(*readers, out.queued + draining);
			if (pause_us_)
				::usleep(pause_us_);
			if (!n) {
				least = out;
				continue;
			}
			least.first_ns = std::min(least.first_ns, out.first_ns);
			least.rest_ns = std::min(least.rest_ns, out.rest_ns);
			least.deliver_ns = std::min(least.deliver_ns, out.deliver_ns);
		}
		return least;
	}

	/// Time between two batches of best().
	void pause(unsigned us) { pause_us_ = us; }

	double rest(const moxlab_measure &m) const
	{
		const bool cloned = m.queued;
		return double(m.rest_ns) / (m.count - 1) - overhead_.rest -
		       (cloned ? overhead_.clone : 0);
	}
	double first(const moxlab_measure &m) const
	{
		return double(m.first_ns) - overhead_.first - (m.queued ? overhead_.clone : 0);
	}
	double delivery(const moxlab_measure &m) const
	{
		return double(m.deliver_ns) / (m.queued - 1) - overhead_.free;
	}

	/// Every reader must have got as many frames as were sent: else something else was measured.
	static void drain_all(const std::vector<Fd> &readers, unsigned each)
	{
		for (const Fd &reader : readers) {
			const unsigned got = drain(reader.get());
			if (got != each)
				throw std::runtime_error("a listener got " + std::to_string(got) +
							 " of " + std::to_string(each) + " frames");
		}
	}

private:
	static constexpr unsigned kRepeats = 5;
	unsigned pause_us_ = 0;
	moxlab::Device lab_;
	Overhead overhead_;
};

Figure figure(const char *what, const char *shape, unsigned rules, double value)
{
	return { "receive", what, shape, rules, value };
}

void measure_shape(Ruler &ruler, const Shape &shape, unsigned wanted, unsigned rules,
		   std::vector<Fd> &listeners)
{
	auto show = [&](const char *what, double value) {
		report(figure(what, shape.name, rules, value));
	};
	const Frame miss = shape.unwanted(), hit = shape.wanted(wanted);
	make_interface(ruler.lab(), hit.source);
	moxlab_measure m = ruler.best(MOXLAB_MEASURE_HOOK, miss, kBatch, false);
	if (m.queued)
		throw std::runtime_error(std::string("a frame that no rule matches was taken: ") +
					 shape.name);
	show("hook, unwanted", ruler.rest(m));

	std::vector<Fd> readers;
	readers.push_back(std::move(listeners[wanted]));
	m = ruler.best(MOXLAB_MEASURE_HOOK, hit, kBatch, true, &readers);
	if (m.queued != kBatch)
		throw std::runtime_error(std::string("a frame was not taken: ") + shape.name);
	show("hook, wanted by one, thread running", ruler.rest(m));
	m = ruler.best(MOXLAB_MEASURE_HOOK, hit, kBatch, false, &readers);
	show("hook, wanted by one, thread woken", ruler.rest(m));
	show("hook, wanted by one, wakes the thread", ruler.first(m));
	show("delivery, wanted by one", ruler.delivery(m));
	listeners[wanted] = std::move(readers[0]);
}

void shapes(Ruler &ruler, const std::vector<std::string> &only)
{
	for (const Shape &shape : kShapes) {
		if (!only.empty() && std::find(only.begin(), only.end(), shape.name) == only.end())
			continue;
		std::vector<Fd> listeners;
		for (unsigned rules : kListeners) {
			while (listeners.size() < rules)
				listeners.push_back(
					listener(shape.items(unsigned(listeners.size()))));
			measure_shape(ruler, shape, rules / 2, rules, listeners);
		}
	}
	std::vector<Fd> listeners;
	const unsigned rules = kAllTypesCount * kOfEachType;
	while (listeners.size() < rules)
		listeners.push_back(listener(kAllTypes.items(unsigned(listeners.size()))));
	// The middle one of the ninth type, source port.
	measure_shape(ruler, kAllTypes, 8 * kOfEachType + kOfEachType / 2, rules, listeners);
}

/// Rules chosen to hurt, as many as a user may have sockets and the budgets allow.
void hurting(Ruler &ruler)
{
	for (const Shape &shape : kHurting) {
		std::vector<Fd> listeners;
		bool allowed = true;
		for (unsigned most : { 1024u, kMost }) {
			while (allowed && listeners.size() < most) {
				std::optional<Fd> fd = listener_within_budget(
					shape.items(unsigned(listeners.size())));
				if (fd)
					listeners.push_back(std::move(*fd));
				else
					allowed = false;
			}
			const unsigned rules = unsigned(listeners.size());
			moxlab_measure m = ruler.best(MOXLAB_MEASURE_HOOK, shape.unwanted(), 16,
						      false);
			if (m.queued)
				throw std::runtime_error(std::string("the frame was taken: ") +
							 shape.name);
			report(figure("hook, unwanted, rules chosen to hurt", shape.name, rules,
				      ruler.rest(m)));
			if (!allowed)
				break;
		}
	}
}

/// Frames that every listener asks for.
void further(Ruler &ruler)
{
	for (size_t length : { 64, 1500 }) {
		const Frame frame{ plain_frame(0x88b6, length), kSource };
		std::vector<Fd> listeners;
		double one = 0;
		for (unsigned count : kListeners) {
			while (listeners.size() < count)
				listeners.push_back(
					listener({ value16(PACKET_ETH_PROT_EQUAL, 0x88b6) }));
			// 256 to one, 17 to each of 1,024: the buffers must all have room in memory.
			const unsigned batch = std::max(
				5u, std::min(kBatch, 17408 / count / (length > 64 ? 4u : 1u)));
			moxlab_measure m = ruler.best(MOXLAB_MEASURE_HOOK, frame, batch, false,
						      &listeners);
			const std::string bytes = ", " + std::to_string(length) + " bytes";
			if (count == 1)
				one = ruler.delivery(m);
			report(figure(("delivery, wanted by all" + bytes).c_str(), "EtherType",
				      count, ruler.delivery(m)));
			if (count > 1)
				report(figure(("delivery, each further socket" + bytes).c_str(),
					      "EtherType", count,
					      (ruler.delivery(m) - one) / (count - 1)));
		}
	}
}

/// A "moxctl trace" of one EtherType, while the object lives.
class Trace {
public:
	explicit Trace(uint16_t type)
	{
		char text[8];
		std::snprintf(text, sizeof(text), "0x%04x", type);
		::unlink(kRecords);
		child_ = ::fork();
		if (child_ < 0)
			die("fork");
		if (!child_) {
			const int out = ::open(kRecords, O_WRONLY | O_CREAT | O_TRUNC, 0600);
			if (out >= 0 && ::dup2(out, 1) == 1)
				::execlp("moxctl", "moxctl", "trace", "--ethertype", text, nullptr);
			::_exit(127);
		}
	}
	~Trace()
	{
		if (child_ > 0) {
			::kill(child_, SIGKILL);
			::waitpid(child_, nullptr, 0);
		}
	}
	Trace(const Trace &) = delete;

	static bool has_records() { return std::ifstream(kRecords).peek() != EOF; }
	/// The program ends well only if it got every record.
	void finish()
	{
		int status = 0;
		::kill(child_, SIGINT);
		::waitpid(std::exchange(child_, 0), &status, 0);
		if (status)
			throw std::runtime_error("the trace has lost records");
	}

private:
	static constexpr const char *kRecords = "/tmp/bench-trace";
	pid_t child_;
};

/// What an armed trace costs frames that it does not follow, and those that it does.
void traces(Ruler &ruler)
{
	// Less than what a CPU may record in a tick, hook and delivery; ticks of 10 ms at most lie in between.
	constexpr unsigned kFew = 12;
	constexpr uint16_t kFollowed = 0x88b6, kOther = 0x88b7, kUnwanted = 0x88b8;
	auto measure = [&](uint16_t type, unsigned count, const char *trace) {
		const Frame frame{ plain_frame(type), kSource };
		std::vector<Fd> readers;
		if (type != kUnwanted)
			readers.push_back(listener({ value16(PACKET_ETH_PROT_EQUAL, type) }));
		const moxlab_measure m = ruler.best(MOXLAB_MEASURE_HOOK, frame, count, false,
						    &readers);
		const std::string end = std::string(", trace of ") + trace;
		report(figure(((readers.empty() ? "hook, unwanted" : "hook, wanted by one") + end)
				      .c_str(),
			      "EtherType", 1, ruler.rest(m)));
		if (!readers.empty())
			report(figure(("delivery, wanted by one" + end).c_str(), "EtherType", 1,
				      ruler.delivery(m)));
	};
	auto armed = [&](Trace &, uint16_t type) {
		const Frame frame{ plain_frame(type), kSource };
		for (int tries = 0; !Trace::has_records(); ++tries) {
			if (tries == 200)
				throw std::runtime_error("moxctl trace shows no frame");
			ruler.once(MOXLAB_MEASURE_HOOK, frame, 2, false);
			::usleep(50000);
		}
	};
	Fd unrelated = listener({ value16(PACKET_ETH_PROT_EQUAL, 0x88b5) });
	ruler.pause(20000);
	for (const uint16_t type : { kFollowed, kUnwanted }) {
		Trace trace(type);
		armed(trace, type);
		measure(type, kFew, "these frames");
		if (type == kFollowed) {
			measure(kUnwanted, kBatch, "other frames");
			measure(kOther, kBatch, "other frames");
		}
		trace.finish();
	}
	ruler.pause(0);
}

} // namespace

void receive_instructions(const std::vector<std::string> &only)
{
	Owner owner("mox_ef_socket");
	allow_many_files(kMost);
	Ruler ruler;
	std::printf("the stand-in's own, which is taken off: clone %.1f, free %.1f\n",
		    ruler.overhead().clone, ruler.overhead().free);
	shapes(ruler, only);
	if (!only.empty())
		return;
	hurting(ruler);
	further(ruler);
	traces(ruler);
}

} // namespace bench
