/* SPDX-License-Identifier: GPL-2.0 */
#include "state.h"

#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace lldp {
namespace {

struct CounterName {
    const char* name;
    const char* heading;
    std::uint64_t Counters::*member;
};
constexpr CounterName counter_table[] = {
    {"sent", "  sent", &Counters::sent},
    {"send_failures", "failed", &Counters::send_failures},
    {"received", "received", &Counters::received},
    {"discarded", "discarded", &Counters::discarded},
    {"refused", "refused", &Counters::refused},
    {"tlvs_discarded", "bad TLVs", &Counters::tlvs_discarded},
    {"tlvs_unrecognised", "unknown TLVs", &Counters::tlvs_unrecognised},
    {"aged", "aged", &Counters::aged},
};

long seconds(Time::duration span)
{
    return static_cast<long>(std::chrono::floor<std::chrono::seconds>(span).count());
}

/** Never below 0: one that ran out a moment ago is still there until the agent looks. */
long seconds_left(const Neighbour& neighbour, Time now)
{
    return std::max(0l, seconds(neighbour.expires - now));
}

std::string json_text(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c >= ' ' && c <= '~') {
            out += c;
        } else {
            char escape[7];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned char>(c));
            out += escape;
        }
    }
    return out + "\"";
}

/** Puts a separator before every element but the first. */
class Separated {
public:
    explicit Separated(std::ostream& out, const char* separator = ",") : out_(out), separator_(separator) {}
    std::ostream& next()
    {
        out_ << (first_ ? "" : separator_);
        first_ = false;
        return out_;
    }

private:
    std::ostream& out_;
    const char* separator_;
    bool first_ = true;
};

std::string json_names(std::uint16_t bits)
{
    std::ostringstream out;
    Separated list(out);
    std::istringstream names(capability_names(bits));
    for (std::string name; std::getline(names, name, ',');)
        list.next() << json_text(name);
    return "[" + out.str() + "]";
}

std::string json_of(const std::string& port, const Neighbour& neighbour, Time now)
{
    const Lldpdu& pdu = neighbour.pdu;
    std::ostringstream out;
    out << "{\"port\":" << json_text(port) << ",\"chassis\":" << json_text(chassis_text(pdu.chassis))
        << ",\"neighbour_port\":" << json_text(port_text(pdu.port)) << ",\"ttl\":" << pdu.ttl
        << ",\"heard_ago\":" << seconds(now - neighbour.heard) << ",\"expires_in\":" << seconds_left(neighbour, now);
    if (pdu.port_description)
        out << ",\"port_description\":" << json_text(*pdu.port_description);
    if (pdu.system_name)
        out << ",\"system_name\":" << json_text(*pdu.system_name);
    if (pdu.system_description)
        out << ",\"system_description\":" << json_text(*pdu.system_description);
    if (pdu.capabilities)
        out << ",\"capabilities\":" << json_names(pdu.capabilities->available)
            << ",\"enabled\":" << json_names(pdu.capabilities->enabled);
    out << ",\"management\":[";
    Separated list(out);
    for (const ManagementAddress& each : pdu.management)
        list.next() << json_text(address_text(each.family, each.address));
    out << "]}";
    return out.str();
}

void describe(std::ostream& out, const std::string& port, const Neighbour& neighbour, Time now)
{
    const Lldpdu& pdu = neighbour.pdu;
    auto line = [&out](const char* what, const std::string& value) {
        char head[32];
        std::snprintf(head, sizeof(head), "  %-19s ", what);
        out << head << value << "\n";
    };
    out << port << ": " << chassis_text(pdu.chassis) << ", " << port_text(pdu.port) << "\n";
    line("heard", std::to_string(seconds(now - neighbour.heard)) + " s ago, TTL " + std::to_string(pdu.ttl) + " s, " +
                      std::to_string(seconds_left(neighbour, now)) + " s left");
    if (pdu.system_name)
        line("system name", printable(*pdu.system_name));
    if (pdu.system_description)
        line("system description", printable(*pdu.system_description));
    if (pdu.port_description)
        line("port description", printable(*pdu.port_description));
    if (pdu.capabilities)
        line("capabilities", capabilities_text(*pdu.capabilities));
    for (const ManagementAddress& each : pdu.management)
        line("management address", address_text(each.family, each.address));
}

} // namespace

std::string state_as_text(const Agent& agent, Time now)
{
    std::ostringstream out;
    out << "Neighbours: " << agent.neighbours().all().size() << "\n";
    for (const auto& [key, neighbour] : agent.neighbours().all())
        describe(out, agent.port_name(std::get<0>(key)), neighbour, now);

    out << "Counters:\n";
    out << std::left << std::setw(14) << "  port" << std::right << std::setw(6) << "index" << std::setw(19) << "mac";
    for (const CounterName& each : counter_table)
        out << "  " << each.heading;
    out << "\n";
    for (const PortState& port : agent.ports()) {
        out << "  " << std::left << std::setw(12) << printable(port.port.name) << std::right << std::setw(6)
            << port.port.ifindex << std::setw(19) << hex(port.mac);
        for (const CounterName& each : counter_table)
            out << "  " << std::setw(static_cast<int>(std::strlen(each.heading))) << port.counters.*each.member;
        out << "\n";
    }
    if (agent.strays() != 0)
        out << "Frames of interfaces that are no ports of this agent: " << agent.strays() << "\n";
    return out.str();
}

std::string state_as_json(const Agent& agent, Time now)
{
    std::ostringstream out;
    out << "{\"neighbours\":[";
    Separated neighbours(out);
    for (const auto& [key, neighbour] : agent.neighbours().all())
        neighbours.next() << json_of(agent.port_name(std::get<0>(key)), neighbour, now);
    out << "],\"ports\":[";
    Separated ports(out);
    for (const PortState& port : agent.ports()) {
        ports.next() << "{\"name\":" << json_text(port.port.name) << ",\"ifindex\":" << port.port.ifindex
                     << ",\"mac\":" << json_text(hex(port.mac));
        for (const CounterName& each : counter_table)
            out << ",\"" << each.name << "\":" << port.counters.*each.member;
        out << "}";
    }
    out << "],\"strays\":" << agent.strays() << "}\n";
    return out.str();
}

} // namespace lldp
