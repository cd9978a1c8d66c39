#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Looks for bugs in the sources with clang-tidy: see usage.
set -euo pipefail

jobs=2
all=(src platform plugins)

usage()
{
	cat <<-END
	Usage: tools/tidy.sh [OPTION...] BUILD [FOLDER...]

	Gives every C++ source below FOLDER (${all[*]} without one) that BUILD compiles to clang-tidy, $jobs at a time,
	as .clang-tidy tells. BUILD is a build folder that was set up with clang. Prints what is found; the last line is
	"N sources without findings, N with".

	  --jobs=N  looks at N at a time
	  --help    shows this
	END
}

source_root=$(cd -- "$(dirname -- "$(readlink -f -- "$0")")/.." && pwd)
build=
declare -a folders=()
for argument; do
	case $argument in
	--jobs=*) jobs=${argument#*=} ;;
	-h | --help) usage && exit 0 ;;
	-*) printf 'There is no option %s. See %s --help\n' "$argument" "$0" >&2 && exit 2 ;;
	*) [[ -n $build ]] && folders+=("$argument") || build=$argument ;;
	esac
done
((${#folders[@]} > 0)) || folders=("${all[@]}")
[[ -f $build/compile_commands.json ]] || {
	printf 'No build folder is named. See %s --help\n' "$0" >&2
	exit 2
}
build=$(realpath -- "$build")
cd -- "$source_root"

found=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-tidy.XXXXXX")
trap 'rm -rf -- "$found"' EXIT

# Only what is compiled: what a build leaves out cannot be read without its libraries' headers.
mapfile -t sources < <(/usr/bin/python3 - "$build/compile_commands.json" "${folders[@]}" <<-'END'
	import json, os, sys
	commands, *folders = sys.argv[1:]
	names = set()
	for entry in json.load(open(commands, encoding="utf-8")):
	    name = os.path.relpath(os.path.join(entry["directory"], entry["file"]))
	    if name.endswith(".cpp") and name.startswith(tuple(folder.rstrip("/") + "/" for folder in folders)):
	        names.add(name)
	print(*sorted(names), sep="\n")
	END
)

# tidy SOURCE: the counts of warnings that it suppressed are no findings.
tidy()
{
	clang-tidy-14 --quiet -p "$build" "$1" >"$found/${1//\//,}" 2>"$found/${1//\//,}.log" || {
		cat -- "$found/${1//\//,}"
		grep -v ' warnings\? generated\.$' "$found/${1//\//,}.log" || true
		printf '%s\n' "$1" >>"$found/with"
	}
}
export -f tidy
export build found
# shellcheck disable=SC2016
printf '%s\n' "${sources[@]}" | xargs -d '\n' -n 1 -P "$jobs" bash -c 'tidy "$1"' tidy

n_with=0
[[ ! -f $found/with ]] || n_with=$(wc -l <"$found/with")
printf '%d sources without findings, %d with\n' $((${#sources[@]} - n_with)) "$n_with"
((n_with == 0))
