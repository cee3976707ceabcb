// The end of a deployment: the stack's own check of its image, then the
// answer to the uploading client on the connection inherited from the daemon.
#include <cerrno>
#include <cstring>

#include "base/fs.h"
#include "base/runtime.h"
#include "runenv/runenv.h"

namespace {

// Tells the client why the deployment failed; the exit status that follows.
int refuse(runenv_stack* stack, socket_record* connection, const char* reason) {
  if (runenv_reply(connection, RUNENV_REPLY_FAILURE, reason) != 0)
    runtime_err("Error: stack '%s'[%s] failure reply not sent, %s\n", bucket_cstring(&stack->key), stack->name,
                socket_strerror(connection));
  return 1;
}

int deploy_on(runenv_stack* stack, socket_record* connection) {
  const char* image = bucket_cstring(&stack->image_path);
  const char* why = nullptr;
  if (runenv_image_check(image, &why) != 0) {
    runtime_err("Error: stack '%s'[%s] invalid image, %s\n", bucket_cstring(&stack->key), stack->name, why);
    return refuse(stack, connection, "invalid image");
  }
  if (runenv_image_make_executable(image) != 0) {
    runtime_err("Error: stack '%s'[%s] image cannot be made executable, %s\n", bucket_cstring(&stack->key),
                stack->name, strerror(errno));
    return refuse(stack, connection, "invalid image");
  }
  // Listening before the client hears of success: a client that selects the
  // stack right after its upload must find the socket bound.
  if (runenv_stack_open(stack) != 0) return refuse(stack, connection, "control socket unavailable");
  if (fs_touch(&stack->deployed_path) != 0) {
    runtime_err("Error: stack '%s'[%s] deployed marker not written, %s\n", bucket_cstring(&stack->key),
                stack->name, strerror(errno));
    runenv_stack_close(stack);
    return refuse(stack, connection, "deployed marker not written");
  }
  runtime_log("Stack '%s'[%s]: deployed\n", bucket_cstring(&stack->key), stack->name);
  // The stack is deployed whether or not the client is still there to hear it.
  if (runenv_reply(connection, RUNENV_REPLY_EMPTY, nullptr) != 0)
    runtime_err("Error: stack '%s'[%s] deployment reply not sent, %s\n", bucket_cstring(&stack->key), stack->name,
                socket_strerror(connection));
  return 0;
}

}  // namespace

int runenv_deploy(runenv_stack* stack, int descriptor) {
  socket_record connection;
  if (socket_load(descriptor, &connection) != 0) {
    runtime_err("Error: stack '%s'[%s] deployment connection %d unusable, %s\n", bucket_cstring(&stack->key),
                stack->name, descriptor, socket_strerror(nullptr));
    return 1;
  }
  int status = deploy_on(stack, &connection);
  socket_close(&connection);
  return status;
}
