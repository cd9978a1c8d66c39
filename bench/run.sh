#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Measures the daemon against bare programs that do the same work by hand: see usage.
set -euo pipefail

usage()
{
	cat <<-END
	Usage: bench/run.sh [--quick] [--only PART...] [--tolerance FACTOR] [--out FILE] [--plots FOLDER]
	       [--from FILE]

	Installs the Debian packages that measuring needs and are missing, builds with -O2 -DNDEBUG into build-bench,
	measures, and prints a table of ratios with their goals. docs/performance.md tells what each row is.

	  --quick      5 pairs in the place of 15, a few minutes
	  --only       some of: events signals polls streams latency starts memory
	  --tolerance  fails only where a ratio is past its goal times this; 1 if not told
	  --out        writes the results to this file as JSON
	  --plots      measures the series as well and draws them into this folder
	  --from       shows and draws the results of this file, and measures nothing
	END
}

[[ ${1:-} != -h && ${1:-} != --help ]] || { usage; exit 0; }

here=$(dirname -- "$(readlink -f -- "$0")")
# shellcheck source=tools/packages.sh
. "$here/../tools/packages.sh"

packages=("${common_packages[@]}"
	'libgtest-dev|the beds of the unit tests'
	'libbenchmark-dev|times what runs inside one process'
	'gstreamer1.0-tools|what the daemon is compared with'
	'gstreamer1.0-plugins-good|its level meter'
	'gstreamer1.0-pipewire|its microphones'
	'python3-matplotlib|draws the plots')

work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-bench.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

need_packages "$work/apt.log" "${packages[@]}"

build=$here/../build-bench
step 'Building with -O2 -DNDEBUG'
[[ -f $build/build.ninja ]] ||
	meson setup --prefix=/usr -Dbuildtype=plain -Doptimization=2 -Db_ndebug=true -Dbench=true -Dloudness=enabled \
		"$build" "$here/.." >"$work/setup.log" || fail 'The build can not be set up.' '' "$work/setup.log"
ninja -C "$build" src/hear-sense bench

# With some hundred streams the servers that are measured with take their time.
export HS_TEST_TIMEOUT_SCALE=${HS_TEST_TIMEOUT_SCALE:-6}
PYTHONPATH=$here/../tests/integration PYTHONDONTWRITEBYTECODE=1 \
	/usr/bin/python3 "$here/run.py" "$build" "$@"
