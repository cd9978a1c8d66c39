# SPDX-License-Identifier: MIT
# shellcheck shell=bash
#
# What the two commands share: how they speak, and how they install Debian packages. Sourced by both.

if [[ -t 1 && ${TERM:-dumb} != dumb ]]; then
	bold=$'\e[1m' red=$'\e[31m' plain=$'\e[0m'
else
	bold='' red='' plain=''
fi

# Its cache is in the home folder.
export CCACHE_DISABLE=1

step()
{
	printf '%s==> %s%s\n' "$bold" "$1" "$plain"
}

# fail WHAT [ADVICE] [LOG]: ends the script; the end of LOG comes first, so that the advice stays in sight.
fail()
{
	if [[ -s ${3:-} ]]; then
		printf '\n--- the end of its log ---\n' >&2
		tail -n 25 -- "$3" >&2
		printf '%s\n' '--------------------------' >&2
	fi
	printf '%s%s%s\n' "$red" "$1" "$plain" >&2
	[[ -z ${2:-} ]] || printf '%s\n' "$2" >&2
	exit 1
}

package_is_installed()
{
	dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# Shows apt's own count, in one line on a terminal and at every tenth per cent elsewhere.
show_apt_progress()
{
	local log=$1 line kind percent text shown=-10
	while IFS= read -r line; do
		IFS=: read -r kind _ percent text <<<"$line"
		if [[ $kind != dlstatus && $kind != pmstatus ]]; then
			printf '%s\n' "$line" >>"$log"
			continue
		fi
		percent=${percent%%.*}
		[[ $kind == dlstatus ]] && kind=fetching || kind=installing
		if [[ -t 1 ]]; then
			printf '\r\e[K    %-10s %3s %%  %.50s' "$kind" "$percent" "$text"
		elif ((percent >= shown + 10 || percent < shown)); then
			shown=$((percent / 10 * 10))
			printf '    %-10s %3s %%\n' "$kind" "$percent"
		fi
	done
	[[ ! -t 1 ]] || printf '\r\e[K'
}

# need_packages LOG "NAME|WHY"...: installs what is missing; does not touch apt when nothing is.
need_packages()
{
	local log=$1 entry
	local -a missing=() as_root=()
	shift
	command -v dpkg-query >/dev/null ||
		fail 'This is not a Debian system.' "Install what corresponds to these packages yourself: ${*%%|*}"
	for entry in "$@"; do
		package_is_installed "${entry%%|*}" || missing+=("$entry")
	done
	((${#missing[@]} > 0)) || return 0

	step 'These Debian packages are missing and are installed now:'
	for entry in "${missing[@]}"; do
		printf '    %-30s %s\n' "${entry%%|*}" "${entry#*|}"
	done
	if ((EUID != 0)); then
		command -v sudo >/dev/null ||
			fail 'Installing needs root, and there is no sudo here.' \
				"Run as root:  apt-get update && apt-get install --no-install-recommends ${missing[*]%%|*}"
		as_root=(sudo)
	fi
	as_root+=(env DEBIAN_FRONTEND=noninteractive)

	"${as_root[@]}" apt-get update >"$log" 2>&1 ||
		printf '    the package lists could not be refreshed; trying with those that are here\n'
	# shellcheck disable=SC2094 # both only append
	"${as_root[@]}" apt-get install -y --no-install-recommends -o APT::Status-Fd=1 -o Dpkg::Use-Pty=0 \
		"${missing[@]%%|*}" 2>>"$log" </dev/null | show_apt_progress "$log" ||
		fail 'The packages could not be installed.' \
			"Is the network up, and does /etc/apt name a Debian mirror? To try by hand, as root:
    apt-get update && apt-get install --no-install-recommends ${missing[*]%%|*}" "$log"
	printf '    %d packages and what they need are installed\n' "${#missing[@]}"
}

# What both commands build with and run.
# shellcheck disable=SC2034
common_packages=(
	'g++|compiles the daemon and its plug-ins'
	'meson|builds them'
	'ninja-build|builds them'
	'pkg-config|finds the libraries'
	'libpipewire-0.3-dev|audio: headers of PipeWire'
	'libsystemd-dev|D-Bus: headers of sd-bus'
	'libebur128-dev|measures loudness, in a plug-in'
	'libwebrtc-audio-processing-dev|tells voice from silence, in a plug-in'
	'vamp-plugin-sdk|runs Vamp plug-ins, in a plug-in'
	'vamp-examples|such plug-ins: onsets, for one'
	'espeak-ng|speaks'
	'pipewire|the audio server'
	'pipewire-bin|virtual microphone (pw-loopback) and player (pw-play)'
	'wireplumber|connects microphone and daemon'
	'dbus-daemon|the bus'
	'bubblewrap|gives the daemon folders of its own in the place of /etc/hear-sense'
	'python3|makes sounds, reads signals'
	'python3-jeepney|lets Python talk on the bus'
)
