// upload NAME FILE|DIR: refuse early what the daemon would refuse only after
// the whole transfer, then stream the image behind the request (the file as
// it is, or a bundle packed on the fly) and read what the new stack answers.
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
#include "client/ctl_bundle.h"
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

// What goes behind the request: a file sent as it is, or a bundle packed on
// the fly from a directory or around one program (--service).
struct image_source {
  int file = -1;
  ctl_bundle bundle{};
  bool packed = false;
  uint64_t size = 0;
};

// The file to upload, opened and measured; 0 or the status after reporting.
int open_file(const ctl_options* options, const std::string& what, image_source* source) {
  const char* path = options->operands[1];
  std::string shown = ctl_quote(path);
  int descriptor = source->file = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    ctl_report_local("%s: cannot open %s: %s", what.c_str(), shown.c_str(), strerror(errno));
    return CTL_FAILED;
  }
  struct stat info{};
  const char* problem = nullptr;
  // The request announces the size before the first byte, and the image is
  // never held whole here, so only a file of known size can go.
  if (fstat(descriptor, &info) != 0) problem = strerror(errno);
  else if (!S_ISREG(info.st_mode)) problem = "not a regular file";
  else if (info.st_size == 0) problem = "empty file";
  if (problem != nullptr) {
    ctl_report_local("%s: cannot send %s: %s", what.c_str(), shown.c_str(), problem);
    close(descriptor);
    source->file = -1;
    return CTL_FAILED;
  }
  source->size = static_cast<uint64_t>(info.st_size);
  return 0;
}

int open_source(const ctl_options* options, const std::string& what, image_source* source) {
  const char* path = options->operands[1];
  struct stat info{};
  bool directory = stat(path, &info) == 0 && S_ISDIR(info.st_mode);
  if (!directory && !options->service) return open_file(options, what, source);
  std::string error;
  int packed = options->service ? ctl_bundle_program(path, &source->bundle, &error)
                                : ctl_bundle_directory(path, &source->bundle, &error);
  if (packed != 0) {
    ctl_report_local("%s: %s", what.c_str(), error.c_str());
    return CTL_FAILED;
  }
  source->packed = true;
  source->size = source->bundle.size;
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

// Sends the image's bytes as they come. Stops early when the daemon answers
// (it may refuse before taking the whole image) or drops the connection;
// the caller then reads whatever reply is there.
struct image_sender {
  const ctl_options* options;
  socket_record* sock;
  ctl_fault* fault;
  progress bar;
  uint64_t sent = 0;
  stream_end end = STREAM_SENT;

  bool stop(stream_end why, ctl_fault what = {}) {
    end = why;
    if (why == STREAM_FAULT) *fault = std::move(what);
    return false;
  }

  // All of `data`, or false once the stream has ended (`end` says how).
  bool send_all(const char* data, uint64_t size) {
    if (size > bar.total - sent)
      return stop(STREAM_FAULT, {CTL_FAILED, "the bundle changed while it was packed"});
    while (size > 0) {
      int ready = ctl_wait(sock->descriptor, POLLIN | POLLOUT, options->timeout_ms);
      if (ready == 0)
        return stop(STREAM_FAULT, {CTL_UNREACHABLE, "timed out after " + ctl_seconds(options->timeout_ms) +
                                                        " sending the image"});
      if (ready < 0) return stop(STREAM_FAULT, {CTL_UNREACHABLE, std::string("cannot send the image: ") + strerror(errno)});
      if ((ready & (POLLIN | POLLHUP | POLLERR)) != 0) return stop(STREAM_ANSWERED);
      ssize_t put = ::send(sock->descriptor, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (put < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
        // A daemon that refused early may have closed already; its reply can
        // still be waiting in the receive queue.
        if (errno == EPIPE || errno == ECONNRESET) return stop(STREAM_ANSWERED);
        return stop(STREAM_FAULT, {CTL_UNREACHABLE, std::string("cannot send the image: ") + strerror(errno)});
      }
      data += put;
      size -= static_cast<uint64_t>(put);
      sent += static_cast<uint64_t>(put);
      bar.draw(sent, sent == bar.total);
    }
    return true;
  }
};

void send_file(image_sender* sender, int file) {
  auto* buffer = static_cast<char*>(runtime_malloc(kChunk));
  while (sender->sent < sender->bar.total) {
    ssize_t got = read(file, buffer, std::min(kChunk, sender->bar.total - sender->sent));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      sender->stop(STREAM_FAULT, {CTL_FAILED, got == 0 ? std::string("the file shrank while it was sent")
                                                       : std::string("cannot read the file: ") + strerror(errno)});
      break;
    }
    if (!sender->send_all(buffer, static_cast<uint64_t>(got))) break;
  }
  free(buffer);
}

void send_bundle(image_sender* sender, const ctl_bundle* bundle) {
  std::string error;
  auto sink = [sender](const void* data, uint64_t size) {
    return sender->send_all(static_cast<const char*>(data), size);
  };
  if (ctl_bundle_write(bundle, sink, &error) != 0 && sender->end == STREAM_SENT)
    sender->stop(STREAM_FAULT, {CTL_FAILED, error});
  else if (sender->end == STREAM_SENT && sender->sent != bundle->size)
    sender->stop(STREAM_FAULT, {CTL_FAILED, "the bundle changed while it was packed"});
}

stream_end stream_image(const ctl_options* options, image_source* source, socket_record* sock, ctl_fault* fault) {
  image_sender sender{options, sock, fault, {progress_wanted(), source->size, runtime_getclock(), 0, 0}};
  if (source->packed) send_bundle(&sender, &source->bundle);
  else send_file(&sender, source->file);
  if (sender.bar.enabled && sender.sent < source->size && sender.bar.width > 0) fputc('\n', stderr);
  return sender.end;
}

}  // namespace

int ctl_run_upload(const ctl_options* options) {
  const char* name = options->operands[0];
  std::string what = "upload " + ctl_quote(name);
  if (!ctl_name_checked(what, name)) return CTL_FAILED;
  image_source source;
  int status = open_source(options, what, &source);
  if (status == 0) status = check_name_free(options, what, name);
  if (status != 0) {
    if (source.file >= 0) close(source.file);
    return status;
  }

  socket_record sock{};
  ctl_fault fault{};
  ctl_reply reply{};
  int64_t size = static_cast<int64_t>(source.size);
  int result = ctl_connect(&options->address, options->timeout_ms, &sock, &fault);
  if (result == 0) result = ctl_send_request(&sock, ctl_encode_request(CTL_UPLOAD, name, nullptr, size), &fault);
  if (result == 0 && stream_image(options, &source, &sock, &fault) == STREAM_FAULT) result = -1;
  if (result == 0) result = ctl_receive_reply(&sock, options->timeout_ms, &reply, &fault);
  socket_close(&sock);
  if (source.file >= 0) close(source.file);
  if (result != 0) return ctl_report_fault(options, what, fault);
  if (reply.kind == CTL_REPLY_FAILURE) return ctl_report_failure(options, what, &reply);
  ctl_report(options, "%s: deployed (%s)", what.c_str(), ctl_human_bytes(source.size).c_str());
  return CTL_OK;
}
