#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Tells how much of src/ the tests run: see usage.
set -euo pipefail

least_lines=95
least_branches=85

usage()
{
	cat <<-END
	Usage: tools/coverage.sh [--reset | --report] [BUILD]

	Builds in BUILD (build-coverage without one) with clang, runs the unit and the integration tests there, and prints
	which lines and branches of src/ they leave out, then a table. Ends with status 1 where they run less than
	$least_lines % of the lines or $least_branches % of the branches.

	  --reset   only forgets what was run in BUILD
	  --report  only prints what was run in BUILD since then
	  --help    shows this

	BUILD can be any build folder that was set up with clang and -Dcoverage=enabled.
	END
}

source_root=$(cd -- "$(dirname -- "$(readlink -f -- "$0")")/.." && pwd)
build=$source_root/build-coverage
reset_only=false
report_only=false
for argument; do
	case $argument in
	--reset) reset_only=true ;;
	--report) report_only=true ;;
	-h | --help) usage && exit 0 ;;
	-*) printf 'There is no option %s. See %s --help\n' "$argument" "$0" >&2 && exit 2 ;;
	*) build=$(realpath -m -- "$argument") ;;
	esac
done
cd -- "$source_root"

work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-coverage.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Nobody else makes the folder, and without it nothing is counted.
reset()
{
	rm -rf -- "$build/coverage"
	mkdir -p -- "$build/coverage"
}

if $reset_only; then
	reset
	exit 0
fi

failed=false
if ! $report_only; then
	[[ -f $build/build.ninja ]] || CC=clang-14 CXX=clang++-14 meson setup --prefix=/usr \
		-Dauto_features=enabled -Doptimization=0 -Dcoverage=enabled "$build" .
	ninja -C "$build"
	reset
	meson test -C "$build" --no-rebuild --no-suite integration --print-errorlogs || failed=true
	HS_BUILD_DIR=$build PYTHONDONTWRITEBYTECODE=1 \
		/usr/bin/python3 -m pytest -p no:cacheprovider -q -n 2 tests/integration || failed=true
	! $failed || printf 'Tests have failed: what they would have run is missing below.\n' >&2
fi

llvm-profdata-14 merge -o "$work/counts" "$build"/coverage/*.profraw
llvm-cov-14 export --format=lcov --instr-profile="$work/counts" "$build/src/hear-sense" >"$work/lcov"
/usr/bin/python3 tools/coverage.py "$work/lcov" src "$least_lines" "$least_branches"
! $failed
