// SPDX-License-Identifier: GPL-2.0-only
#include "scene.h"

#include <gtest/gtest.h>

#include "support/lab.h"

namespace vm {

namespace {

const RuleText kProtocols{ PACKET_ETH_PROT_EQUAL, { "0806  ", "0800  " } };
const RuleText kArp{ PACKET_ETH_PROT_EQUAL, { "0806  " } };
const RuleText kAll{ PACKET_ALL, {} };
const RuleText kPorts{ PACKET_SRC_INTF_EQUAL, { "211  ", "212  " } };
const RuleText kPid{ PACKET_PID_T, { "7  " } };

} // namespace

LayerTwoScene::LayerTwoScene()
{
	copy = capture(PACKET_LEV2_LOC, PACKET_COPY,
		       be16s(PACKET_ETH_PROT_EQUAL, { 0x0806, 0x0800 }));
	trap = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
	EXPECT_EQ(fetch.add(ethertype(0x0806)), 0);
	EXPECT_EQ(fetch.add(u32s(PACKET_SRC_INTF_EQUAL, { 211, 212 })), 0);
	EXPECT_EQ(fetch.add(u32s(PACKET_PID_T, { 7 })), 0);
	EXPECT_EQ(fetch.ctrl(true), 0);
	EXPECT_EQ(fetch.treatment(PACKET_FETCH), 0);
	EXPECT_EQ(fetch.location(PACKET_LEV2_LOC), 0);
	EXPECT_EQ(fetch.bind(lab::kPortA), 0);
	EXPECT_EQ(stopped.add(all()), 0);
}

std::vector<SocketText> LayerTwoScene::sockets()
{
	SocketText fetching = own_socket(PACKET_LEV2_LOC, PACKET_FETCH, { kArp, kPorts, kPid });
	fetching.ctrl = true;
	fetching.ifindex = lab::kPortA;
	return { own_socket(PACKET_LEV2_LOC, PACKET_TRAP, { kAll }), fetching,
		 own_socket(PACKET_LEV2_LOC, PACKET_COPY, { kProtocols }) };
}

std::vector<EntryText> LayerTwoScene::entries()
{
	return {
		{ PACKET_ETH_PROT_EQUAL,
		  "0806  ",
		  { own_copy(PACKET_FETCH, { kPorts, kPid }), own_copy(PACKET_COPY) } },
		{ PACKET_ETH_PROT_EQUAL, "0800  ", { own_copy(PACKET_COPY) } },
		{ PACKET_ALL, "", { own_copy(PACKET_TRAP) } },
	};
}

EveryLocationScene::EveryLocationScene()
{
	for (uint32_t location = 1; location < contract::kLocationCount; ++location)
		if (contract::kLocations[location].accepted)
			sockets.push_back(capture(location, PACKET_COPY, all()));
}

std::vector<SocketText> EveryLocationScene::sockets_at(unsigned report)
{
	std::vector<SocketText> out;
	for (uint32_t location = 1; location < contract::kLocationCount; ++location)
		if (contract::kLocations[location].accepted &&
		    contract::library(location) == contract::library(report))
			out.push_back(own_socket(location, PACKET_COPY, { kAll }));
	return out;
}

std::vector<EntryText> EveryLocationScene::entries_at(unsigned location)
{
	std::vector<CopyText> copies(sockets_at(location).size(), own_copy(PACKET_COPY));
	if (copies.empty())
		return {};
	return { { PACKET_ALL, "", copies } };
}

} // namespace vm
