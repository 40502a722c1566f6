// SPDX-License-Identifier: GPL-2.0-only
// Injection at each point: the header that the frame gets, the CPU it runs on, and what is refused.
#include "selftest.hpp"

namespace selftest {
namespace {

TEST_F(Platform, AnswersDistinctlyWhereNoHookIsRegistered)
{
	for (uint32_t point : { MOXLAB_POINT_RESV, MOXLAB_POINT_WLAN_IN, MOXLAB_POINT_LEV2,
				MOXLAB_POINT_IPV4, MOXLAB_POINT_IPV6, MOXLAB_POINT_OUTPUT }) {
		// A name that no function has: so it holds with the capture module loaded, too.
		auto reply = lab.inject(Injection(point, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60))
						.source(kA)
						.only("no_such"));
		EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_NO_HOOK)) << "point " << point;
		EXPECT_EQ(reply.hooks_run, 0u);
	}
}

TEST_F(Platform, FillsAPlainFramesHeader)
{
	auto header_of = [&](uint16_t ethertype) {
		auto reply = lab.inject(
			Injection(MOXLAB_POINT_LEV2, frame({ 2, 0, 0, 0, 0, 1 }, ethertype, 60))
				.source(kA)
				.only("no_such"));
		EXPECT_EQ(reply.header_valid, 1u);
		return Bytes(reply.header_out, reply.header_out + MOXLAB_HEADER_LEN);
	};
	Bytes h = header_of(0x0800);
	EXPECT_EQ(h[40], 1);
	EXPECT_EQ(h[20] | h[21] << 8, 14);
	EXPECT_EQ((h[24] | h[25] << 8) - (h[22] | h[23] << 8), 14);
	EXPECT_EQ(h[164], 60);
	EXPECT_EQ(h[64] | h[65] << 8, int(kA));
	EXPECT_EQ(h[68] | h[69] << 8, int(kA));
	EXPECT_EQ(header_of(0x86dd)[40], 27);
	EXPECT_EQ(header_of(0x88cc)[40], 2);
}

TEST_F(Platform, PutsEveryFieldWhereItBelongs)
{
	Injection i(MOXLAB_POINT_LEV2, frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60));
	i.source(kA)
		.only("no_such")
		.kind(9)
		.flags(0x11223344)
		.vlan(0xa123)
		.l2_length(18)
		.total_length(77);
	moxlab_inject &r = i.request;
	r.set |= MOXLAB_SET_INNER_VLAN | MOXLAB_SET_WLAN_FLAGS | MOXLAB_SET_SEND_FLAGS |
		 MOXLAB_SET_L2IFX | MOXLAB_SET_ORIGIFX | MOXLAB_SET_PROXY | MOXLAB_SET_DST_L2IFX |
		 MOXLAB_SET_ATTR | MOXLAB_SET_RADIO_ID | MOXLAB_SET_WLAN_ID |
		 MOXLAB_SET_AP_WLAN_ID | MOXLAB_SET_WORD172 | MOXLAB_SET_CODE |
		 MOXLAB_SET_SUB_CODE | MOXLAB_SET_HALF188 | MOXLAB_SET_REASON |
		 MOXLAB_SET_MAC_OFFSET | MOXLAB_SET_NET_OFFSET;
	r.inner_vlan = 0xb456;
	r.wlan_flags = 0x01020304;
	r.send_flags = 0x05060708;
	r.l2ifx = 0x090a0b0c;
	r.origifx = 0x0d0e0f10;
	r.proxy = 0x21;
	r.dst_l2ifx = 0x22232425;
	r.attr = 0x26272829;
	r.radio_id = 0x2a;
	r.wlan_id = 0x2b2c;
	r.ap_wlan_id = 0x2d2e;
	r.word172 = 0x2f303132;
	r.code = 0x33;
	r.sub_code = 0x34;
	r.half188 = 0x3536;
	r.reason = 0x37;
	r.mac_offset = 301;
	r.net_offset = 323;
	moxlab_inject reply = lab.inject(i);
	const uint8_t *h = reply.header_out;
	auto u16 = [h](int at) { return h[at] | h[at + 1] << 8; };
	auto u32 = [h](int at) {
		return uint32_t(h[at] | h[at + 1] << 8 | h[at + 2] << 16) | uint32_t(h[at + 3])
										    << 24;
	};
	ASSERT_EQ(reply.header_valid, 1u);
	EXPECT_EQ(u16(16), 0x56b4) << "network order";
	EXPECT_EQ(u16(18), 0x23a1) << "network order";
	EXPECT_EQ(u16(20), 18);
	EXPECT_EQ(u16(22), 301);
	EXPECT_EQ(u16(24), 323);
	EXPECT_EQ(u32(32), 0x11223344u);
	EXPECT_EQ(h[40], 9);
	EXPECT_EQ(h[43], 0x37);
	EXPECT_EQ(u32(56), 0x01020304u);
	EXPECT_EQ(u32(60), 0x05060708u);
	EXPECT_EQ(u32(64), 0x090a0b0cu);
	EXPECT_EQ(u32(68), 0x0d0e0f10u);
	EXPECT_EQ(h[72], 0x21);
	EXPECT_EQ(u32(76), 0x22232425u);
	EXPECT_EQ(u32(96), 0x26272829u);
	EXPECT_EQ(h[144], 0x2a);
	EXPECT_EQ(u16(146), 0x2b2c);
	EXPECT_EQ(u16(148), 0x2d2e);
	EXPECT_EQ(u32(164), 77u);
	EXPECT_EQ(u32(172), 0x2f303132u);
	EXPECT_EQ(h[184], 0x33);
	EXPECT_EQ(h[185], 0x34);
	EXPECT_EQ(u16(188), 0x3536);
}

TEST_F(Platform, RunsOnTheCpuAskedFor)
{
	for (uint32_t cpu = 0; cpu < lab.stats().cpus; ++cpu)
		for (uint32_t options : { 0u, MOXLAB_INJ_HARD_SOFTIRQ }) {
			auto reply = lab.inject(Injection(MOXLAB_POINT_LEV2,
							  frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60))
							.source(kA)
							.cpu(cpu)
							.options(options));
			EXPECT_EQ(reply.ran_on_cpu, cpu);
		}
}

TEST_F(Platform, RefusesWhatItCannotHonour)
{
	Bytes plain = frame({ 2, 0, 0, 0, 0, 1 }, 0x0800, 60);
	auto result = [&](auto change) {
		Injection i(MOXLAB_POINT_LEV2, plain);
		i.source(kA);
		change(i);
		return errno_of([&] { lab.inject(i); });
	};
	EXPECT_EQ(result([](Injection &) {}), 0);
	EXPECT_EQ(result([](Injection &i) { i.request.point = MOXLAB_POINT_COUNT; }), EINVAL);
	EXPECT_EQ(result([](Injection &i) { i.cpu(4000); }), EINVAL);
	EXPECT_EQ(result([](Injection &i) { i.bytes.clear(); }), EINVAL);
	EXPECT_EQ(result([](Injection &i) { i.bytes.resize(MOXLAB_FRAME_MAX + 1); }), EINVAL);
	EXPECT_EQ(result([](Injection &i) { i.total_length(MOXLAB_FRAME_MAX + 1); }), EINVAL);
	EXPECT_EQ(result([](Injection &i) {
			  i.request.set |= MOXLAB_SET_MAC_OFFSET;
			  i.request.mac_offset = 255;
		  }),
		  EINVAL);
	EXPECT_EQ(result([](Injection &i) { i.source(3999); }), ENXIO);
	EXPECT_EQ(result([](Injection &i) { i.destination(3999); }), ENXIO);
	EXPECT_EQ(result([](Injection &i) { i.request.point = MOXLAB_POINT_PIPELINE; }), ENODEV);
	EXPECT_EQ(result([](Injection &i) {
			  i.options(MOXLAB_INJ_CALL);
			  i.request.function = 0xc0008000;
		  }),
		  EINVAL)
		<< "a function of the kernel's own must not be callable";
}

} // namespace
} // namespace selftest
