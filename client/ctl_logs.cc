// logs NAME [-n LINES] [-f]: the last lines of the log the stack's runtime
// keeps in the stack's store (log/previous, then log/current), and with -f
// the lines that follow, across rotations, until interrupted.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fs.h"
#include "base/runtime.h"
#include "client/ctl_commands.h"

namespace {

// How often -f looks for new lines: soon enough for a person watching,
// rare enough to cost nothing.
constexpr uint32_t kFollowPoll_ms = 250;
constexpr size_t kBlock = 64 * 1024;
// The daemon reads no more of a name-tag than a name can hold.
constexpr size_t kNameTagLimit = 1023;

volatile sig_atomic_t interrupted = 0;
void on_interrupt(int) { interrupted = 1; }

// The key of the stack called `name`, from the name-tags in the data root:
// they are the stacks' names on disk, whether or not a daemon runs. "" when
// no stack has it; -1 in `*error` when the data root cannot be listed.
std::string key_of(const std::string& data_root, const char* name, int* error) {
  DIR* directory = opendir(data_root.c_str());
  if (directory == nullptr) {
    *error = errno;
    return "";
  }
  std::string found;
  while (dirent* entry = readdir(directory)) {
    // Hidden entries are stores being built or taken apart.
    if (entry->d_name[0] == '.') continue;
    int descriptor = open((data_root + "/" + entry->d_name + "/serv/name").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) continue;
    char tag[kNameTagLimit];
    ssize_t got = read(descriptor, tag, sizeof tag);
    close(descriptor);
    if (got > 0 && std::string(tag, static_cast<size_t>(got)) == name) {
      found = entry->d_name;
      break;
    }
  }
  closedir(directory);
  return found;
}

// Where the last `wanted` lines of the first `size` bytes begin; `*lines`
// gets how many lines there are from there (fewer when the file has fewer).
// A last line without its line feed counts as a line.
off_t tail_start(int descriptor, off_t size, uint64_t wanted, uint64_t* lines) {
  *lines = 0;
  if (wanted == 0 || size == 0) return size;
  char block[kBlock];
  off_t end = size;
  char last = 0;
  if (pread(descriptor, &last, 1, size - 1) == 1 && last == '\n') end -= 1;
  *lines = 1;
  while (end > 0) {
    off_t from = end > static_cast<off_t>(kBlock) ? end - static_cast<off_t>(kBlock) : 0;
    ssize_t got = pread(descriptor, block, static_cast<size_t>(end - from), from);
    if (got <= 0) return end;
    for (off_t at = from + got; at > from; --at) {
      if (block[at - 1 - from] != '\n') continue;
      if (*lines == wanted) return at;
      ++*lines;
    }
    end = from;
  }
  return 0;
}

// Copies [from, to) of the file to standard output.
bool copy_range(int descriptor, off_t from, off_t to) {
  char block[kBlock];
  while (from < to) {
    ssize_t got = pread(descriptor, block, static_cast<size_t>(std::min<off_t>(to - from, kBlock)), from);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return true;  // the file shrank meanwhile
    if (fs_write_all(STDOUT_FILENO, block, static_cast<size_t>(got)) != 0) return false;
    from += got;
  }
  return true;
}

off_t size_of(int descriptor) {
  struct stat info{};
  return descriptor >= 0 && fstat(descriptor, &info) == 0 ? info.st_size : 0;
}

bool same_file(int one, int other) {
  struct stat first{};
  struct stat second{};
  return one >= 0 && other >= 0 && fstat(one, &first) == 0 && fstat(other, &second) == 0 &&
         first.st_ino == second.st_ino && first.st_dev == second.st_dev;
}

// The runtime writes into its log without cooperation from us: a file may
// grow, be renamed to previous while we read it, or start again.
struct follower {
  std::string path;
  int descriptor;
  off_t offset;  // of the next byte to show

  // Shows what was added since; false when standard output is gone.
  bool drain() {
    if (descriptor < 0) return true;
    if (size_of(descriptor) < offset) offset = 0;  // cut back: show it from the start
    off_t size = size_of(descriptor);
    if (!copy_range(descriptor, offset, size)) return false;
    offset = size;
    return true;
  }

  // After a rotation `path` names a new file: the old one is read to its end
  // first, then the new one from its start.
  bool follow_rotation() {
    int named = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (named < 0) return true;
    if (same_file(descriptor, named)) return close(named), true;
    if (!drain()) return close(named), false;
    if (descriptor >= 0) close(descriptor);
    descriptor = named;
    offset = 0;
    return drain();
  }
};

bool output_gone() {
  pollfd entry{STDOUT_FILENO, 0, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLERR | POLLHUP)) != 0;
}

int follow(follower* log) {
  struct sigaction action{};
  action.sa_handler = on_interrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  while (interrupted == 0) {
    if (!log->drain() || !log->follow_rotation() || output_gone()) break;
    runtime_sleep(kFollowPoll_ms);
  }
  if (log->descriptor >= 0) close(log->descriptor);
  return CTL_OK;
}

}  // namespace

int ctl_run_logs(const ctl_options* options) {
  const char* name = options->operands[0];
  std::string what = "logs " + ctl_quote(name);
  if (!ctl_name_checked(what, name)) return CTL_FAILED;
  std::string data_root = std::string(options->workdir) + "/data";
  int error = 0;
  std::string key = key_of(data_root, name, &error);
  if (error != 0) {
    ctl_report_local("%s: %s: cannot read %s: %s", options->workdir, what.c_str(), data_root.c_str(), strerror(error));
    return CTL_UNREACHABLE;
  }
  if (key.empty()) {
    ctl_report_local("%s: %s: unknown name", options->workdir, what.c_str());
    return CTL_UNKNOWN_NAME;
  }
  std::string directory = data_root + "/" + key + "/log/";
  int current = open((directory + "current").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  int previous = open((directory + "previous").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (same_file(current, previous)) {  // rotated between the two opens: current is shown once
    close(previous);
    previous = -1;
  }
  if (current < 0 && previous < 0 && !options->follow) {
    ctl_report_local("%s: %s: no log (the stack's runtime keeps none yet)", options->workdir, what.c_str());
    return CTL_FAILED;
  }
  off_t current_size = size_of(current);
  uint64_t shown = 0;
  off_t current_start = current < 0 ? 0 : tail_start(current, current_size, options->lines, &shown);
  bool written = true;
  if (previous >= 0 && shown < options->lines) {
    uint64_t earlier = 0;
    off_t size = size_of(previous);
    written = copy_range(previous, tail_start(previous, size, options->lines - shown, &earlier), size);
  }
  if (previous >= 0) close(previous);
  if (written && current >= 0) written = copy_range(current, current_start, current_size);
  if (!written || !options->follow) {
    if (current >= 0) close(current);
    return CTL_OK;
  }
  follower log{directory + "current", current, current_size};
  return follow(&log);
}
