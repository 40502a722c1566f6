/* SPDX-License-Identifier: GPL-2.0-only */
/* What rule_record_c99.c compiles as C99, for the test in C++. */
#ifndef RULE_RECORD_C99_H
#define RULE_RECORD_C99_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** mox_packet_build_rule. */
size_t c99_build_rule(void *record, size_t room, uint16_t type, const void *elements,
		      uint16_t element_size, uint16_t count);

/** Size of a buffer for a record with two interface indexes. */
size_t c99_length_of_two_indexes(void);

#ifdef __cplusplus
}
#endif

#endif
