// SPDX-License-Identifier: GPL-2.0
// The reports that exist so far: a socket with its rule.
#include "module_fixture.h"

namespace {

class Dump : public ModuleTest {};

TEST_F(Dump, sock_dump__through_the_option)
{
    Sock s;
    kernel().comm = "lldpd";
    kernel().pid = 99;
    s.create();
    s.add(PACKET_DEST_MAC_EQUAL, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    s.add(PACKET_ALL);
    s.set(PACKET_TREATMENT, PACKET_TRAP);
    s.set(PACKET_LOCATION, PACKET_LEV2_LOC);
    s.set(PACKET_CTRL_INFO, 1);
    s.bind(7);
    kernel().log.clear();
    EXPECT_EQ(s.setsockopt(18, {}), 0);
    EXPECT_EQ(kernel().text(),
              "\n------------ dump sock ------------\n"
              "process:       lldpd\nvsd:           0\npid:           99\nrunning:       running\n"
              "ctrldata:      require\nifindex:       7\nregulars:\n"
              "regular type:  PACKET_DEST_MAC_EQUAL\n"
              "regular data:  01:02:03:04:05:06  \n               07:08:09:0a:0b:0c  \n\n"
              "regular type:  PACKET_ALL\nregular data:  \n"
              "PACKET LOC:         PACKET_LEV2_LOC\nPACKET TREATMENT:   PACKET_TRAP\n"
              "sk recv packets:        0\nsk filter drops:        0\nsk rcvbuff full drops:  0\n"
              "sk trim fail drops:     0\nsk send packet:         0\nsk sendmsg ill fails:   0\n"
              "sk macfunc ill fails:   0\nsk dstintf ill fails:   0\nsk srcintf ill fails:   0\n"
              "sk intf linkdown fails: 0\nsk alloc efbuff fails:  0\nsk pkt copy fails:      0\n"
              "sk ef send fails:       0\nskbs to be recv:        0\nskbs to be send:        0\n"
              "sk refcnt:              3\n");
}

TEST_F(Dump, sock_dump__counters_in_the_reports_order)
{
    Sock s;
    s.create();
    for (u32 i = 0; i < 13; i++)
        (&s.po().filter_drops)[i] = i + 1;
    kernel().log.clear();
    mox_packet_sock_dump(&s.po());
    EXPECT_NE(kernel().text().find(
                  "sk recv packets:        4\nsk filter drops:        1\nsk rcvbuff full drops:  2\n"
                  "sk trim fail drops:     3\nsk send packet:         13\nsk sendmsg ill fails:   5\n"
                  "sk macfunc ill fails:   6\nsk dstintf ill fails:   7\nsk srcintf ill fails:   8\n"
                  "sk intf linkdown fails: 9\nsk alloc efbuff fails:  10\nsk pkt copy fails:      11\n"
                  "sk ef send fails:       12\n"),
              std::string::npos);
    EXPECT_NE(kernel().text().find("running:       stop\nctrldata:      unrequire\n"), std::string::npos);
}

TEST_F(Dump, regular_data__of_every_type)
{
    const struct { u32 type; Bytes value; const char *line; } cases[] = {
        {0, {3, 4}, "code: 3, subcode: 4  \n"}, {1, {1, 2, 3, 4, 5, 0xfe}, "01:02:03:04:05:fe  \n"},
        {2, {1, 2, 3, 4, 5, 6}, "01:02:03:04:05:06  \n"}, {3, {0x08, 0x06}, "0806  \n"}, {4, {0x20, 4}, "2004  \n"},
        {5, {17}, "17  \n"}, {6, {58}, "58  \n"}, {7, {0, 67}, "67  \n"}, {8, {0, 68}, "68  \n"},
        {9, {2, 35}, "547  \n"}, {10, {7, 0, 0, 0x80}, "2147483655  \n"}, {11, {135}, "135  \n"}, {12, {}, "\n"},
        {13, {}, "\n"}, {14, {3}, "3  \n"}, {15, {1}, "1  \n"}, {16, {}, "\n"}, {17, {0xff, 0xff, 0xff, 0xff}, "-1  \n"},
        {18, {}, "\n"}, {19, {1, 0}, "1  \n"}, {20, {}, "illegal regular type!\n"},
    };
    for (auto &c : cases) {
        u8 value[8] = {};
        std::copy(c.value.begin(), c.value.end(), value);
        kernel().log.clear();
        mox_packet_dump_regular_data(c.type, value);
        EXPECT_EQ(kernel().text(), c.line) << c.type;
    }
    kernel().log.clear();
    mox_packet_dump_regular_type(20);
    EXPECT_EQ(kernel().text(), "illegal regular type!\n");
}

}  // namespace
