/* SPDX-License-Identifier: MIT */
/*
 * The C library's functions that the preload takes the place of.
 */
#ifndef MOX_PRELOAD_REAL_H
#define MOX_PRELOAD_REAL_H

/** What programs call instead of the C library's. */
#define MOX_EXPORT __attribute__((visibility("default")))

/** Room of one looked-up address; one static variable for each function. */
typedef void *mox_real_slot;

/**
 * The address of the next definition of a function, looked up once. Any thread. Ends the program when there is none:
 * a call of it cannot be answered.
 */
void *mox_real(mox_real_slot *slot, const char *name);

/** Calls the C library's function of this name, whose prototype is visible. */
#define REAL(name)                                            \
	({                                                    \
		static mox_real_slot slot_;                   \
		(__typeof__(&(name)))mox_real(&slot_, #name); \
	})

/** The same for a function that has the prototype of another. */
#define REAL_LIKE(name, prototype)                                 \
	({                                                         \
		static mox_real_slot slot_;                        \
		(__typeof__(&(prototype)))mox_real(&slot_, #name); \
	})

#endif
