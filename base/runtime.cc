#include "base/runtime.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

runtime_sighandler runtime_startup() { return signal(SIGPIPE, SIG_IGN); }

int runtime_pid() { return static_cast<int>(getpid()); }

int runtime_sleep(uint32_t milliseconds) {
  // Unsigned 32-bit arithmetic on purpose: the longest expressible delay is
  // 4294967 ms, and callers stay below it.
  uint32_t microseconds = milliseconds * 1000u;
  return usleep(microseconds) == 0 ? 0 : -1;
}

int64_t runtime_getclock() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

static int write_line(FILE* stream, const char* format, va_list arguments) {
  fprintf(stream, "[%d] ", runtime_pid());
  vfprintf(stream, format, arguments);
  return fflush(stream);
}

int runtime_log(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  int result = write_line(stdout, format, arguments);
  va_end(arguments);
  return result;
}

int runtime_err(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  int result = write_line(stderr, format, arguments);
  va_end(arguments);
  return result;
}

void runtime_out_of_memory() {
  runtime_err("Fatal error: out of memory\n");
  abort();
}

void* runtime_malloc(size_t size) {
  void* pointer = malloc(size == 0 ? 1 : size);
  if (pointer == nullptr) runtime_out_of_memory();
  return pointer;
}

void* runtime_zalloc(size_t size) {
  void* pointer = calloc(1, size == 0 ? 1 : size);
  if (pointer == nullptr) runtime_out_of_memory();
  return pointer;
}

void* runtime_realloc(void* pointer, size_t size) {
  void* grown = realloc(pointer, size == 0 ? 1 : size);
  if (grown == nullptr) runtime_out_of_memory();
  return grown;
}
