// SPDX-License-Identifier: GPL-2.0-only
/*
 * What the mutated text calls. A site's first mutant has its number, the second one the next.
 * Without a chosen mutant, and wherever the compiler evaluates, each function does what the
 * operator did that it replaces.
 */
#pragma once

extern "C" {
/** The chosen mutant; 0 for none. */
extern int mox_mutant;
/** Which mutants' sites have run. */
extern unsigned char mox_mutants_reached[];
}

namespace mox_mutate {

inline bool chosen(int number)
{
	mox_mutants_reached[number] = 1;
	return mox_mutant == number;
}

constexpr bool live(int number)
{
	if (__builtin_is_constant_evaluated())
		return false;
	return chosen(number);
}

/** An ordering: its boundary moved, or negated. */
#define MOX_ORDER(name, op, moved, negated)                                    \
	template <typename A, typename B> constexpr bool name(int n, A a, B b) \
	{                                                                      \
		if (live(n))                                                   \
			return a moved b;                                      \
		return live(n + 1) ? a negated b : a op b;                     \
	}
MOX_ORDER(less, <, <=, >=)
MOX_ORDER(less_equal, <=, <, >)
MOX_ORDER(greater, >, >=, <=)
MOX_ORDER(greater_equal, >=, >, <)
#undef MOX_ORDER

#define MOX_VALUE(name, op, other)                                                             \
	template <typename A, typename B> constexpr decltype(A() op B()) name(int n, A a, B b) \
	{                                                                                      \
		return live(n) ? a other b : a op b;                                           \
	}
MOX_VALUE(equal, ==, !=)
MOX_VALUE(not_equal, !=, ==)
MOX_VALUE(add, +, -)
MOX_VALUE(subtract, -, +)
MOX_VALUE(multiply, *, /)
MOX_VALUE(divide, /, *)
MOX_VALUE(remainder, %, *)
MOX_VALUE(shift_left, <<, >>)
MOX_VALUE(shift_right, >>, <<)
MOX_VALUE(bit_and, &, |)
MOX_VALUE(bit_or, |, &)
MOX_VALUE(bit_xor, ^, &)
#undef MOX_VALUE

#define MOX_ASSIGN(name, op, other)                                           \
	template <typename A, typename B> constexpr A &name(int n, A &a, B b) \
	{                                                                     \
		if (live(n))                                                  \
			a other b;                                            \
		else                                                          \
			a op b;                                               \
		return a;                                                     \
	}
MOX_ASSIGN(add_to, +=, -=)
MOX_ASSIGN(subtract_from, -=, +=)
MOX_ASSIGN(multiply_by, *=, /=)
MOX_ASSIGN(divide_by, /=, *=)
MOX_ASSIGN(reduce_by, %=, *=)
MOX_ASSIGN(shift_left_by, <<=, >>=)
MOX_ASSIGN(shift_right_by, >>=, <<=)
MOX_ASSIGN(and_with, &=, |=)
MOX_ASSIGN(or_with, |=, &=)
MOX_ASSIGN(xor_with, ^=, &=)
#undef MOX_ASSIGN

template <typename A> constexpr A &increment(int n, A &a)
{
	return live(n) ? --a : ++a;
}
template <typename A> constexpr A &decrement(int n, A &a)
{
	return live(n) ? ++a : --a;
}
template <typename A> constexpr A increment_after(int n, A &a)
{
	return live(n) ? a-- : a++;
}
template <typename A> constexpr A decrement_after(int n, A &a)
{
	return live(n) ? a++ : a--;
}

/** A constant of the type to which its context converts it. */
template <typename T> constexpr T number(int n, T value)
{
	if (!live(n))
		return value;
	return static_cast<T>(value == T(1) ? T(0) : value + T(1));
}

} // namespace mox_mutate
