// SPDX-License-Identifier: GPL-2.0-only
// A library of the module beside its twin in the reference, compared in place.
#pragma once

#include "rules_fixture.h"

// The records of the sockets, by the reference's number.
using Owners = std::vector<const mox_packet_sock *>;

bool same_rule(const packet_regular &got, const oracle::Regular &want, const Owners &owners);
// Counts, order in both directions, and every byte of every rule, key and copy.
bool same_library(const packet_regular_lib &got, const oracle::Library &want, const Owners &owners);

// The same as text, one line for each rule, key and copy, for the message of a failure.
std::string text_of(const packet_regular_lib &lib, const Owners &owners);
std::string text_of(const oracle::Library &lib);
