// What the crash tests look at beyond the shared end-to-end helpers: the
// processes of a group, read from /proc.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace crash {

// Pids of the live (not zombie) processes whose process group is `group`.
std::vector<pid_t> members_of(pid_t group);
bool process_gone(pid_t pid);
pid_t grandchild_in(const std::string& log);  // the "grandchild N" a stack's log reports, or 0

}  // namespace crash
