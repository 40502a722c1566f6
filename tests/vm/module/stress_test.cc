// SPDX-License-Identifier: GPL-2.0
// Four CPUs flood while rules, sockets and readers come and go. What counts is what the checked kernel says meanwhile,
// and that the books balance afterwards. The seed is printed; MOX_SEED repeats a run's choices.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include <arpa/inet.h>

#include "support/fixture.h"

namespace {

using namespace vm;
using namespace frames;
using lab::Frame;
using lab::Hook;

using Stress = VmTest;

struct Traffic {
    Hook hook;
    uint32_t location;
    Frame frame;
};

const std::vector<Traffic> &traffic()
{
    static const std::vector<Traffic> all = [] {
        Frame resv = plain(0x88cc);
        resv.dst_ifx = lab::kLev2Resv;
        return std::vector<Traffic>{
            {Hook::Lev2, PACKET_LEV2_LOC, arp(1)},
            {Hook::Lev2, PACKET_LEV2_LOC, plain(0x88b5)},
            {Hook::Ipv4, PACKET_IPv4_LOC, ipv4(17, udp(68, 67))},
            {Hook::Ipv6, PACKET_IPv6_LOC, ipv6(0, extension(17, 0, udp(546, 547)))},
            {Hook::Local, PACKET_LOCAL_LOC, plain(0x0800)},
            {Hook::Resv, PACKET_LEV2_RESV_LOC, resv},
            {Hook::WlanIn, PACKET_WLAN_LOC, wlan80211(true)},
            {Hook::WlanOut, PACKET_WLAN_LOC, eapol(0)},
        };
    }();
    return all;
}

Rule random_rule(std::minstd_rand &random)
{
    switch (random() % 8) {
    case 0: return all();
    case 1: return be16s(PACKET_ETH_PROT_EQUAL, {0x0806, 0x88b5});
    case 2: return ethertype(3);
    case 3: return be16s(PACKET_IPv4_DEST_PORT_EQUAL, {67, uint16_t(random() % 4)});
    case 4: return u32s(PACKET_SRC_INTF_EQUAL, {lab::kPortA, lab::kPortB});
    case 5: return u32s(PACKET_PID_T, {uint32_t(random() % 3)});
    case 6: return flag(PACKET_WLAN_MGNT);
    default: return rule(PACKET_PACKET_CODE_EQUAL, {Bytes{0, uint8_t(random() % 2)}});
    }
}

/// One socket's life: some rules, some changes, some reading.
void live(std::minstd_rand &random)
{
    const uint32_t locations[] = {0, 1, 2, 3, 4, 7, 8, 9, 10, 11};
    Socket socket(random() % 3 ? SOCK_RAW : SOCK_DGRAM, random() % 4 ? 0 : htons(0x0806));
    ASSERT_EQ(socket.error(), 0);
    int little = 4096;
    if (random() % 4 == 0)
        ::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
    for (int steps = int(random() % 24); steps >= 0; --steps)
        switch (random() % 9) {
        case 0: socket.add(random_rule(random)); break;
        case 1: socket.add(random_rule(random)); break;
        case 2: socket.del(random_rule(random)); break;
        case 3: socket.treatment(uint32_t(random() % 6)); break;
        case 4:
        case 5: socket.location(locations[random() % 10]); break;
        case 6: socket.bind(random() % 2 ? lab::kPortA : 0, random() % 2 ? htons(0x88b5) : 0); break;
        case 7: socket.ctrl(random() % 2); break;
        default:
            socket.stats();
            for (int reads = 0; reads < 8 && socket.receive(0); ++reads) {
            }
        }
}

TEST_F(Stress, floods_on_four_cpus_while_everything_changes)
{
    const char *given = std::getenv("MOX_SEED");
    unsigned seed = given ? unsigned(std::atoi(given)) : unsigned(std::random_device{}());
    std::printf("seed %u\n", seed);
    const int seconds = std::getenv("MOX_STRESS_SECONDS") ? std::atoi(std::getenv("MOX_STRESS_SECONDS")) : 20;
    // With several CPUs changing them the record counters, plain words, may drift.
    compare_records_ = false;

    std::atomic<bool> stop{false};
    std::atomic<uint64_t> frames_sent{0};
    std::vector<std::thread> threads;
    for (int cpu = 0; cpu < 4; ++cpu) {
        threads.emplace_back([&, cpu] {
            std::minstd_rand random(seed + unsigned(cpu));
            while (!stop) {
                const Traffic &one = traffic()[random() % traffic().size()];
                Frame frame = one.frame;
                frame.softirq = random() % 2;
                frames_sent += lab::flood(one.hook, frame, 1 + uint32_t(random() % 16), cpu);
                // An emulated CPU under the checked kernel needs air, or the flood itself is taken for a lock-up.
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 4));
            }
        });
        // Two that change things leave the floods their share of the emulated CPUs.
        if (cpu >= 2)
            continue;
        threads.emplace_back([&, cpu] {
            pin(cpu);
            std::minstd_rand random(seed + 100 + unsigned(cpu));
            while (!stop)
                live(random);
        });
    }
    // One reader that stays, and must never starve.
    Socket watcher = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
    ASSERT_EQ(watcher.ctrl(true), 0);
    size_t watched = 0;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end)
        if (auto packet = watcher.receive(50)) {
            ++watched;
            EXPECT_EQ(packet->info.pkt_ifx, lab::kPortA);
            EXPECT_EQ(packet->info.reserved46, 0);
        }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_TRUE(lab::settle(20000));
    EXPECT_GT(frames_sent, 0u);
    EXPECT_GT(watched, 0u);
    std::printf("%llu frames at hooks, %zu watched\n", static_cast<unsigned long long>(frames_sent.load()), watched);
    watcher.close();
}

TEST_F(Stress, one_socket_used_by_four_threads_at_once)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(6);
    Socket socket = capture(PACKET_LEV2_LOC, PACKET_COPY, all());
    std::vector<std::thread> threads;
    for (int cpu = 0; cpu < 4; ++cpu)
        threads.emplace_back([&, cpu] {
            pin(cpu);
            for (uint16_t i = 0; std::chrono::steady_clock::now() < end; ++i)
                switch (cpu) {
                case 0: socket.add(ethertype(uint16_t(0x9000 + i % 16))); break;
                case 1: socket.del(ethertype(uint16_t(0x9000 + i % 16))); break;
                case 2: socket.location(i % 2 ? PACKET_LEV2_LOC : PACKET_IPv4_LOC); break;
                default:
                    lab::flood(Hook::Lev2, plain(), 4, cpu);
                    socket.receive(0);
                }
        });
    for (std::thread &thread : threads)
        thread.join();
    compare_records_ = false;
}

}  // namespace
