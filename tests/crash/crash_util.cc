#include "tests/crash/crash_util.h"

#include <cstdio>
#include <cstdlib>

#include "tests/e2e/daemon.h"

namespace crash {

namespace {

// State and process group of /proc/{pid}/stat; false when it is gone.
bool stat_of(pid_t pid, char* state, pid_t* group) {
  std::string text = e2e::read_file("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = text.rfind(')');
  int parent = 0;
  return text != "<missing>" && paren != std::string::npos &&
         sscanf(text.c_str() + paren + 1, " %c %d %d", state, &parent, group) == 3;
}

}  // namespace

std::vector<pid_t> members_of(pid_t group) {
  std::vector<pid_t> members;
  for (const std::string& name : e2e::entries("/proc")) {
    pid_t pid = atoi(name.c_str()), pgrp = 0;
    char state = 0;
    if (pid > 0 && stat_of(pid, &state, &pgrp) && pgrp == group && state != 'Z') members.push_back(pid);
  }
  return members;
}

bool process_gone(pid_t pid) {
  char state = 0;
  pid_t group = 0;
  return !stat_of(pid, &state, &group) || state == 'Z';
}

pid_t grandchild_in(const std::string& log) {
  size_t at = log.find("grandchild ");
  return at == std::string::npos ? 0 : atoi(log.c_str() + at + 11);
}

}  // namespace crash
