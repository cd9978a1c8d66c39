#!/bin/sh
# SPDX-License-Identifier: MIT
#
# A client of hear-sense in shell: lists what there is, reads an event, and follows all public ones. With a number,
# changes a setting first.
#
# Usage: listen.sh [THRESHOLD]
# Goes on when the daemon goes and comes back, until Ctrl-C. Status: 1 where there is no daemon at the start.
#
# A shell cannot take the descriptor of a private bus. hsctl can: hsctl monitor --private loudness/Level
set -u

service=com.orvel.HearSense
root=/com/orvel/HearSense

# Plug-ins are three below the root: device, its signal, plug-in.
paths=$(busctl --system tree --list "$service") || {
	echo 'hear-sense is not there. Is it running (hsctl status)?' >&2
	exit 1
}
sources=$(echo "$paths" | grep -x "$root/[^/]*/[^/]*")
plugins=$(echo "$paths" | grep -x "$root/[^/]*/[^/]*/[^/]*")
for path in $sources; do
	echo "source ${path#"$root/"}"
done
for path in $plugins; do
	echo "plug-in ${path#"$root/"}"
done

for path in $plugins; do
	[ "${path##*/}" = Loudness ] || continue
	name=${path#"$root/"}
	if [ $# -gt 0 ]; then
		# A refusal is for the user to read, and no reason to end. "busctl set-property" would not tell why.
		if answer=$(gdbus call --system --dest "$service" --object-path "$path" \
			--method org.freedesktop.DBus.Properties.Set "$service.Settings.Loudness" Threshold "<double $1>" 2>&1); then
			echo "$name: Threshold is set to $1"
		else
			echo "$name: Threshold stays as it was: $answer"
		fi
	fi
	value=$(busctl --system get-property "$service" "$path" "$service.Events.Loudness.Loudness" Loudness) &&
		echo "$name: Loudness $value"
done

# "busctl --system monitor" shows more, to root only.
exec gdbus monitor --system --dest "$service"
