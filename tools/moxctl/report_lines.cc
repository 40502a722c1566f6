/* SPDX-License-Identifier: GPL-2.0 */
#include "report_lines.h"

#include "mox/names.h"
#include "mox/rule.h"

#include <algorithm>
#include <cctype>

namespace moxctl {
namespace {

constexpr unsigned any_kind = ~0u;
constexpr unsigned rules = report_rules | report_tech;
constexpr unsigned queues = rules | report_queues;
constexpr unsigned sockets = rules | report_process;
constexpr unsigned memory = report_memory | report_tech;

constexpr LineForm forms[] = {
    {Line::blank, any_kind, "", {}},

    {Line::queue_location, queues, "location: %l", {}},
    {Line::queue_cpu, queues, "cpu %d efbuff cnt:      %u", {}},

    {Line::socket_head, sockets, "------------ dump sock ------------", {}},
    {Line::process, sockets, "process:       %s", {}},
    {Line::vsd, sockets, "vsd:           %u", {}},
    {Line::pid, sockets, "pid:           %d", {}},
    {Line::running, sockets, "running:       running", "running"},
    {Line::running, sockets, "running:       stop", {}},
    {Line::ctrldata, sockets, "ctrldata:      require", "require"},
    {Line::ctrldata, sockets, "ctrldata:      unrequire", {}},
    {Line::ifindex, sockets, "ifindex:       %u", {}},
    {Line::regulars, sockets, "regulars:", {}},
    {Line::rule_type, sockets, "regular type:  %r", {}},
    {Line::rule_data, sockets, "regular data:  %v", {}},
    {Line::more_data, sockets, "               %v", {}},
    {Line::location, sockets, "PACKET LOC:         %l", {}},
    {Line::treatment, sockets, "PACKET TREATMENT:   %t", {}},
    {Line::counter, sockets, "sk recv packets:        %u", "recv_packets"},
    {Line::counter, sockets, "sk filter drops:        %u", "filter_drops"},
    {Line::counter, sockets, "sk rcvbuff full drops:  %u", "rcvbuf_full_drops"},
    {Line::counter, sockets, "sk trim fail drops:     %u", "trim_fail_drops"},
    {Line::counter, sockets, "sk send packet:         %u", "send_packets"},
    {Line::counter, sockets, "sk sendmsg ill fails:   %u", "sendmsg_ill_fails"},
    {Line::counter, sockets, "sk macfunc ill fails:   %u", "macfunc_ill_fails"},
    {Line::counter, sockets, "sk dstintf ill fails:   %u", "dstintf_ill_fails"},
    {Line::counter, sockets, "sk srcintf ill fails:   %u", "srcintf_ill_fails"},
    {Line::counter, sockets, "sk intf linkdown fails: %u", "intf_linkdown_fails"},
    {Line::counter, sockets, "sk alloc efbuff fails:  %u", "alloc_efbuff_fails"},
    {Line::counter, sockets, "sk pkt copy fails:      %u", "pkt_copy_fails"},
    {Line::counter, sockets, "sk ef send fails:       %u", "ef_send_fails"},
    {Line::counter, sockets, "skbs to be recv:        %u", "skbs_to_be_recv"},
    {Line::counter, sockets, "skbs to be send:        %u", "skbs_to_be_send"},
    {Line::counter, sockets, "sk refcnt:              %u", "refcnt"},

    {Line::filter_count, rules, "filter regular list cnt: %d", {}},
    {Line::match_head, rules, "  match regulars:", {}},
    {Line::match_process, rules, "    process:      %s", {}},
    {Line::match_treatment, rules, "    PACKET TREATMENT:   %t", {}},
    {Line::match_type, rules, "    regular type:  %r", {}},
    {Line::match_data, rules, "    regular data:  %v", {}},

    // The blank at the end of this heading is the report's own.
    {Line::memory_head, memory, "------------------ DUMP PACKET DATA MEM ----------------- ", "rule_data"},
    {Line::memory_counter, memory, "regular data alloc:     %u", "alloc"},
    {Line::memory_counter, memory, "regular data free:      %u", "free"},
    {Line::memory_head, memory, "--------------------- ITEM MEM ---------------------", "items"},
    {Line::memory_head, memory, "--------------------- DATA MEM ---------------------", "data"},
    {Line::memory_counter, memory, "PACKET_CODE:  %u", "packet_code"},
    {Line::memory_counter, memory, "DST MAC:      %u", "dst_mac"},
    {Line::memory_counter, memory, "SRC MAC:      %u", "src_mac"},
    {Line::memory_counter, memory, "ETH PRO:      %u", "eth_pro"},
    {Line::memory_counter, memory, "SNAP PRO:     %u", "snap_pro"},
    {Line::memory_counter, memory, "IPV4 PRO:     %u", "ipv4_pro"},
    {Line::memory_counter, memory, "IPV6 PRO:     %u", "ipv6_pro"},
    {Line::memory_counter, memory, "DST PORT NUM: %u", "dst_port_num"},
    {Line::memory_counter, memory, "SRC PORT NUM: %u", "src_port_num"},
    {Line::memory_counter, memory, "SRC INTF:     %u", "src_intf"},
    {Line::memory_counter, memory, "IPV6 DST PORT:%u", "ipv6_dst_port"},
    {Line::memory_counter, memory, "PID TYPE:     %u", "pid_type"},
    {Line::memory_counter, memory, "ICMPV6 TYPE:  %u", "icmpv6_type"},
    {Line::memory_counter, memory, "ARP TYPE:     %u", "arp_type"},
    {Line::memory_counter, memory, "IPv4 MCAST:   %u", "ipv4_mcast"},
    {Line::memory_counter, memory, "IPv6 MCAST:   %u", "ipv6_mcast"},
    {Line::memory_counter, memory, "WLAN MGNT:    %u", "wlan_mgnt"},
    {Line::memory_counter, memory, "EAPOL TYPE:   %u", "eapol_type"},
    {Line::memory_counter, memory, "EAPOL WPS TYPE:%u", "eapol_wps_type"},
    {Line::memory_counter, memory, "PACKET ALL:   %u", "packet_all"},
    {Line::memory_counter, memory, "FILTER LIST:  %u", "filter_list"},
    {Line::memory_counter, memory, "REGULAR:      %u", "regular"},
    {Line::memory_counter, memory, "ALLOC FAILED: %u", "alloc_failed"},
    {Line::memory_head, memory, "---------------  SKB NUM ----------------", "skbs"},
    {Line::memory_counter, memory, "AF-PACKET alloc %d skbs", "alloc"},
    {Line::memory_counter, memory, "AF-PACKET free  %d skbs", "free"},

    {Line::thread_head, report_thread, "-------------PACKET-COPY-THREAD---------------", {}},
    {Line::thread_counter, report_thread, "scheduled:          %u", "scheduled"},
    {Line::thread_counter, report_thread, "Alloc skb failed:   %u", "alloc_skb_failed"},

    {Line::process_head, report_process, "show process %s regular:", {}},

    {Line::dump_banner, report_tech, "**************** AF-PACKET DUMP REGULAR START ****************", {}},
    {Line::dump_banner, report_tech, "**************** AF-PACKET DUMP REGULAR END ****************", {}},
    {Line::dump_banner, report_tech, "**************** AF-PACKET DUMP MEM START ****************", {}},
    {Line::dump_banner, report_tech, "**************** AF-PACKET DUMP MEM END ****************", {}},
};

bool is_digits(std::string_view text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool is_number(std::string_view text)
{
    return is_digits(!text.empty() && text[0] == '-' ? text.substr(1) : text);
}

bool is_hex(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

bool is_mac(std::string_view text)
{
    if (text.size() != 17)
        return false;
    for (std::size_t i = 0; i < text.size(); i += 3)
        if (!is_hex(text.substr(i, 2)) || (i + 2 < text.size() && text[i + 2] != ':'))
            return false;
    return true;
}

bool is_rule_type(std::string_view text)
{
    auto types = mox::rule_types();
    return text == "illegal regular type!" ||
           std::any_of(types.begin(), types.end(), [&](const mox::RuleType& row) { return row.full == text; });
}

bool is_rule_value(std::string_view text)
{
    if (text.empty() || text == "illegal regular type!")
        return true;
    // Two blanks end every value that there is.
    if (!text.ends_with("  "))
        return false;
    text.remove_suffix(2);
    constexpr std::string_view code = "code: ", sub_code = ", subcode: ";
    if (text.starts_with(code)) {
        std::size_t middle = text.find(sub_code);
        return middle != std::string_view::npos && is_digits(text.substr(code.size(), middle - code.size())) &&
               is_digits(text.substr(middle + sub_code.size()));
    }
    return is_number(text) || (text.size() == 4 && is_hex(text)) || is_mac(text);
}

bool is_name_of(std::span<const mox::Name> table, std::string_view text)
{
    return text == "Unknown" ||
           std::any_of(table.begin(), table.end(), [&](const mox::Name& row) { return row.full == text; });
}

bool fits(char kind, std::string_view text)
{
    switch (kind) {
    case 'u':
        return is_digits(text);
    case 'd':
        return is_number(text);
    case 'r':
        return is_rule_type(text);
    case 'v':
        return is_rule_value(text);
    case 'l':
        return is_name_of(mox::locations(), text);
    case 't':
        return is_name_of(mox::treatments(), text);
    default:
        return true;
    }
}

/** Matches a whole line; values gets what stands at the format's places. */
bool matches(std::string_view line, std::string_view format, std::array<std::string_view, 2>& values)
{
    for (std::string_view& value : values) {
        std::size_t place = format.find('%');
        if (place == std::string_view::npos)
            return line == format;
        if (line.substr(0, place) != format.substr(0, place))
            return false;
        char kind = format[place + 1];
        line.remove_prefix(place);
        format.remove_prefix(place + 2);

        // A value reaches to the last place where the literal text behind it fits: names may hold anything.
        std::string_view literal = format.substr(0, format.find('%'));
        std::size_t end = literal.size() == format.size()
                              ? (line.ends_with(literal) ? line.size() - literal.size() : std::string_view::npos)
                              : line.find(literal);
        if (end == std::string_view::npos || !fits(kind, line.substr(0, end)))
            return false;
        value = line.substr(0, end);
        line.remove_prefix(end);
    }
    return line == format;
}

} // namespace

std::optional<ScannedLine> scan_line(std::string_view line, unsigned kinds)
{
    for (const LineForm& form : forms) {
        ScannedLine scanned{&form, {}};
        if ((form.kinds & kinds) && matches(line, form.format, scanned.values))
            return scanned;
    }
    return std::nullopt;
}

bool is_label(std::string_view text)
{
    return std::any_of(std::begin(forms), std::end(forms), [&](const LineForm& form) {
        return (form.format.ends_with("%r") || form.format.ends_with("%v")) &&
               form.format.substr(0, form.format.size() - 2) == text;
    });
}

std::span<const LineForm> line_forms()
{
    return forms;
}

} // namespace moxctl
