// SPDX-License-Identifier: GPL-2.0-only
// The requests that start and end traces, and readers that close their socket.
#include "trace_fixture.h"

namespace {

using namespace packets;

class CaptureTrace : public TraceTest {
protected:
	void SetUp() override
	{
		TraceTest::SetUp();
		s.capture(PACKET_LEV2_LOC, PACKET_COPY);
	}
	void TearDown() override
	{
		s.release();
		TraceTest::TearDown();
	}
	// How many records each of these readers gets of a frame at the hook.
	std::vector<size_t> of_a_frame(const ::Bytes &bytes, std::vector<u32> readers)
	{
		std::vector<size_t> counts;
		kernel().capture_answers.clear();
		next_tick();
		hook_only(PACKET_LEV2_LOC, { .kind = 1, .outer_tci = 100 }, bytes);
		for (u32 reader : readers)
			counts.push_back(records(reader).size());
		drain();
		kernel().capture_answers.clear();
		return counts;
	}
	bool followed(const ::Bytes &bytes) { return of_a_frame(bytes, { kReader })[0] == 1; }

	Sock s;
	const ::Bytes udp = eth(0x0800) + ipv4(17, { 192, 0, 2, 7 }, ports(1000, 53, 30));
	const ::Bytes tcp6 = eth(0x86dd, 7, 8) + ipv6(6, addr6(0x20, 0x01, 7), ports(2000, 80, 20));
};

// Each attribute gets to its criterion.
TEST_F(CaptureTrace, start__each_criterion)
{
	using Pair = std::pair<::Bytes, ::Bytes>;
	const auto address = [](const ::Bytes &bytes, int prefix = -1) {
		return attribute(MOX_CAPTURE_REQUEST_ADDRESS, bytes) +
		       (prefix < 0 ? ::Bytes{}
				   : attribute<u8>(MOX_CAPTURE_REQUEST_PREFIX,
						   static_cast<u8>(prefix)));
	};
	// What follows the UDP frame and not the TCP one, and the other way round.
	const struct {
		const char *name;
		Pair criteria;
	} rows[] = {
		{ "MAC",
		  { attribute(MOX_CAPTURE_REQUEST_MAC, ::Bytes{ 2, 0, 0, 0, 0, 1 }),
		    attribute(MOX_CAPTURE_REQUEST_MAC, ::Bytes{ 2, 0, 0, 0, 0, 8 }) } },
		{ "EtherType",
		  { attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x0800),
		    attribute<u16>(MOX_CAPTURE_REQUEST_ETHER_TYPE, 0x86dd) } },
		{ "address", { address({ 192, 0, 2, 7 }), address(addr6(0x20, 0x01, 7)) } },
		{ "prefix",
		  { address({ 192, 0, 2, 99 }, 24), address(addr6(0x20, 0x01, 99), 64) } },
		{ "all", { address({ 1, 1, 1, 1 }, 0), address(::Bytes(16), 0) } },
		{ "protocol",
		  { attribute<u8>(MOX_CAPTURE_REQUEST_IP_PROTOCOL, 17),
		    attribute<u8>(MOX_CAPTURE_REQUEST_IP_PROTOCOL, 6) } },
		{ "port",
		  { attribute<u16>(MOX_CAPTURE_REQUEST_PORT, 53),
		    attribute<u16>(MOX_CAPTURE_REQUEST_PORT, 2000) } },
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		ASSERT_EQ(start(row.criteria.first), 0);
		EXPECT_TRUE(followed(udp));
		EXPECT_FALSE(followed(tcp6));
		ASSERT_EQ(start(row.criteria.second), 0) << "replaces the filter";
		EXPECT_FALSE(followed(udp));
		EXPECT_TRUE(followed(tcp6));
	}
	// What both frames have.
	const struct {
		const char *name;
		::Bytes right, wrong;
	} both[] = {
		{ "location", attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, PACKET_LEV2_LOC),
		  attribute<u32>(MOX_CAPTURE_REQUEST_LOCATION, PACKET_LOCAL_LOC) },
		{ "interface", attribute<u32>(MOX_CAPTURE_REQUEST_IFINDEX, 7),
		  attribute<u32>(MOX_CAPTURE_REQUEST_IFINDEX, 8) },
		{ "VLAN", attribute<u16>(MOX_CAPTURE_REQUEST_VLAN, 100),
		  attribute<u16>(MOX_CAPTURE_REQUEST_VLAN, 0) },
	};
	for (const auto &row : both) {
		SCOPED_TRACE(row.name);
		ASSERT_EQ(start(row.right), 0);
		EXPECT_TRUE(followed(udp));
		ASSERT_EQ(start(row.wrong), 0);
		EXPECT_FALSE(followed(udp));
	}
}

TEST_F(CaptureTrace, start__the_fifth_is_refused)
{
	for (u32 reader = 1; reader <= 4; reader++)
		ASSERT_EQ(start({}, reader), 0);
	EXPECT_EQ(start({}, 5), -EBUSY);
	EXPECT_EQ(explanation, "too many traces go on: end one of them");
	EXPECT_EQ(start({}, 4), 0) << "a restart is not one more";
	EXPECT_EQ(explanation, "");
	EXPECT_EQ(of_a_frame(udp, { 1, 2, 3, 4, 5 }), (std::vector<size_t>{ 1, 1, 1, 1, 0 }));
	ASSERT_EQ(stop(2), 0);
	EXPECT_EQ(start({}, 5), 0);
	EXPECT_EQ(of_a_frame(udp, { 1, 2, 3, 4, 5 }), (std::vector<size_t>{ 1, 0, 1, 1, 1 }));
}

TEST_F(CaptureTrace, start__without_memory)
{
	kernel().fail(Fail::kVzalloc);
	EXPECT_EQ(start(), -ENOMEM);
	EXPECT_FALSE(followed(udp));
	EXPECT_EQ(stop(), -ENOENT);
}

TEST_F(CaptureTrace, start__attributes_that_are_wrong)
{
	const struct {
		::Bytes bytes;
		int error;
		const char *reason;
	} rows[] = {
		{ attribute<u8>(MOX_CAPTURE_REQUEST_PREFIX, 8), -EINVAL,
		  "prefix: without an address" },
		{ attribute(MOX_CAPTURE_REQUEST_ADDRESS, ::Bytes(4)) +
			  attribute<u8>(MOX_CAPTURE_REQUEST_PREFIX, 33),
		  -EINVAL, "prefix: longer than the address" },
		{ attribute(MOX_CAPTURE_REQUEST_ADDRESS, ::Bytes(8)), -ERANGE,
		  "address: neither 4 nor 16 bytes" },
		{ attribute(MOX_CAPTURE_REQUEST_MAC, ::Bytes(5)), -ERANGE, "mac: not 6 bytes" },
		{ attribute<u32>(MOX_CAPTURE_REQUEST_PID, 1), -EINVAL,
		  "an attribute that this command does not take" },
	};
	for (const auto &row : rows) {
		EXPECT_EQ(start(row.bytes), row.error);
		EXPECT_EQ(explanation, row.reason);
		EXPECT_FALSE(tracer_on());
	}
}

TEST_F(CaptureTrace, stop__ends_the_own_trace_only)
{
	EXPECT_EQ(stop(), -ENOENT);
	EXPECT_EQ(explanation, "no trace of this socket goes on");
	ASSERT_EQ(start({}, 1), 0);
	EXPECT_EQ(stop(2), -ENOENT);
	EXPECT_EQ(of_a_frame(udp, { 1 }), (std::vector<size_t>{ 1 }));
	EXPECT_EQ(stop(1), 0);
	EXPECT_EQ(of_a_frame(udp, { 1 }), (std::vector<size_t>{ 0 }));
	EXPECT_EQ(stop(1), -ENOENT);
}

TEST_F(CaptureTrace, client_gone__ends_its_trace)
{
	mox_capture_client_gone(1);
	ASSERT_EQ(start({}, 1), 0);
	ASSERT_EQ(start({}, 2), 0);
	mox_capture_client_gone(3);
	EXPECT_EQ(of_a_frame(udp, { 1, 2 }), (std::vector<size_t>{ 1, 1 }));
	mox_capture_client_gone(1);
	EXPECT_EQ(of_a_frame(udp, { 1, 2 }), (std::vector<size_t>{ 0, 1 }));
	mox_capture_client_gone(1);
	EXPECT_TRUE(tracer_on());
	mox_capture_client_gone(2);
	EXPECT_FALSE(tracer_on());
	EXPECT_FALSE(arrivals_needed(seam_hook_cpu(0)));
}

// The module is unloaded, or the family taken down, while traces go on.
TEST_F(CaptureTrace, deinit__ends_all_traces)
{
	ASSERT_EQ(start({}, 1), 0);
	ASSERT_EQ(start({}, 2), 0);
	mox_capture_deinit();
	EXPECT_FALSE(tracer_on());
	EXPECT_FALSE(arrivals_needed(seam_hook_cpu(0)));
	EXPECT_EQ(of_a_frame(udp, { 1, 2 }), (std::vector<size_t>{ 0, 0 }));
	ASSERT_EQ(mox_capture_init(), 0);
	for (u32 reader = 11; reader <= 14; reader++)
		EXPECT_EQ(start({}, reader), 0);
}

// The frame's address differs from the one asked for in the 25th bit.
TEST_F(CaptureTrace, start__a_prefix)
{
	const struct {
		int prefix;
		bool follows;
	} rows[] = { { 0, true }, { 23, true }, { 24, true }, { 25, false }, { 32, false } };
	for (auto &row : rows) {
		ASSERT_EQ(start(attribute(MOX_CAPTURE_REQUEST_ADDRESS, ::Bytes{ 192, 0, 2, 200 }) +
				attribute<u8>(MOX_CAPTURE_REQUEST_PREFIX,
					      static_cast<u8>(row.prefix))),
			  0);
		EXPECT_EQ(followed(udp), row.follows) << row.prefix;
		EXPECT_FALSE(followed(tcp6)) << row.prefix;
		ASSERT_EQ(stop(), 0);
	}
}

} // namespace
