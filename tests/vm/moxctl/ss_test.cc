// SPDX-License-Identifier: GPL-2.0-only
// The capture sockets in the kernel's own list of sockets, as ss prints it, next to moxctl's.
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <arpa/inet.h>
#include <unistd.h>

#include "support/capture.h"
#include "support/fixture.h"
#include "support/module.h"

namespace {

using namespace vm;

std::string output_of(const std::string &line)
{
	std::string text;
	FILE *pipe = ::popen(line.c_str(), "r");
	char part[4096];
	while (pipe && std::fgets(part, sizeof part, pipe))
		text += part;
	if (pipe)
		::pclose(pipe);
	return text;
}

/// The number behind a word in a line; -1 without it.
long long behind(const std::string &line, const std::string &word, int base = 10)
{
	const size_t at = line.find(word);
	return at == std::string::npos
		       ? -1
		       : std::strtoll(line.c_str() + at + word.size(), nullptr, base);
}

class Ss : public VmTest {};

TEST_F(Ss, lists_the_sockets_that_moxctl_lists)
{
	Socket raw = capture(PACKET_LEV2_LOC, PACKET_TRAP, ethertype(0x88b5));
	Socket dgram = capture(PACKET_RESV_LOC, PACKET_COPY, all(), SOCK_DGRAM);
	Socket idle(SOCK_RAW, htons(0x88cc));
	struct Listed {
		std::string type;
		long long location, treatment;
		bool running;
	};
	std::map<long long, Listed> by_ss;
	// What belongs to a socket continues on a line of its own.
	std::string listing = output_of("ss -0 -a -e -p -n");
	for (size_t at; (at = listing.find("\n\t")) != std::string::npos;)
		listing.replace(at, 2, " ");
	std::istringstream lines(listing);
	for (std::string line; std::getline(lines, line);) {
		const long long inode = behind(line, " ino:");
		if (inode > 0)
			by_ss[inode] = { line.substr(0, line.find(' ')), behind(line, " ver:"),
					 behind(line, " cpy_thresh:"),
					 line.find("running") != std::string::npos };
		if (inode > 0 && behind(line, "pid=") == ::getpid()) {
			EXPECT_NE(line.find("fd="), std::string::npos);
		}
	}
	std::map<long long, Listed> by_family;
	for (const CaptureAttributes &m : capture_request(MOX_CAPTURE_CMD_SOCKETS).messages)
		by_family[(long long)m.number(MOX_CAPTURE_SOCKET_INODE)] = {
			m.number(MOX_CAPTURE_SOCKET_TYPE) == SOCK_RAW ? "p_raw" : "p_dgr",
			(long long)m.number(MOX_CAPTURE_SOCKET_LOCATION),
			(long long)m.number(MOX_CAPTURE_SOCKET_TREATMENT),
			m.has(MOX_CAPTURE_SOCKET_RUNNING)
		};
	ASSERT_EQ(by_family.size(), 3u);
	ASSERT_EQ(by_ss.size(), 3u) << output_of("ss -0 -a -e -p -n 2>&1");
	for (const auto &[inode, of] : by_family) {
		SCOPED_TRACE(inode);
		const Listed &there = by_ss[inode];
		EXPECT_EQ(there.type, of.type);
		EXPECT_EQ(there.location, of.location);
		EXPECT_EQ(there.treatment, of.treatment);
		EXPECT_EQ(there.running, of.running);
	}
	EXPECT_FALSE(module_present("packet_diag"));
	// And the operators' program.
	const std::string text = output_of("moxctl show sockets --json");
	for (const auto &[inode, of] : by_family)
		EXPECT_NE(text.find(std::to_string(inode)), std::string::npos) << text;
}

// More than one buffer of the kernel's holds.
TEST_F(Ss, lists_five_hundred)
{
	std::vector<Socket> sockets(500);
	std::set<long long> inodes;
	std::istringstream lines(output_of("ss -0 -a -e -n"));
	for (std::string line; std::getline(lines, line);)
		if (const long long inode = behind(line, " ino:"); inode > 0)
			inodes.insert(inode);
	EXPECT_EQ(inodes.size(), 500u);
}

} // namespace
