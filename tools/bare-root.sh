# SPDX-License-Identifier: MIT
# shellcheck shell=bash
#
# A bare Debian 12 that this tree is built in. Sourced, after packages.sh, by the commands that do so.

need_bare_root()
{
	local -a packages=('mmdebstrap|makes a bare Debian 12')
	((EUID == 0)) || packages+=('uidmap|lets others than root make one')
	need_packages "$1" "${packages[@]}"
}

# in_bare_root ARCHITECTURE SCRIPT RESULTS LOG: runs the file SCRIPT in a root that is thrown away, in a copy of this
# tree without what git ignores. What it leaves in /build/results gets into the folder RESULTS. The root can install
# packages of ARCHITECTURE beside its own. Lines of the script that begin with "==> " or four spaces are shown.
in_bare_root()
{
	local architecture=$1 script=$2 results=$3 log=$4 architectures stage status=0
	architectures=$(dpkg --print-architecture)
	[[ $architecture == "$architectures" ]] || architectures+=,$architecture

	# Readable for all: for others than root, it is another user who makes the root.
	stage=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-stage.XXXXXX")
	mkdir "$stage/hear-sense" "$stage/results"
	git ls-files --cached --others --exclude-standard -z |
		while IFS= read -r -d '' file; do [[ ! -e $file ]] || printf '%s\0' "$file"; done |
		tar --null --files-from=- -cf - | tar -C "$stage/hear-sense" -xf -
	cp -- "$script" "$stage/script"
	chmod -R a+rX "$stage"

	# shellcheck disable=SC2016 # mmdebstrap's shell has the path of the root in $1
	mmdebstrap --variant=buildd --architectures="$architectures" --format=null \
		--customize-hook='mkdir -p "$1/build"' \
		--customize-hook="copy-in $stage/hear-sense $stage/results $stage/script /build" \
		--customize-hook='cd / && chroot "$1" bash /build/script >&2' \
		--customize-hook="sync-out /build/results $results" \
		bookworm 2>&1 | tee "$log" | sed -un '/^\(==> \|    \)/p' || status=$?
	rm -rf -- "$stage"
	return $status
}
