#!/bin/sh
# SPDX-License-Identifier: MIT
#
# Usage: link-uninstalled.sh SOURCE-FOLDER BUILD-FOLDER TARGET-FOLDER NAME...
#
# Lays out links to libraries, configurations and schemas of plug-ins as they will be installed. The libraries
# need not have been built yet.
set -eu

source=$1 build=$2 target=$3
shift 3

rm -rf -- "$target"
mkdir -p -- "$target/spa/hear-sense" "$target/plugin-confs" "$target/plugin-schemas"
for name; do
	ln -s -- "$build/$name/libspa-hs-$name.so" "$target/spa/hear-sense/"
	for file in "$source/$name"/*.conf; do
		[ -e "$file" ] || continue
		ln -s -- "$file" "$target/plugin-confs/"
		# hs-plugin looks beside the library.
		ln -s -- "$file" "$target/spa/hear-sense/"
	done
	for file in "$source/$name"/*.json; do
		[ ! -e "$file" ] || ln -s -- "$file" "$target/plugin-schemas/"
	done
done
