#include "appsrv/cmdline.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace image::application_server {

namespace {

constexpr const char* kTooFewArguments =
    "tcp/ip socket 'socket' requires 2 arguments, but less arguments are available";
constexpr const char* kSuperfluous = "superfluous command line argument(s)";

[[noreturn]] void fail(const arguments* cursor, const char* message) {
  report_error(cursor, message);
  exit(1);
}

}  // namespace

void do_document() {
  fputs("\x1b[1musage:\x1b[0m  'socket'\n", stderr);
  fprintf(stderr, "%-25s-> \x1b[1m%s\x1b[0m socket to listen on for management request\n", "   socket",
          "tcp-ip tcp-port");
}

int64_t arguments_size(const arguments* cursor) {
  return cursor->count - static_cast<int64_t>(cursor->position);
}

const char* arguments_peek(const arguments* cursor) { return cursor->argv[cursor->position]; }

const char* arguments_consume(arguments* cursor) { return cursor->argv[cursor->position++]; }

void report_error(const arguments* cursor, const char* message) {
  fprintf(stderr, "unable to parse arguments: %s\n", message);
  fputc('\n', stderr);
  for (int64_t i = 0; i < cursor->count; ++i) fprintf(stderr, " %s", cursor->argv[i]);
  fputc('\n', stderr);
  // The caret stands under the first byte of the argument at the position:
  // one column for the leading space, then each earlier argument and its space.
  uint64_t width = 1;
  for (uint64_t i = 0; i < cursor->position && static_cast<int64_t>(i) < cursor->count; ++i)
    width += strlen(cursor->argv[i]) + 1;
  for (uint64_t i = 0; i < width; ++i) fputc(' ', stderr);
  fputs("^\n", stderr);
  fputc('\n', stderr);
  do_document();
}

void do_parse(int argc, char** argv, root* parsed) {
  if (argc <= 0) {
    fputs("unable to parse arguments: no arguments provided to parse\n", stderr);
    exit(1);
  }
  arguments cursor{argv, argc, 1};
  if (arguments_size(&cursor) == 0) fail(&cursor, kTooFewArguments);
  if (arguments_size(&cursor) == 1) {
    if (strcmp(arguments_peek(&cursor), "--help") == 0) {
      do_document();
      exit(0);
    }
    fail(&cursor, kTooFewArguments);
  }
  parsed->socket.tcp_ip = arguments_consume(&cursor);
  parsed->socket.tcp_port = arguments_consume(&cursor);
  if (arguments_size(&cursor) != 0) fail(&cursor, kSuperfluous);
}

}  // namespace image::application_server
