# SPDX-License-Identifier: MIT
# shellcheck shell=bash
#
# A bare Debian 12 that this tree is built or tried in. Sourced, after packages.sh, by the commands that do so; their
# exit trap calls leave_bare_root.

bare_root_pid=
bare_root_stage=

# begin_apart COMMAND...: in the background, where a signal ends this script at once, and out of the reach of the
# terminal's Ctrl-C. Of root's, mounts and processes are its own and end with it, where that is allowed.
begin_apart()
{
	local -a apart=()
	((EUID != 0)) || apart=(unshare --mount-proc --pid --fork --kill-child)
	((EUID != 0)) || "${apart[@]}" true 2>/dev/null || apart=()
	setsid "${apart[@]}" "$@" </dev/null &
	bare_root_pid=$!
}

end_apart()
{
	local status=0
	wait "$bare_root_pid" || status=$?
	bare_root_pid=
	return $status
}

# leave_bare_root FOLDER...: ends what has been begun, and removes the folders.
leave_bare_root()
{
	local signal=KILL _
	trap '' INT TERM HUP
	if [[ -n $bare_root_pid ]]; then
		# Others than root have mmdebstrap itself remove what is another user's.
		((EUID == 0)) || signal=TERM
		kill "-$signal" -- "-$bare_root_pid" || true
		end_apart 2>/dev/null || true
	fi
	[[ -z $bare_root_stage ]] || set -- "$@" "$bare_root_stage"
	# What was killed may take a moment to be gone.
	for _ in {1..50}; do
		rm -rf --one-file-system -- "$@" 2>/dev/null && return 0
		sleep 0.1
	done
	rm -rf --one-file-system -- "$@"
}

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
	local architecture=$1 script=$2 results=$3 log=$4 architectures stage shown status=0
	local -a where=()
	architectures=$(dpkg --print-architecture)
	[[ $architecture == "$architectures" ]] || architectures+=,$architecture

	# Readable for all: for others than root, it is another user who makes the root.
	stage=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-stage.XXXXXX")
	bare_root_stage=$stage
	mkdir "$stage/hear-sense" "$stage/results" "$stage/tmp"
	git ls-files --cached --others --exclude-standard -z |
		while IFS= read -r -d '' file; do [[ ! -e $file ]] || printf '%s\0' "$file"; done |
		tar --null --files-from=- -cf - | tar -C "$stage/hear-sense" -xf -
	cp -- "$script" "$stage/script"
	chmod -R a+rX "$stage"
	# Killed, it does not remove its root. That of others than root is where their other user may make it.
	((EUID != 0)) || where=(TMPDIR="$stage/tmp")

	# shellcheck disable=SC2016 # mmdebstrap's shell has the path of the root in $1
	begin_apart env "${where[@]}" mmdebstrap --variant=buildd --architectures="$architectures" --format=null \
		--customize-hook='mkdir -p "$1/build"' \
		--customize-hook="copy-in $stage/hear-sense $stage/results $stage/script /build" \
		--customize-hook='cd / && chroot "$1" bash /build/script >&2' \
		--customize-hook="sync-out /build/results $results" \
		bookworm >"$log" 2>&1
	tail --follow --lines=+1 --pid="$bare_root_pid" "$log" | sed -un '/^\(==> \|    \)/p' &
	shown=$!
	end_apart || status=$?
	wait "$shown"
	rm -rf -- "$stage"
	return $status
}
