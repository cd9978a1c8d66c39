#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Tries the Debian packages on a bare system: see usage.
set -euo pipefail

usage()
{
	cat <<-END
	Usage: tools/try-packages.sh [FOLDER]
	       tools/try-packages.sh --help

	Installs the packages in FOLDER (build-packages, where tools/build-packages.sh puts them, if none is told) in a bare
	Debian 12 with a systemd that runs, and tries them there by the tests in debian/tests: a plug-in is written with
	them, the service is run and confined, and they are removed and purged.

	  --help   shows this

	It needs root, mmdebstrap, systemd-container and a Debian mirror. Everything is thrown away. The last line is
	"N passed, N failed".
	END
}

cd -- "$(dirname -- "$(readlink -f -- "$0")")/.."
# shellcheck source=tools/packages.sh
. tools/packages.sh
# shellcheck source=tools/bare-root.sh
. tools/bare-root.sh

folder=build-packages
case ${1:-} in
'') ;;
-h | --help) usage && exit 0 ;;
-*) fail "There is no option $1." 'See tools/try-packages.sh --help' ;;
*) folder=$1 ;;
esac
((EUID == 0)) || fail 'A system is started, which takes root.' 'Run this with sudo.'
compgen -G "$folder/*.deb" >/dev/null ||
	fail "There are no packages in $folder." 'tools/build-packages.sh makes them.'

work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-try.XXXXXX")
trap 'leave_bare_root "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

need_packages "$work/apt.log" 'mmdebstrap|makes a bare Debian 12' 'systemd-container|starts it' \
	'dpkg-dev|makes the packages known to it'

step 'Making a bare Debian 12'
root=$work/root
begin_apart mmdebstrap --variant=minbase --include=systemd,systemd-sysv,dbus,pipewire,pipewire-bin,wireplumber \
	--skip=cleanup/apt bookworm "$root" >"$work/log" 2>&1
end_apart ||
	fail 'It could not be made.' 'Is there a Debian mirror in reach?' "$work/log"

trial=$root/opt/trial
mkdir -p "$trial/packages"
cp -r debian/tests "$trial/tests"
cp -- "$folder"/*.deb "$trial/packages"
(cd "$trial/packages" && dpkg-scanpackages --multiversion . >Packages 2>>"$work/log")
echo 'deb [trusted=yes] file:/opt/trial/packages ./' >"$root/etc/apt/sources.list.d/trial.list"

cat >"$trial/run" <<'END'
#!/bin/bash
set -uo pipefail
export DEBIAN_FRONTEND=noninteractive
cd /opt/trial

# try NAME: a test with the packages that its paragraph in the control file names.
try()
{
	local name=$1 depends
	depends=$(sed -n "/^Tests: $name\$/,/^\$/s/^Depends: //p" tests/control)
	printf '==> %s\n' "$name"
	# shellcheck disable=SC2086 # a list
	apt-get -qq -y --no-install-recommends -o Dpkg::Use-Pty=0 install ${depends//,/ } >install.log 2>&1 || {
		cat install.log
		printf 'FAILED: the packages of the test %s can be installed\n' "$name"
		return
	}
	printf 'passed: the packages of the test %s can be installed\n' "$name"
	"tests/$name" 2>&1 || printf 'FAILED: the test %s ends well\n' "$name"
}

{
	apt-get -qq update
	try service
	try rights-library
	try author
	try removal
}
END
chmod +x "$trial/run"
cat >"$root/etc/systemd/system/trial.service" <<'END'
[Unit]
Description=Trial of the packages
After=multi-user.target
SuccessAction=exit-force
FailureAction=exit-force

[Service]
Type=oneshot
ExecStart=/opt/trial/run
StandardOutput=file:/opt/trial/log
END

step 'Starting it'
touch "$trial/log"
begin_apart systemd-nspawn --quiet --directory="$root" --register=no --keep-unit --machine=hear-sense-trial \
	--console=pipe --boot systemd.wants=trial.service >"$work/log" 2>&1
tail --follow --lines=+1 --pid="$bare_root_pid" "$trial/log" &
shown=$!
end_apart || true
wait "$shown"
[[ -s $trial/log ]] || fail 'It did not start.' 'Can containers be started here?' "$work/log"

passed=$(grep -c '^passed: ' "$trial/log") || true
failed=$(grep -c '^FAILED: ' "$trial/log") || true
printf '%d passed, %d failed\n' "$passed" "$failed"
((passed > 0 && failed == 0))
