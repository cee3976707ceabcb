// The daemon's command line: either "--help" alone, or the host address and
// the port of the management socket. Everything goes to standard error
// directly, without the log prefix.
#pragma once

#include <cstdint>

namespace image::application_server {

// Walks argv during parsing; position starts at 1 so the program name is
// never parsed.
struct arguments {
  char** argv;  // borrowed
  int64_t count;
  uint64_t position;
};

struct tcp_ip_socket {
  const char* tcp_ip;  // points into argv
  const char* tcp_port;
};

struct root {
  tcp_ip_socket socket;
};

// Fills `parsed` or ends the process: status 0 after "--help", 1 on error.
void do_parse(int argc, char** argv, root* parsed);
// Writes the usage text.
void do_document();
int64_t arguments_size(const arguments* cursor);
const char* arguments_peek(const arguments* cursor);
const char* arguments_consume(arguments* cursor);
// Writes the message, the argument vector with a caret under the argument at
// the cursor's position, and the usage text. Does not exit.
void report_error(const arguments* cursor, const char* message);

}  // namespace image::application_server
