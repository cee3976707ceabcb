#!/usr/bin/env bash
# Builds and runs every test: the optimised build, the sanitizer build
# (AddressSanitizer + UndefinedBehaviorSanitizer) and the request parser's
# fuzz target. Usage: tools/test.sh [preset...]   (default: default sanitize fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."

steps=("$@")
((${#steps[@]})) || steps=(default sanitize fuzz)

tools/install-deps.sh --fuzz
for step in "${steps[@]}"; do
  echo "== $step"
  if [[ "$step" == fuzz ]]; then
    protocol/fuzz/run.sh
  else
    cmake --workflow --preset "$step"
  fi
done
