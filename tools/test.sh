#!/usr/bin/env bash
# Builds and runs every test: the optimised build, the sanitizer build
# (AddressSanitizer + UndefinedBehaviorSanitizer), the request parser's fuzz
# target and the Debian package (made, reviewed by lintian, installed, used
# and purged), then prints one "N passed, N failed" line per step and one
# for all of them. Every step runs even when an earlier one failed; the exit
# status is 0 only when nothing failed.
# Usage: tools/test.sh [step...]   (default: default sanitize fuzz package)
set -uo pipefail
cd "$(dirname "$0")/.."

steps=("$@")
((${#steps[@]})) || steps=(default sanitize fuzz package)

tools/install-deps.sh --test || exit 1

logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

# Runs one step with its output shown and kept; sets `passed` and `failed`.
run_step() {
  local step=$1 log=$logs/$1 status
  if [[ "$step" == package ]]; then
    tools/package-test.sh 2>&1 | tee "$log"
    status=${PIPESTATUS[0]}
    passed=$(grep -c '^ok ' "$log") failed=$(grep -c '^not ok ' "$log")
    ((status == 0 || failed > 0)) || failed=1
    return
  fi
  if [[ "$step" == fuzz ]]; then
    protocol/fuzz/run.sh 2>&1 | tee "$log"
    status=${PIPESTATUS[0]}
    # One target: it passes when the run ends without a finding.
    passed=$((status == 0)) failed=$((status != 0))
    return
  fi
  cmake --workflow --preset "$step" 2>&1 | tee "$log"
  status=${PIPESTATUS[0]}
  # ctest's own count: "98% tests passed, 2 tests failed out of 137".
  local counts
  counts=$(sed -n 's/^[0-9]*% tests passed, \([0-9]*\) tests\{0,1\} failed out of \([0-9]*\)$/\1 \2/p' "$log" | tail -n 1)
  if [[ -z "$counts" ]]; then
    passed=0 failed=1  # nothing was tested: the configure or the build failed
    return
  fi
  read -r failed total <<<"$counts"
  passed=$((total - failed))
  ((status == 0 || failed > 0)) || failed=1
}

summary=()
all_passed=0 all_failed=0
for step in "${steps[@]}"; do
  echo "== $step"
  run_step "$step"
  summary+=("$step: $passed passed, $failed failed")
  all_passed=$((all_passed + passed)) all_failed=$((all_failed + failed))
done

echo "== summary"
printf '%s\n' "${summary[@]}"
echo "overall: $all_passed passed, $all_failed failed"
((all_failed == 0))
