// SPDX-License-Identifier: GPL-2.0-only
#include "limits/measure.h"

#include <algorithm>
#include <cstdio>

#include <sys/resource.h>
#include <sys/socket.h>

#include "moxlab.hpp"

namespace vm {

namespace {

constexpr unsigned kRepeats = 5;
constexpr uint32_t kPeriod = 250000; // ns between two looks at bottom halves

moxlab::Device &device()
{
	static moxlab::Device opened;
	return opened;
}

moxlab_measure batch(uint32_t what, const lab::Frame &frame)
{
	moxlab_measure request{};
	request.what = what;
	request.point = MOXLAB_POINT_LEV2;
	request.count = kBatch;
	request.frame = reinterpret_cast<uintptr_t>(frame.bytes.data());
	request.frame_len = uint32_t(frame.bytes.size());
	request.src_ifindex = frame.src_ifx;
	return device().measure(request);
}

void least(uint64_t &value, uint64_t other)
{
	value = std::min(value, other);
}

} // namespace

void allow_files(unsigned count)
{
	const rlimit room{ count + 64, count + 64 };
	ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &room), 0);
}

Rule many(uint16_t type, unsigned first, unsigned count)
{
	const unsigned width = contract::width(type);
	Rule rule{ type, uint16_t(width), uint16_t(count), Bytes(size_t(width) * count) };
	for (unsigned n = 0; n < count; ++n) {
		uint8_t *value = &rule.elements[size_t(width) * n];
		value[0] = uint8_t((first + n) >> 8);
		value[1] = uint8_t(first + n);
		if (width == 6)
			value[5] = 2;
	}
	return rule;
}

lab::Frame from_mac(lab::Frame frame, unsigned n)
{
	const Bytes value = many(PACKET_SRC_MAC_EQUAL, n, 1).elements;
	std::copy(value.begin(), value.end(), frame.bytes.begin() + 6);
	return frame;
}

FrameCost frame_cost(const lab::Frame &frame, const std::vector<Socket *> &readers)
{
	moxlab_measure best{}, empty{};
	for (unsigned n = 0; n < kRepeats; ++n) {
		const moxlab_measure out = batch(MOXLAB_MEASURE_HOOK, frame);
		const moxlab_measure nothing = batch(MOXLAB_MEASURE_EMPTY, frame);
		for (Socket *reader : readers)
			EXPECT_EQ(reader->drain(), out.queued);
		if (!n) {
			best = out;
			empty = nothing;
		}
		least(best.rest_ns, out.rest_ns);
		least(best.deliver_ns, out.deliver_ns);
		least(empty.rest_ns, nothing.rest_ns);
	}
	FrameCost cost;
	cost.hook = (double(best.rest_ns) - double(empty.rest_ns)) / (kBatch - 1);
	cost.queued = best.queued;
	if (best.queued > 1)
		cost.delivery = double(best.deliver_ns) / (best.queued - 1);
	return cost;
}

double median(std::vector<double> values)
{
	std::sort(values.begin(), values.end());
	return values[values.size() / 2];
}

double longest_ms(const std::function<void()> &act)
{
	moxlab_latency latency{};
	latency.op = MOXLAB_LATENCY_START;
	latency.period_ns = kPeriod;
	device().latency(latency);
	act();
	latency.op = MOXLAB_LATENCY_STOP;
	latency = device().latency(latency);
	return latency.runs ? double(latency.longest_ns) / 1e6 : kNotMeasured;
}

void show(const std::string &what, double value, const char *unit)
{
	std::printf("  %-60s %12.2f %s\n", what.c_str(), value, unit);
}

} // namespace vm
