// The daemon's status snapshot, ./private/status.json: the daemon, its stacks
// and what it has served, for operators and their tools. It is derived
// state: the daemon writes it and never reads it back. Each write goes to a
// temporary file that is renamed over the snapshot (without fsync), so a
// reader sees one whole snapshot, never part of one.
#pragma once

#include <cstdint>

#include "base/socket.h"

// What the daemon has served since it started.
struct appsrv_counters {
  uint64_t connections;  // connections accepted
  uint64_t uploads;  // upload requests whose image arrived in full
  uint64_t deletes;  // delete requests received, whatever their outcome
  uint64_t renames;  // rename requests received, whatever their outcome
  uint64_t selects;  // select requests received, whatever their outcome
};

// Counted by the main loop and the request handler.
extern appsrv_counters appsrv_counted;

// Keeps the daemon's own facts for every snapshot: its pid, `started` (unix
// seconds) and the address `listener` is bound to.
void appsrv_status_open(const socket_record* listener, int64_t started);

// Builds the snapshot and replaces the file when the text differs from the
// last one written; called when a pass has done its work. Within 100 ms of
// the last look it only notes that a look is owed. A write that fails leaves
// the old file and is not tried again before the snapshot changes.
void appsrv_status_refresh(bool stop_requested);

// How long the loop may wait for a connection: `longest`, or less when a
// look is owed, so that the snapshot trails a burst by at most 100 ms.
int32_t appsrv_status_wait(int32_t longest);
