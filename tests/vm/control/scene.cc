// SPDX-License-Identifier: GPL-2.0
#include "scene.h"

#include <gtest/gtest.h>

#include "support/lab.h"

namespace vm {

namespace {

const RuleText kProtocols{"PACKET_ETH_PROT_EQUAL", {"0806  ", "0800  "}};
const RuleText kArp{"PACKET_ETH_PROT_EQUAL", {"0806  "}};
const RuleText kAll{"PACKET_ALL", {}};
const RuleText kPorts{"PACKET_SRC_INTF_EQUAL", {"211  ", "212  "}};
const RuleText kPid{"PACKET_PID_T", {"7  "}};

struct Place {
    uint32_t location;
    unsigned report;
    const char *name;
};

const Place kPlaces[] = {
    {PACKET_LOCAL_LOC, 1, "PACKET_LOCAL_LOC"},         {PACKET_LEV2_LOC, 2, "PACKET_LEV2_LOC"},
    {PACKET_IPv4_LOC, 3, "PACKET_IPv4_LOC"},           {PACKET_IPv6_LOC, 4, "PACKET_IPv6_LOC"},
    {PACKET_RESV_LOC, 7, "PACKET_RESV_LOC"},           {PACKET_WLAN_LOC, 8, "PACKET_WLAN_LOC"},
    {PACKET_LEV2_RESV_LOC, 7, "PACKET_LEV2_RESV_LOC"}, {PACKET_LEV3_RESV_LOC, 7, "PACKET_LEV3_RESV_LOC"},
};

}  // namespace

LayerTwoScene::LayerTwoScene()
{
    copy = capture(PACKET_LEV2_LOC, PACKET_COPY, be16s(PACKET_ETH_PROT_EQUAL, {0x0806, 0x0800}));
    trap = capture(PACKET_LEV2_LOC, PACKET_TRAP, all());
    EXPECT_EQ(fetch.add(ethertype(0x0806)), 0);
    EXPECT_EQ(fetch.add(u32s(PACKET_SRC_INTF_EQUAL, {211, 212})), 0);
    EXPECT_EQ(fetch.add(u32s(PACKET_PID_T, {7})), 0);
    EXPECT_EQ(fetch.ctrl(true), 0);
    EXPECT_EQ(fetch.treatment(PACKET_FETCH), 0);
    EXPECT_EQ(fetch.location(PACKET_LEV2_LOC), 0);
    EXPECT_EQ(fetch.bind(lab::kPortA), 0);
    EXPECT_EQ(stopped.add(all()), 0);
}

std::vector<SocketText> LayerTwoScene::sockets()
{
    SocketText fetching("PACKET_LEV2_LOC", "PACKET_FETCH", {kArp, kPorts, kPid});
    fetching.ctrl = true;
    fetching.ifindex = lab::kPortA;
    return {SocketText("PACKET_LEV2_LOC", "PACKET_TRAP", {kAll}), fetching,
            SocketText("PACKET_LEV2_LOC", "PACKET_COPY", {kProtocols})};
}

std::vector<EntryText> LayerTwoScene::entries()
{
    return {
        {"PACKET_ETH_PROT_EQUAL", "0806  ", {{"PACKET_FETCH", {kPorts, kPid}}, {"PACKET_COPY", {}}}},
        {"PACKET_ETH_PROT_EQUAL", "0800  ", {{"PACKET_COPY", {}}}},
        {"PACKET_ALL", "", {{"PACKET_TRAP", {}}}},
    };
}

EveryLocationScene::EveryLocationScene()
{
    for (const Place &place : kPlaces)
        sockets.push_back(capture(place.location, PACKET_COPY, all()));
}

std::vector<SocketText> EveryLocationScene::sockets_at(unsigned location)
{
    std::vector<SocketText> out;
    for (const Place &place : kPlaces)
        if (place.report == location)
            out.emplace_back(place.name, "PACKET_COPY", std::vector<RuleText>{kAll});
    return out;
}

std::vector<EntryText> EveryLocationScene::entries_at(unsigned location)
{
    std::vector<CopyText> copies(sockets_at(location).size(), CopyText{"PACKET_COPY", {}});
    if (copies.empty())
        return {};
    return {{"PACKET_ALL", "", copies}};
}

}  // namespace vm
