#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Cross-builds for arm64 and runs the unit tests in an emulator: see usage.
set -euo pipefail

usage()
{
	cat <<-END
	Usage: tools/cross-arm64.sh [--help]

	Cross-builds everything for arm64 in a bare Debian 12 that is thrown away, and runs the unit tests there under
	qemu-user. The last line is "N passed, N failed".

	  --help   shows this

	Tests that cannot work in that emulator are left out and named with the reason. It needs mmdebstrap and a Debian
	mirror, and root or unprivileged user namespaces; an emulator is not needed on this machine, nor binfmt_misc.
	For packages: tools/build-packages.sh --arch arm64
	END
}

# What is left out: the test and the reason.
left_out=(
	'AssertDeathTest.*|it adds a line of its own to what a program says that aborts'
)

cd -- "$(dirname -- "$(readlink -f -- "$0")")/.."
# shellcheck source=tools/packages.sh
. tools/packages.sh
# shellcheck source=tools/bare-root.sh
. tools/bare-root.sh

case ${1:-} in
'') ;;
-h | --help) usage && exit 0 ;;
*) fail "There is no option $1." 'See tools/cross-arm64.sh --help' ;;
esac
[[ $(dpkg --print-architecture) != arm64 ]] ||
	fail 'This machine is an arm64 itself.' 'Run ./test.sh'

work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-cross.XXXXXX")
trap 'leave_bare_root "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

need_bare_root "$work/apt.log"
mkdir "$work/results"

filter=$(IFS=: && printf '%s' "${left_out[*]%%|*}")
printf 'filter=%q\n' "-$filter" >"$work/inside"
cat >>"$work/inside" <<'END'
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
cd /build

echo '==> Installing the cross compiler, the libraries for arm64, and the emulator'
apt-get install -y --no-install-recommends crossbuild-essential-arm64 qemu-user
apt-get build-dep -y --no-install-recommends --host-architecture arm64 --build-profiles cross ./hear-sense

echo '==> Building for arm64'
meson env2mfile --cross --debarch=arm64 -o arm64.txt
printf "[binaries]\nexe_wrapper = '/usr/bin/qemu-aarch64'\n" >qemu.txt
meson setup --cross-file arm64.txt --cross-file qemu.txt --prefix=/usr --libdir=lib/aarch64-linux-gnu \
	-Dauto_features=enabled -Ddebug=false build hear-sense
ninja -C build
file=build/src/hear-sense
[[ $(aarch64-linux-gnu-readelf -h "$file") == *AArch64* ]]

echo '==> Running the unit tests under qemu-user'
mkdir bin results/unit
ln -s /usr/bin/aarch64-linux-gnu-nm bin/nm
export PATH=/build/bin:$PATH
GTEST_FILTER=$filter GTEST_OUTPUT=xml:/build/results/unit/ \
	meson test -C build --no-rebuild --no-suite integration --timeout-multiplier 20 --print-errorlogs || true
cp build/meson-logs/testlog.json results
END

step 'Making a bare Debian 12'
in_bare_root arm64 "$work/inside" "$work/results" "$work/log" ||
	fail 'It cannot be built for arm64.' 'The log above tells why.' "$work/log"

if ((${#left_out[@]} > 0)); then
	step 'Left out, because qemu-user cannot do it'
	for entry in "${left_out[@]}"; do
		printf '    %s: %s\n' "${entry%%|*}" "${entry#*|}"
	done
fi
step 'Counted'
read -r passed failed skipped < <(/usr/bin/python3 tools/count-results.py meson "$work/results/testlog.json" "$work/results/unit")
((failed == 0)) || sed -n '/^==> Running/,$p' "$work/log"
printf '    %d skipped\n' "$skipped"
printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
