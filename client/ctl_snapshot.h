// What appsrvctl reads in the daemon's working directory: the status
// snapshot the daemon keeps (private/status.json), whether the daemon that
// wrote it still runs, and the state each stack's runtime reports
// (stacks/{key}/runtime.json). Both files are read whole, bounded in size,
// and taken apart without trusting their shape: a member of the wrong type
// reads as absent.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "client/ctl_args.h"

struct ctl_snapshot {
  nlohmann::ordered_json document;  // the snapshot; "stacks" is always an array of objects
  bool live;  // the daemon that wrote it still runs
  int64_t written;  // unix seconds of the file's last change
};

// Reads the snapshot of `workdir`. 0, or -1 with `problem` saying why there
// is none to show (missing, unreadable, not a snapshot).
int ctl_snapshot_read(const char* workdir, ctl_snapshot* snapshot, std::string* problem);

// Reads the snapshot for a command that shows the daemon's stacks: 0 when
// its daemon runs, else the exit status (5) after reporting on standard error.
int ctl_snapshot_read_live(const ctl_options* options, ctl_snapshot* snapshot);

// Members of a snapshot object, or `fallback` when absent or of another type.
int64_t ctl_json_number(const nlohmann::ordered_json& object, const char* key, int64_t fallback = 0);
std::string ctl_json_text(const nlohmann::ordered_json& object, const char* key);

// A stack's name as its exact bytes (the snapshot's "name_hex").
std::string ctl_stack_name(const nlohmann::ordered_json& stack);

// What the stack's runtime reports, when it reports on the stack's current
// job (written since that job started): the members the runtime defines
// ("mode", "service" with "pid", "state", "restarts", "started",
// "last_exit", and "handlers"), anything else left out. Null otherwise.
nlohmann::ordered_json ctl_runtime_state(const char* workdir, const nlohmann::ordered_json& stack);
