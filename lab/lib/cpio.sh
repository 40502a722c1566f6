# shellcheck shell=bash
# Archives for the virtual machine. The kernel unpacks any number of cpio archives one behind the other, so that a
# run only packs what is new to it.

ARMHF=$BUILD/armhf/root

# stage_libraries STAGE: copies the shared libraries that the programs under STAGE need, and those that these need.
stage_libraries() {
	local stage=$1 lib found more=1 dir
	while [ -n "$more" ]; do
		more=
		while read -r lib; do
			[ -n "$lib" ] || continue
			[ ! -e "$stage/lib/$CROSS_VM/$lib" ] || continue
			found=
			for dir in lib usr/lib; do
				[ ! -e "$ARMHF/$dir/$CROSS_VM/$lib" ] || found=$ARMHF/$dir/$CROSS_VM/$lib
			done
			[ -n "$found" ] || die "a program of the virtual machine needs $lib, which no package of it has" \
				"add its package to lab/image/packages.txt"
			mkdir -p "$stage/lib/$CROSS_VM"
			cp -L "$found" "$stage/lib/$CROSS_VM/$lib"
			more=1
		done < <(find "$stage" -type f \( -perm -u+x -o -name '*.so*' \) -print0 |
			xargs -0 -r "$CROSS_VM-readelf" -d 2>/dev/null | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' | sort -u)
	done
	# The interpreter's name is fixed in every program.
	if [ -e "$stage/lib/$CROSS_VM/libc.so.6" ] && [ ! -e "$stage/lib/ld-linux-armhf.so.3" ]; then
		cp -L "$ARMHF/lib/$CROSS_VM/ld-linux-armhf.so.3" "$stage/lib/"
	fi
}

# stage_strip STAGE: drops debugging information, which would only fill the virtual machine's memory. Modules keep
# their symbols (the kernel needs them), and lose nothing else that an oops would show. Signed ones were stripped before,
# and objcopy would drop the signature, which stands behind the file's last section.
stage_strip() {
	local file
	while IFS= read -r -d '' file; do
		case $file in
		*.ko) [ "$(tail -c 28 "$file" | tr -d '\0')" = '~Module signature appended~' ] || "${CROSS}objcopy" --strip-debug "$file" ;;
		*) "$CROSS_VM-strip" "$file" 2>/dev/null || true ;; # a script
		esac
	done < <(find "$1" -type f \( -perm -u+x -o -name '*.ko' \) -print0)
}

# stage_pack STAGE ARCHIVE
stage_pack() {
	(cd "$1" && find . -mindepth 1 -print0 | LC_ALL=C sort -z | cpio --quiet --null -o -H newc -R 0:0) >"$2.new"
	mv "$2.new" "$2"
}
