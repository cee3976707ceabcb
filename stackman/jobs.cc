// One daemon per working directory, and the jobs a killed daemon left behind.
//
// ./private/lock is held with flock for the daemon's whole life and holds its
// pid. ./private/job-{pid} records one job the daemon started: "{pid}
// {start time} {key}\n", the pid being also the job's process group id and the
// start time the leader's from /proc/{pid}/stat, so that a pid reused by an
// unrelated process is never taken for the job. Both are written to a
// temporary name and renamed into place, so a reader only ever sees a whole
// file; a record that cannot be read is dropped.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string_view>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "base/runtime.h"
#include "stackman/internal.h"

namespace {

constexpr const char* kPrivatePath = "./private";
constexpr const char* kLockPath = "./private/lock";
constexpr const char* kLockTemporary = "./private/.lock.tmp";
constexpr std::string_view kRecordPrefix = "job-";
constexpr int64_t kOrphanGraceMilliseconds = 5000;
constexpr int64_t kOrphanKillMilliseconds = 1000;
constexpr uint32_t kOrphanPollMilliseconds = 10;

void record_path(int32_t pid, char* out, size_t size, bool temporary) {
  snprintf(out, size, "%s/%sjob-%d%s", kPrivatePath, temporary ? "." : "", pid, temporary ? ".tmp" : "");
}

// Field 22 of /proc/{pid}/stat, counted after the command's closing
// parenthesis (the command itself may hold spaces and parentheses). 0 when the
// process is gone or a zombie: such a process is not running anything.
uint64_t start_time_of(int32_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return 0;
  char text[1024];
  ssize_t got;
  do {
    got = read(descriptor, text, sizeof text - 1);
  } while (got < 0 && errno == EINTR);
  close(descriptor);
  if (got <= 0) return 0;
  text[got] = '\0';
  char* rest = strrchr(text, ')');
  if (rest == nullptr) return 0;
  char state = 0;
  unsigned long long start = 0;
  // state ppid pgrp session tty_nr tpgid flags minflt cminflt majflt cmajflt
  // utime stime cutime cstime priority nice num_threads itrealvalue starttime
  if (sscanf(rest + 1, " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu", &state,
             &start) != 2)
    return 0;
  if (state == 'Z' || state == 'X') return 0;
  return start;
}

// Writes `text` to `temporary` and renames it to `path`; the descriptor of
// the new file is returned open (the caller closes it) or -1.
int replace_file(const char* temporary, const char* path, const char* text, bool keep_open) {
  int descriptor = open(temporary, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) return -1;
  size_t length = strlen(text);
  bool written = write(descriptor, text, length) == static_cast<ssize_t>(length);
  if (keep_open && flock(descriptor, LOCK_EX | LOCK_NB) != 0) written = false;
  if (!written || rename(temporary, path) != 0) {
    close(descriptor);
    unlink(temporary);
    return -1;
  }
  if (!keep_open) {
    close(descriptor);
    return 0;
  }
  return descriptor;
}

int32_t holder_pid(int descriptor) {
  char text[32] = {};
  ssize_t got = pread(descriptor, text, sizeof text - 1, 0);
  return got > 0 ? atoi(text) : 0;
}

struct orphan {
  int32_t pid;
  uint64_t start_time;
  char key[STACKMAN_KEY_SIZE];
};

bool read_record(const char* name, orphan* out) {
  char path[512];
  snprintf(path, sizeof path, "%s/%s", kPrivatePath, name);
  FILE* file = fopen(path, "re");
  if (file == nullptr) return false;
  unsigned long long start = 0;
  int fields = fscanf(file, "%d %llu %64s", &out->pid, &start, out->key);
  fclose(file);
  unlink(path);
  out->start_time = start;
  return fields == 3 && out->pid > 1;
}

bool still_ours(const orphan& job) { return job.start_time != 0 && start_time_of(job.pid) == job.start_time; }

// Waits until every still-running leader has gone or the time is up.
void wait_for_leaders(orphan* jobs, size_t count, int64_t milliseconds) {
  int64_t deadline = runtime_getclock() + milliseconds;
  for (;;) {
    bool any = false;
    for (size_t i = 0; i < count; ++i) any = any || still_ours(jobs[i]);
    if (!any || runtime_getclock() >= deadline) return;
    runtime_sleep(kOrphanPollMilliseconds);
  }
}

}  // namespace

void stackman_lock() {
  int descriptor = open(kLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (descriptor < 0 || flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    runtime_err("Error: working directory in use by process %d\n", descriptor < 0 ? 0 : holder_pid(descriptor));
    exit(1);
  }
  // The pid goes into a fresh file locked before it takes the lock's name, so
  // whoever opens the name, before or after the rename, finds a locked file.
  char text[32];
  snprintf(text, sizeof text, "%d\n", runtime_pid());
  stackman_state.lock_descriptors[0] = descriptor;
  stackman_state.lock_descriptors[1] = replace_file(kLockTemporary, kLockPath, text, true);
  stackman_state.locked = true;
}

void stackman_unlock() {
  if (!stackman_state.locked) return;
  for (int descriptor : stackman_state.lock_descriptors)
    if (descriptor >= 0) close(descriptor);
  stackman_state.locked = false;
}

void stackman_jobs_record(stackman_stack* stack) {
  int32_t pid = stack->job->pid;
  char text[128];
  snprintf(text, sizeof text, "%d %llu %s\n", pid, static_cast<unsigned long long>(start_time_of(pid)), stack->key);
  char temporary[64], path[64];
  record_path(pid, temporary, sizeof temporary, true);
  record_path(pid, path, sizeof path, false);
  replace_file(temporary, path, text, false);
}

void stackman_jobs_forget(stackman_stack* stack) {
  char path[64];
  record_path(stack->job->pid, path, sizeof path, false);
  unlink(path);
}

void stackman_stop_orphans() {
  DIR* directory = opendir(kPrivatePath);
  if (directory == nullptr) return;
  orphan* jobs = nullptr;
  size_t count = 0;
  while (dirent* entry = readdir(directory)) {
    std::string_view name = entry->d_name;
    bool temporary = name.starts_with(".") && name.find(kRecordPrefix) == 1;
    if (temporary) {
      char path[512];
      snprintf(path, sizeof path, "%s/%s", kPrivatePath, entry->d_name);
      unlink(path);  // a record cut short before its rename
      continue;
    }
    if (!name.starts_with(kRecordPrefix)) continue;
    orphan job{};
    if (!read_record(entry->d_name, &job) || !still_ours(job)) continue;
    jobs = static_cast<orphan*>(runtime_realloc(jobs, (count + 1) * sizeof(orphan)));
    jobs[count++] = job;
  }
  closedir(directory);
  for (size_t i = 0; i < count; ++i) {
    runtime_err("Error: stack '%s' left running by an earlier run, stopping its process group %d\n", jobs[i].key,
                jobs[i].pid);
    kill(-jobs[i].pid, SIGTERM);
  }
  wait_for_leaders(jobs, count, kOrphanGraceMilliseconds);
  // The groups were ours a moment ago and a group id is not handed out again
  // while a member lives, so the whole group goes, whatever its leader did.
  for (size_t i = 0; i < count; ++i) kill(-jobs[i].pid, SIGKILL);
  wait_for_leaders(jobs, count, kOrphanKillMilliseconds);
  free(jobs);
}
