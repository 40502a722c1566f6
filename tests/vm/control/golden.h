// SPDX-License-Identifier: GPL-2.0
// What the reports must read, composed from what a test knows of its sockets. A report is kept as the pieces in which the
// module hands it out: a dump file that runs out of room loses whole pieces.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vm {

using Pieces = std::vector<std::string>;

std::string joined(const Pieces &pieces);
void append(Pieces &to, const Pieces &more);

/// A type's name and the texts of its data, as the report has them but for the line end.
struct RuleText {
    std::string type;
    std::vector<std::string> data;
};

/// A socket of this process, running unless told otherwise.
struct SocketText {
    SocketText(std::string location, std::string treatment, std::vector<RuleText> rules);

    std::string location, treatment;
    std::vector<RuleText> rules;
    std::string process = "vm_control";
    int pid;
    bool running = true;
    bool ctrl = false;
    uint32_t ifindex = 0;
    /// In the report's order: received, filter drops, buffer full, trim fails, sent, and eight ways to fail at sending.
    std::array<uint32_t, 13> counters{};
    uint32_t to_receive = 0;
    uint32_t refcnt = 3;

    Pieces pieces() const;
};

/// A rule that shares a key of the filter list: its types but the key, one RuleText each.
struct CopyText {
    std::string treatment;
    std::vector<RuleText> rest;
    std::string process = "vm_control";
};

struct EntryText {
    std::string type, datum;
    std::vector<CopyText> copies;
};

/// The locations that have a report, 1 to 8; index 0 is no location.
extern const char *const kLocationNames[9];

/// The queue report of a location, every CPU's queue empty.
Pieces queue_pieces(unsigned location);
Pieces filter_list_pieces(const std::vector<EntryText> &entries);
/// The whole report of a location.
Pieces location_pieces(unsigned location, const std::vector<SocketText> &sockets = {},
                       const std::vector<EntryText> &entries = {});
/// The memory report, with the counters that the module has at this moment.
Pieces memory_pieces();
Pieces thread_pieces();
/// What a dump file holds around the reports of all locations.
std::string dump_text(const std::string &locations, const std::string &memory);

}  // namespace vm
