/* SPDX-License-Identifier: GPL-2.0-only */
/* Reports as the module prints them, trailing blanks included, and what the kernel log makes of them. */
#ifndef REPORT_TEXTS_H
#define REPORT_TEXTS_H

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

/** A socket report without its first lines: counters n, n + 1, ... */
inline std::string counter_lines(unsigned n)
{
	const char *const labels[] = {
		"sk recv packets:        ", "sk filter drops:        ", "sk rcvbuff full drops:  ",
		"sk trim fail drops:     ", "sk send packet:         ", "sk sendmsg ill fails:   ",
		"sk macfunc ill fails:   ", "sk dstintf ill fails:   ", "sk srcintf ill fails:   ",
		"sk intf linkdown fails: ", "sk alloc efbuff fails:  ", "sk pkt copy fails:      ",
		"sk ef send fails:       ", "skbs to be recv:        ", "skbs to be send:        ",
		"sk refcnt:              ",
	};
	std::string text;
	for (const char *label : labels)
		text += label + std::to_string(n++) + "\n";
	return text;
}

inline std::string arpwatch_socket()
{
	return "\n------------ dump sock ------------\n"
	       "process:       arpwatch\n"
	       "vsd:           0\n"
	       "pid:           412\n"
	       "running:       running\n"
	       "ctrldata:      require\n"
	       "ifindex:       7\n"
	       "regulars:\n"
	       "regular type:  PACKET_ETH_PROT_EQUAL\n"
	       "regular data:  0806  \n"
	       "               88cc  \n"
	       "\n"
	       "regular type:  PACKET_ARP_TYPE\n"
	       "regular data:  256  \n"
	       "\n"
	       "PACKET LOC:         PACKET_LEV2_LOC\n"
	       "PACKET TREATMENT:   PACKET_COPY\n" +
	       counter_lines(100);
}

/** Every kind of value once. */
inline std::string everything_socket()
{
	return "\n------------ dump sock ------------\n"
	       "process:       all kinds: x\n"
	       "vsd:           3\n"
	       "pid:           7\n"
	       "running:       stop\n"
	       "ctrldata:      unrequire\n"
	       "ifindex:       0\n"
	       "regulars:\n"
	       "regular type:  PACKET_PACKET_CODE_EQUAL\n"
	       "regular data:  code: 1, subcode: 2  \n"
	       "\n"
	       "regular type:  PACKET_DEST_MAC_EQUAL\n"
	       "regular data:  01:80:c2:00:00:0e  \n"
	       "               ff:ff:ff:ff:ff:ff  \n"
	       "\n"
	       "regular type:  PACKET_SRC_INTF_EQUAL\n"
	       "regular data:  4294967295  \n"
	       "\n"
	       "regular type:  PACKET_IPv4_MCAST_TRAFFIC\n"
	       "regular data:  \n"
	       "\n"
	       "regular type:  PACKET_ALL\n"
	       "regular data:  \n"
	       "regular type:  PACKET_PID_T\n"
	       "regular data:  -1  \n"
	       "\n"
	       "regular type:  illegal regular type!\n"
	       "regular data:  illegal regular type!\n"
	       "\n"
	       "PACKET LOC:         Unknown\n"
	       "PACKET TREATMENT:   PACKET_TREATMENT_NONE\n" +
	       counter_lines(0);
}

inline std::string queue_lines(const std::string &location, unsigned first = 0)
{
	return "location: " + location + "\n" + "cpu 0 efbuff cnt:      " + std::to_string(first) +
	       "\n" + "cpu 3 efbuff cnt:      " + std::to_string(first + 1) + "\n\n";
}

inline std::string lev2_report()
{
	return queue_lines("PACKET_LEV2_LOC", 5) + arpwatch_socket() + everything_socket() +
	       "\n"
	       "filter regular list cnt: 2\n"
	       "regular type:  PACKET_ETH_PROT_EQUAL\n"
	       "regular data:  0806  \n"
	       "  match regulars:\n"
	       "    process:      arpwatch\n"
	       "    PACKET TREATMENT:   PACKET_COPY\n"
	       "    regular type:  PACKET_ARP_TYPE\n"
	       "    regular data:  256  \n"
	       "    process:      other\n"
	       "    PACKET TREATMENT:   PACKET_TRAP\n"
	       "    regular type:  PACKET_SRC_INTF_EQUAL\n"
	       "    regular data:  7  \n"
	       "\n"
	       "regular type:  PACKET_ALL\n"
	       "regular data:  \n"
	       "  match regulars:\n"
	       "\n";
}

inline std::string empty_report(const std::string &location)
{
	return queue_lines(location) + "\nfilter regular list cnt: 0\n";
}

/** The eight locations; only layer 2 has sockets. after stands behind each. */
inline std::string all_reports(const std::string &after = "\n")
{
	std::string text;
	for (const char *name :
	     { "LOCAL", "LEV2", "IPv4", "IPv6", "MPLS", "TRILL", "RESV", "WLAN" })
		text += (name == std::string("LEV2")
				 ? lev2_report()
				 : empty_report("PACKET_" + std::string(name) + "_LOC")) +
			after;
	return text;
}

inline std::string queues_report()
{
	std::string text;
	for (const char *name :
	     { "LOCAL", "LEV2", "IPv4", "IPv6", "MPLS", "TRILL", "RESV", "WLAN" })
		text += queue_lines("PACKET_" + std::string(name) + "_LOC", 10);
	return text;
}

inline std::string memory_report()
{
	return "------------------ DUMP PACKET DATA MEM ----------------- \n"
	       "regular data alloc:     12\n"
	       "regular data free:      4\n"
	       "\n--------------------- ITEM MEM ---------------------\n"
	       "PACKET_CODE:  1\nDST MAC:      2\nSRC MAC:      3\nETH PRO:      4\nSNAP PRO:     5\nIPV4 PRO:     6\n"
	       "IPV6 PRO:     7\nDST PORT NUM: 8\nSRC PORT NUM: 9\nSRC INTF:     10\nIPV6 DST PORT:11\nPID TYPE:     12\n"
	       "ICMPV6 TYPE:  13\nARP TYPE:     14\nIPv4 MCAST:   15\nIPv6 MCAST:   16\nWLAN MGNT:    17\n"
	       "EAPOL TYPE:   18\nEAPOL WPS TYPE:19\nPACKET ALL:   20\nALLOC FAILED: 21\n"
	       "\n--------------------- DATA MEM ---------------------\n"
	       "PACKET_CODE:  31\nDST MAC:      32\nSRC MAC:      33\nETH PRO:      34\nSNAP PRO:     35\nIPV4 PRO:     36\n"
	       "IPV6 PRO:     37\nDST PORT NUM: 38\nSRC PORT NUM: 39\nSRC INTF:     40\nIPV6 DST PORT:41\nPID TYPE:     42\n"
	       "ICMPV6 TYPE:  43\nARP TYPE:     44\nEAPOL TYPE:   45\nEAPOL WPS TYPE:46\nFILTER LIST:  47\n"
	       "REGULAR:      48\nALLOC FAILED: 49\n"
	       "---------------  SKB NUM ----------------\n"
	       "AF-PACKET alloc 50 skbs\n"
	       "AF-PACKET free  51 skbs\n";
}

inline std::string thread_report()
{
	return "\n-------------PACKET-COPY-THREAD---------------\n"
	       "scheduled:          17\n"
	       "Alloc skb failed:   2\n";
}

inline std::string dump_file_text()
{
	return "**************** AF-PACKET DUMP REGULAR START ****************\n" + all_reports() +
	       "**************** AF-PACKET DUMP REGULAR END ****************\n\n"
	       "**************** AF-PACKET DUMP MEM START ****************\n" +
	       memory_report() + "**************** AF-PACKET DUMP MEM END ****************\n\n";
}

inline std::vector<std::string> lines_of_text(const std::string &text)
{
	std::vector<std::string> lines;
	for (std::size_t at = 0, end; at < text.size(); at = end + 1) {
		end = text.find('\n', at);
		lines.push_back(text.substr(at, end - at));
	}
	return lines;
}

/**
 * The printk calls that a text is made of: a label and its value are two, a heading's first line end belongs to the
 * heading.
 */
inline std::vector<std::string> printk_calls(const std::string &text)
{
	const std::string_view labels[] = { "    regular type:  ", "    regular data:  ",
					    "regular type:  ", "regular data:  ",
					    "               " };
	std::vector<std::string> calls;
	std::string before;
	auto lines = lines_of_text(text);
	for (std::size_t i = 0; i < lines.size(); ++i) {
		std::string line = lines[i] + "\n";
		if (line == "\n" && i + 1 < lines.size() && lines[i + 1].starts_with("-----")) {
			before = "\n";
			continue;
		}
		for (std::string_view label : labels)
			if (line.starts_with(label)) {
				calls.emplace_back(label);
				line = line.substr(label.size());
				break;
			}
		calls.push_back(before + line);
		before.clear();
	}
	return calls;
}

/** One printk call as /dev/kmsg gives it. */
inline std::string kmsg_record(unsigned long sequence, std::string call, unsigned priority = 4,
			       const std::string &caller = {})
{
	if (call.ends_with('\n'))
		call.pop_back();
	std::string text = std::to_string(priority) + "," + std::to_string(sequence) +
			   ",1234567,-" + (caller.empty() ? "" : ",caller=" + caller) + ";";
	for (char c : call) {
		char escaped[8];
		auto byte = static_cast<unsigned char>(c);
		std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
		text += byte < ' ' || byte >= 127 || byte == '\\' ? std::string(escaped)
								  : std::string(1, c);
	}
	return text + "\n";
}

#endif
