// Process-wide services: start-up, process id, sleep, monotonic clock, the two
// message writers through which every operator-visible line goes, and the one
// allocation wrapper that ends the process loudly when the heap is exhausted.
#pragma once

#include <cstddef>
#include <cstdint>

using runtime_sighandler = void (*)(int);

// Ignores SIGPIPE so that writing to a vanished peer fails with EPIPE instead
// of killing the daemon. Returns the previous disposition.
runtime_sighandler runtime_startup();

int runtime_pid();

// Sleeps `milliseconds` (at most 4294967). 0, or -1 when cut short by a signal.
int runtime_sleep(uint32_t milliseconds);

// Milliseconds on the monotonic clock; only differences mean anything.
int64_t runtime_getclock();

// One line each: "[pid] " then the formatted message, flushed at once.
// The format carries its own "\n". Both return 0, or EOF when the flush failed.
int runtime_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
int runtime_err(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Heap allocation for the whole system. None of these returns null: when the
// heap is exhausted they write "Fatal error: out of memory\n" and abort.
void* runtime_malloc(size_t size);
void* runtime_zalloc(size_t size);
void* runtime_realloc(void* pointer, size_t size);
[[noreturn]] void runtime_out_of_memory();
