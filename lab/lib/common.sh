# shellcheck shell=bash
# Paths, messages and errors of the lab's scripts.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# LAB_BUILD moves everything the lab makes to another place (a bigger disk, a directory that CI keeps).
BUILD=${LAB_BUILD:-$ROOT/build}
# LAB_TOOLCHAIN chooses what compiles kernel and modules: gcc-11 and the like are other versions of the soft-float GCC,
# gnueabihf is the hard-float one, llvm and llvm-16 and the like are clang with LLVM's own tools.
CROSS=arm-linux-gnueabi- TOOLCHAIN_CC=arm-linux-gnueabi-gcc TOOLCHAIN_ARGS=()
case ${LAB_TOOLCHAIN:-} in
'') ;;
gcc-*) TOOLCHAIN_CC=arm-linux-gnueabi-$LAB_TOOLCHAIN TOOLCHAIN_ARGS=("CC=$TOOLCHAIN_CC") ;;
gnueabihf) CROSS=arm-linux-gnueabihf- TOOLCHAIN_CC=arm-linux-gnueabihf-gcc ;;
llvm) TOOLCHAIN_CC=clang TOOLCHAIN_ARGS=(LLVM=1) ;;
llvm-*) TOOLCHAIN_CC=clang-${LAB_TOOLCHAIN#llvm-} TOOLCHAIN_ARGS=("LLVM=-${LAB_TOOLCHAIN#llvm-}") ;;
*)
	printf "lab: error: no toolchain '%s'\n     LAB_TOOLCHAIN is gcc-VERSION, gnueabihf, llvm or llvm-VERSION; without it arm-linux-gnueabi-gcc compiles\n" \
		"$LAB_TOOLCHAIN" >&2
	exit 1
	;;
esac
TOOLCHAIN_ARGS+=(ARCH=arm "CROSS_COMPILE=$CROSS")
CROSS_VM=arm-linux-gnueabihf    # programs in the virtual machine
JOBS=${JOBS:-$(nproc)}
# shellcheck disable=SC2034  # for the scripts that source this file
readonly ROOT BUILD CROSS TOOLCHAIN_CC TOOLCHAIN_ARGS CROSS_VM JOBS

say() { printf '%s\n' "$*"; }
step() { printf '== %s\n' "$*"; }
warn() { printf 'lab: warning: %s\n' "$*" >&2; }

# die MESSAGE [REMEDY...]: the error, one line of remedy each, exit code 1.
die() {
	printf 'lab: error: %s\n' "$1" >&2
	shift
	local line
	for line in "$@"; do printf '     %s\n' "$line" >&2; done
	exit 1
}

need_program() {
	command -v "$1" >/dev/null || die "program '$1' is missing" "run ./lab/setup: it installs what the lab needs"
}

mmss() { printf '%d:%02d' $(($1 / 60)) $(($1 % 60)); }
