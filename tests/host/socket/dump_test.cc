// SPDX-License-Identifier: GPL-2.0
// The reports on a socket and its rule, word by word.
#include "rules/print.hpp"
#include "socket_fixture.h"

namespace {

class Dump : public SocketTest {
protected:
    void SetUp() override
    {
        SocketTest::SetUp();
        ASSERT_EQ(s.create(), 0);
    }
    void TearDown() override
    {
        s.release();
        SocketTest::TearDown();
    }
    std::string said()
    {
        std::string text = kernel().text();
        for (const fake::Line &line : kernel().log)
            EXPECT_EQ(line.level, -1) << "reports carry no level";
        kernel().log.clear();
        return text;
    }

    Sock s;
};

TEST_F(Dump, socket__fresh)
{
    mox_packet_sock_dump(&s.po());
    EXPECT_EQ(said(),
              "\n------------ dump sock ------------\n"
              "process:       captured\n"
              "vsd:           0\n"
              "pid:           4711\n"
              "running:       stop\n"
              "ctrldata:      unrequire\n"
              "ifindex:       0\n"
              "regulars:\n"
              "PACKET LOC:         PACKET_NONE_LOC\n"
              "PACKET TREATMENT:   PACKET_TREATMENT_NONE\n"
              "sk recv packets:        0\n"
              "sk filter drops:        0\n"
              "sk rcvbuff full drops:  0\n"
              "sk trim fail drops:     0\n"
              "sk send packet:         0\n"
              "sk sendmsg ill fails:   0\n"
              "sk macfunc ill fails:   0\n"
              "sk dstintf ill fails:   0\n"
              "sk srcintf ill fails:   0\n"
              "sk intf linkdown fails: 0\n"
              "sk alloc efbuff fails:  0\n"
              "sk pkt copy fails:      0\n"
              "sk ef send fails:       0\n"
              "skbs to be recv:        0\n"
              "skbs to be send:        0\n"
              "sk refcnt:              2\n");
}

TEST_F(Dump, socket__every_field_and_every_rule_type)
{
    ASSERT_EQ(s.add(0, 2, {5, 9, 0xff, 0}), 0);
    ASSERT_EQ(s.add(1, 2, {0x01, 0x80, 0xc2, 0, 0, 0x0e, 0xde, 0xad, 0xbe, 0xef, 0, 1}), 0);
    ASSERT_EQ(s.add(2, 1, {2, 0, 0, 0, 0, 0xab}), 0);
    ASSERT_EQ(s.add(3, 3, {0x08, 0x06, 0x00, 0x03, 0x88, 0xcc}), 0);
    ASSERT_EQ(s.add(4, 1, {0x80, 0x9b}), 0);
    ASSERT_EQ(s.add(5, 2, {6, 255}), 0);
    ASSERT_EQ(s.add(6, 1, {58}), 0);
    ASSERT_EQ(s.add(7, 1, {0, 53}), 0);
    ASSERT_EQ(s.add(8, 1, {0xff, 0xfe}), 0);
    ASSERT_EQ(s.add(9, 1, {0x02, 0x22}), 0);
    ASSERT_EQ(s.add(10, 2, {7, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}), 0);
    ASSERT_EQ(s.add(11, 1, {135}), 0);
    ASSERT_EQ(s.add(12), 0);
    ASSERT_EQ(s.add(13), 0);
    ASSERT_EQ(s.add(14, 1, {3}), 0);
    ASSERT_EQ(s.add(15, 1, {200}), 0);
    ASSERT_EQ(s.add(16), 0);
    ASSERT_EQ(s.add(17, 2, {0x67, 0x12, 0, 0, 0xff, 0xff, 0xff, 0xff}), 0);
    ASSERT_EQ(s.add(18), 0);
    ASSERT_EQ(s.add(19, 1, {0, 2}), 0);
    ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_FETCH), 0);
    ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV3_RESV_LOC), 0);
    ASSERT_EQ(s.set(PACKET_CTRL_INFO, 1), 0);
    ASSERT_EQ(s.bind(7), 0);
    mox_packet_sock &po = s.po();
    po.vsd = 3;
    po.pid = -2;
    u32 *counter = &po.filter_drops;  // in the record's order
    for (u32 i = 0; i < 13; i++)
        counter[i] = 101 + i;
    po.ef_send_fails = 4294967295u;
    for (int i = 0; i < 3; i++) {
        sk_buff *skb = seam_skb_alloc(60);
        seam_skb_set_meta(skb, 0, 7, 0);
        seam_skb_set_owner_r(skb, s.sk);
        seam_rcvq_append(s.sk, skb);
    }
    sk_buff in_flight;
    s.sk->write_queue->assign(2, &in_flight);
    kernel().log.clear();
    mox_packet_sock_dump(&po);
    s.sk->write_queue->clear();
    EXPECT_EQ(said(),
              "\n------------ dump sock ------------\n"
              "process:       captured\n"
              "vsd:           3\n"
              "pid:           -2\n"
              "running:       running\n"
              "ctrldata:      require\n"
              "ifindex:       7\n"
              "regulars:\n"
              "regular type:  PACKET_PACKET_CODE_EQUAL\n"
              "regular data:  code: 5, subcode: 9  \n"
              "               code: 255, subcode: 0  \n"
              "\n"
              "regular type:  PACKET_DEST_MAC_EQUAL\n"
              "regular data:  01:80:c2:00:00:0e  \n"
              "               de:ad:be:ef:00:01  \n"
              "\n"
              "regular type:  PACKET_SRC_MAC_EQUAL\n"
              "regular data:  02:00:00:00:00:ab  \n"
              "\n"
              "regular type:  PACKET_ETH_PROT_EQUAL\n"
              "regular data:  0806  \n"
              "               0003  \n"
              "               88cc  \n"
              "\n"
              "regular type:  PACKET_SNAP_ETH_TYPE_EQUAL\n"
              "regular data:  809b  \n"
              "\n"
              "regular type:  PACKET_IPv4_PROT_EQUAL\n"
              "regular data:  6  \n"
              "               255  \n"
              "\n"
              "regular type:  PACKET_IPv6_PROT_EQUAL\n"
              "regular data:  58  \n"
              "\n"
              "regular type:  PACKET_IPv4_DEST_PORT_EQUAL\n"
              "regular data:  53  \n"
              "\n"
              "regular type:  PACKET_IPv4_SRC_PORT_EQUAL\n"
              "regular data:  65534  \n"
              "\n"
              "regular type:  PACKET_IPv6_DEST_PORT_EQUAL\n"
              "regular data:  546  \n"
              "\n"
              "regular type:  PACKET_SRC_INTF_EQUAL\n"
              "regular data:  7  \n"
              "               4294967295  \n"
              "\n"
              "regular type:  PACKET_ICMPV6_TYPE_EQUAL\n"
              "regular data:  135  \n"
              "\n"
              "regular type:  PACKET_IPv4_MCAST_TRAFFIC\n"
              "regular data:  \n"
              "\n"
              "regular type:  PACKET_IPv6_MCAST_TRAFFIC\n"
              "regular data:  \n"
              "\n"
              "regular type:  PACKET_EAPOL_TYPE_EQUAL\n"
              "regular data:  3  \n"
              "\n"
              "regular type:  PACKET_EAPOL_TYPE_WPS\n"
              "regular data:  200  \n"
              "\n"
              // An item without data has no data line to end the line.
              "regular type:  PACKET_ALL\n"
              "regular data:  \n"
              "regular type:  PACKET_PID_T\n"
              "regular data:  4711  \n"
              "               -1  \n"
              "\n"
              "regular type:  PACKET_WLAN_MGNT\n"
              "regular data:  \n"
              "\n"
              // As stored, in the machine's order.
              "regular type:  PACKET_ARP_TYPE\n"
              "regular data:  512  \n"
              "\n"
              "PACKET LOC:         PACKET_LEV3_RESV_LOC\n"
              "PACKET TREATMENT:   PACKET_FETCH\n"
              "sk recv packets:        104\n"
              "sk filter drops:        101\n"
              "sk rcvbuff full drops:  102\n"
              "sk trim fail drops:     103\n"
              "sk send packet:         113\n"
              "sk sendmsg ill fails:   105\n"
              "sk macfunc ill fails:   106\n"
              "sk dstintf ill fails:   107\n"
              "sk srcintf ill fails:   108\n"
              "sk intf linkdown fails: 109\n"
              "sk alloc efbuff fails:  110\n"
              "sk pkt copy fails:      111\n"
              "sk ef send fails:       4294967295\n"
              "skbs to be recv:        3\n"
              "skbs to be send:        2\n"
              "sk refcnt:              3\n");
    po.vsd = 0;
}

TEST_F(Dump, socket__takes_no_lock)
{
    LockTrace trace;
    mox_packet_sock_dump(&s.po());
    EXPECT_EQ(trace.steps, Strings{});
}

TEST_F(Dump, rule__every_location_and_treatment)
{
    const char *const locations[] = {
        "PACKET_NONE_LOC", "PACKET_LOCAL_LOC", "PACKET_LEV2_LOC", "PACKET_IPv4_LOC",
        "PACKET_IPv6_LOC", "PACKET_MPLS_LOC",  "PACKET_TRILL_LOC", "PACKET_RESV_LOC",
        "PACKET_WLAN_LOC", "PACKET_LEV2_RESV_LOC", "PACKET_LEV3_RESV_LOC", "Unknown", "Unknown"};
    const char *const treatments[] = {
        "PACKET_TREATMENT_NONE", "PACKET_COPY", "PACKET_FETCH", "PACKET_TRAP",
        "PACKET_COPY_LOCAL", "PACKET_FETCH_LOCAL", "Unknown"};
    packet_regular rule{};
    list_init(&rule.items);
    auto report = [&](u32 location, u32 treatment) {
        rule.location = location;
        rule.treatment = treatment;
        mox_packet_dump_regular(&rule);
        return said();
    };
    for (u32 location = 0; location < 13; location++)
        for (u32 treatment = 0; treatment < 7; treatment++)
            EXPECT_EQ(report(location, treatment),
                      std::string("PACKET LOC:         ") + locations[location] +
                          "\nPACKET TREATMENT:   " + treatments[treatment] + "\n");
    EXPECT_EQ(report(0xffffffff, 0xffffffff),
              "PACKET LOC:         Unknown\nPACKET TREATMENT:   Unknown\n");
}

TEST_F(Dump, type__beyond_the_last_is_illegal)
{
    const u8 value[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (u32 type : {20u, 21u, 255u, 0xffffffffu}) {
        mox_packet_dump_regular_type(type);
        EXPECT_EQ(said(), "illegal regular type!\n");
        mox_packet_dump_regular_data(type, value);
        EXPECT_EQ(said(), "illegal regular type!\n");
    }
}

TEST_F(Dump, thread__counters)
{
    g_packet_thread_debug.scheduled = 12;
    g_packet_thread_debug.alloc_skb_failed = 4000000000u;
    mox_packet_dump_thread();
    EXPECT_EQ(said(), "\n-------------PACKET-COPY-THREAD---------------\n"
                      "scheduled:          12\n"
                      "Alloc skb failed:   4000000000\n");
}

}  // namespace
