// upload NAME FILE: refuse early what the daemon would refuse only after the
// whole transfer, then stream the file behind the request and read what the
// new stack answers.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/runtime.h"
#include "client/ctl_commands.h"

namespace {

constexpr uint64_t kChunk = 64 * 1024;
constexpr int64_t kProgressInterval_ms = 100;

bool progress_wanted() {
  const char* no_color = getenv("NO_COLOR");
  const char* term = getenv("TERM");
  if (no_color != nullptr && no_color[0] != '\0') return false;
  if (term != nullptr && strcmp(term, "dumb") == 0) return false;
  return isatty(STDERR_FILENO) == 1;
}

// The progress line on standard error, redrawn in place.
struct progress {
  bool enabled;
  uint64_t total;
  int64_t started_ms;
  int64_t drawn_ms;
  size_t width;  // of the last line drawn, to blank what a shorter one leaves

  void draw(uint64_t sent, bool last) {
    int64_t now = runtime_getclock();
    if (!enabled || (!last && now - drawn_ms < kProgressInterval_ms)) return;
    drawn_ms = now;
    std::string line = ctl_progress_line(sent, total, now - started_ms);
    size_t length = line.size();
    if (length < width) line.append(width - length, ' ');
    width = length;
    fprintf(stderr, "\r%s%s", line.c_str(), last ? "\n" : "");
    fflush(stderr);
  }
};

// The file to upload, opened and measured; 0 or the status after reporting.
int open_image(const ctl_options* options, const std::string& what, int* descriptor, uint64_t* size) {
  const char* path = options->operands[1];
  std::string shown = ctl_quote(path);
  *descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (*descriptor < 0) {
    ctl_report(options, "%s: cannot open %s: %s", what.c_str(), shown.c_str(), strerror(errno));
    return CTL_FAILED;
  }
  struct stat info{};
  const char* problem = nullptr;
  // The request announces the size before the first byte, and the image is
  // never held whole here, so only a file of known size can go.
  if (fstat(*descriptor, &info) != 0) problem = strerror(errno);
  else if (!S_ISREG(info.st_mode)) problem = "not a regular file";
  else if (info.st_size == 0) problem = "empty file";
  if (problem != nullptr) {
    ctl_report(options, "%s: cannot send %s: %s", what.c_str(), shown.c_str(), problem);
    close(*descriptor);
    *descriptor = -1;
    return CTL_FAILED;
  }
  *size = static_cast<uint64_t>(info.st_size);
  return 0;
}

// Looks the name up in the daemon's list; 0 when it is free.
int check_name_free(const ctl_options* options, const std::string& what, const char* name) {
  ctl_reply reply{};
  int status = ctl_exchange(options, what, ctl_encode_request(CTL_LIST, nullptr, nullptr, 0), &reply);
  if (status != 0) return status;
  if (reply.kind == CTL_REPLY_FAILURE) return ctl_report_failure(options, what, &reply);
  if (std::find(reply.names.begin(), reply.names.end(), name) != reply.names.end()) {
    ctl_report(options, "%s: duplicate name", what.c_str());
    return CTL_DUPLICATE_NAME;
  }
  return 0;
}

enum stream_end { STREAM_SENT, STREAM_ANSWERED, STREAM_FAULT };

// Sends `size` bytes of the file. Stops early when the daemon answers (it may
// refuse before taking the whole image) or drops the connection; the caller
// then reads whatever reply is there.
stream_end stream_image(const ctl_options* options, int file, uint64_t size, socket_record* sock, ctl_fault* fault) {
  auto* buffer = static_cast<char*>(runtime_malloc(kChunk));
  progress bar{progress_wanted(), size, runtime_getclock(), 0, 0};
  uint64_t sent = 0;
  uint64_t pending = 0;  // bytes in `buffer` not yet sent
  uint64_t offset = 0;  // of the first pending byte in `buffer`
  stream_end end = STREAM_SENT;
  while (sent < size) {
    int ready = ctl_wait(sock->descriptor, POLLIN | POLLOUT, options->timeout_ms);
    if (ready == 0) {
      *fault = {CTL_UNREACHABLE, "timed out after " + ctl_seconds(options->timeout_ms) + " sending the image"};
      end = STREAM_FAULT;
      break;
    }
    if (ready < 0) {
      *fault = {CTL_UNREACHABLE, std::string("cannot send the image: ") + strerror(errno)};
      end = STREAM_FAULT;
      break;
    }
    if ((ready & (POLLIN | POLLHUP | POLLERR)) != 0) {
      end = STREAM_ANSWERED;
      break;
    }
    if (pending == 0) {
      ssize_t got = read(file, buffer, std::min(kChunk, size - sent));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        *fault = {CTL_FAILED, got == 0 ? std::string("the file shrank while it was sent")
                                       : std::string("cannot read the file: ") + strerror(errno)};
        end = STREAM_FAULT;
        break;
      }
      pending = static_cast<uint64_t>(got);
      offset = 0;
    }
    ssize_t put = send(sock->descriptor, buffer + offset, pending, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
      // A daemon that refused early may have closed already; its reply can
      // still be waiting in the receive queue.
      if (errno == EPIPE || errno == ECONNRESET) {
        end = STREAM_ANSWERED;
        break;
      }
      *fault = {CTL_UNREACHABLE, std::string("cannot send the image: ") + strerror(errno)};
      end = STREAM_FAULT;
      break;
    }
    pending -= static_cast<uint64_t>(put);
    offset += static_cast<uint64_t>(put);
    sent += static_cast<uint64_t>(put);
    bar.draw(sent, sent == size);
  }
  if (bar.enabled && sent < size && bar.width > 0) fputc('\n', stderr);
  free(buffer);
  return end;
}

}  // namespace

int ctl_run_upload(const ctl_options* options) {
  const char* name = options->operands[0];
  std::string what = "upload " + ctl_quote(name);
  if (!ctl_name_valid(name)) {
    ctl_report(options, "%s: invalid name", what.c_str());
    return CTL_FAILED;
  }
  int file = -1;
  uint64_t size = 0;
  int status = open_image(options, what, &file, &size);
  if (status == 0) status = check_name_free(options, what, name);
  if (status != 0) {
    if (file >= 0) close(file);
    return status;
  }

  socket_record sock{};
  ctl_fault fault{};
  ctl_reply reply{};
  int result = ctl_connect(&options->address, options->timeout_ms, &sock, &fault);
  if (result == 0)
    result = ctl_send_request(&sock, ctl_encode_request(CTL_UPLOAD, name, nullptr, static_cast<int64_t>(size)), &fault);
  if (result == 0 && stream_image(options, file, size, &sock, &fault) == STREAM_FAULT) result = -1;
  if (result == 0) result = ctl_receive_reply(&sock, options->timeout_ms, &reply, &fault);
  socket_close(&sock);
  close(file);
  if (result != 0) {
    ctl_report(options, "%s: %s", what.c_str(), fault.text.c_str());
    return fault.status;
  }
  if (reply.kind == CTL_REPLY_FAILURE) return ctl_report_failure(options, what, &reply);
  ctl_report(options, "%s: deployed (%s)", what.c_str(), ctl_human_bytes(size).c_str());
  return CTL_OK;
}
