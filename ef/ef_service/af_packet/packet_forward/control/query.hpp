// SPDX-License-Identifier: GPL-2.0-only
/*
 * The attributes of a request of mox_capture, as numbers. The same checks on all kernel
 * versions: an attribute that the module does not know is refused, since a filter that
 * is passed over would answer another question.
 */
#pragma once

#include "seam/seam_capture.h"

namespace mox {

/** What a request asks for. Of a number that is absent, has() is false and the field 0. */
struct Query {
	u32 present; /* a bit for each attribute number */
	u32 location;
	s32 pid;
	u64 cookie;
	u8 restrict_on;
	u32 ifindex;
	u16 vlan;
	u8 mac[6];
	u16 ether_type;
	u8 address[16];
	u8 address_size; /* 4 or 16 */
	u8 prefix;
	u8 ip_protocol;
	u16 port;

	bool has(mox_capture_request_attr which) const { return present & 1u << which; }
};

/**
 * Read the size bytes behind a request's headers. 0, or a negative errno with its reason
 * as a text: -EINVAL for what is cut short, unknown, or of no meaning, -ERANGE for a payload of
 * another size. Of an attribute that comes twice the last one counts. Any.
 */
int read_query(const void *attributes, size_t size, Query *query, const char **reason);

} // namespace mox
