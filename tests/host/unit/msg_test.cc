// SPDX-License-Identifier: GPL-2.0
// The control channel: the family's life, receiving, and what each request does.
#include <functional>

#include "control_fixture.h"

namespace {

class Msg : public ControlTest {
protected:
    static std::string debug_lines(const Strings &lines)
    {
        std::string all;
        for (const std::string &l : lines)
            all += tagged(l);
        return all;
    }
    static std::vector<u8> switches() { return {mox_packet_debug, mox_packet_debug + 19}; }
    static std::vector<u8> filter_bytes()
    {
        auto *b = reinterpret_cast<u8 *>(&g_pktd_kdbg_filter);
        return {b, b + sizeof g_pktd_kdbg_filter};
    }
};

// Every type that the channel knows, the first beyond, and the last number.
const u16 kTypes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 65535};

// ---- the family's life ------------------------------------------------------------

TEST_F(Msg, init__registers_once)
{
    EXPECT_EQ(mox_packet_msg_inited, 1);
    EXPECT_EQ(mox_packet_msg_init(), 0);
    EXPECT_EQ(kernel().calls("genl_register"), 1u);
    mox_packet_msg_deinit();
    EXPECT_EQ(mox_packet_msg_inited, 0);
    mox_packet_msg_deinit();
    EXPECT_EQ(kernel().journal, Strings{"genl-"});
    EXPECT_EQ(mox_packet_msg_init(), 0);
    EXPECT_EQ(kernel().calls("genl_register"), 2u);
}

TEST_F(Msg, init__failure_is_told_and_passed_back)
{
    mox_packet_msg_deinit();
    for (int error : {-17, -12, -1}) {
        kernel().error["genl_register"] = error;
        kernel().fail("genl_register");
        EXPECT_EQ(mox_packet_msg_init(), error);
        EXPECT_EQ(said(), "Failed to register generic netlink family, errno " + std::to_string(error) + "\n");
        EXPECT_EQ(mox_packet_msg_inited, 0);
    }
    EXPECT_EQ(mox_packet_msg_init(), 0);
}

TEST_F(Msg, deinit__keeps_switches_and_filter)
{
    ask(14, debug_body(3, 1));
    ask(15, Bytes(72, 0x11));
    std::vector<u8> filter = filter_bytes();
    mox_packet_msg_deinit();
    EXPECT_EQ(mox_packet_debug[3], 1);
    EXPECT_EQ(filter_bytes(), filter);
    EXPECT_EQ(mox_packet_msg_init(), 0);
}

// ---- receiving ------------------------------------------------------------------------

TEST_F(Msg, recv__shorter_than_24_bytes_is_refused)
{
    const u32 before = g_packet_msg_recv;
    for (int len = 0; len < 24; len++) {
        SCOPED_TRACE(len);
        debug(false);
        EXPECT_EQ(receive(message({}, len)), -1);
        EXPECT_EQ(said(), "");
        debug();
        EXPECT_EQ(receive(message({}, len)), -1);
        EXPECT_EQ(said(), tagged("Netlink message length error.\n"));
    }
    EXPECT_EQ(g_packet_msg_recv, before);
}

TEST_F(Msg, recv__24_bytes_ask_for_type_0)
{
    const std::string wanted = printed([] { mox_packet_show_regular(0); });
    EXPECT_EQ(receive(message({})), 0);
    EXPECT_EQ(answer(), wanted);
}

// Whatever is cut off reads as zero, for every type and at every length.
TEST_F(Msg, recv__cut_at_every_length_means_zeros)
{
    Sock s;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    Bytes body = debug_body(3, 1);
    body.resize(72, 0x41);
    for (u16 type : kTypes)
        for (int len = 24; len <= 100; len++) {
            SCOPED_TRACE("type " + std::to_string(type) + " length " + std::to_string(len));
            Bytes whole = message(record(type, body));
            ASSERT_EQ(whole.size(), 100u);
            Bytes cut(whole.begin(), whole.begin() + len);
            const u32 cut_len = len;
            memcpy(&cut[0], &cut_len, 4);
            Bytes padded = cut;
            padded.resize(100, 0);
            padded[0] = 100;
            struct {
                std::string text;
                std::vector<u8> switches, filter;
                Strings registrations;
            } seen[2];
            for (int i = 0; i < 2; i++) {
                memset(mox_packet_debug, 0, sizeof mox_packet_debug);
                efmp().registrations.clear();
                kernel().log.clear();
                EXPECT_EQ(receive(i ? padded : cut), 0);
                seen[i] = {said(), switches(), filter_bytes(), efmp().registrations};
            }
            EXPECT_EQ(seen[0].text, seen[1].text);
            EXPECT_EQ(seen[0].switches, seen[1].switches);
            EXPECT_EQ(seen[0].filter, seen[1].filter);
            EXPECT_EQ(seen[0].registrations, seen[1].registrations);
        }
    memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

// The attribute's type and length, and everything in the headers but the message's
// length, decide nothing.
TEST_F(Msg, recv__attribute_header_and_command_are_not_looked_at)
{
    for (int nla_len : {0, 3, 4, 5, 100, 65535}) {
        Bytes m = message(record(14, debug_body(5, 1)), -1, nla_len);
        m[16] = 0x77;  // command
        m[17] = 0x66;  // version
        m[18] = 0x55;
        m[22] = nla_len;
        m[23] = 0xc0;  // nested, network order
        EXPECT_EQ(receive(m), 0);
        EXPECT_EQ(mox_packet_debug[5], 1);
        mox_packet_debug[5] = 0;
    }
}

TEST_F(Msg, recv__tells_the_attributes_length_and_counts)
{
    debug();
    const u32 before = g_packet_msg_recv;
    const struct { int nla_len, told; } cases[] = {{0, -4}, {4, 0}, {8, 4}, {80, 76}, {65535, 65531}};
    for (auto &c : cases) {
        EXPECT_EQ(receive(message(record(17), -1, c.nla_len)), 0);
        EXPECT_TRUE(kernel().said(tagged("Deal message, length:" + std::to_string(c.told) + ".\n")));
        kernel().log.clear();
    }
    EXPECT_EQ(g_packet_msg_recv, before + 5);
    debug(false);
    ask(17);
    EXPECT_EQ(answer(), "");
    EXPECT_EQ(g_packet_msg_recv, before + 6);
}

// A message may be longer than any record; the rest is left alone.
TEST_F(Msg, recv__longer_than_a_record)
{
    Bytes r = record(14, debug_body(7, 1));
    r.resize(4000, 0xff);
    EXPECT_EQ(receive(message(r)), 0);
    EXPECT_EQ(mox_packet_debug[7], 1);
}

// ---- dispatching ------------------------------------------------------------------------

TEST_F(Msg, deal__says_who_asks_for_every_type_but_16)
{
    kernel().comm = "fifteen-letters";
    const std::string who = "Deal message from 74565, fifteen-letters.\n";
    for (u16 type : kTypes)
        for (bool on : {false, true}) {
            SCOPED_TRACE(type);
            memset(mox_packet_debug, 0, sizeof mox_packet_debug);
            debug(on);
            ask(type);
            EXPECT_EQ(kernel().count_said("Deal message from"), type == 16 ? 0u : 1u);
            EXPECT_EQ(kernel().said(who), type != 16);
            EXPECT_EQ(kernel().said(tagged("MSG TYPE " + std::to_string(type) + ", client 74565\n")), on);
            kernel().log.clear();
        }
    memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

TEST_F(Msg, deal__each_report)
{
    Sock s, t;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    t.capture(PACKET_RESV_LOC, PACKET_TRAP);
    const std::function<void()> reports[] = {
        [] { mox_packet_show_regular(0); },
        [] { mox_packet_show_regular(1); },
        [] { mox_packet_show_regular(2); },
        [] { mox_packet_show_regular(3); },
        [] { mox_packet_show_regular(4); },
        [] { mox_packet_show_regular(5); },
        [] { mox_packet_show_regular(6); },
        [] { mox_packet_show_regular(7); },
        [] {
            for (u32 i = 0; i < 8; i++) {
                mox_packet_show_regular(i);
                mox_printk("\n");
            }
        },
        [] {
            for (u32 location = 1; location <= 8; location++)
                mox_packet_show_cpu_queue(location);
        },
        [] { mox_packet_dump_mem(); },
        nullptr,  // by process, below
        nullptr,
        [] { mox_packet_dump_thread(); },
    };
    for (u16 type = 0; type <= 13; type++) {
        if (!reports[type])
            continue;
        SCOPED_TRACE(type);
        std::string wanted = printed(reports[type]);
        EXPECT_GT(wanted.size(), 20u);
        ask(type);
        EXPECT_EQ(answer(), wanted);
    }
}

TEST_F(Msg, deal__unknown_types_do_nothing)
{
    for (u16 type : {u16(17), u16(18), u16(255), u16(256), u16(272), u16(65535)}) {
        debug(false);
        ask(type);
        EXPECT_EQ(answer(), "");
        debug();
        ask(type);
        EXPECT_TRUE(kernel().said(tagged("MSG TYPE ILLEGAL.\n")));
        EXPECT_EQ(kernel().log.size(), 4u);
        kernel().log.clear();
    }
}

// ---- processes -----------------------------------------------------------------------------

TEST_F(Msg, show_name__heading_and_the_sockets_of_that_name)
{
    Sock lldpd, other;
    kernel().comm = "lldpd";
    lldpd.capture(PACKET_LEV2_LOC, PACKET_COPY);
    kernel().comm = "lldpd2";
    other.capture(PACKET_LEV2_LOC, PACKET_COPY);
    kernel().comm = "captured";
    std::string wanted = printed([&] { mox_packet_sock_dump(&lldpd.po()); });
    ask(11, {'l', 'l', 'd', 'p', 'd', 0, 'x', 'x'});
    EXPECT_EQ(answer(), "show process lldpd regular:\n" + wanted);
    // The end of the message ends the name as well.
    ask(11, {'l', 'l', 'd', 'p', 'd'});
    EXPECT_EQ(answer(), "show process lldpd regular:\n" + wanted);
    ask(11, {'L', 'l', 'd', 'p', 'd', 0});
    EXPECT_EQ(answer(), "show process Lldpd regular:\n");
    ask(11, {});
    EXPECT_EQ(answer(), "show process  regular:\n");
}

TEST_F(Msg, show_name__counts_up_to_15_characters)
{
    Sock s;
    kernel().comm = "fifteen-letters";
    s.capture(PACKET_WLAN_LOC, PACKET_COPY);
    kernel().comm = "captured";
    std::string wanted = printed([&] { mox_packet_sock_dump(&s.po()); });
    const std::string name = "fifteen-letters";
    for (std::string tail : {"", "!", "! and on, through the whole of the record and beyond, up to here .........."}) {
        std::string text = name + tail;
        ask(11, Bytes(text.begin(), text.end()));
        EXPECT_EQ(answer(), "show process fifteen-letters regular:\n" + wanted) << text;
    }
}

TEST_F(Msg, show_pid__heading_and_the_sockets_of_that_process)
{
    Sock a, b, c;
    kernel().pid = 100;
    a.capture(PACKET_WLAN_LOC, PACKET_COPY);
    b.capture(PACKET_LOCAL_LOC, PACKET_FETCH);
    kernel().pid = 101;
    c.capture(PACKET_LOCAL_LOC, PACKET_COPY);
    std::string first = printed([&] { mox_packet_sock_dump(&b.po()); });
    std::string second = printed([&] { mox_packet_sock_dump(&a.po()); });
    ask(12, u32_bytes(100));
    EXPECT_EQ(answer(), "show process 100 regular:\n" + first + second) << "in the order of the locations";
    ask(12, u32_bytes(99));
    EXPECT_EQ(answer(), "show process 99 regular:\n");
}

TEST_F(Msg, show_pid__zero_and_below)
{
    for (u32 pid : {0u, 0xffffffffu, 0x80000000u}) {
        debug(false);
        ask(12, u32_bytes(pid));
        const std::string head = "show process " + std::to_string(static_cast<s32>(pid)) + " regular:\n";
        EXPECT_EQ(answer(), head);
        debug();
        ask(12, u32_bytes(pid));
        EXPECT_TRUE(kernel().said(head));
        EXPECT_EQ(kernel().count_said(tagged("MOX-PACKET-SHOW-REGULAR-SPEC: pid is <= 0!\n")), 8u);
        kernel().log.clear();
    }
}

// ---- debug switches --------------------------------------------------------------------------

TEST_F(Msg, debug__every_type_with_every_value)
{
    for (u32 type = 0; type <= 28; type++)
        for (u32 value : {0u, 1u, 256u, 0x107u, 0xffffffffu})
            for (u8 before : {0, 1, 9}) {
                SCOPED_TRACE("type " + std::to_string(type) + " value " + std::to_string(value));
                memset(mox_packet_debug, before, sizeof mox_packet_debug);
                mox_packet_debug[9] = mox_packet_debug[18] = 0;
                std::vector<u8> wanted = switches();
                u32 from = type, to = type;
                if (type == 9)
                    from = 1, to = 8;
                else if (type == 18)
                    from = 10, to = 17;
                else if (type > 18)
                    from = 1, to = 0;
                for (u32 i = from; i <= to; i++)
                    wanted[i] = u8(value);
                ask(14, debug_body(type, value));
                EXPECT_EQ(switches(), wanted);
                EXPECT_EQ(mox_packet_debug[9], 0);
                EXPECT_EQ(mox_packet_debug[18], 0);
                kernel().log.clear();
            }
    memset(mox_packet_debug, 0, sizeof mox_packet_debug);
}

TEST_F(Msg, debug__is_told_while_debugging)
{
    debug();
    const struct { u32 type, value; Strings lines; } cases[] = {
        {3, 1, {"DEBUG TYPE 3, IS_OPEN 1\n"}},
        {9, 256, {"DEBUG TYPE 9, IS_OPEN 0\n"}},
        {18, 0x1ff, {"DEBUG TYPE 18, IS_OPEN 255\n"}},
        {23, 1, {"DEBUG TYPE 23, IS_OPEN 1\n"}},
        {27, 0, {"DEBUG TYPE 27, IS_OPEN 0\n"}},
        {28, 1, {"DEBUG TYPE 28, IS_OPEN 1\n", "DEBUG TYPE ILLEGAL\n"}},
        {0xffffffff, 7, {"DEBUG TYPE -1, IS_OPEN 7\n", "DEBUG TYPE ILLEGAL\n"}},
    };
    for (auto &c : cases) {
        mox_packet_request r{};
        r.msg_type = 14;
        r.body.debug.type = c.type;
        r.body.debug.is_open = c.value;
        EXPECT_EQ(mox_packet_msg_deal(&r, kClient), 0);
        EXPECT_EQ(said(), tagged("MSG TYPE 14, client 74565\n") + "Deal message from 74565, captured.\n" +
                              debug_lines(c.lines));
    }
}

// The switch is looked at before it changes.
TEST_F(Msg, debug__general_switch_going_off_is_told_and_going_on_is_not)
{
    debug();
    ask(14, debug_body(0, 0));
    EXPECT_TRUE(kernel().said(tagged("DEBUG TYPE 0, IS_OPEN 0\n")));
    EXPECT_EQ(mox_packet_debug[0], 0);
    kernel().log.clear();
    ask(14, debug_body(0, 1));
    EXPECT_EQ(answer(), "");
    EXPECT_EQ(mox_packet_debug[0], 1);
}

// ---- hook switch -----------------------------------------------------------------------------

struct HookCase {
    u32 type, location;
    Strings away, back;
};

const HookCase kHookCases[] = {
    {19, 1, {"dereg_output local"}, {"reg_output local"}},
    {20, 2, {"dereg_module lev2"}, {"reg_module lev2"}},
    {21, 3, {"dereg_module ipv4"}, {"reg_module ipv4"}},
    {22, 4, {"dereg_module ipv6"}, {"reg_module ipv6"}},
    {23, 5, {}, {}},
    {24, 6, {}, {}},
    {25, 7, {"dereg_recv resv"}, {"reg_recv resv"}},
    {26, 8, {"dereg_module wlan", "dereg_output wlan_out"}, {"reg_module wlan", "reg_output wlan_out"}},
};

TEST_F(Msg, hook__each_location_with_a_filled_library)
{
    for (auto &c : kHookCases) {
        SCOPED_TRACE(c.type);
        Rule rule(c.location, PACKET_COPY);
        rule.item(PACKET_ALL).add();
        auto turned = [&](u32 value) {
            efmp().registrations.clear();
            ask(14, debug_body(c.type, value));
            return efmp().registrations;
        };
        EXPECT_EQ(turned(1), c.away);
        for (const std::string &call : c.away)
            EXPECT_FALSE(hooked(call.substr(call.find(' ') + 1)));
        EXPECT_EQ(turned(256), c.back) << "the low byte counts";
        for (const std::string &call : c.back)
            EXPECT_TRUE(hooked(call.substr(call.find(' ') + 1)));
        EXPECT_EQ(turned(255), c.away);
        EXPECT_EQ(turned(0), c.back);
        kernel().log.clear();
    }
}

TEST_F(Msg, hook__each_location_with_an_empty_library)
{
    for (auto &c : kHookCases) {
        SCOPED_TRACE(c.type);
        efmp().registrations.clear();
        ask(14, debug_body(c.type, 0));
        EXPECT_EQ(efmp().registrations, Strings{}) << "nothing to put back";
        ask(14, debug_body(c.type, 1));
        // A module record knows that it is not registered; the functions do not.
        for (const std::string &call : efmp().registrations)
            EXPECT_EQ(call.find("dereg_module"), std::string::npos);
    }
}

TEST_F(Msg, hook__all_in_order_and_the_record_keeps_the_last)
{
    std::vector<std::unique_ptr<Rule>> rules;
    for (u32 location = 1; location <= 8; location++) {
        rules.push_back(std::make_unique<Rule>(location, PACKET_COPY));
        rules.back()->item(PACKET_ALL).add();
    }
    for (u32 value : {1u, 0u}) {
        Strings wanted;
        for (auto &c : kHookCases)
            for (const std::string &call : value ? c.away : c.back)
                wanted.push_back(call);
        efmp().registrations.clear();
        mox_packet_request r{};
        r.msg_type = 14;
        r.body.debug.type = 27;
        r.body.debug.is_open = value;
        EXPECT_EQ(mox_packet_msg_deal(&r, kClient), 0);
        EXPECT_EQ(efmp().registrations, wanted);
        EXPECT_EQ(r.body.debug.type, 26u);
        EXPECT_EQ(r.body.debug.is_open, value);
    }
}

TEST_F(Msg, hook__frames_pass_by_while_it_is_away)
{
    Sock s;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    ask(14, debug_body(20, 1));
    EXPECT_FALSE(hooked("lev2"));
    EXPECT_EQ(g_lev2_packet_module.registered, 0);
    EXPECT_EQ(filed(PACKET_LEV2_LOC), 1u) << "the rule stays";
    ask(14, debug_body(20, 0));
    EXPECT_TRUE(hooked("lev2"));
}

// A change of the location's rules brings the hook back in line.
TEST_F(Msg, hook__next_rule_registers_again_and_the_last_one_going_is_harmless)
{
    Sock s, t;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    ask(14, debug_body(20, 1));
    t.capture(PACKET_LEV2_LOC, PACKET_COPY);
    EXPECT_TRUE(hooked("lev2"));
    ask(14, debug_body(20, 1));
    t.release();
    EXPECT_TRUE(hooked("lev2"));
    ask(14, debug_body(20, 1));
    s.release();
    EXPECT_FALSE(hooked("lev2"));
}

TEST_F(Msg, hook__refused_by_the_platform)
{
    Sock s;
    s.capture(PACKET_IPv4_LOC, PACKET_COPY);
    ask(14, debug_body(21, 1));
    kernel().log.clear();
    kernel().fail("reg_module");
    ask(14, debug_body(21, 0));
    EXPECT_EQ(answer(), "reg PACKET-IPV4-MODULE failed\n");
    EXPECT_FALSE(hooked("ipv4"));
    const u32 body[2] = {21, 0};
    kernel().error["reg_module"] = -77;
    kernel().fail("reg_module");
    EXPECT_EQ(mox_packet_dereg_msg_deal(body), -77);
    EXPECT_EQ(mox_packet_dereg_msg_deal(body), 0);
    EXPECT_TRUE(hooked("ipv4"));
}

TEST_F(Msg, hook__other_types_are_illegal_there)
{
    for (u32 type : {0u, 18u, 27u, 28u, 0xffffffffu}) {
        const u32 body[2] = {type, 1};
        debug(false);
        EXPECT_EQ(mox_packet_dereg_msg_deal(body), 0);
        EXPECT_EQ(said(), "");
        debug();
        EXPECT_EQ(mox_packet_dereg_msg_deal(body), 0);
        EXPECT_EQ(said(), tagged("MSG TYPE ILLEGAL\n"));
    }
}

// A socket comes at the location while an operator puts the hook back, and the other
// way round: with a rule in the library at the end, the hook is there.
TEST_F(Msg, hook__turned_while_the_last_rule_goes)
{
    Sock s;
    s.capture(PACKET_LEV2_LOC, PACKET_COPY);
    ask(14, debug_body(20, 1));
    // The last rule goes just before the hook lock is taken to put the hook back.
    bool gone = false;
    kernel().at["locking"] = [&](const void *) {
        if (!gone) {
            gone = true;
            on_other_cpu([&] { s.release(); });
        }
    };
    ask(14, debug_body(20, 0));
    kernel().at.clear();
    EXPECT_TRUE(gone);
    EXPECT_FALSE(hooked("lev2")) << "no hook is left behind for an empty library";
}

// ---- the filter ---------------------------------------------------------------------------------

Bytes filter_record(u8 enable, u32 flags, u32 vid)
{
    Bytes f{enable, 0, 0, 0};
    f = f + u32_bytes(flags) + u32_bytes(vid);
    for (u8 b = 0; f.size() < 72; b++)
        f.push_back(0x40 + b);
    return f;
}

TEST_F(Msg, filter__is_replaced_as_a_whole)
{
    const Bytes wanted = filter_record(1, 0x3fe, 100);
    ask(15, wanted);
    std::vector<u8> stored = filter_bytes();
    EXPECT_EQ(Bytes(stored.begin() + 8, stored.begin() + 12), (Bytes{0, 0, 0, 100}));
    Bytes rest = wanted;
    std::copy(stored.begin() + 8, stored.begin() + 12, rest.begin() + 8);
    EXPECT_EQ(stored, rest);
    ask(15, Bytes(72));
    EXPECT_EQ(filter_bytes(), std::vector<u8>(72));
}

TEST_F(Msg, filter__vlan_word_carries_the_senders_vsd)
{
    const struct { const char *cwd; u32 vid; Bytes word; } cases[] = {
        {"/root", 0x123, {0, 0, 0x01, 0x23}},
        {"/root", 0xffffffff, {0, 0, 0x0f, 0xff}},
        {"/root", 0x1000, {0, 0, 0, 0}},
        {"/data/var/run/vsd/0/x", 1, {0, 0, 0, 1}},
        {"/data/var/run/vsd/3/x", 100, {0x30, 0, 0, 100}},
        {"/data/var/run/vsd/15", 0xfff, {0xf0, 0, 0x0f, 0xff}},
        {"/data/var/run/vsd/16", 2, {0, 0, 0, 2}},       // the upper bits are lost
        {"/data/var/run/vsd/35abc", 2, {0x30, 0, 0, 2}},
        {"/data/var/run/vsd/4294967295", 2, {0, 0, 0, 2}},  // negative
        {"/data/var/run/vsd/", 2, {0, 0, 0, 2}},
        {"/data/var/run/vsd", 2, {0, 0, 0, 2}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.cwd);
        kernel().cwd = c.cwd;
        ask(15, filter_record(1, 2, c.vid));
        std::vector<u8> stored = filter_bytes();
        EXPECT_EQ(Bytes(stored.begin() + 8, stored.begin() + 12), c.word);
    }
    kernel().cwd = "/data/var/run/vsd/3";
    kernel().cwd_renders = false;
    ask(15, filter_record(1, 2, 5));
    EXPECT_EQ(filter_bytes()[8], 0) << "a path that cannot be rendered is no vsd's";
}

TEST_F(Msg, filter__without_memory_for_the_path_is_set_for_vsd_0)
{
    kernel().cwd = "/data/var/run/vsd/3";
    kernel().fail("kzalloc");
    kernel().log.clear();
    ask(15, filter_record(1, 2, 5));
    ASSERT_EQ(kernel().log.size(), 2u);
    EXPECT_EQ(kernel().log[1].level, 0);
    EXPECT_EQ(kernel().log[1].text, "Failed to kmalloc buf.\n");
    std::vector<u8> stored = filter_bytes();
    EXPECT_EQ(Bytes(stored.begin() + 8, stored.begin() + 12), (Bytes{0, 0, 0, 5}));
}

TEST_F(Msg, filter__is_told_while_debugging)
{
    kernel().cwd = "/data/var/run/vsd/2";
    debug();
    ask(15, filter_record(1, 0x002 | 0x010, 100));
    EXPECT_TRUE(kernel().said(tagged("Recv filter debug msg enable\n")));
    // The record's bytes 24 to 27, little-endian.
    EXPECT_EQ(kernel().log.back().text, tagged("    Filter: src_intf 1330531660\r\n"));
    EXPECT_EQ(kernel().log[kernel().log.size() - 2].text, tagged("    Filter: vid 100\r\n"));
    kernel().log.clear();
    ask(15, filter_record(0, 0, 0));
    EXPECT_EQ(kernel().log.back().text, tagged("Recv filter debug msg disable\n"));
    debug(false);
    kernel().log.clear();
    ask(15, filter_record(1, 0x3fe, 100));
    EXPECT_EQ(answer(), "") << "no line of a filter";
}

// ---- the answer ----------------------------------------------------------------------------------

TEST_F(Msg, ask__answer_to_the_byte)
{
    debug();
    ask(16);
    ASSERT_EQ(kernel().answers.size(), 1u);
    EXPECT_EQ(kernel().answers[0].client, kClient);
    EXPECT_EQ(kernel().answers[0].message,
              (Bytes{24, 0, 0, 0, 0x1f, 0, 0, 0, 0, 0, 0, 0, 0x45, 0x23, 1, 0, 0, 1, 0, 0, 4, 0, 1, 0}));
    EXPECT_EQ(kernel().log.back().text, tagged("Ask msg success.\n"));
    debug(false);
    kernel().log.clear();
    ask(16);
    EXPECT_EQ(said(), "");
    EXPECT_EQ(kernel().answers.size(), 2u);
}

TEST_F(Msg, ask__each_failure)
{
    const struct { const char *point; int result; const char *line; } cases[] = {
        {"genl_alloc", -12, "Malloc skb fail.\n"},
        {"genl_put", -1, "Genlmsg_put fail.\n"},
        {"nla_put", -1, "Nla_put fail, ret -90.\n"},
        {"genl_unicast", -1, "Genlmsg_unicast fail, ret -111.\n"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.point);
        debug(false);
        kernel().fail(c.point);
        EXPECT_EQ(pkt_ask_msg(kClient), c.result);
        EXPECT_EQ(said(), "");
        debug();
        kernel().fail(c.point);
        EXPECT_EQ(pkt_ask_msg(kClient), c.result);
        EXPECT_EQ(said(), tagged(c.line));
        kernel().fail(c.point);
        ask(16);
        EXPECT_FALSE(kernel().said(tagged("Ask msg success.\n")));
        kernel().log.clear();
        EXPECT_TRUE(kernel().skbs.empty()) << "the buffer is freed";
    }
    EXPECT_TRUE(kernel().answers.empty());
}

TEST_F(Msg, ask__is_sent_without_a_file)
{
    kernel().fail("filp_open");
    ask(16);
    EXPECT_EQ(kernel().answers.size(), 1u);
    kernel().fail("vzalloc");
    ask(16);
    EXPECT_EQ(kernel().answers.size(), 2u);
}

}  // namespace
