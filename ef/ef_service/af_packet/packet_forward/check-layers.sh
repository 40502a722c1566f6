#!/bin/sh
# SPDX-License-Identifier: GPL-2.0-only
# Usage: check-layers.sh DIRECTORY
#
# Refuses an include of the module that runs up, or sideways out of the list:
# a file may include files of its own area and of the areas below it.
# main.cc may include every area; seam/ includes only itself and the shared
# headers of this directory, which include nothing but seam/.
set -eu

dir=$1
areas='seam base services packet locations rules receive socket control'

rank() { # of an area, 1 for the lowest; empty for no area
	i=0
	for area in $areas; do
		i=$((i + 1))
		if [ "$area" = "$1" ]; then
			echo "$i"
			return
		fi
	done
}

bad=0
for found in "$dir"/*/; do
	name=$(basename "$found")
	case $name in .*) continue ;; esac
	[ -z "$(rank "$name")" ] || continue
	for file in "$found"*.cc "$found"*.hpp "$found"*.c "$found"*.h; do
		[ -f "$file" ] || continue
		echo "check-layers: $name/ is no area: add it to the list in $0, in its place" >&2
		bad=1
		break
	done
done

for area in $areas; do
	own=$(rank "$area")
	for file in "$dir/$area"/*.cc "$dir/$area"/*.hpp "$dir/$area"/*.c "$dir/$area"/*.h; do
		[ -f "$file" ] || continue
		for include in $(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file"); do
			case $include in
			*/*) target=${include%%/*} ;;
			*) continue ;; # a shared header, or a neighbour in seam/
			esac
			[ "$target" = .. ] && continue
			to=$(rank "$target")
			if [ -z "$to" ] || [ "$to" -gt "$own" ]; then
				echo "$area/$(basename "$file"): includes $include, which is above $area/" >&2
				echo "  move what it needs down, or the file up (order: $areas)" >&2
				bad=1
			fi
		done
	done
done

# The shared headers are below all areas.
for file in "$dir"/*.h; do
	for include in $(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file"); do
		case $include in
		seam/*) ;;
		*/*)
			echo "$(basename "$file"): includes $include, which is above it" >&2
			bad=1
			;;
		esac
	done
done
exit $bad
