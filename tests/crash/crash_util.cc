#include "tests/crash/crash_util.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/client.h"

namespace crash {

bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

Names entries(const std::string& directory) {
  Names names;
  DIR* listing = opendir(directory.c_str());
  if (listing == nullptr) return names;
  while (dirent* entry = readdir(listing)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(listing);
  std::sort(names.begin(), names.end());
  return names;
}

void make_tree(const std::string& path) {
  if (system(("mkdir -p '" + path + "'").c_str()) != 0) abort();
}

std::map<std::string, std::string> stores_on_disk(e2e::Daemon& daemon) {
  std::map<std::string, std::string> stores;
  for (const std::string& key : entries(daemon.path("data")))
    if (key[0] != '.') stores[key] = e2e::read_file(daemon.path("data/" + key + "/serv/name"));
  return stores;
}

Names list(e2e::Daemon& daemon) {
  e2e::Reply reply = e2e::ask(daemon.port(), e2e::encode_list());
  if (!reply.received || reply.status != "success") return {"<no reply>"};
  return reply.names;
}

std::string upload(e2e::Daemon& daemon, const std::string& name, const std::string& image, int timeout_seconds) {
  e2e::Connection connection(daemon.port(), timeout_seconds);
  if (!connection.connected()) return "";
  connection.send(e2e::frame(e2e::encode_upload(name, static_cast<int64_t>(image.size()))) + image);
  return connection.line();
}

std::string rename(e2e::Daemon& daemon, const std::string& old_name, const std::string& new_name,
                   int timeout_seconds) {
  e2e::Connection connection(daemon.port(), timeout_seconds);
  if (!connection.connected() || !connection.send(e2e::frame(e2e::encode_rename(old_name, new_name)))) return "";
  return connection.line();
}

std::string remove(e2e::Daemon& daemon, const std::string& name, int timeout_seconds) {
  e2e::Reply reply = e2e::ask(daemon.port(), e2e::encode_delete(name), timeout_seconds);
  if (!reply.received) return "";
  return reply.status == "failure" ? "failure: " + reply.reason : reply.status;
}

namespace {

// State and process group of /proc/{pid}/stat; false when it is gone.
bool stat_of(pid_t pid, char* state, pid_t* group) {
  std::string text = e2e::read_file("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = text.rfind(')');
  if (text == "<missing>" || paren == std::string::npos) return false;
  int parent = 0, pgrp = 0;
  if (sscanf(text.c_str() + paren + 1, " %c %d %d", state, &parent, &pgrp) != 3) return false;
  *group = pgrp;
  return true;
}

}  // namespace

std::vector<pid_t> members_of(pid_t group) {
  std::vector<pid_t> members;
  for (const std::string& name : entries("/proc")) {
    pid_t pid = atoi(name.c_str());
    char state = 0;
    pid_t pgrp = 0;
    if (pid > 0 && stat_of(pid, &state, &pgrp) && pgrp == group && state != 'Z') members.push_back(pid);
  }
  return members;
}

bool process_gone(pid_t pid) {
  char state = 0;
  pid_t group = 0;
  return !stat_of(pid, &state, &group) || state == 'Z';
}

std::vector<pid_t> starts_in(const std::string& log) {
  std::vector<pid_t> pids;
  for (size_t at = log.find("start pid="); at != std::string::npos; at = log.find("start pid=", at + 1))
    pids.push_back(atoi(log.c_str() + at + 10));
  return pids;
}

pid_t grandchild_in(const std::string& log) {
  size_t at = log.find("grandchild ");
  return at == std::string::npos ? 0 : atoi(log.c_str() + at + 11);
}

bool wait_ready(e2e::Daemon& daemon, const std::string& name) {
  for (int waited = 0; waited < 5000; waited += 10) {
    if (daemon.log_of_stack(name).find("ready") != std::string::npos) return true;
    usleep(10000);
  }
  return false;
}

int64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace crash
