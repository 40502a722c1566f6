/* SPDX-License-Identifier: GPL-2.0-only */
#include "format.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

constexpr std::uint64_t second = 1'000'000'000;

moxsend::Counters counters(std::uint64_t sent, std::uint64_t bytes, std::uint64_t failed,
			   std::uint64_t elapsed)
{
	moxsend::Counters result;
	result.sent = sent;
	result.bytes = bytes;
	result.failed = failed;
	result.elapsed = elapsed;
	return result;
}

TEST(moxsend_format, summary)
{
	EXPECT_EQ(moxsend::format_summary(counters(0, 0, 0, 0)),
		  "moxsend: sent 0 frames, 0 bytes in 0.000 s, 0 failed\n");
	// One frame has no gap to count a rate from.
	EXPECT_EQ(moxsend::format_summary(counters(1, 60, 0, 1000)),
		  "moxsend: sent 1 frame, 60 bytes in 0.000 s, 0 failed\n");
	EXPECT_EQ(moxsend::format_summary(counters(11, 660, 0, second)),
		  "moxsend: sent 11 frames, 660 bytes in 1.000 s (10.00 frames/s), 0 failed\n");
	EXPECT_EQ(moxsend::format_summary(counters(2001, 1, 0, second)),
		  "moxsend: sent 2001 frames, 1 byte in 1.000 s (2000 frames/s), 0 failed\n");
}

TEST(moxsend_format, summary__a_line_for_each_kind_of_failure)
{
	moxsend::Counters with = counters(2, 120, 3, 0);
	with.failures[ENETUNREACH] = { 2, "dropped" };
	with.failures[0] = { 1, "frame 3 was cut" };
	EXPECT_EQ(moxsend::format_summary(with),
		  "moxsend: sent 2 frames, 120 bytes in 0.000 s, 3 failed\n"
		  "moxsend: failed 1 time: frame 3 was cut\n"
		  "moxsend: failed 2 times: dropped\n");
}

TEST(moxsend_format, counters_for_scripts)
{
	EXPECT_EQ(moxsend::format_counters(counters(3, 180, 1, 1'500'000'000)),
		  "sent=3 bytes=180 failed=1 seconds=1.500000\n");
}

TEST(moxsend_format, progress)
{
	EXPECT_EQ(moxsend::format_progress(counters(10, 600, 1, second), 100),
		  "moxsend: 11 of 100 frames, 1 s, 9.09 frames/s, 1 failed");
	EXPECT_EQ(moxsend::format_progress(counters(11, 600, 0, second), std::nullopt),
		  "moxsend: 11 frames, 1 s, 10.00 frames/s, 0 failed");
}

TEST(moxsend_format, request)
{
	mox::SendRequest request;
	EXPECT_EQ(moxsend::format_request(request), "");
	request.to = mox::SendAddress{ 7, 0, {} };
	EXPECT_EQ(moxsend::format_request(request), "# to interface 7\n");
	request.to = mox::SendAddress{ 7, 0x88cc, mox::MacAddress{ 1, 0x80, 0xc2, 0, 0, 0xe } };
	mox::SendControl control{ 1, 2, 3, 4, 5, 6, MOX_SEND_NO_ACL, 7, 8, 9, 10, 11, 12 };
	request.control = control.record();
	EXPECT_EQ(
		moxsend::format_request(request),
		"# to interface 7, to 01:80:c2:00:00:0e, EtherType 0x88cc, source interface 1, original interface 2, "
		"layer-2 interface 3, destination layer-2 interface 4, vlan 5, inner vlan 6, wlan 9, ap wlan 10, "
		"radio 11, proxy-capture byte 12, word28 7, half38 8, flags no-acl proxy-capture\n");
}

} // namespace
