# shellcheck shell=bash
# Which kernel source the lab builds, what it is called, and where its builds are.

# LAB_KERNELS moves only the kernel builds, so that several checkouts can share them.
KERNELS=${LAB_KERNELS:-$BUILD/kernel}
KERNEL_FLAVOURS='plain checked'

# The newest linux-source tar of the distribution, empty when there is none.
kernel_tar() {
	local f
	for f in /usr/src/linux-source-*.tar.* /usr/src/linux-source-*/linux-source-*.tar.*; do
		[ -f "$f" ] && printf '%s\n' "$f"
	done | sort -V | tail -n 1
}

kernel_version_of() { # of a source tree, from the head of its Makefile
	awk -F' *= *' '/^VERSION/{v=$2} /^PATCHLEVEL/{p=$2} /^SUBLEVEL/{s=$2} NR>6{exit} END{print v"."p"."s}' "$1/Makefile"
}

# kernel_id: the name of the source, "debian-6.1" for the distribution's package, DIRECTORY-VERSION for KERNEL_SRC.
kernel_id() {
	local tar id
	if [ -n "${KERNEL_SRC:-}" ]; then
		[ -d "$KERNEL_SRC/arch/arm" ] ||
			die "KERNEL_SRC=$KERNEL_SRC is not a kernel source tree" "give the directory that holds the kernel's top Makefile"
		printf '%s-%s\n' "$(basename "$(realpath "$KERNEL_SRC")")" "$(kernel_version_of "$KERNEL_SRC")"
		return
	fi
	tar=$(kernel_tar)
	[ -n "$tar" ] || die "no /usr/src/linux-source-*.tar.* here" \
		"run ./lab/setup (it installs the package linux-source), or give KERNEL_SRC=/path/to/a/kernel/tree"
	id=$(. /etc/os-release && printf '%s' "${ID:-debian}")
	printf '%s\n' "$(basename "$tar")" | sed -E "s/^linux-source-(.*)\.tar\..*/$id-\1/"
}

kernel_dir() { printf '%s/%s-%s\n' "$KERNELS" "$(kernel_id)" "$1"; } # kernel_dir FLAVOUR
kernel_image() { printf '%s/arch/arm/boot/zImage\n' "$(kernel_dir "$1")"; }

check_flavour() {
	case " $KERNEL_FLAVOURS " in
	*" $1 "*) ;;
	*) die "no kernel flavour '$1'" "the flavours are: $KERNEL_FLAVOURS" ;;
	esac
}

# kernel_source: the source tree's directory; unpacks the distribution's tar when that is new.
kernel_source() {
	local tar dir stamp
	if [ -n "${KERNEL_SRC:-}" ]; then
		realpath "$KERNEL_SRC"
		return
	fi
	tar=$(kernel_tar)
	dir=$KERNELS/src/$(kernel_id)
	stamp=$(stat -c '%n %s %Y' "$tar")
	if [ "$(cat "$dir/.lab-stamp" 2>/dev/null)" != "$stamp" ]; then
		rm -rf "$dir"
		mkdir -p "$dir"
		run_logged "unpacking $(basename "$tar")" "$KERNELS/unpack.log" '^$' \
			"is there room on the disk (1.5 GB)? is $tar whole? apt-get install --reinstall linux-source" \
			tar -C "$dir" --strip-components=1 -xf "$tar" >&2
		printf '%s\n' "$stamp" >"$dir/.lab-stamp"
	fi
	printf '%s\n' "$dir"
}
