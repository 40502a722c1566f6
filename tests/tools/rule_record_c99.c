/* SPDX-License-Identifier: GPL-2.0-only */
/* The public header's rule builder as a C99 program calls it. */
#include "rule_record_c99.h"

#include "mox_packet.h"

size_t c99_build_rule(void *record, size_t room, uint16_t type, const void *elements,
		      uint16_t element_size, uint16_t count)
{
	return mox_packet_build_rule(record, room, type, elements, element_size, count);
}

size_t c99_length_of_two_indexes(void)
{
	unsigned char record[MOX_PACKET_RULE_LENGTH(4, 2)];

	return sizeof(record);
}
