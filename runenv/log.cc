// The stack's log: the pipes from its children, lines stamped with time and
// source, rotation by size, and the runtime's own lines about the stack.
// Applications never open the log: a restarted service writes into a new
// pipe, and a full disk costs lines, never the service.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "base/fs.h"
#include "base/runtime.h"
#include "runenv/runenv.h"

namespace {

// One chatty pipe gets this much per turn of the loop, so the others and
// os-worker are not starved.
constexpr int kReadsPerTurn = 4;
constexpr size_t kReadChunk = 16 * 1024;
constexpr int kDrainTurns = 16;
constexpr size_t kRuntimeLine = 2048;

int open_current(runenv_log* log) {
  log->descriptor = open(bucket_cstring(&log->current_path), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  struct stat info {};
  log->size = log->descriptor >= 0 && fstat(log->descriptor, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
  return log->descriptor >= 0 ? 0 : -1;
}

// current becomes previous. Should the rename fail, current is emptied
// instead: the bound on the disk the log takes matters more than old lines.
void rotate(runenv_log* log) {
  if (rename(bucket_cstring(&log->current_path), bucket_cstring(&log->previous_path)) != 0) {
    if (ftruncate(log->descriptor, 0) == 0) log->size = 0;
    return;
  }
  close(log->descriptor);
  open_current(log);
}

// "2026-11-23T18:20:00.123Z"
void stamp(char (&text)[32]) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(now.tv_nsec / 1000000));
}

void emit(runenv_stack* stack, runenv_log_source* source, const char* text, uint64_t length) {
  runenv_log_line(&stack->log, source->label, text, length);
}

// Splits what was read into lines. A line is written when its newline comes,
// or in pieces of RUNENV_LOG_LINE_MAX bytes once more of it is known to
// follow, so a line of exactly that length still ends as one line.
void feed(runenv_stack* stack, runenv_log_source* source, const char* data, size_t size) {
  while (size > 0) {
    const char* newline = static_cast<const char*>(memchr(data, '\n', size));
    size_t segment = newline != nullptr ? static_cast<size_t>(newline - data) : size;
    size_t room = RUNENV_LOG_LINE_MAX - source->pending;
    size_t taken = segment <= room ? segment : room;
    memcpy(source->line + source->pending, data, taken);
    source->pending += static_cast<uint32_t>(taken);
    data += taken;
    size -= taken;
    if (segment > room) {
      emit(stack, source, source->line, source->pending);
      source->pending = 0;
    } else if (newline != nullptr) {
      emit(stack, source, source->line, source->pending);
      source->pending = 0;
      data += 1;
      size -= 1;
    }
  }
}

void finish(runenv_stack* stack, runenv_log_source* source) {
  if (source->pending > 0) emit(stack, source, source->line, source->pending);
  source->pending = 0;
}

}  // namespace

int runenv_log_open(runenv_log* log, const char* store_path) {
  *log = runenv_log{};
  log->descriptor = -1;
  bucket directory = fs_init(store_path);
  fs_join(&directory, "log");
  log->current_path = fs_copy(&directory);
  fs_join(&log->current_path, "current");
  log->previous_path = fs_copy(&directory);
  fs_join(&log->previous_path, "previous");
  int made = mkdir(bucket_cstring(&directory), 0755) == 0 || errno == EEXIST ? 0 : -1;
  bucket_release(&directory);
  return made == 0 ? open_current(log) : -1;
}

void runenv_log_close(runenv_log* log) {
  if (log->descriptor >= 0) close(log->descriptor);
  log->descriptor = -1;
  bucket_release(&log->current_path);
  bucket_release(&log->previous_path);
}

void runenv_log_line(runenv_log* log, const char* source, const char* text, uint64_t length) {
  // A current file that could not be opened again after a rotation costs
  // the lines until it can, not the rest of the stack's log.
  if (log->descriptor < 0 && (log->current_path.data == nullptr || open_current(log) != 0)) return;
  char when[32];
  stamp(when);
  char blank = ' ';
  char newline = '\n';
  iovec parts[] = {{when, strlen(when)}, {&blank, 1}, {const_cast<char*>(source), strlen(source)},
                   {&blank, 1}, {const_cast<char*>(text), length}, {&newline, 1}};
  // One call per line, so lines never interleave in the file.
  ssize_t written;
  do {
    written = writev(log->descriptor, parts, sizeof parts / sizeof parts[0]);
  } while (written < 0 && errno == EINTR);
  if (written > 0) log->size += static_cast<uint64_t>(written);
  if (log->size > RUNENV_LOG_ROTATE_SIZE) rotate(log);
}

void runenv_say(runenv_stack* stack, runenv_echo echo, const char* format, ...) {
  char text[kRuntimeLine];
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  runenv_log_line(&stack->log, "runtime", text, strnlen(text, sizeof text));
  if (echo == RUNENV_ECHO_INFO) runtime_log("Stack '%s'[%s]: %s\n", bucket_cstring(&stack->key), stack->name, text);
  if (echo == RUNENV_ECHO_ERROR)
    runtime_err("Error: stack '%s'[%s] %s\n", bucket_cstring(&stack->key), stack->name, text);
}

int runenv_source_open(runenv_stack* stack, runenv_log_source** source) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  // The runtime never waits on a child's output; the child's end blocks, so
  // a service that writes faster than the disk takes is slowed, not cut.
  fcntl(ends[0], F_SETFL, fcntl(ends[0], F_GETFL) | O_NONBLOCK);
  auto* created = static_cast<runenv_log_source*>(runtime_zalloc(sizeof(runenv_log_source)));
  created->descriptor = ends[0];
  *static_cast<runenv_log_source**>(dymarray_alloc(&stack->sources)) = created;
  *source = created;
  return ends[1];
}

void runenv_source_label(runenv_log_source* source, const char* kind, pid_t pid) {
  source->pid = pid;
  snprintf(source->label, sizeof source->label, "%s[%d]", kind, static_cast<int>(pid));
}

int runenv_source_read(runenv_stack* stack, runenv_log_source* source) {
  char chunk[kReadChunk];
  for (int reads = 0; reads < kReadsPerTurn; ++reads) {
    ssize_t got = read(source->descriptor, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    if (got <= 0) {
      finish(stack, source);
      return -1;
    }
    feed(stack, source, chunk, static_cast<size_t>(got));
  }
  return 1;
}

void runenv_source_drain(runenv_stack* stack, pid_t pid) {
  for (uint64_t i = 0; i < dymarray_size(&stack->sources); ++i) {
    auto* source = *static_cast<runenv_log_source**>(dymarray_at(&stack->sources, i));
    if (source->pid != pid) continue;
    // A pipe still fed by what the child left running might never be
    // empty; a pipe's worth is all the child itself can have left in it.
    for (int turns = 0; turns < kDrainTurns && runenv_source_read(stack, source) == 1; ++turns) {
    }
  }
}

void runenv_source_close(runenv_stack* stack, runenv_log_source* source) {
  uint64_t count = dymarray_size(&stack->sources);
  for (uint64_t i = 0; i < count; ++i) {
    if (*static_cast<runenv_log_source**>(dymarray_at(&stack->sources, i)) != source) continue;
    dymarray_swap(&stack->sources, i, count - 1);
    dymarray_pop_back(&stack->sources);
    break;
  }
  finish(stack, source);
  close(source->descriptor);
  free(source);
}
