#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Usage: check-object.sh OBJECT NM OBJDUMP
#
# Refuses a C++ object that needs more than the kernel offers: static
# constructors, guard variables, exceptions, a C++ run-time library, 64-bit
# division, or a symbol that is neither the seam's, the platform's nor ours.
# docs/cpp.md of the source tree lists what the units may use, and why.
set -eu

object=$1
nm=$2
objdump=$3

refuse() {
	echo "$object: $1" >&2
	echo "  $2" >&2
	rm -f "$object"
	exit 1
}

# KASAN registers an object's variables in constructors of its own (_sub_I_*,
# _sub_D_*): an object that has those may have the sections.
symbols=$($nm -P "$object" | awk '$2 != "U" { print $1 }')
sanitizer=$(printf '%s\n' "$symbols" | grep -c '^_sub_[ID]_[0-9]*_' || true)

sections=$($objdump -h "$object" | awk '{ print $2 }')
for section in $sections; do
	case $section in
	.init_array* | .ctors* | .fini_array* | .dtors*)
		[ "$sanitizer" -gt 0 ] || refuse "has static constructors or destructors ($section)" \
			"make the object constinit, with a trivial destructor" ;;
	.eh_frame* | .gcc_except_table*)
		refuse "has unwind tables ($section)" "is -fno-exceptions in force?" ;;
	esac
done

for symbol in $symbols; do
	case $symbol in
	_GLOBAL__sub_[ID]_* | _Z*__static_initialization_and_destruction_*)
		refuse "has static constructors or destructors ($symbol)" \
			"make the object constinit, with a trivial destructor" ;;
	_ZGV*) refuse "has a guard variable ($symbol)" \
		"a local static needs a run-time initialiser: make it constexpr or constinit" ;;
	esac
done

for symbol in $($nm -P -u "$object" | awk '{ print $1 }'); do
	case $symbol in
	# the module's C++, its plain names, the seam's and the platform's
	_ZN3mox* | _ZNK3mox*) ;;
	seam_* | mox_* | pkt_* | pktd_* | show_pktd_* | g_* | efmp_* | lsm_get_intfcb | simple_getcwd) ;;
	# what the compiler emits by itself, and the kernel exports
	memcpy | memset | memmove | memcmp | strlen | strncmp) ;;
	__memzero | __aeabi_unwind_cpp_pr[0-2] | __aeabi_uidiv | __aeabi_idiv | __gnu_mcount_nc) ;;
	__stack_chk_fail | __stack_chk_guard) ;;
	__asan_* | __ubsan_* | __sanitizer_cov_*) ;;
	__aeabi_*ldivmod | __aeabi_*div*) refuse "divides 64-bit numbers ($symbol)" \
		"the kernel has no such helper: divide 32-bit numbers" ;;
	*) refuse "undefined symbol $symbol: not the kernel's, the seam's or the platform's" \
		"if the module defines it, put it into namespace mox; otherwise call it through the seam" ;;
	esac
done
