#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Builds and runs every test: see usage. The last line is "N passed, N failed".
set -euo pipefail

usage()
{
	cat <<-END
	Usage: ./test.sh [--quick | --help]

	Installs the Debian packages that the tests need and are missing, builds, runs every test, and ends with
	the line "N passed, N failed".

	  (nothing)   with g++ -O3 and NDEBUG, all tests; under valgrind, the unit tests and those about nodes, audio
	              and shutdown;
	              with nothing that can be left out, without optimisation, the unit tests;
	              with clang, AddressSanitizer and UndefinedBehaviorSanitizer, clang-tidy, all tests, how much of
	              src/ they run, and 20 seconds of invented input for every parser
	  --quick     one plain build with g++ and all tests
	  --help      shows this

	With CI=true a skipped test counts as failed. Nothing is written outside this folder and the temporary one.
	END
}

here=$(dirname -- "$(readlink -f -- "$0")")
cd -- "$here"
# shellcheck source=tools/packages.sh
. tools/packages.sh

quick=false
case ${1:-} in
'') ;;
--quick) quick=true ;;
-h | --help) usage && exit 0 ;;
*) fail "There is no option $1." 'See ./test.sh --help' ;;
esac

packages=("${common_packages[@]}"
	'libcli11-dev|command lines of hs-plugin and hsctl'
	'nlohmann-json3-dev|what they print'
	'libfmt-dev|the same, in hsctl'
	'libncurses-dev|live view, in hsctl'
	'libsndfile1-dev|sound files, in hs-plugin'
	'libsamplerate0-dev|their rates'
	'python3-numpy|makes sounds for them'
	'lowdown|makes manual pages'
	'man-db|shows them'
	'mandoc|finds faults in them'
	'libglib2.0-bin|gdbus, which the client in shell uses'
	'zsh|tries its completion of hsctl'
	'systemd|reads the unit, its user and folders'
	'libgtest-dev|unit tests'
	'locales|unit tests in a language with decimal commas'
	'procps|what the daemon leaves behind'
	'strace|lets calls of the daemon fail'
	'python3-pytest|integration tests'
	'python3-pytest-xdist|runs them in parallel')
$quick || packages+=(
	'clang-14|the second compiler'
	'clang-tidy-14|looks for bugs in the sources'
	'libclang-rt-14-dev|its sanitizers'
	'llvm-14|names the functions in their reports, and tells what has been run'
	'libbenchmark-dev|times what runs inside one process'
	'gstreamer1.0-tools|what the daemon is compared with'
	'gstreamer1.0-plugins-good|its level meter'
	'gstreamer1.0-pipewire|its microphones'
	'valgrind|finds leaks in the daemon')

work=$(mktemp -d "${TMPDIR:-/tmp}/hear-sense-test.XXXXXX")
trap 'rm -rf -- "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

passed=0
failed=0
declare -a durations=()

add()
{
	local skipped
	passed=$((passed + $1))
	failed=$((failed + $2))
	skipped=$3
	[[ ${CI:-} != true ]] || failed=$((failed + skipped))
	printf '    %d passed, %d failed, %d skipped\n' "$1" "$2" "$skipped"
}

# timed WHAT COMMAND...: the command's status is its own affair; it tells what it finds through add.
timed()
{
	local what=$1 begin=$SECONDS
	shift
	step "$what"
	"$@"
	durations+=("$(printf '%5d s  %s' $((SECONDS - begin)) "$what")")
}

# build FOLDER MESON-OPTION...: a failed build is a failed test, and the tests of that build are not run.
built=false
build()
{
	local folder=$1
	shift
	built=false
	if [[ ! -f $folder/build.ninja ]]; then
		rm -rf -- "$folder"
		meson setup --prefix=/usr -Dauto_features=enabled "$@" "$folder" . >"$work/setup.log" 2>&1 || {
			tail -n 25 "$work/setup.log"
			add 0 1 0
			return
		}
	fi
	if ninja -C "$folder"; then
		built=true
	else
		add 0 1 0
	fi
}

# unit_tests FOLDER MESON-OPTION...
unit_tests()
{
	local folder=$1
	shift
	$built || return 0
	rm -rf -- "$folder/results/unit"
	# Under a wrapper it has the wrapper's name as well.
	rm -f -- "$folder"/meson-logs/testlog*.json
	GTEST_OUTPUT="xml:$PWD/$folder/results/unit/" \
		meson test -C "$folder" --no-rebuild --no-suite integration --print-errorlogs "$@" || true
	count meson "$folder"/meson-logs/testlog*.json "$folder/results/unit"
}

count()
{
	local -a counts
	read -ra counts < <(/usr/bin/python3 tools/count-results.py "$@")
	add "${counts[@]}"
}

# integration_tests FOLDER RESULT PYTEST-ARGUMENT...
integration_tests()
{
	local folder=$1 result=$PWD/$1/results/$2.xml
	$built || return 0
	shift 2
	rm -f -- "$result"
	HS_BUILD_DIR=$PWD/$folder PYTHONDONTWRITEBYTECODE=1 \
		/usr/bin/python3 -m pytest -p no:cacheprovider -q --junitxml="$result" "$@" || true
	count pytest "$result"
}

# figures FOLDER NAME...: how well the plug-ins hear.
figures()
{
	local folder=$1 name
	$built || return 0
	shift
	for name; do
		if meson devenv -C "$folder" "$here/tests/hearing/${name}_figures.py" --quick; then
			add 1 0 0
		else
			add 0 1 0
		fi
	done
}

# The form that only shows that nothing has broken lately, alike at each run: tests/fuzz/run.sh goes on for longer.
fuzz()
{
	local n_targets
	n_targets=$(tests/fuzz/run.sh --list | wc -l)
	if tests/fuzz/run.sh --build=build-test-fuzz --seed=1 20; then
		add "$n_targets" 0 0
	else
		add 0 1 0
	fi
}

# tidy FOLDER: each source counts.
tidy()
{
	local log=$work/tidy.log without with
	$built || return 0
	tools/tidy.sh "$1" 2>&1 | tee "$log" || true
	if read -r without with < <(sed -n '$s/^\([0-9]*\) sources without findings, \([0-9]*\) with$/\1 \2/p' "$log"); then
		add "$without" "$with" 0
	else
		add 0 1 0
	fi
}

coverage()
{
	$built || return 0
	if tools/coverage.sh --report "$1"; then
		add 1 0 0
	else
		add 0 1 0
	fi
}

# benchmarks FOLDER: only where a ratio is past twice its goal has something gone wrong for certain.
benchmarks()
{
	local folder=$1
	$built || return 0
	if PYTHONPATH=$here/tests/integration PYTHONDONTWRITEBYTECODE=1 \
		/usr/bin/python3 bench/run.py "$folder" --quick --tolerance 2; then
		add 1 0 0
	else
		add 0 1 0
	fi
}

need_packages "$work/apt.log" "${packages[@]}"

export CC=gcc CXX=g++
if $quick; then
	timed 'Building with g++' build build-test
	timed 'Unit tests' unit_tests build-test
	timed 'Integration tests' integration_tests build-test integration -n 2 tests/integration
else
	timed 'Building with g++, -O3 and NDEBUG' build build-test-gcc -Doptimization=3 -Ddebug=true -Db_ndebug=true -Dbench=true
	timed 'Unit tests' unit_tests build-test-gcc
	timed 'Integration tests' integration_tests build-test-gcc integration -n 2 tests/integration

	timed 'Building with nothing that can be left out' build build-test-least -Doptimization=0 -Dauto_features=disabled
	timed 'Unit tests of that' unit_tests build-test-least

	timed 'Figures of the plug-ins, shortened' figures build-test-gcc alarm voice

	timed 'Benchmarks, shortened' benchmarks build-test-gcc

	export HS_TEST_TIMEOUT_SCALE=10
	HS_TEST_WRAPPER='valgrind --quiet --leak-check=full --errors-for-leak-kinds=definite,possible --error-exitcode=97'
	# Tests let their own operator new fail, and let children die with all that they hold.
	HS_TEST_WRAPPER+=' --soname-synonyms=somalloc=nouserintercepts --child-silent-after-fork=yes'
	export HS_TEST_WRAPPER
	export HS_ROUNDS=10
	timed 'Nodes, clients, audio and shutdown under valgrind' integration_tests build-test-gcc valgrind \
		tests/integration -k \
		'life or rounds or node_that_goes or hears_the_buffers or file_that_is_played or sigterm_tears'
	# What hears minutes of sounds would take a quarter of an hour here; the sanitizers hear all of it.
	timed 'Unit tests under valgrind' unit_tests build-test-gcc --no-suite sounds --no-suite fuzz \
		--wrapper "$HS_TEST_WRAPPER" --timeout-multiplier 10
	unset HS_TEST_WRAPPER HS_TEST_TIMEOUT_SCALE HS_ROUNDS

	export CC=clang-14 CXX=clang++-14
	timed 'Building with clang and its sanitizers' build build-test-clang -Doptimization=1 -Ddebug=true \
		-Db_sanitize=address,undefined -Db_lundef=false -Dcoverage=enabled \
		-D{c,cpp}_args='-fno-sanitize-recover=all -fno-omit-frame-pointer'
	export ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1
	export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
	export HS_TEST_TIMEOUT_SCALE=3 HS_FUZZ_SECONDS=20
	PATH=$PATH:/usr/lib/llvm-14/bin
	timed 'clang-tidy' tidy build-test-clang
	tools/coverage.sh --reset build-test-clang
	timed 'Unit tests, sanitized' unit_tests build-test-clang
	timed 'Integration tests, sanitized' integration_tests build-test-clang integration -n 2 tests/integration
	timed 'Coverage' coverage build-test-clang
	timed 'Fuzzing' fuzz
fi

step 'Time'
printf '%s\n' "${durations[@]}" "$(printf '%5d s  all' $SECONDS)"
printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0))
