// SPDX-License-Identifier: GPL-2.0
// The platform's own test, run in the virtual machine with the platform loaded and the capture module not needed: a
// platform that overlooks a misuse or miscounts would make every other result worthless.
#include "moxlab.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using moxlab::Bytes;
using moxlab::Device;
using moxlab::Injection;

constexpr uint32_t kA = 2001, kB = 2002;  // interfaces without a device

Bytes frame(std::initializer_list<uint8_t> dst, uint16_t ethertype, size_t length)
{
    Bytes bytes(length, 0x11);
    std::copy(dst.begin(), dst.end(), bytes.begin());
    const uint8_t src[] = {0x02, 0, 0, 0, 0, 0x77};
    std::copy(std::begin(src), std::end(src), bytes.begin() + 6);
    bytes[12] = uint8_t(ethertype >> 8);
    bytes[13] = uint8_t(ethertype);
    return bytes;
}

int errno_of(const auto &call)
{
    try {
        call();
    } catch (const moxlab::Error &e) {
        return e.code().value();
    }
    return 0;
}

/// Announces a kernel warning to whoever judges the console, for as long as it lives, and reads what the kernel said.
class ExpectedWarning {
public:
    ExpectedWarning() : fd_(::open("/dev/kmsg", O_RDWR | O_NONBLOCK | O_CLOEXEC))
    {
        ::lseek(fd_, 0, SEEK_END);
        say("<4>lab: expect-warning begin\n");
    }
    ~ExpectedWarning()
    {
        say("<4>lab: expect-warning end\n");
        ::close(fd_);
    }

    std::string said() const
    {
        std::string text;
        char record[2048];
        for (ssize_t n; (n = ::read(fd_, record, sizeof record)) > 0 || errno == EPIPE;)
            if (n > 0)
                text.append(record, size_t(n));
        return text;
    }

private:
    void say(const char *line) const { EXPECT_GT(::write(fd_, line, std::strlen(line)), 0); }

    int fd_;
};

bool loaded(const std::string &module)
{
    std::ifstream modules("/proc/modules");
    for (std::string line; std::getline(modules, line);)
        if (line.starts_with(module + " "))
            return true;
    return false;
}

class Platform : public ::testing::Test {
protected:
    void SetUp() override
    {
        lab.fail_nothing();
        lab.override_outcome(0, 0, false);
        lab.record_left(true);
        for (uint32_t ifindex : {kA, kB}) {
            moxlab_intf intf{};
            intf.ifindex = ifindex;
            lab.set_interface(intf);
        }
        before = lab.misuse();
    }

    void TearDown() override
    {
        lab.record_left(false);
        EXPECT_EQ(lab.balance(0).live_all, 0u) << "efbuffs left over";
        EXPECT_EQ(lab.misuse().unexpected, before.unexpected) << "see the kernel log";
        lab.set(saved);
    }

    /// Guard and poison on, also where KASAN would watch instead: the two tests need to see ours.
    void watch_memory()
    {
        moxlab_settings s = saved;
        s.redzone = 32;
        s.hold_memory = 1;
        lab.set(s);
    }

    uint32_t host_port() const
    {
        for (const auto &p : lab.ports().all)
            if (p.port.flags & MOXLAB_PORT_HOST)
                return p.port.ifindex;
        throw std::runtime_error("the platform has no host port");
    }

    /// The interface index of a block that a header names.
    static uint32_t block_at(const Bytes &header, size_t offset)
    {
        uint32_t ifindex;
        std::memcpy(&ifindex, &header[offset], sizeof ifindex);
        return ifindex;
    }

    uint32_t seen(uint32_t kind) const { return lab.misuse().seen[kind] - before.seen[kind]; }

    Device lab;
    moxlab_settings saved = lab.settings();
    moxlab_misuse before{};
};

class Misuse : public Platform, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(Misuse, IsSeenForWhatItIs)
{
    watch_memory();
    lab.expect_misuse(1);
    try {
        EXPECT_EQ(lab.commit_misuse(GetParam()).left, 0u) << "the announced breach went unseen";
    } catch (const moxlab::Error &e) {
        lab.expect_misuse(0);
        ASSERT_EQ(GetParam(), unsigned(MOXLAB_MISUSE_CONTEXT)) << e.what();
        ASSERT_EQ(e.code().value(), EINVAL);
        GTEST_SKIP() << "this kernel does not count who holds a lock; the checked one does";
    }
    for (uint32_t kind = 0; kind < MOXLAB_MISUSE_COUNT; ++kind)
        EXPECT_EQ(seen(kind), kind == GetParam() ? 1u : 0u) << "kind " << kind;
}

INSTANTIATE_TEST_SUITE_P(Every, Misuse,
                         ::testing::Values(MOXLAB_MISUSE_DOUBLE_FREE, MOXLAB_MISUSE_WRONG_OWNER, MOXLAB_MISUSE_UNKNOWN,
                                           MOXLAB_MISUSE_OVERRUN, MOXLAB_MISUSE_AFTER_FREE, MOXLAB_MISUSE_CONTEXT,
                                           MOXLAB_MISUSE_WITHDRAWN));

TEST_F(Platform, NamesALeakedBufferAndItsMaker)
{
    lab.commit_misuse(MOXLAB_MISUSE_LEAK);
    moxlab_balance balance = lab.balance(MOXLAB_OWNER_MODULE);
    EXPECT_EQ(balance.live, 1u);
    EXPECT_EQ(balance.live, balance.allocated + balance.cloned + balance.adopted - balance.given - balance.freed);
    auto live = lab.live().all;
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].owner, unsigned(MOXLAB_OWNER_MODULE));
    EXPECT_EQ(live[0].length, 100u);
    EXPECT_NE(std::string(live[0].creator).find("[efmp]"), std::string::npos) << live[0].creator;
    lab.commit_misuse(MOXLAB_MISUSE_LEAK);
    EXPECT_EQ(lab.balance(MOXLAB_OWNER_MODULE).live, 0u);
}

TEST_F(Platform, AnswersDistinctlyWhereNoHookIsRegistered)
{
    for (uint32_t point : {MOXLAB_POINT_RESV, MOXLAB_POINT_WLAN_IN, MOXLAB_POINT_LEV2, MOXLAB_POINT_IPV4,
                           MOXLAB_POINT_IPV6, MOXLAB_POINT_OUTPUT}) {
        // A name that no function has: so it holds with the capture module loaded, too.
        auto reply = lab.inject(Injection(point, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60)).source(kA).only("no_such"));
        EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_NO_HOOK)) << "point " << point;
        EXPECT_EQ(reply.hooks_run, 0u);
    }
}

TEST_F(Platform, FillsAPlainFramesHeader)
{
    auto header_of = [&](uint16_t ethertype) {
        auto reply = lab.inject(
            Injection(MOXLAB_POINT_LEV2, frame({2, 0, 0, 0, 0, 1}, ethertype, 60)).source(kA).only("no_such"));
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
    Injection i(MOXLAB_POINT_LEV2, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60));
    i.source(kA).only("no_such").kind(9).flags(0x11223344).vlan(0xa123).l2_length(18).total_length(77);
    moxlab_inject &r = i.request;
    r.set |= MOXLAB_SET_INNER_VLAN | MOXLAB_SET_WLAN_FLAGS | MOXLAB_SET_SEND_FLAGS | MOXLAB_SET_L2IFX |
             MOXLAB_SET_ORIGIFX | MOXLAB_SET_PROXY | MOXLAB_SET_DST_L2IFX | MOXLAB_SET_ATTR | MOXLAB_SET_RADIO_ID |
             MOXLAB_SET_WLAN_ID | MOXLAB_SET_AP_WLAN_ID | MOXLAB_SET_WORD172 | MOXLAB_SET_CODE | MOXLAB_SET_SUB_CODE |
             MOXLAB_SET_HALF188 | MOXLAB_SET_REASON | MOXLAB_SET_MAC_OFFSET | MOXLAB_SET_NET_OFFSET;
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
    auto u32 = [h](int at) { return uint32_t(h[at] | h[at + 1] << 8 | h[at + 2] << 16) | uint32_t(h[at + 3]) << 24; };
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
        for (uint32_t options : {0u, MOXLAB_INJ_HARD_SOFTIRQ}) {
            auto reply = lab.inject(Injection(MOXLAB_POINT_LEV2, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60))
                                        .source(kA)
                                        .cpu(cpu)
                                        .options(options));
            EXPECT_EQ(reply.ran_on_cpu, cpu);
        }
}

TEST_F(Platform, RefusesWhatItCannotHonour)
{
    Bytes plain = frame({2, 0, 0, 0, 0, 1}, 0x0800, 60);
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

TEST_F(Platform, SendsToAnInterfaceWithoutADevice)
{
    auto reply = lab.inject(
        Injection(MOXLAB_POINT_SEND, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60)).source(MOXLAB_NO_BLOCK).destination(kB));
    EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
    EXPECT_EQ(reply.answer, 0u);
    auto left = lab.left().all;
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].ifindex, kB);
    EXPECT_TRUE(left[0].sent);
    EXPECT_EQ(left[0].bytes, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60));
}

TEST_F(Platform, OverridesTheOutcomeOfSends)
{
    Injection send(MOXLAB_POINT_SEND, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60));
    send.source(MOXLAB_NO_BLOCK).destination(kB);
    lab.override_outcome(6, 1, true);
    EXPECT_EQ(lab.inject(send).answer, 6u);
    EXPECT_EQ(lab.left().all.size(), 1u);
    lab.override_outcome(-9, 1, false);
    EXPECT_EQ(int32_t(lab.inject(send).answer), -9);
    EXPECT_EQ(lab.left().all.size(), 1u) << "freed, not sent";
    EXPECT_EQ(lab.inject(send).answer, 0u) << "only once";
}

TEST_F(Platform, FloodsFromTheHostPortAndFindsItsWayBack)
{
    uint32_t ap0 = host_port();
    // The only port: a frame from it has nowhere to go, one from elsewhere goes there.
    auto reply = lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60)).port(ap0));
    if (lab.ports().all.size() == 1)
        EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_NOWHERE));
    else
        EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
    reply = lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60)).port(ap0).destination(kB));
    EXPECT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
}

TEST_F(Platform, TakesVlanTagsOffAFrameFromAPort)
{
    uint32_t ap0 = host_port();
    Bytes tagged = frame({2, 0, 0, 0, 0, 1}, 0x8100, 68);
    const uint8_t tags[] = {0x81, 0x00, 0xa0, 0x64, 0x81, 0x00, 0x00, 0xc8, 0x86, 0xdd};
    std::copy(std::begin(tags), std::end(tags), tagged.begin() + 12);
    auto reply = lab.inject(Injection(MOXLAB_POINT_PIPELINE, tagged).port(ap0).destination(kB));
    ASSERT_EQ(reply.outcome, unsigned(MOXLAB_OUT_LEFT));
    auto left = lab.left().all;
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].length, 60u);
    EXPECT_EQ(left[0].header[18] << 8 | left[0].header[19], 0xa064);
    EXPECT_EQ(left[0].header[16] << 8 | left[0].header[17], 0x00c8);
    EXPECT_EQ(left[0].header[40], 27) << "classified behind the tags";
    EXPECT_EQ(left[0].bytes[12] << 8 | left[0].bytes[13], 0x86dd);
}

/// Addresses and what the platform makes of them: the destination's block, and the outcome of a send.
struct Reserved {
    std::initializer_list<uint8_t> dst;
    uint32_t block;
    uint32_t outcome;
};

constexpr uint32_t kNone = MOXLAB_NO_BLOCK;
const Reserved kReserved[] = {
    {{0x01, 0x80, 0xc2, 0, 0, 0x00}, 4094, 5},    {{0x01, 0x80, 0xc2, 0, 0, 0x0f}, 4094, 5},
    {{0x01, 0x80, 0xc2, 0, 0, 0x10}, kNone, 6},   {{0x01, 0x80, 0xc2, 0, 1, 0x0e}, kNone, 6},
    {{0x01, 0x00, 0x5e, 0, 0, 0xfb}, 4095, 5},    {{0x01, 0x00, 0x5e, 0, 1, 0xfb}, kNone, 6},
    {{0x33, 0x33, 0, 0, 0, 0x01}, 4095, 5},       {{0x33, 0x33, 0xff, 0, 0, 0x01}, kNone, 6},
    {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, kNone, 4}, {{0x02, 0, 0, 0, 0, 0x01}, kNone, 0},
};

TEST_F(Platform, KnowsTheReservedDestinations)
{
    for (const Reserved &r : kReserved) {
        SCOPED_TRACE(testing::PrintToString(Bytes(r.dst)));
        lab.record_left(true);
        lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame(r.dst, 0x88cc, 60)).port(host_port()));
        auto left = lab.left().all;
        ASSERT_FALSE(left.empty());
        EXPECT_EQ(block_at(left[0].header, 4), host_port());
        EXPECT_EQ(block_at(left[0].header, 8), r.block);

        Injection send(MOXLAB_POINT_SEND, frame(r.dst, 0x88cc, 60));
        EXPECT_EQ(lab.inject(send.source(MOXLAB_NO_BLOCK).destination(kB)).answer, r.outcome);
    }
}

TEST_F(Platform, FindsALearnedStationByItsPort)
{
    // The host's own address needs no learning; whoever else sent through the host port is learned there.
    lab.flush_fdb();
    Bytes from_station = frame({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0x0806, 60);
    lab.inject(Injection(MOXLAB_POINT_PIPELINE, from_station).port(host_port()));
    EXPECT_EQ(lab.stats().fdb_entries, 1u);
    lab.record_left(true);
    lab.inject(Injection(MOXLAB_POINT_PIPELINE, frame({0x02, 0, 0, 0, 0, 0x77}, 0x0800, 60)).port(host_port()));
    auto left = lab.left().all;
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].outcome, unsigned(MOXLAB_OUT_NOWHERE)) << "never out of the port it came in by";
    EXPECT_EQ(block_at(left[0].header, 8), host_port());
    lab.flush_fdb();
    EXPECT_EQ(lab.stats().fdb_entries, 0u);
}

TEST_F(Platform, KeepsRemovedInterfacesOutOfTheLookup)
{
    lab.remove_interface(kB);
    EXPECT_EQ(errno_of([&] { lab.remove_interface(kB); }), ENXIO);
    bool listed = false;
    for (const auto &i : lab.interfaces().all)
        if (i.intf.ifindex == kB) {
            listed = true;
            EXPECT_EQ(i.known, 0u);
        }
    EXPECT_TRUE(listed) << "the block itself stays";
}

TEST_F(Platform, HasTheReservedInterfacesFromTheStart)
{
    unsigned found = 0;
    for (const auto &i : lab.interfaces().all)
        if ((i.intf.ifindex == 4094 || i.intf.ifindex == 4095) && i.known) {
            ++found;
            EXPECT_EQ(i.intf.link, 1u);
        }
    EXPECT_EQ(found, 2u);
}

TEST_F(Platform, SurvivesFloodsOnAllCpusAtOnce)
{
    uint32_t cpus = lab.stats().cpus;
    uint64_t injected = lab.stats().injected;
    std::vector<std::thread> threads;
    for (uint32_t cpu = 0; cpu < cpus; ++cpu)
        threads.emplace_back([&, cpu] {
            lab.inject(Injection(MOXLAB_POINT_SEND, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60))
                           .source(MOXLAB_NO_BLOCK)
                           .destination(kB)
                           .cpu(cpu)
                           .repeat(200));
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(lab.stats().injected - injected, 200u * cpus);
    EXPECT_EQ(lab.balance(MOXLAB_OWNER_PLATFORM).live, 0u);
}

TEST_F(Platform, PublishesTheLocalMacService)
{
    moxlab_service s{};
    s.op = MOXLAB_SERVICE_QUERY;
    s.service_class = 11;
    s.instance = 10;
    EXPECT_EQ(lab.service(s).published, 1);
    s.op = MOXLAB_SERVICE_WITHDRAW;
    EXPECT_EQ(lab.service(s).published, 0);
    s.op = MOXLAB_SERVICE_PUBLISH;
    EXPECT_EQ(lab.service(s).published, 1);
    s.instance = 9;
    EXPECT_EQ(errno_of([&] { lab.service(s); }), ENOENT);
}

TEST_F(Platform, LetsAnotherEntryPointTakeAServicesPlace)
{
    moxlab_service s{};
    s.service_class = 11;
    s.instance = 10;
    s.op = MOXLAB_SERVICE_PUBLISH;
    s.entry = 1;
    EXPECT_EQ(lab.service(s).published, 1);
    s.op = MOXLAB_SERVICE_QUERY;
    moxlab_service before_calls = lab.service(s);
    EXPECT_EQ(before_calls.published, 1);
    s.entry = MOXLAB_SERVICE_ENTRIES;
    EXPECT_EQ(errno_of([&] { lab.service(s); }), EINVAL);
    s.op = MOXLAB_SERVICE_PUBLISH;
    s.entry = 0;
    EXPECT_EQ(lab.service(s).published, 1);
    EXPECT_EQ(lab.service(s).late, before_calls.late) << "nobody called what was replaced";
}

TEST_F(Platform, KeepsTheWholeHeaderOfWhatLeft)
{
    Injection send(MOXLAB_POINT_SEND, frame({2, 0, 0, 0, 0, 1}, 0x0800, 60));
    send.source(kA).destination(kB).flags(0x44000);
    send.request.set |= MOXLAB_SET_SEND_FLAGS;
    send.request.send_flags = 0xff;
    lab.inject(send);
    auto left = lab.left().all;
    ASSERT_EQ(left.size(), 1u);
    const Bytes &h = left[0].header;
    ASSERT_EQ(h.size(), size_t(MOXLAB_HEADER_ALL));
    EXPECT_EQ(block_at(h, 4), kA);
    EXPECT_EQ(block_at(h, 8), kB);
    EXPECT_EQ(block_at(h, 32), 0x44000u);
    EXPECT_EQ(block_at(h, 60), 0xffu);
    EXPECT_EQ(Bytes(h.begin() + MOXLAB_HEADER_LEN, h.end()), Bytes(64, 0));
}

TEST_F(Platform, MeasuresSocketsOfTheFamilyOnly)
{
    int other[2];
    ASSERT_EQ(::pipe(other), 0);
    Bytes bytes = frame({2, 0, 0, 0, 0, 1}, 0x0800, 60);
    moxlab_bench good{};
    good.count = good.batches = 1;
    good.frame = reinterpret_cast<uintptr_t>(bytes.data());
    good.frame_len = 60;
    good.dst_ifindex = kB;
    good.part = MOXLAB_BENCH_PLATFORM;
    auto result = [&](auto change) {
        moxlab_bench request = good;
        change(request);
        return errno_of([&] { lab.bench(request); });
    };
    good.fd = other[0];
    EXPECT_EQ(result([](moxlab_bench &) {}), ENOTSOCK);
    EXPECT_EQ(result([](moxlab_bench &b) { b.fd = -1; }), EBADF);
    EXPECT_EQ(result([](moxlab_bench &b) { b.part = MOXLAB_BENCH_COUNT; }), EINVAL);
    EXPECT_EQ(result([](moxlab_bench &b) { b.count = 0; }), EINVAL);
    EXPECT_EQ(result([](moxlab_bench &b) { b.frame_len = 13; }), EINVAL);
    ::close(other[0]);
    ::close(other[1]);
    if (!loaded("mox_ef_socket"))
        return;
    good.fd = ::socket(17, SOCK_RAW, 0);
    ASSERT_GE(good.fd, 0);
    for (uint32_t part : {MOXLAB_BENCH_PLATFORM, MOXLAB_BENCH_SEND}) {
        good.part = part;
        lab.record_left(true);
        EXPECT_EQ(result([](moxlab_bench &) {}), 0);
        auto left = lab.left().all;
        ASSERT_EQ(left.size(), 1u) << "part " << part;
        EXPECT_EQ(left[0].length, 60u);
        EXPECT_EQ(left[0].ifindex, kB);
    }
    ::close(good.fd);
}

TEST_F(Platform, WarnsLoudlyOfWhatWasNotAnnounced)
{
    std::string said;
    {
        ExpectedWarning warning;
        lab.commit_misuse(MOXLAB_MISUSE_WRONG_OWNER);
        said = warning.said();
    }
    EXPECT_NE(said.find("efmp: wrong owner"), std::string::npos) << said;
    EXPECT_NE(said.find("is owner 0x93's but freed as 0x01's"), std::string::npos) << said;
    EXPECT_EQ(lab.misuse().unexpected, before.unexpected + 1);
    before = lab.misuse();
}

TEST(Unload, NamesWhatIsStillAlive)
{
    bool product = loaded("mox_ef_socket");
    if (product) {
        ASSERT_EQ(std::system("rmmod mox_ef_socket"), 0);
    }
    Device().commit_misuse(MOXLAB_MISUSE_LEAK);
    std::string said;
    {
        ExpectedWarning warning;
        EXPECT_EQ(std::system("rmmod efmp"), 0);
        said = warning.said();
    }
    EXPECT_NE(said.find("is still alive at unload: owner 0x93"), std::string::npos) << said;
    ASSERT_EQ(std::system("insmod /modules/efmp.ko"), 0);
    if (product) {
        EXPECT_EQ(std::system("insmod /modules/mox_ef_socket.ko"), 0);
    }
    EXPECT_EQ(Device().balance(0).live_all, 0u);
}

}  // namespace
