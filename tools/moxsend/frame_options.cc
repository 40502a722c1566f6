/* SPDX-License-Identifier: GPL-2.0-only */
/* The commands arp, eapol and lldp. */
#include "words.h"

#include "mox/error.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

namespace moxsend {
namespace {

Ipv4Address parse_ipv4(const char *what, const std::string &text)
{
	Ipv4Address address;
	if (inet_pton(AF_INET, text.c_str(), address.data()) != 1)
		throw mox::UsageError(std::string(what) + " \"" + text +
				      "\" is not valid; allowed: four numbers from 0 to "
				      "255 such as 10.0.0.1");
	return address;
}

std::string mac_text(const mox::MacAddress &mac)
{
	char text[18];
	std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
		      mac[3], mac[4], mac[5]);
	return text;
}

/** The source address of the frames: as given, or else that of the interface. */
mox::MacAddress own_mac(const FrameSurroundings &around, const Machine &machine)
{
	if (around.from)
		return *around.from;
	if (around.interface == 0)
		throw mox::UsageError(
			"the source address is missing: give --from MAC, or the --interface whose address it is");
	auto mac = machine.interface_mac(around.interface);
	if (!mac)
		throw mox::UsageError("the platform has no MAC address of interface " +
				      std::to_string(around.interface) + ": give --from MAC");
	return *mac;
}

mox::MacAddress header_source(const FrameSurroundings &around, const Machine &machine)
{
	return around.header_used ? own_mac(around, machine) : mox::MacAddress{};
}

Bytes build_arp(const FrameWords &words, const FrameSurroundings &around, const Machine &machine)
{
	Arp arp;
	arp.operation = static_cast<std::uint16_t>(mox::parse_number(
		"ARP operation", words.arp_operation, 0, 0xffff, mox::arp_operation_names()));
	arp.sender_ip = parse_ipv4("sender IP address", words.sender_ip);
	arp.target_ip = parse_ipv4("target IP address", words.target_ip);
	if (!words.target_mac.empty())
		arp.target_mac = mox::parse_mac(words.target_mac);
	arp.sender_mac = words.sender_mac.empty() ? own_mac(around, machine)
						  : mox::parse_mac(words.sender_mac);

	// A request is broadcast, anything else goes to its target.
	Addresses addresses{ around.to.value_or(arp.operation == 1 || words.target_mac.empty()
							? kBroadcast
							: arp.target_mac),
			     around.from.value_or(arp.sender_mac) };
	return arp_frame(addresses, arp);
}

Bytes build_eapol(const FrameWords &words, const FrameSurroundings &around, const Machine &machine)
{
	Eapol eapol;
	auto names = eapol_kind_names();
	auto row = std::find_if(names.begin(), names.end(), [&](const mox::NamedValue &name) {
		return name.name == words.eapol_kind;
	});
	if (row == names.end()) {
		std::string allowed;
		for (const mox::NamedValue &name : names)
			allowed += (allowed.empty() ? "" : ", ") + std::string(name.name);
		throw mox::UsageError("EAPOL frame \"" + words.eapol_kind +
				      "\" is unknown; allowed: " + allowed);
	}
	eapol.kind = static_cast<EapolKind>(row->value);
	eapol.id = static_cast<std::uint8_t>(words.eapol_id);
	eapol.version = static_cast<std::uint8_t>(words.eapol_version);
	eapol.identity = words.identity;
	if (eapol.kind == EapolKind::kIdentity && words.identity.empty())
		throw mox::UsageError("an identity response says who: give --identity TEXT");
	if (eapol.kind != EapolKind::kIdentity && !words.identity.empty())
		throw mox::UsageError("--identity goes with \"eapol identity\" alone");
	return eapol_frame({ around.to.value_or(kEapolGroup), header_source(around, machine) },
			   eapol);
}

Bytes build_lldp(const FrameWords &words, const FrameSurroundings &around, const Machine &machine)
{
	Lldp lldp = words.lldp_fields;
	for (const std::string &capability : words.capabilities)
		lldp.capabilities |= static_cast<std::uint16_t>(mox::parse_number(
			"system capability", capability, 1, 0xffff, lldp_capability_names()));
	if (lldp.chassis_id.empty())
		lldp.chassis_id = mac_text(own_mac(around, machine));
	if (lldp.port_id.empty() && around.interface_word.empty())
		throw mox::UsageError(
			"the port id is missing: give --port-id TEXT, or the --interface whose name it is");
	if (lldp.port_id.empty())
		lldp.port_id = around.interface_word;
	if (!words.management_ip.empty()) {
		lldp.management_ip = parse_ipv4("management address", words.management_ip);
		lldp.management_ifindex = around.interface;
	}
	return lldp_frame({ around.to.value_or(kLldpGroup), header_source(around, machine) }, lldp);
}

} // namespace

void describe_frames(CLI::App &app, FrameWords &words)
{
	app.require_subcommand(0, 1);
	app.fallthrough();

	words.arp = app.add_subcommand("arp", "Send an ARP packet");
	words.arp->add_option("operation", words.arp_operation,
			      "request (default), reply, or a number");
	words.arp->add_option("--sender-ip", words.sender_ip, "IPv4 address of the sender")
		->type_name("IP")
		->required();
	words.arp->add_option("--target-ip", words.target_ip, "Whose address is asked for")
		->type_name("IP")
		->required();
	words.arp->add_option("--sender-mac", words.sender_mac, "Default: the source address")
		->type_name("MAC");
	words.arp->add_option("--target-mac", words.target_mac, "Default: zeroes")
		->type_name("MAC");

	words.lldp = app.add_subcommand("lldp", "Send an LLDP announcement");
	Lldp &lldp = words.lldp_fields;
	words.lldp
		->add_option("--chassis-id", lldp.chassis_id,
			     "MAC address or text (default: the source address)")
		->type_name("TEXT");
	words.lldp
		->add_option("--port-id", lldp.port_id,
			     "MAC address or text (default: the interface as given)")
		->type_name("TEXT");
	words.lldp
		->add_option("--ttl", lldp.ttl,
			     "Seconds that it holds (default 120); 0 takes it back")
		->type_name("SECONDS")
		->check(CLI::Range(0, 65535));
	words.lldp->add_option("--port-description", lldp.port_description, "Port description")
		->type_name("TEXT");
	words.lldp->add_option("--system-name", lldp.system_name, "System name")->type_name("TEXT");
	words.lldp
		->add_option("--system-description", lldp.system_description, "System description")
		->type_name("TEXT");
	words.lldp
		->add_option(
			"--capability", words.capabilities,
			"bridge, wlan-ap, router, ... or a bit mask; may be given several times")
		->type_name("NAME")
		->expected(1)
		->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
		->allow_extra_args(false);
	words.lldp->add_option("--management-ip", words.management_ip, "Management address")
		->type_name("IP");

	words.eapol = app.add_subcommand("eapol", "Send an 802.1X frame");
	words.eapol->add_option(
		"kind", words.eapol_kind,
		"start (default), logoff, request-identity, identity, success or failure");
	words.eapol->add_option("--identity", words.identity, "Who answers (kind identity)")
		->type_name("TEXT");
	words.eapol->add_option("--id", words.eapol_id, "Identifier of the EAP packet (default 1)")
		->type_name("N")
		->check(CLI::Range(0, 255));
	words.eapol->add_option("--version", words.eapol_version, "EAPOL version (default 2)")
		->type_name("N")
		->check(CLI::Range(1, 255));
}

Bytes build_frame(const FrameWords &words, const FrameSurroundings &surroundings,
		  const Machine &machine)
{
	if (*words.arp)
		return build_arp(words, surroundings, machine);
	if (*words.eapol)
		return build_eapol(words, surroundings, machine);
	return build_lldp(words, surroundings, machine);
}

} // namespace moxsend
