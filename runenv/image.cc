// What counts as an application image, and making one runnable.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runenv/runenv.h"

namespace {

constexpr unsigned char elf_magic[4] = {0x7f, 'E', 'L', 'F'};

// Reads up to `size` bytes from the start of the file; the count, or -1.
ssize_t read_head(int descriptor, unsigned char* head, size_t size) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(descriptor, head + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

}  // namespace

int runenv_image_check(const char* path, const char** reason) {
  int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) {
    *reason = "image cannot be opened";
    return -1;
  }
  struct stat info;
  if (fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(descriptor);
    *reason = "image is not a regular file";
    return -1;
  }
  unsigned char head[sizeof elf_magic];
  ssize_t got = read_head(descriptor, head, sizeof head);
  close(descriptor);
  if (got >= 4 && memcmp(head, elf_magic, sizeof elf_magic) == 0) return 0;
  // The kernel runs a script through the interpreter named on its "#!" line.
  if (got >= 2 && head[0] == '#' && head[1] == '!') return 0;
  *reason = "neither an ELF program nor a \"#!\" script";
  return -1;
}

int runenv_image_make_executable(const char* path) {
  struct stat info;
  if (stat(path, &info) != 0) return -1;
  // Execute where read is allowed: whoever may read the image may run it,
  // and the umask the daemon wrote it under still holds.
  mode_t mode = info.st_mode & 07777;
  mode |= (mode & 0444) >> 2;
  return chmod(path, mode);
}
