// What the crash tests look at: the stores on disk, the daemon's list, the
// processes of a group, and uploads, renames and deletes that tolerate a
// daemon that dies under them.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/e2e/daemon.h"

namespace crash {

using Names = std::vector<std::string>;

bool exists(const std::string& path);
// The names in a directory, "." and ".." left out, sorted.
Names entries(const std::string& directory);
void make_tree(const std::string& path);  // mkdir -p

// Name-tag contents of every store (non-hidden entry of ./data), by key.
std::map<std::string, std::string> stores_on_disk(e2e::Daemon& daemon);
// The daemon's list, or a single "<no reply>" entry when it did not answer.
Names list(e2e::Daemon& daemon);

// An upload answered by the new stack: its greeting line ("" when the
// connection ended without one).
std::string upload(e2e::Daemon& daemon, const std::string& name, const std::string& image, int timeout_seconds = 10);
// A rename handed over to the stack: its greeting, or "" (failures included).
std::string rename(e2e::Daemon& daemon, const std::string& old_name, const std::string& new_name,
                   int timeout_seconds = 10);
// "success", "failure: reason" or "" when nothing came back.
std::string remove(e2e::Daemon& daemon, const std::string& name, int timeout_seconds = 10);

// Pids of the live (not zombie) processes whose process group is `group`.
std::vector<pid_t> members_of(pid_t group);
bool process_gone(pid_t pid);
// Every "start pid=N" of a stack's log, in order.
std::vector<pid_t> starts_in(const std::string& log);
pid_t grandchild_in(const std::string& log);

// Waits up to 5 s until the stack deployed as `name` has bound its socket
// (the test bootstrap greets an upload before it binds).
bool wait_ready(e2e::Daemon& daemon, const std::string& name);

int64_t now_ms();

}  // namespace crash
