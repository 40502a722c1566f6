// SPDX-License-Identifier: GPL-2.0
#include "golden.h"

#include <unistd.h>

#include "support/lab.h"

namespace vm {

const char *const kLocationNames[9] = {"PACKET_NONE_LOC", "PACKET_LOCAL_LOC", "PACKET_LEV2_LOC",
                                       "PACKET_IPv4_LOC", "PACKET_IPv6_LOC",  "PACKET_MPLS_LOC",
                                       "PACKET_TRILL_LOC", "PACKET_RESV_LOC", "PACKET_WLAN_LOC"};

std::string joined(const Pieces &pieces)
{
    std::string all;
    for (const std::string &piece : pieces)
        all += piece;
    return all;
}

void append(Pieces &to, const Pieces &more) { to.insert(to.end(), more.begin(), more.end()); }

SocketText::SocketText(std::string location, std::string treatment, std::vector<RuleText> rules)
    : location(std::move(location)), treatment(std::move(treatment)), rules(std::move(rules)), pid(::getpid())
{
}

Pieces SocketText::pieces() const
{
    static const char *const labels[13] = {
        "sk recv packets:        ", "sk filter drops:        ", "sk rcvbuff full drops:  ", "sk trim fail drops:     ",
        "sk send packet:         ", "sk sendmsg ill fails:   ", "sk macfunc ill fails:   ", "sk dstintf ill fails:   ",
        "sk srcintf ill fails:   ", "sk intf linkdown fails: ", "sk alloc efbuff fails:  ", "sk pkt copy fails:      ",
        "sk ef send fails:       "};
    Pieces out = {
        "\n------------ dump sock ------------\n",
        "process:       " + process + "\n",
        "vsd:           0\n",
        "pid:           " + std::to_string(pid) + "\n",
        std::string("running:       ") + (running ? "running" : "stop") + "\n",
        std::string("ctrldata:      ") + (ctrl ? "require" : "unrequire") + "\n",
        "ifindex:       " + std::to_string(ifindex) + "\n",
        "regulars:\n",
    };
    for (const RuleText &rule : rules) {
        append(out, {"regular type:  ", rule.type + "\n", "regular data:  "});
        for (size_t i = 0; i < rule.data.size(); ++i) {
            if (i)
                out.push_back("               ");
            out.push_back(rule.data[i] + "\n");
        }
        out.push_back("\n");
    }
    append(out, {"PACKET LOC:         " + location + "\n", "PACKET TREATMENT:   " + treatment + "\n"});
    for (size_t i = 0; i < counters.size(); ++i)
        out.push_back(labels[i] + std::to_string(counters[i]) + "\n");
    append(out, {"skbs to be recv:        " + std::to_string(to_receive) + "\n", "skbs to be send:        0\n",
                 "sk refcnt:              " + std::to_string(refcnt) + "\n"});
    return out;
}

Pieces queue_pieces(unsigned location)
{
    Pieces out = {std::string("location: ") + kLocationNames[location] + "\n"};
    for (int cpu = 0; cpu < 4; ++cpu)
        out.push_back("cpu " + std::to_string(cpu) + " efbuff cnt:      0\n");
    out.push_back("\n");
    return out;
}

Pieces filter_list_pieces(const std::vector<EntryText> &entries)
{
    Pieces out = {"filter regular list cnt: " + std::to_string(entries.size()) + "\n"};
    for (const EntryText &entry : entries) {
        append(out, {"regular type:  ", entry.type + "\n", "regular data:  ", entry.datum + "\n", "  match regulars:\n"});
        for (const CopyText &copy : entry.copies) {
            append(out, {"    process:      " + copy.process + "\n", "    PACKET TREATMENT:   " + copy.treatment + "\n"});
            for (const RuleText &rule : copy.rest) {
                append(out, {"    regular type:  ", rule.type + "\n"});
                for (const std::string &datum : rule.data)
                    append(out, {"    regular data:  ", datum + "\n"});
            }
        }
        out.push_back("\n");
    }
    return out;
}

Pieces location_pieces(unsigned location, const std::vector<SocketText> &sockets, const std::vector<EntryText> &entries)
{
    Pieces out = queue_pieces(location);
    for (const SocketText &socket : sockets)
        append(out, socket.pieces());
    out.push_back("\n");
    append(out, filter_list_pieces(entries));
    return out;
}

namespace {

struct Counter {
    const char *label;
    unsigned entry;
};

void counters(Pieces &out, const char *array, const std::vector<Counter> &lines)
{
    for (const Counter &line : lines)
        out.push_back(line.label + std::to_string(lab::peek32(array, line.entry * 4)) + "\n");
}

}  // namespace

Pieces memory_pieces()
{
    // Entries of the arrays: rule types 0 to 19 by number, then filter entries, match copies and failed allocations.
    Pieces out = {"------------------ DUMP PACKET DATA MEM ----------------- \n",
                  "regular data alloc:     " + std::to_string(lab::peek32("g_packet_regular_data_alloc")) + "\n",
                  "regular data free:      " + std::to_string(lab::peek32("g_packet_regular_data_free")) + "\n",
                  "\n--------------------- ITEM MEM ---------------------\n"};
    counters(out, "g_regular_item_stats",
             {{"PACKET_CODE:  ", 0},   {"DST MAC:      ", 1},  {"SRC MAC:      ", 2},  {"ETH PRO:      ", 3},
              {"SNAP PRO:     ", 4},   {"IPV4 PRO:     ", 5},  {"IPV6 PRO:     ", 6},  {"DST PORT NUM: ", 7},
              {"SRC PORT NUM: ", 8},   {"SRC INTF:     ", 10}, {"IPV6 DST PORT:", 9},  {"PID TYPE:     ", 17},
              {"ICMPV6 TYPE:  ", 11},  {"ARP TYPE:     ", 19}, {"IPv4 MCAST:   ", 12}, {"IPv6 MCAST:   ", 13},
              {"WLAN MGNT:    ", 18},  {"EAPOL TYPE:   ", 14}, {"EAPOL WPS TYPE:", 15}, {"PACKET ALL:   ", 16},
              {"ALLOC FAILED: ", 22}});
    out.push_back("\n--------------------- DATA MEM ---------------------\n");
    counters(out, "g_regular_data_stats",
             {{"PACKET_CODE:  ", 0},  {"DST MAC:      ", 1},  {"SRC MAC:      ", 2},  {"ETH PRO:      ", 3},
              {"SNAP PRO:     ", 4},  {"IPV4 PRO:     ", 5},  {"IPV6 PRO:     ", 6},  {"DST PORT NUM: ", 7},
              {"SRC PORT NUM: ", 8},  {"SRC INTF:     ", 10}, {"IPV6 DST PORT:", 9},  {"PID TYPE:     ", 17},
              {"ICMPV6 TYPE:  ", 11}, {"ARP TYPE:     ", 19}, {"EAPOL TYPE:   ", 14}, {"EAPOL WPS TYPE:", 15},
              {"FILTER LIST:  ", 20}, {"REGULAR:      ", 21}, {"ALLOC FAILED: ", 22}});
    append(out, {"---------------  SKB NUM ----------------\n",
                 "AF-PACKET alloc " + std::to_string(int32_t(lab::peek32("g_alloc_skb_num"))) + " skbs\n",
                 "AF-PACKET free  " + std::to_string(int32_t(lab::peek32("g_free_skb_num"))) + " skbs\n"});
    return out;
}

Pieces thread_pieces()
{
    return {"\n-------------PACKET-COPY-THREAD---------------\n",
            "scheduled:          " + std::to_string(lab::peek32("g_packet_thread_debug", 0)) + "\n",
            "Alloc skb failed:   " + std::to_string(lab::peek32("g_packet_thread_debug", 4)) + "\n"};
}

std::string dump_text(const std::string &locations, const std::string &memory)
{
    return "**************** AF-PACKET DUMP REGULAR START ****************\n" + locations +
           "**************** AF-PACKET DUMP REGULAR END ****************\n\n"
           "**************** AF-PACKET DUMP MEM START ****************\n" +
           memory + "**************** AF-PACKET DUMP MEM END ****************\n\n";
}

}  // namespace vm
