// SPDX-License-Identifier: GPL-2.0-only
/*
 * The family for reading, mox_capture. Requests run in parallel: each has a state of its
 * own, and locks for one message's work at a time.
 */
#pragma once

#include "base/message.hpp"
#include "control/query.hpp"
#include "socket/registry.hpp"

extern "C" {
extern u8 mox_capture_inited;

/** Register the family, once. 0 or a negative errno. Process. */
int mox_capture_init(void);
/** Unregister it, if registered. Process. */
void mox_capture_deinit(void);
}

namespace mox {

/** A dump, from its request to its last message. */
struct Dump {
	u8 command;
	bool ended;
	Query query;
	/* Where it goes on. By number: of a location and CPU, or of a row. */
	u32 next;
	/* Of sockets. */
	RegistryPlace place;
	/* Of a rule that goes on: the socket, held; where in its values. */
	mox_packet_sock *held;
	u32 written_types; /* a bit for each type whose values are all written */
	u32 type;          /* the one that is being written, if in_values */
	bool in_values;    /* value is the last one that was written of type */
	u8 value[REGULAR_VALUE_SIZE];
	u32 written; /* values in the message that is being written */
};

/* Each writes the next messages of a dump, as many as fit. False when there are more. Process. */
bool dump_locations(Dump *dump, sk_buff *skb, const seam_request *request);
bool dump_queues(Dump *dump, sk_buff *skb, const seam_request *request);
bool dump_sockets_list(Dump *dump, sk_buff *skb, const seam_request *request);
bool dump_rules(Dump *dump, sk_buff *skb, const seam_request *request);
bool dump_memory(Dump *dump, sk_buff *skb, const seam_request *request);

/** Whether a socket is one that a dump asks for; identity is filled for it. Any. */
bool selects(const Query &query, mox_packet_sock *po, seam_sock_identity *identity);

/** Whether a socket's rule is entered at its location: at some a socket runs without. Any. */
bool rule_entered(mox_packet_sock *po);

/** Hold a socket of the registry, and its namespace, which a released socket does not pin. Any. */
void hold_socket(Dump *dump, mox_packet_sock *po);
/** Drop both. Process. */
void drop_socket(Dump *dump);

/** Write the answers of INFO and THREAD. */
void put_info(Message &message);
void put_thread(Message &message);

} // namespace mox
