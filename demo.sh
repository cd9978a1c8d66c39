#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Turns sound into D-Bus signals before your eyes: see usage.
set -euo pipefail

usage()
{
	cat <<-END
	Usage: ./demo.sh [SOUND-FILE | --mic | --help]

	Builds hear-sense and shows what it makes of a sound: a virtual microphone feeds the daemon, a setting is
	changed, and what comes on the system bus and on a private one is printed, frequent events now and then.

	  (nothing)     plays a scene of its own: a quiet room, somebody who speaks, a smoke alarm
	  SOUND-FILE    plays this file (WAV, FLAC, Ogg)
	  --mic         listens to the default microphone of the PipeWire that you run, until Ctrl-C
	  --help        shows this

	Missing Debian packages are named and installed first. The bus is a private one, and so is PipeWire but
	for --mic; nothing is left running, and nothing is written outside this folder and the temporary one.
	END
}

here=$(dirname -- "$(readlink -f -- "$0")")
# shellcheck source=tools/packages.sh
. "$here/tools/packages.sh"

mode=own
sound=
while (($# > 0)); do
	case $1 in
	-h | --help) usage && exit 0 ;;
	--mic) mode=mic ;;
	--) shift && break ;;
	-*) fail "There is no option $1." 'See ./demo.sh --help' ;;
	*) break ;;
	esac
	shift
done
if (($# > 0)); then
	[[ $mode == own && $# == 1 ]] || fail 'One sound file, or --mic, or nothing.' 'See ./demo.sh --help'
	mode='file'
	[[ -f $1 && -r $1 ]] || fail "There is no sound file $1 that can be read."
	sound=$(readlink -f -- "$1")
fi
cd -- "$here"

microphone=AudioDevice0Input0.Unprocessed
build=$here/build-demo
stage=$build/stage
work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-demo.XXXXXX")
logs=$work/logs
declare -a servers=()

# Ends one server of ours and waits for it; one that does not go within five seconds is killed.
stop()
{
	local pid=$1 _
	kill -TERM "$pid" 2>/dev/null || return 0
	for _ in {1..50}; do
		kill -0 "$pid" 2>/dev/null || return 0
		sleep 0.1
	done
	kill -KILL "$pid" 2>/dev/null || true
}

clean_up()
{
	local i
	trap '' INT TERM HUP
	[[ ! -s $work/daemon.pid ]] || stop "$(<"$work/daemon.pid")"
	for ((i = ${#servers[@]} - 1; i >= 0; i--)); do
		stop "${servers[i]}"
	done
	wait
	rm -rf -- "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# start NAME COMMAND...: out of the reach of the terminal's Ctrl-C, so that all are ended in order;
# and they end with this script even when it is killed.
start()
{
	local name=$1
	shift
	setsid setpriv --pdeathsig TERM "$@" >"$logs/$name.log" 2>&1 </dev/null &
	servers+=($!)
}

# wait_for NAME TEST...: until the test holds, or the server NAME counts as failed.
wait_for()
{
	local name=$1 _
	shift
	for _ in {1..150}; do
		"$@" >/dev/null 2>&1 && return 0
		kill -0 "${servers[-1]}" 2>/dev/null || break
		sleep 0.1
	done
	fail "$name did not come up." \
		'Its log above tells why; PIPEWIRE_DEBUG=4 ./demo.sh makes it tell more.' "$logs/$name.log"
}

# Said before anything is installed or built.
check_for_own_pipewire()
{
	local socket=${PIPEWIRE_REMOTE:-pipewire-0}
	[[ $socket == /* ]] || socket=${PIPEWIRE_RUNTIME_DIR:-${XDG_RUNTIME_DIR:-}}/$socket
	[[ -S $socket ]] ||
		fail 'No PipeWire of yours runs here.' \
			'Run this as yourself, not as root, in a desktop that uses PipeWire; or try ./demo.sh without --mic.'
}

pipewire_answers()
{
	timeout 5 pw-cli info 0
}

microphone_is_there()
{
	timeout 5 pw-cli ls Node | grep -q "node.name = \"$microphone\""
}

daemon_listens()
{
	local links plugin
	links=$(timeout 5 pw-link -l)
	for plugin in alarm loudness onset voice; do
		grep -q "hs-$plugin-$microphone" <<<"$links" || return 1
	done
}

default_source()
{
	timeout 5 pw-metadata 0 default.audio.source 2>/dev/null | sed -n 's/.*"name": *"\([^"]*\)".*/\1/p'
}

build()
{
	step 'Building (in build-demo)'
	[[ -w . && (! -e $build || -w $build) ]] ||
		fail "$build cannot be written." 'Was it made by another user? Remove it, or clone the repository again as yourself.'
	if [[ ! -f $build/build.ninja ]]; then
		rm -rf -- "$build"
		meson setup --prefix=/usr -Dtests=false -D{hs_plugin,hsctl}=disabled -D{alarm,loudness,vamp,voice}=enabled "$build" . >"$logs/setup.log" 2>&1 ||
			fail 'The build could not be set up.' 'The log above names what is missing.' "$logs/setup.log"
	fi
	ninja -C "$build" || fail 'It does not compile.' "The compiler's words stand above. To begin afresh: rm -r build-demo"
	rm -rf -- "$stage"
	DESTDIR=$stage meson install -C "$build" --no-rebuild >"$logs/install.log" 2>&1 ||
		fail 'What was built could not be gathered.' 'To begin afresh: rm -r build-demo' "$logs/install.log"
	# The library for Vamp plug-ins runs those that have a configuration and a link.
	cp "$stage/usr/share/hear-sense/plugin-confs/onset.conf"{.example,}
	ln -s libhs-vamp.so "$(dirname -- "$(find "$stage" -name libhs-vamp.so)")/libspa-hs-onset.so"
}

start_bus()
{
	cat >"$work/bus.conf" <<-END
	<busconfig>
	  <listen>unix:path=$work/bus</listen>
	  <policy context="default">
	    <allow own="*"/>
	    <allow send_destination="*" eavesdrop="true"/>
	    <allow receive_sender="*" eavesdrop="true"/>
	  </policy>
	</busconfig>
	END
	export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
	start dbus-daemon dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile
	wait_for dbus-daemon test -S "$work/bus"
}

# A PipeWire of our own, that knows no sound card, no user's settings and no session.
start_pipewire()
{
	unset PIPEWIRE_REMOTE PIPEWIRE_CORE PIPEWIRE_RUNTIME_DIR PIPEWIRE_CONFIG_DIR "${!WIREPLUMBER_@}" DISPLAY
	export HOME=$work/home XDG_RUNTIME_DIR=$work/run DBUS_SESSION_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS
	export XDG_CONFIG_HOME=$HOME/config XDG_STATE_HOME=$HOME/state XDG_CACHE_HOME=$HOME/cache XDG_DATA_HOME=$HOME/data
	mkdir -p "$XDG_CONFIG_HOME"/wireplumber/{main,bluetooth}.lua.d
	mkdir -m 700 "$XDG_RUNTIME_DIR"
	printf '%s_monitor.enabled = false\n' alsa v4l2 libcamera \
		>"$XDG_CONFIG_HOME/wireplumber/main.lua.d/51-no-hardware.lua"
	printf 'bluez_monitor.enabled = false\n' >"$XDG_CONFIG_HOME/wireplumber/bluetooth.lua.d/51-no-hardware.lua"

	start pipewire pipewire
	wait_for pipewire pipewire_answers
	start wireplumber wireplumber
	start microphone pw-loopback \
		--capture-props='media.class=Audio/Sink node.name=demo.feed audio.position=[MONO]' \
		--playback-props="media.class=Audio/Source node.name=$microphone audio.position=[MONO]"
	wait_for microphone microphone_is_there
}

join_pipewire()
{
	local source
	pipewire_answers >/dev/null 2>&1 ||
		fail 'Your PipeWire does not answer.' 'To start it afresh:  systemctl --user restart pipewire'
	! microphone_is_there ||
		fail "Your PipeWire already has a node $microphone." 'Does another demo run?'
	source=$(default_source) || true
	[[ -n $source ]] ||
		fail 'Your PipeWire has no default source.' 'Plug in a microphone, or try ./demo.sh without --mic.'
	printf '    listening to %s\n' "$source"
	start microphone pw-loopback --capture="$source" \
		--capture-props='node.name=demo.feed audio.position=[MONO] node.dont-reconnect=true' \
		--playback-props="media.class=Audio/Source node.name=$microphone audio.position=[MONO] priority.session=0"
	wait_for microphone microphone_is_there
}

# The daemon reads and writes at fixed places. In a mount namespace of its own they are the demo's.
start_daemon()
{
	local entry system_plugins plugins libraries
	local -a daemon=("$stage/usr/bin/hear-sense")
	local -a namespace=(bwrap --die-with-parent --dev-bind / / --tmpfs /etc --tmpfs /usr/share)

	for entry in /etc/{passwd,group,nsswitch.conf,ld.so.cache,localtime,pipewire} /usr/share/pipewire; do
		[[ ! -e $entry ]] || namespace+=(--ro-bind "$entry" "$entry")
	done
	mkdir -p "$work"/hear-sense/{metrics,plugin-confs,plugin-settings}
	namespace+=(--bind "$work/hear-sense" /etc/hear-sense
		--ro-bind "$stage/usr/share/hear-sense" /usr/share/hear-sense)
	mkdir -p "$work/vetto2/rights.d"
	printf 'users = { "%s" = * }\n' "$(id -un)" >"$work/vetto2/rights.d/demo.conf"
	namespace+=(--ro-bind "$work/vetto2" /etc/vetto2)

	if "${namespace[@]}" true >"$logs/namespace.log" 2>&1; then
		:
	elif [[ ! -e /etc/hear-sense ]]; then
		printf '    no mount namespaces are allowed here, so the daemon cannot keep settings in this run\n'
		namespace=()
		daemon+=(--config-path "$stage/usr/share/hear-sense/plugin-confs")
	else
		fail 'No mount namespaces are allowed here, and this must not touch your /etc/hear-sense.' \
			'Allow them (in a container: --privileged), or run this elsewhere.' "$logs/namespace.log"
	fi

	system_plugins=$(pkg-config --variable=plugindir libspa-0.2)
	plugins=$(dirname -- "$(find "$stage" -type d -path '*/spa-0.2/hear-sense')")
	libraries=$(dirname -- "$(find "$stage" -name libvetto2.so.2)")
	# The shell leaves the daemon's own pid: a signal sent to bwrap would not reach it.
	# shellcheck disable=SC2016
	SPA_PLUGIN_DIR=$plugins:$system_plugins LD_LIBRARY_PATH=$libraries start hear-sense \
		"${namespace[@]}" sh -c 'echo $$ >"$0"; exec "$@"' "$work/daemon.pid" "${daemon[@]}"
	wait_for hear-sense daemon_listens
}

listen()
{
	local status=0
	/usr/bin/python3 tools/demo/listen.py "$@" || status=$?
	case $status in
	0) ;;
	2) fail 'The sound could not be played.' 'The player says above why. What it plays: WAV, FLAC, Ogg.' ;;
	*)
		fail 'The demo did not go as it should.' \
			'Its log, if any, is the daemon'\''s; PIPEWIRE_DEBUG=4 ./demo.sh makes it tell more.' \
			"$logs/hear-sense.log"
		;;
	esac
}

stop_daemon()
{
	stop "$(<"$work/daemon.pid")"
	wait "${servers[-1]}" || fail 'The daemon did not end cleanly.' 'Its log stands above.' "$logs/hear-sense.log"
}

mkdir "$logs"
[[ ${#work} -le 80 ]] || fail "The name of the temporary folder is too long for sockets." 'Set TMPDIR to a shorter one.'
[[ $mode != mic ]] || check_for_own_pipewire
need_packages "$logs/apt.log" "${common_packages[@]}"
build

step 'Starting bus, PipeWire, microphone and daemon'
start_bus
if [[ $mode == mic ]]; then
	join_pipewire
else
	start_pipewire
fi
start_daemon

case $mode in
own)
	sound=$work/sound.wav
	espeak-ng -v en-us -s 150 -w "$work/speech.wav" \
		'Hello. This is the demo of hear-sense. In a moment a smoke alarm will sound in this room.'
	alarm_seconds=$(/usr/bin/python3 tools/demo/make-sound.py "$sound" "$work/speech.wav")
	step "Playing a quiet room, at 2 s somebody who speaks, from $alarm_seconds s on a smoke alarm"
	listen --own-sound --threshold -18 -- pw-play --target demo.feed "$sound"
	;;
file)
	step "Playing $sound"
	listen -- pw-play --target demo.feed "$sound"
	;;
mic)
	step 'Speak, clap or sing; Ctrl-C ends'
	printf '    The objects, from another terminal:\n    DBUS_SYSTEM_BUS_ADDRESS=%s busctl --system tree com.orvel.HearSense\n' \
		"$DBUS_SYSTEM_BUS_ADDRESS"
	trap : INT
	listen
	trap 'exit 130' INT
	;;
esac
stop_daemon
