# SPDX-License-Identifier: MIT
# shellcheck shell=bash
#
# What the tests of the installed packages share. Sourced by them.

export DEBIAN_FRONTEND=noninteractive

passed()
{
	printf 'passed: %s\n' "$1"
}

failed()
{
	printf 'FAILED: %s\n' "$1"
	systemctl --no-pager --full status hear-sense pipewire wireplumber || true
	journalctl --no-pager --lines 60 || true
	exit 1
}

# check WHAT COMMAND...: the command has to succeed.
check()
{
	local what=$1
	shift
	"$@" || failed "$what"
	passed "$what"
}

# check_not WHAT COMMAND...: the command has to fail.
check_not()
{
	local what=$1
	shift
	! "$@" || failed "$what"
	passed "$what"
}

# wait_until WHAT COMMAND...: the command has to succeed within 60 seconds.
wait_until()
{
	local what=$1 deadline=$((SECONDS + 60))
	shift
	until "$@" >/dev/null 2>&1; do
		((SECONDS < deadline)) || failed "$what"
		sleep 0.2
	done
	passed "$what"
}

# says TEXT COMMAND...: whether that is all it says.
says()
{
	[[ $("${@:2}") == "$1" ]]
}

# mentions TEXT COMMAND...: whether that is in what it says.
mentions()
{
	[[ $("${@:2}") == *"$1"* ]]
}

apt_quietly()
{
	apt-get -qq -y -o Dpkg::Use-Pty=0 "$@" >/dev/null
}

main_pid()
{
	systemctl show --property MainPID --value hear-sense
}

# Whether another process than PID is the daemon.
other_than()
{
	[[ $(main_pid) != 0 && $(main_pid) != "$1" ]]
}

daemon_owns_its_name()
{
	busctl --system --auto-start=no --timeout=5 status com.orvel.HearSense
}
