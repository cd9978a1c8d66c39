#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Feeds invented input to the daemon's parsers: see usage.
set -euo pipefail

seconds=600
default_jobs=2

usage()
{
	cat <<-END
	Usage: tests/fuzz/run.sh [OPTION...] [SECONDS] [TARGET...]

	Builds the fuzzers with clang and runs each TARGET, all without one, for SECONDS of processor time ($seconds
	unless told otherwise), $default_jobs at a time. Prints what each did; ends with status 1 where one found something,
	and then tells which file to give to the fuzzer to see it again.

	  --build=FOLDER  builds there instead of in build-fuzz
	  --jobs=N        runs N at a time
	  --seed=N        invents the same inputs at each run from the same beginning
	  --minimise      afterwards adds $added_at_a_time small inputs that reach something new to each folder of tests/fuzz/corpus
	  --list          prints the targets
	  --help          shows this

	Inputs of earlier runs stay in FOLDER/fuzz and are where the next run begins.
	END
}

source_root=$(cd -- "$(dirname -- "$(readlink -f -- "$0")")/../.." && pwd)
here=$source_root/tests/fuzz
# Larger inputs show little more, and take long.
largest_input=4096
largest_kept=1024
added_at_a_time=4
# What a fuzzer ends with that is stopped.
stopped=72

build=$source_root/build-fuzz
jobs=$default_jobs
seed=0
minimise=false
declare -a targets=()
for argument; do
	case $argument in
	--build=*) build=$(realpath -m -- "${argument#*=}") ;;
	--jobs=*) jobs=${argument#*=} ;;
	--seed=*) seed=${argument#*=} ;;
	--minimise) minimise=true ;;
	--list) ls -- "$here/corpus" && exit 0 ;;
	-h | --help) usage && exit 0 ;;
	-*) printf 'There is no option %s. See %s --help\n' "$argument" "$0" >&2 && exit 2 ;;
	*[!0-9]*)
		[[ -f $here/fuzz-$argument.cpp ]] || {
			printf 'There is no target %s. See %s --list\n' "$argument" "$0" >&2
			exit 2
		}
		targets+=("$argument")
		;;
	*) seconds=$argument ;;
	esac
done
((${#targets[@]} > 0)) || mapfile -t targets < <(ls -- "$here/corpus")

export CC=${CC:-clang-14} CXX=${CXX:-clang++-14}
export ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
PATH=$PATH:/usr/lib/llvm-14/bin

# In memory where there is a folder for that, since the daemon syncs what it writes.
written=/dev/shm
[[ -w $written ]] || written=${TMPDIR:-/tmp}
TMPDIR=$(mktemp -d "$written/hear-sense-fuzz.XXXXXX")
export TMPDIR
trap 'rm -rf -- "$TMPDIR"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

build_fuzzers()
{
	[[ -f $build/build.ninja ]] || meson setup -Dfuzz=enabled \
		-D{alarm,hs_plugin,hsctl,loudness,man,systemd,vamp,voice}=disabled \
		-Doptimization=1 -Ddebug=true -Db_sanitize=address,undefined -Db_lundef=false \
		-D{c,cpp}_args='-fno-sanitize-recover=all -fno-omit-frame-pointer' "$build" "$source_root"
	ninja -C "$build" "${targets[@]/#/tests/fuzz/fuzz-}"
}

# processor_seconds PID
processor_seconds()
{
	ps -o cputimes= -p "$1" | tr -d ' '
}

# fuzz TARGET: the fuzzer counts on the clock, so it is stopped from here.
fuzz()
{
	local target=$1 folder=$build/fuzz/$1 used=0 now dictionary=$here/dict/$1.dict log status=0
	local -a options=(-print_final_stats=1 -timeout=20 -rss_limit_mb=2048 -max_len="$largest_input" -seed="$seed")
	log=$folder.log
	[[ -f $dictionary ]] || dictionary=$here/dict/json.dict
	mkdir -p -- "$folder" "$folder.found"
	"$build/tests/fuzz/fuzz-$target" "${options[@]}" -dict="$dictionary" -artifact_prefix="$folder.found/" \
		"$folder" "$here/corpus/$target" >"$log" 2>&1 &
	local pid=$!
	while now=$(processor_seconds "$pid"); do
		used=${now:-$used}
		((used < seconds)) || {
			kill -INT "$pid" 2>/dev/null || true
			break
		}
		sleep 0.5
	done
	wait "$pid" || status=$?

	local executions covered found
	executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
	covered=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
	found=$(find "$folder.found" -type f -newer "$folder.started" | wc -l)
	((status == 0 || status == stopped || found > 0)) || found=1
	printf '%-10s %6d s  %10d runs  %6d edges  %3d found\n' \
		"$target" "$used" "${executions:-0}" "${covered:-0}" "$found"
	((found == 0)) || {
		grep -E 'does not hold|ERROR|runtime error|^SUMMARY' "$log" || tail -n 5 "$log"
		find "$folder.found" -type f -newer "$folder.started" -printf "    $build/tests/fuzz/fuzz-$target %p\n"
		return 1
	}
}

# add_to_corpus TARGET: the largest of those small inputs that together reach all that was reached.
add_to_corpus()
{
	local target=$1 folder=$build/fuzz/$1 corpus=$here/corpus/$1 input
	local small=$folder.small cover=$folder.cover
	rm -rf -- "$small" "$cover"
	mkdir -p -- "$small" "$cover"
	find "$folder" -type f -size -"${largest_kept}"c -exec cp -t "$small" -- {} +
	"$build/tests/fuzz/fuzz-$target" -set_cover_merge=1 "$cover" "$corpus" "$small" >"$folder.merge.log" 2>&1
	# Named by their hashes, like all that is found.
	for input in "$corpus"/*; do
		rm -f -- "$cover/$(sha1sum <"$input" | cut -d ' ' -f 1)"
	done
	find "$cover" -type f -printf '%s %p\n' | sort -rn | sed -n "1,${added_at_a_time}p" | cut -d ' ' -f 2- |
		xargs -r -d '\n' cp -t "$corpus" --
	rm -rf -- "$small" "$cover"
}

build_fuzzers
failed=0
for target in "${targets[@]}"; do
	while (($(jobs -pr | wc -l) >= jobs)); do
		wait -n || failed=1
	done
	mkdir -p -- "$build/fuzz"
	: >"$build/fuzz/$target.started"
	fuzz "$target" &
done
while (($(jobs -p | wc -l) > 0)); do
	wait -n || failed=1
done
if $minimise; then
	for target in "${targets[@]}"; do
		add_to_corpus "$target"
	done
fi
exit "$failed"
