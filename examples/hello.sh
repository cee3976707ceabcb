#!/bin/sh
# A tiny application for appsrv: each selected connection runs this script
# with the connection as standard input and output. It greets, then echoes
# every line back until the client sends "quit" or closes.
echo "hello from ${APPSRV_STACK_NAME}"
while IFS= read -r line; do
  [ "$line" = "quit" ] && break
  echo "${APPSRV_STACK_NAME}: ${line}"
done
echo "bye"
