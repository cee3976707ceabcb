#!/bin/sh
# The handler, run for every selected connection: says how long the service
# has been up since its last start.
if ! started=$(cat "$APPSRV_STACK_PATH/heartbeat.started" 2>/dev/null); then
  echo "${APPSRV_STACK_NAME}: the service has not started"
  exit 0
fi
echo "${APPSRV_STACK_NAME}: service up for $(($(date +%s) - started)) s"
