// The stack runtime's entry: the program the daemon starts for every stack
// as ./runenv/image/application-server-bootstrap.
//
// Exit statuses: 0 after a shutdown message or a stop signal; 1 when the
// deployment fails or the stack cannot be served; 2 for a wrong argument
// vector.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "base/runtime.h"
#include "runenv/runenv.h"

namespace {

// Descriptors 0 to 2 must never be taken by a socket or pipe the runtime
// opens, since children get theirs by number: a closed one is filled with
// /dev/null.
void fill_standard_descriptors() {
  for (int number = 0; number <= 2; ++number) {
    if (fcntl(number, F_GETFD) >= 0 || errno != EBADF) continue;
    int opened = open("/dev/null", O_RDWR);
    if (opened >= 0 && opened != number) close(opened);
  }
}

int run(const runenv_args* args) {
  runenv_stack stack;
  if (runenv_stack_init(&stack, args) != 0) {
    runenv_stack_release(&stack);
    return 1;
  }
  if (runenv_log_open(&stack.log, bucket_cstring(&stack.store_path)) != 0)
    runtime_err("Error: stack '%s'[%s] log unavailable, %s\n", bucket_cstring(&stack.key), stack.name,
                strerror(errno));
  bool deploying = args->deploy_descriptor >= 0;
  runenv_say(&stack, RUNENV_ECHO_INFO, "runtime started%s", deploying ? " for deployment" : "");
  int status = deploying ? runenv_deploy(&stack, args->deploy_descriptor) : runenv_resume(&stack);
  if (status == 0) status = runenv_serve(&stack);
  runenv_stack_release(&stack);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  runtime_startup();
  fill_standard_descriptors();
  runenv_args args;
  if (runenv_parse_args(argc, argv, &args) != 0) {
    runtime_err("Usage: application-server-bootstrap STACK-PATH NAME RUNENV-ROOT STORE-PATH -- [--deploy FD]\n");
    return 2;
  }
  runenv_install_signals();
  return run(&args);
}
