#!/bin/bash
# Runs every fuzz target (or those named) for SECONDS each, default 60, on
# its corpus, and prints a table: target, executions, corpus size, findings.
# Builds the fuzz build directory (build-fuzz, clang) first when needed.
# Exits 1 when any target had a finding; its input is in build-fuzz/findings/.
#
#   bash fuzz/run.sh [SECONDS] [TARGET...]
#
# The corpus of a target is fuzz/corpus/TARGET (our seeds and the regression
# inputs, read only) and build-fuzz/corpus/TARGET, where new inputs go and
# stay from one run to the next. QUORL_FUZZ_BUILD names another build directory.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
build=${QUORL_FUZZ_BUILD:-build-fuzz}

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DQUORL_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j2 >/dev/null

if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

# Runs one input alone and prints the processor time, in milliseconds, that
# it took; the status is the program's.
cpu_ms() {
  local TIMEFORMAT='%3U %3S' times status=0
  times=$({ time "$1" -timeout=60 -artifact_prefix="$3/" "$2" >>"$4" 2>&1; } 2>&1) || status=$?
  awk -v t="$(tail -n 1 <<<"$times")" 'BEGIN { split(t, a, " "); printf "%d", (a[1] + a[2]) * 1000 }'
  return "$status"
}

# Our own inputs, each alone and whole: the regression inputs of the stack's
# depth are longer than the inputs that the fuzzing makes (4096 bytes), into
# which it would cut them. A crash is a finding, and so is an input that
# takes a second of processor time: the clock would also count the time that
# others take of the shared machine.
replay_corpus() {
  local program=$1 findings=$2 log=$3 target=$4 input ms
  for input in "fuzz/corpus/$target"/*; do
    ms=$(cpu_ms "$program" "$input" "$findings" "$log") || return 1
    if [ "$ms" -ge 1000 ]; then
      cp "$input" "$findings/slow-$(basename "$input")"
      echo "fuzz_$target: $input takes $ms ms of processor time" >>"$log"
      return 1
    fi
  done
}

# Fuzzes one target until its time is up. A timeout whose input takes less
# than a second of processor time alone was a slow spell of the shared
# machine (the limit is on the clock): that input is set aside, and the
# fuzzing goes on for the time left.
fuzz_target() {
  local program=$1 corpus=$2 findings=$3 log=$4 target=$5
  local deadline=$(($(date +%s) + seconds)) left status artifact
  while left=$((deadline - $(date +%s))); [ "$left" -gt 0 ]; do
    status=0
    "$program" -max_total_time="$left" -max_len=4096 -timeout=1 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$corpus" "fuzz/corpus/$target" >>"$log" 2>&1 || status=$?
    [ "$status" -ne 0 ] || return 0
    for artifact in "$findings"/*; do
      case "$(basename "$artifact")" in
        timeout-*)
          mkdir -p "$findings.unconfirmed"
          if [ "$(cpu_ms "$program" "$artifact" "$findings.unconfirmed" /dev/null)" -lt 1000 ]; then
            mv "$artifact" "$findings.unconfirmed/"
            echo "fuzz_$target: $(basename "$artifact") takes under a second alone; going on" >>"$log"
          fi ;;
      esac
    done
    [ -z "$(ls -A "$findings")" ] || return 1
  done
}

# Runs one target: replays its corpus, fuzzes, and leaves its row of the table
# and its count of findings in $build/rows/TARGET.
run_target() {
  local target=$1 program="$build/fuzz/fuzz_$1" corpus="$build/corpus/$1"
  local findings="$build/findings/$1" log="$build/logs/$1.log" status=0
  rm -rf "$findings" "$findings.unconfirmed"
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  : >"$log"
  # One second per input at most; a leak is a finding as well as a crash.
  replay_corpus "$program" "$findings" "$log" "$target" || status=$?
  if [ "$status" -eq 0 ]; then
    fuzz_target "$program" "$corpus" "$findings" "$log" "$target" || status=$?
  fi
  local executions units found
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | awk '{ n += $1 } END { print n + 0 }')
  units=$(find "$corpus" "fuzz/corpus/$target" -type f -print0 | xargs -0 -r md5sum | cut -d' ' -f1 | sort -u | wc -l)
  found=$(find "$findings" -type f | wc -l)
  # A target that ended badly without leaving an input (say, killed) counts too.
  if [ "$status" -ne 0 ] && [ "$found" -eq 0 ]; then found=1; fi
  if [ "$found" -ne 0 ]; then
    echo "fuzz_$target: finding, see $log and $findings/" >&2
  fi
  printf '%s | %12s | %11s | %8s |\n' "$found" "$executions" "$units" "$found" >"$build/rows/$target"
}

for target in "${targets[@]}"; do
  [ -x "$build/fuzz/fuzz_$target" ] || { echo "no fuzz target $target" >&2; exit 2; }
done
# As many targets at once as the machine has processors, each on one.
rm -rf "$build/rows"
mkdir -p "$build/rows"
for target in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do wait -n || true; done
  run_target "$target" &
done
wait

total_findings=0
printf '| %-17s | %12s | %11s | %8s |\n' target executions "corpus size" findings
printf '|%s|%s|%s|%s|\n' "-------------------" "--------------" "-------------" "----------"
for target in "${targets[@]}"; do
  # A target whose run ended before it could write its row is a finding.
  row=$(cat "$build/rows/$target" 2>/dev/null) || row=$(printf '1 | %12s | %11s | %8s |' '?' '?' 1)
  total_findings=$((total_findings + ${row%% *}))
  printf '| %-17s |%s\n' "$target" "${row#* |}"
done
echo "${#targets[@]} targets, ${seconds} s each: $total_findings findings"
[ "$total_findings" -eq 0 ]
