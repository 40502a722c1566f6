// SPDX-License-Identifier: GPL-2.0
// What a process may ask of its socket: getname, ioctl, getsockopt.
#include "module_fixture.h"

namespace {

class SockoptGet : public ModuleTest {
protected:
    static int getsockopt(Sock &s, int option, Bytes *value, int *len, int level = MOX_SOL_PACKET)
    {
        fake::UserBuf user(*value), user_len(4);
        user_len.put(0, *len);
        int result = mox_packet_getsockopt(&s.socket, level, option, reinterpret_cast<char *>(user.data()),
                                           reinterpret_cast<int *>(user_len.data()));
        *value = user.bytes;
        *len = user_len.get<int>();
        return result;
    }
    static std::pair<u32, u32> statistics(Sock &s)
    {
        Bytes value(8, 0);
        int len = 8;
        EXPECT_EQ(getsockopt(s, 6, &value, &len), 0);
        std::pair<u32, u32> out;
        memcpy(&out.first, &value[0], 4);
        memcpy(&out.second, &value[4], 4);
        return out;
    }
};

TEST_F(SockoptGet, getname__unbound_bound_and_peer)
{
    Sock s;
    s.create();
    Bytes name(128, 0xcc);
    auto call = [&](int peer) { return mox_packet_getname(&s.socket, reinterpret_cast<sockaddr *>(name.data()), peer); };
    EXPECT_EQ(call(1), -95);
    EXPECT_EQ(call(0), 12);
    EXPECT_EQ(Bytes(name.begin(), name.begin() + 10), (Bytes{17, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(name[11], 0);
    ASSERT_EQ(s.bind(7), 0);
    EXPECT_EQ(call(0), 18);
    EXPECT_EQ(Bytes(name.begin(), name.begin() + 10), (Bytes{17, 0, 0, 0, 7, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Bytes(name.begin() + 11, name.begin() + 18), (Bytes{6, 2, 0, 0, 0, 0, 9}));
    const u8 mac[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(s.bind(0), 0);
    efmp().add_interface(0, "zero", mac);
    EXPECT_EQ(call(0), 18);
    EXPECT_EQ(Bytes(name.begin() + 12, name.begin() + 18), (Bytes{1, 2, 3, 4, 5, 6}));
}

TEST_F(SockoptGet, ioctl__queues_and_stamps)
{
    Sock s;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    fake::UserBuf out(8);
    auto call = [&](unsigned cmd) {
        return mox_packet_ioctl(&s.socket, cmd, reinterpret_cast<unsigned long>(out.data()));
    };
    EXPECT_EQ(call(0x541b), 0);
    EXPECT_EQ(out.get<int>(), 0);
    frame(PACKET_LEV2_LOC, {}, packets::eth(1) + Bytes(86, 0));
    frame(PACKET_LEV2_LOC, {}, packets::eth(1));
    EXPECT_EQ(call(0x541b), 0);
    EXPECT_EQ(out.get<int>(), 100);
    EXPECT_EQ(s.queued(), 2u);
    s.sk->wmem = 77;
    EXPECT_EQ(call(0x5411), 0);
    EXPECT_EQ(out.get<int>(), 77);
    s.sk->wmem = 0;
    EXPECT_EQ(call(0x8906), 0);
    EXPECT_EQ(out.get<int>(4), 4);
    EXPECT_EQ(call(0x8907), 0);
    EXPECT_EQ(out.get<int>(4), 9);
    for (unsigned cmd : {0x8912u, 0x5412u, 0u})
        EXPECT_EQ(call(cmd), -515);
    out.fault_at = 0;
    EXPECT_EQ(call(0x541b), -14);
    EXPECT_EQ(call(0x5411), -14);
    EXPECT_EQ(call(0x8906), -14);
}

TEST_F(SockoptGet, getsockopt__errors)
{
    Sock s;
    s.create();
    Bytes value(8, 0xcc);
    int len = 8;
    EXPECT_EQ(getsockopt(s, 6, &value, &len, 1), -92);
    for (int option : {0, 1, 5, 7, 10, 11, 15, 16, 17, 19, 100}) {
        len = 8;
        EXPECT_EQ(getsockopt(s, option, &value, &len), -92) << option;
    }
    len = -1;
    EXPECT_EQ(getsockopt(s, 6, &value, &len), -22);
    EXPECT_EQ(getsockopt(s, 100, &value, &len), -22);
    fake::UserBuf user(8), user_len(4);
    user_len.put(0, 8);
    auto call = [&](int option) {
        return mox_packet_getsockopt(&s.socket, MOX_SOL_PACKET, option, reinterpret_cast<char *>(user.data()),
                                     reinterpret_cast<int *>(user_len.data()));
    };
    user.fault_at = 3;
    for (int option : {6, 8, 9})
        EXPECT_EQ(call(option), -14);
    user_len.fault_at = 2;
    for (int option : {6, 8, 100})
        EXPECT_EQ(call(option), -14);
    user.fault_at = user_len.fault_at = SIZE_MAX;
    kernel().fail("put_user");
    EXPECT_EQ(call(6), -14);
}

TEST_F(SockoptGet, getsockopt__lengths_are_capped_and_told)
{
    Sock s;
    s.create();
    const struct { int option, asked, told; } cases[] = {{6, 100, 8}, {6, 8, 8}, {6, 5, 5}, {6, 0, 0},
                                                         {8, 100, 4}, {9, 4, 4}, {9, 1, 1}};
    for (auto &c : cases) {
        Bytes value(100, 0xcc);
        int len = c.asked;
        EXPECT_EQ(getsockopt(s, c.option, &value, &len), 0);
        EXPECT_EQ(len, c.told);
        for (int i = 0; i < 100; i++)
            EXPECT_EQ(value[i], i < c.told ? 0 : 0xcc);
    }
}

TEST_F(SockoptGet, getsockopt__statistics_are_what_arrived_since_the_last_reading)
{
    Sock s;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    mox_packet_sock &po = s.po();
    for (u32 i = 0; i < 13; i++)
        (&po.filter_drops)[i] = 1u << i;
    EXPECT_EQ(statistics(s), (std::pair<u32, u32>{8 + 7, 7}));
    for (u32 i = 0; i < 13; i++)
        EXPECT_EQ((&po.filter_drops)[i], 0u) << i;
    EXPECT_EQ(statistics(s), (std::pair<u32, u32>{0, 0}));
    frame(PACKET_LEV2_LOC, {}, packets::eth(1));
    s.sk->rcvbuf = 1;
    frame(PACKET_LEV2_LOC, {}, packets::eth(1));
    frame(PACKET_LEV2_LOC, {}, packets::eth(1));
    EXPECT_EQ(statistics(s), (std::pair<u32, u32>{3, 2}));
}

TEST_F(SockoptGet, getsockopt__auxdata_and_origdev_read_0)
{
    Sock s;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    s.set(PACKET_CTRL_INFO, 1);
    for (int option : {8, 9}) {
        Bytes value(4, 0xcc);
        int len = 4;
        EXPECT_EQ(getsockopt(s, option, &value, &len), 0);
        EXPECT_EQ(value, (Bytes{0, 0, 0, 0}));
    }
}

}  // namespace
