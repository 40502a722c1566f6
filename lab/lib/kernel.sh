# shellcheck shell=bash
# Which kernel source the lab builds, what it is called, and where its builds are.

# LAB_KERNELS moves only the kernel builds, so that several checkouts can share them.
KERNELS=${LAB_KERNELS:-$BUILD/kernel}
KERNEL_FLAVOURS='plain checked'

# The version of the distribution's kernel: LAB_KERNEL, or the one that the package linux-source stands for. dpkg says
# which that is when the package is installed, apt when it is not.
distribution_version() {
	local depends version
	if [ -n "${LAB_KERNEL:-}" ]; then
		[[ $LAB_KERNEL =~ ^[0-9]+(\.[0-9]+)+$ ]] ||
			die "LAB_KERNEL=$LAB_KERNEL is not a version" "give one as in the package's name: LAB_KERNEL=6.12 for linux-source-6.12"
		printf '%s\n' "$LAB_KERNEL"
		return
	fi
	depends=$(dpkg-query -W -f '${Depends}' linux-source 2>/dev/null) ||
		depends=$(apt-cache show --no-all-versions linux-source 2>/dev/null | sed -n 's/^Depends: //p') || true
	version=$(grep -oE -m 1 'linux-source-[0-9.]*[0-9]' <<<"$depends" | head -n 1) ||
		die "the package linux-source is not installed, and apt does not know its version" \
			"run ./lab/setup (it installs linux-source), or give KERNEL_SRC=/path/to/a/kernel/tree"
	printf '%s\n' "${version#linux-source-}"
}

# kernel_tar: the distribution's source, as its package lists it.
kernel_tar() {
	local version tar
	version=$(distribution_version) || return
	while IFS= read -r tar; do
		case $tar in
		*/linux-source-"$version".tar.*)
			[ ! -f "$tar" ] || { printf '%s\n' "$tar"; return; }
			;;
		esac
	done < <(dpkg-query -L "linux-source-$version" 2>/dev/null || true)
	die "the source of the kernel $version is not installed" "apt-get install linux-source-$version" \
		"or give KERNEL_SRC=/path/to/a/kernel/tree"
}

kernel_version_of() { # of a source tree, from the head of its Makefile
	awk -F' *= *' '/^VERSION/{v=$2} /^PATCHLEVEL/{p=$2} /^SUBLEVEL/{s=$2} NR>6{exit} END{print v"."p"."s}' "$1/Makefile"
}

# kernel_id: the name of a kernel: of its source, "debian-6.1" for the distribution's package, DIRECTORY-VERSION for
# KERNEL_SRC, and of the toolchain, unless it is the usual one.
kernel_id() {
	local source
	source=$(source_id) || return
	printf '%s%s\n' "$source" "${LAB_TOOLCHAIN:+-$LAB_TOOLCHAIN}"
}
source_id() {
	local version
	if [ -n "${KERNEL_SRC:-}" ]; then
		[ -z "${LAB_KERNEL:-}" ] || die "KERNEL_SRC and LAB_KERNEL both choose a kernel" "give one of them"
		[ -d "$KERNEL_SRC/arch/arm" ] ||
			die "KERNEL_SRC=$KERNEL_SRC is not a kernel source tree" "give the directory that holds the kernel's top Makefile"
		printf '%s-%s\n' "$(basename "$(realpath "$KERNEL_SRC")")" "$(kernel_version_of "$KERNEL_SRC")"
		return
	fi
	version=$(distribution_version) || return
	printf '%s-%s\n' "$(. /etc/os-release && printf '%s' "${ID:-debian}")" "$version"
}

kernel_dir() { # kernel_dir FLAVOUR
	local id
	id=$(kernel_id) || return
	printf '%s/%s-%s\n' "$KERNELS" "$id" "$1"
}
kernel_image() {
	local dir
	dir=$(kernel_dir "$1") || return
	printf '%s/arch/arm/boot/zImage\n' "$dir"
}

# A flavour is plain or checked, and "+VARIANT" for each file of lab/kernel/variants that it takes in addition.
readonly VARIANTS=$ROOT/lab/kernel/variants
check_flavour() {
	local variant
	case " $KERNEL_FLAVOURS " in
	*" ${1%%+*} "*) ;;
	*) die "no kernel flavour '$1'" "the flavours are: $KERNEL_FLAVOURS, each with +VARIANT behind it" ;;
	esac
	for variant in $(flavour_variants "$1"); do
		[ -f "$VARIANTS/$variant.config" ] ||
			die "no kernel variant '$variant' in '$1'" "the variants are: $(cd "$VARIANTS" && echo *.config | sed 's/\.config//g')"
	done
}
flavour_variants() { [[ $1 != *+* ]] || tr + '\n' <<<"${1#*+}"; }
# flavour_fragments FLAVOUR: the files of its configuration, in the order in which a later one overrides.
flavour_fragments() {
	local variant
	printf '%s\n' "$ROOT/lab/kernel/base.config" "$ROOT/lab/kernel/${1%%+*}.config"
	for variant in $(flavour_variants "$1"); do
		printf '%s\n' "$VARIANTS/$variant.config"
	done
}

# kernel_source: the source tree's directory; unpacks the distribution's tar when that is new.
kernel_source() {
	local tar dir stamp
	if [ -n "${KERNEL_SRC:-}" ]; then
		realpath "$KERNEL_SRC"
		return
	fi
	tar=$(kernel_tar) || return
	dir=$KERNELS/src/$(source_id)
	stamp=$(stat -c '%n %s %Y' "$tar")
	if [ "$(cat "$dir/.lab-stamp" 2>/dev/null)" != "$stamp" ]; then
		rm -rf "$dir"
		mkdir -p "$dir"
		run_logged "unpacking $(basename "$tar")" "$KERNELS/unpack.log" '^$' \
			"is there room on the disk (1.5 GB)? is $tar whole? apt-get install --reinstall linux-source-$(distribution_version)" \
			tar -C "$dir" --strip-components=1 -xf "$tar" >&2
		printf '%s\n' "$stamp" >"$dir/.lab-stamp"
	fi
	printf '%s\n' "$dir"
}
