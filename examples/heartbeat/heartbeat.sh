#!/bin/sh
# The service: notes when it started, then writes a heartbeat line every
# $HEARTBEAT_SECONDS seconds. Its output goes to the stack's log.
date +%s > "$APPSRV_STACK_PATH/heartbeat.started"
echo "heartbeat for ${APPSRV_STACK_NAME} started, pid $$"
trap 'echo "heartbeat stopping"; exit 0' TERM
beat=0
while :; do
  beat=$((beat + 1))
  echo "heartbeat ${beat}"
  # In the background, so that SIGTERM is acted on at once rather than
  # after the sleep.
  sleep "${HEARTBEAT_SECONDS:-5}" &
  wait $!
done
