// SPDX-License-Identifier: GPL-2.0-only
// The sums that the module's ledgers must add up to, checked behind every test.
#pragma once

#include <cstdint>

#include "seam/seam.h"

namespace fake {

// A total as one number.
uint64_t total(const mox_total &of);
// A socket's counter by its attribute.
uint64_t total(const mox_packet_sock *po, mox_capture_counters_attr which);

// Of all CPUs: what hooks and delivery did with frames, and what is still queued.
void audit_frames();
// Of a socket that is being freed, or at rest.
void audit_socket(const mox_packet_sock *po, uint64_t queued);

// Puts a buffer on a socket's queue as delivery does, counted.
bool deliver(sock *sk, sk_buff *skb);
// Takes all buffers off a socket's queue, as reads that are counted.
void read_all(sock *sk);

} // namespace fake
