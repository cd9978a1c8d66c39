#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Builds the Debian packages: see usage.
set -euo pipefail

usage()
{
	cat <<-END
	Usage: tools/build-packages.sh [--arch ARCHITECTURE] [FOLDER]
	       tools/build-packages.sh --help

	Builds the Debian packages in a bare Debian 12 that is thrown away, with the unit tests, and has lintian
	check them. They get into FOLDER, build-packages where none is told; packages that are there are removed first.

	  --arch ARCHITECTURE   cross-builds for that one, such as arm64, without the unit tests
	                        (tools/cross-arm64.sh runs them)
	  --help                shows this

	The last lines tell where the packages are and what lintian says; the status is 1 where it finds an error or
	gives a warning. DEB_BUILD_OPTIONS is heeded (nocheck: no tests). It needs mmdebstrap and a Debian mirror, and
	root or unprivileged user namespaces.
	END
}

cd -- "$(dirname -- "$(readlink -f -- "$0")")/.."
# shellcheck source=tools/packages.sh
. tools/packages.sh
# shellcheck source=tools/bare-root.sh
. tools/bare-root.sh

architecture=$(dpkg --print-architecture)
folder=build-packages
while (($# > 0)); do
	case $1 in
	-h | --help) usage && exit 0 ;;
	--arch) architecture=${2:?--arch needs an architecture, such as arm64} && shift ;;
	-*) fail "There is no option $1." 'See tools/build-packages.sh --help' ;;
	*) folder=$1 ;;
	esac
	shift
done

work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-packages.XXXXXX")
trap 'leave_bare_root "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

need_bare_root "$work/apt.log"
mkdir -p -- "$folder"
folder=$(readlink -f -- "$folder")
rm -f -- "$folder"/*.{deb,buildinfo,changes,dsc,tar.xz} "$folder"/{build.log,lintian.txt}

cat >"$work/inside" <<END
set -euo pipefail
architecture=$architecture jobs=$(nproc)
END
cat >>"$work/inside" <<'END'
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
cd /build/hear-sense
own=$(dpkg --print-architecture)
options=(--unsigned-source --unsigned-changes)
dependencies=(build-dep)
cross=()
if [[ $architecture != "$own" ]]; then
	options+=(--host-arch "$architecture" --build=any --build-profiles=cross,nocheck)
	dependencies+=(--host-architecture "$architecture" --build-profiles cross,nocheck)
	cross=("crossbuild-essential-$architecture")
fi

echo '==> Installing what the packages are built with'
apt-get install -y --no-install-recommends lintian "${cross[@]}"
apt-get "${dependencies[@]}" -y --no-install-recommends ./

echo "==> Building the packages for $architecture"
DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:+$DEB_BUILD_OPTIONS }parallel=$jobs" dpkg-buildpackage "${options[@]}"

echo '==> Checking them'
cp ../*.deb ../*.buildinfo ../*.changes /build/results
cp ../*.dsc ../*.tar.xz /build/results 2>/dev/null || true
lintian --allow-root --display-info --pedantic --fail-on none ../*.changes | tee /build/results/lintian.txt
END

step "Making a bare Debian 12"
in_bare_root "$architecture" "$work/inside" "$folder" "$work/log" || {
	cp -- "$work/log" "$folder/build.log"
	fail 'The packages could not be built.' "Everything that was said: $folder/build.log" "$work/log"
}
cp -- "$work/log" "$folder/build.log"

count()
{
	grep -c "^$1:" "$folder/lintian.txt" || true
}

step "The packages are in $folder"
(cd -- "$folder" && ls -1 -- *.deb)
step 'What lintian says'
cat -- "$folder/lintian.txt"
printf '%d errors, %d warnings, %d other remarks\n' "$(count E)" "$(count W)" "$(grep -c '^[IP]:' "$folder/lintian.txt" || true)"
(($(count E) + $(count W) == 0))
