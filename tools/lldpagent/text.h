/* SPDX-License-Identifier: GPL-2.0-only */
/* Received bytes in a form that is safe to print. */
#ifndef LLDPAGENT_TEXT_H
#define LLDPAGENT_TEXT_H

#include "lldpdu.h"

#include <string_view>

namespace lldp {

/** The text with everything but printable ASCII as "\xNN": it has no control sequences for a terminal. */
std::string printable(std::string_view text);
/** "02:00:00:00:03:01", of any number of bytes. */
std::string hex(View bytes);

/** "mac 02:00:00:00:03:01", "ifname eth0", "local 17", "network 10.0.0.1"; bytes where the subtype has no text form. */
std::string chassis_text(const Id &id);
std::string port_text(const Id &id);

/** "10.0.0.1", "fd00::1"; bytes for other families and for addresses of a wrong length. */
std::string address_text(std::uint8_t family, View address);

/** "bridge(on) wlan-ap(off)": what the system can do, and whether it does. */
std::string capabilities_text(const Capabilities &capabilities);
/** Names of capabilities, joined by commas. */
std::string capability_names(std::uint16_t bits);
/** The bit of a name of the two above; 0 for an unknown one. */
std::uint16_t capability_of(std::string_view name);
/** All names, joined by commas. */
std::string all_capabilities();

} // namespace lldp

#endif
