// The argument vector the daemon starts every stack with.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "runenv/runenv.h"

namespace {

// A descriptor number: plain decimal digits, no sign, within int.
int parse_descriptor(const char* text, int32_t* descriptor) {
  if (text[0] < '0' || text[0] > '9') return -1;
  errno = 0;
  char* end = nullptr;
  long value = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value > INT_MAX) return -1;
  *descriptor = static_cast<int32_t>(value);
  return 0;
}

}  // namespace

int runenv_parse_args(int argc, const char* const argv[], runenv_args* args) {
  if (argc != 6 && argc != 8) return -1;
  if (strcmp(argv[5], "--") != 0) return -1;
  // The paths are where everything lives; an empty one cannot name a stack.
  if (argv[1][0] == '\0' || argv[4][0] == '\0') return -1;
  args->stack_path = argv[1];
  args->name = argv[2];
  args->runenv_root = argv[3];
  args->store_path = argv[4];
  args->deploy_descriptor = -1;
  if (argc == 6) return 0;
  if (strcmp(argv[6], "--deploy") != 0) return -1;
  return parse_descriptor(argv[7], &args->deploy_descriptor);
}
