#!/bin/bash
# The completion of stack names with names a client could have uploaded: each
# is offered quoted as one word, and none is ever run by the shell.
# Usage: completion_test.sh COMPLETION_SCRIPT
set -u
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT
appsrvctl() { printf '%s\n' "\$(touch $scratch/ran)" "\`touch $scratch/ran\`" "it's" "al two" alpha; }
source "$1"
complete_words() {
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
  _appsrvctl
  printf '%s|' "${COMPREPLY[@]}"
}
failed=0
check() {
  if [[ $2 == "$3" ]]; then echo "ok - $1"; else echo "not ok - $1: got '$2', want '$3'"; failed=1; fi
}
check "every name, quoted" "$(complete_words appsrvctl logs '')" \
  "\\\$\\(touch\\ $scratch/ran\\)|\\\`touch\\ $scratch/ran\\\`|it\\'s|al\\ two|alpha|"
check "names by their beginning" "$(complete_words appsrvctl status al)" "al\\ two|alpha|"
check "no name was run" "$(ls "$scratch")" ""
exit $failed
