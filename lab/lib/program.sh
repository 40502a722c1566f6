# shellcheck shell=bash
# A user's program for the virtual machine: compiled from one source file, and checked before anything is booted. Sourced
# after common.sh and cpio.sh.

LIBMOX=$BUILD/libmox # where lab/lib/build-library installs it

# compile_program SOURCE RESULT: with the public headers; with libmox when SOURCE includes its headers.
compile_program() {
	local source=$1 result=$2 compiler=$CROSS_VM-g++ language=-std=c++20 library=() flags
	case $source in
	*.c) compiler=$CROSS_VM-gcc language=-std=gnu11 ;;
	esac
	need_program "$compiler"
	if grep -qE '^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]mox/' "$source"; then
		need_program pkg-config
		"$ROOT/lab/lib/build-library" || return
		flags=$(PKG_CONFIG_LIBDIR=$LIBMOX/lib/pkgconfig pkg-config --cflags --libs mox) || return
		read -ra library <<<"$flags"
	else
		library=("-I$ROOT/include")
	fi
	set -- "$compiler" "$language" -O2 -g -Wall -Wextra "$source" "${library[@]}" -pthread -o "$result"
	say "   $*"
	"$@" || die "$source does not compile" "the compiler's messages are above"
}

# check_program FILE [--file VALUE...]: whether the virtual machine can run it; says what to do when not.
check_program() {
	local file=$1 header machine library found each
	shift
	local remedy="compile it for the virtual machine: $CROSS_VM-gcc -O2 -Wall -I$ROOT/include NAME.c -o NAME"
	if [ "$(head -c 2 "$file" | tr -d '\0')" = '#!' ]; then
		return
	fi
	header=$(LC_ALL=C "$CROSS_VM-readelf" -h "$file" 2>/dev/null) ||
		die "$file is neither an ARM program, a script nor a .c, .cc or .cpp file" "$remedy"
	machine=$(sed -nE 's/^ *Machine: *//p' <<<"$header")
	[ "$machine" = ARM ] || die "$file is a program for $machine, the access point is ARMv7" "$remedy"
	grep -qE '^ *Type: *(EXEC|DYN)' <<<"$header" || die "$file is no whole program (an object file or a library?)" "$remedy"
	if LC_ALL=C "$CROSS_VM-readelf" -l "$file" | grep -q 'interpreter: /lib/ld-linux.so.3'; then
		die "$file is a program for soft float, the virtual machine's libraries are for hard float" "$remedy" \
			"or link it with -static"
	fi
	while read -r library; do
		found=
		for each in "$@"; do [ "$(basename "${each%%=*}")" != "$library" ] || found=1; done
		[ ! -e "$LIBMOX/lib/$library" ] || found=1
		for each in lib usr/lib; do [ ! -e "$ARMHF/$each/$CROSS_VM/$library" ] || found=1; done
		[ -n "$found" ] || die "$file needs the library $library, which the virtual machine does not have" \
			"give it with --file PATH/$library, or link with -static"
	done < <(LC_ALL=C "$CROSS_VM-readelf" -d "$file" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p')
}
