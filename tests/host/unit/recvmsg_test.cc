// SPDX-License-Identifier: GPL-2.0
// recvmsg: one packet, its source address, its control record.
#include "module_fixture.h"

namespace {

class Recvmsg : public ModuleTest {
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(s.create(), 0);
        s.add(PACKET_ALL);
        s.set(PACKET_TREATMENT, PACKET_COPY);
        s.set(PACKET_LOCATION, PACKET_LEV2_LOC);
        msg.name = name;
        memset(name, 0xcc, sizeof name);
    }
    void TearDown() override
    {
        s.release();
        ModuleTest::TearDown();
    }
    void arrive(size_t len = 100) { frame(PACKET_LEV2_LOC, {}, packets::eth(0x88cc) + Bytes(len - 14, 0x5c)); }
    int recv(size_t len = 65536, int flags = 0) { return mox_packet_recvmsg(&s.socket, &msg, len, flags); }

    Sock s;
    msghdr msg;
    u8 name[128];
};

TEST_F(Recvmsg, errors)
{
    socket empty;
    EXPECT_EQ(mox_packet_recvmsg(&empty, &msg, 10, 0), -22);
    for (int flags : {0x1, 0x4, 0x8, 0x10, 0x80, 0x100, 0x2000, 0x4000, 0x162, int(0x80000000)})
        EXPECT_EQ(recv(10, flags), -22) << flags;
    EXPECT_EQ(recv(10, 0x40), -11);
    kernel().fail("recv_datagram");
    kernel().error["recv_datagram"] = -512;
    EXPECT_EQ(recv(), -512);
}

TEST_F(Recvmsg, name__26_bytes_zero_behind_the_address)
{
    arrive();
    EXPECT_EQ(recv(), 100);
    EXPECT_EQ(msg.namelen, 26);
    Bytes want(26, 0);
    want[0] = 17;
    want[4] = 7;
    want[10] = 3;
    EXPECT_EQ(Bytes(name, name + 26), want);
    EXPECT_EQ(name[26], 0xcc);
    EXPECT_EQ(msg.data.size(), 100u);
    EXPECT_EQ(msg.timestamps, 1);
    EXPECT_EQ(msg.flags, 0);
}

TEST_F(Recvmsg, name__protocol_is_the_buffers)
{
    arrive();
    const_cast<sk_buff &>(s.buffer()).protocol = 0xcc88;
    EXPECT_EQ(recv(), 100);
    EXPECT_EQ(Bytes(name + 2, name + 4), (Bytes{0x88, 0xcc}));
}

TEST_F(Recvmsg, name__not_wanted)
{
    arrive();
    msg.name = nullptr;
    EXPECT_EQ(recv(), 100);
}

TEST_F(Recvmsg, truncation)
{
    arrive();
    EXPECT_EQ(recv(60), 60);
    EXPECT_EQ(msg.flags, 0x20);
    EXPECT_EQ(msg.data.size(), 60u);
    msg.flags = 0;
    arrive();
    EXPECT_EQ(recv(60, 0x20), 100);
    EXPECT_EQ(msg.flags, 0x20);
    msg.flags = 0;
    arrive();
    EXPECT_EQ(recv(100, 0x20), 100);
    EXPECT_EQ(msg.flags, 0);
    arrive();
    EXPECT_EQ(recv(0, 0), 0);
}

TEST_F(Recvmsg, peek__leaves_the_packet_and_the_count)
{
    arrive();
    EXPECT_EQ(recv(65536, 0x2), 100);
    EXPECT_EQ(s.queued(), 1u);
    EXPECT_EQ(g_free_skb_num, 0u);
    EXPECT_EQ(recv(), 100);
    EXPECT_EQ(g_free_skb_num, 1u);
    EXPECT_EQ(s.sk->rmem, 0);
}

TEST_F(Recvmsg, ctrl__off_leaves_the_callers_length)
{
    arrive();
    fake::UserBuf control(48, 0xcc);
    msg.control = control.data();
    msg.controllen = 7;
    EXPECT_EQ(recv(), 100);
    EXPECT_EQ(msg.controllen, 7u);
    EXPECT_EQ(control.bytes, Bytes(48, 0xcc));
}

TEST_F(Recvmsg, ctrl__record_raw_whatever_the_length)
{
    s.set(PACKET_CTRL_INFO, 1);
    arrive();
    fake::UserBuf control(48, 0xcc);
    msg.control = control.data();
    msg.controllen = 3;
    Bytes want(s.buffer().cb, s.buffer().cb + 48);
    EXPECT_EQ(recv(), 100);
    EXPECT_EQ(msg.controllen, 48u);
    EXPECT_EQ(control.bytes, want);
    EXPECT_EQ(control.get<u32>(0), 7u);
    EXPECT_EQ(control.get<u16>(46), 0);
}

TEST_F(Recvmsg, ctrl__without_buffer_or_with_a_fault)
{
    s.set(PACKET_CTRL_INFO, 1);
    arrive();
    EXPECT_EQ(recv(), 100);
    EXPECT_EQ(msg.controllen, 48u);
    arrive();
    fake::UserBuf control(48, 0xcc);
    control.fault_at = 10;
    msg.control = control.data();
    EXPECT_EQ(recv(), 100);
}

TEST_F(Recvmsg, fault__frees_the_packet)
{
    arrive();
    msg.data_fault_at = 50;
    EXPECT_EQ(recv(), -14);
    EXPECT_EQ(s.queued(), 0u);
    EXPECT_EQ(g_free_skb_num, 1u);
    EXPECT_TRUE(kernel().skbs.empty());
}

}  // namespace
