// The end of a deployment: the stack's own check of its image (an executable,
// or a bundle unpacked and its manifest read), then the answer to the
// uploading client on the connection inherited from the daemon. And the
// start of a deployed stack, which finds its image prepared.
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "base/fs.h"
#include "base/runtime.h"
#include "runenv/runenv.h"

namespace {

// Tells the client why the deployment failed; the exit status that follows.
int refuse(runenv_stack* stack, socket_record* connection, const char* reason) {
  if (runenv_reply(connection, RUNENV_REPLY_FAILURE, reason) != 0)
    runenv_say(stack, RUNENV_ECHO_ERROR, "failure reply not sent, %s", socket_strerror(connection));
  return 1;
}

// An executable image is made runnable; anything else must be a bundle.
// 0, or -1 with the reason after the invalid-image prefix.
int prepare_image(runenv_stack* stack, bucket* reason) {
  const char* image = bucket_cstring(&stack->image_path);
  const char* why = nullptr;
  if (runenv_image_check(image, &why) == 0) {
    if (runenv_image_make_executable(image) == 0) return 0;
    bucket_appendv(reason, "cannot be made executable, ", strerror(errno), nullptr);
    return -1;
  }
  int unpacked = runenv_bundle_unpack(image, bucket_cstring(&stack->app_path), reason);
  if (unpacked == RUNENV_BUNDLE_NOT_ARCHIVE) bucket_append(reason, why);
  if (unpacked != RUNENV_BUNDLE_UNPACKED) return -1;
  stack->bundle = true;
  return runenv_manifest_load(bucket_cstring(&stack->app_path), &stack->manifest, reason);
}

int deploy_on(runenv_stack* stack, socket_record* connection) {
  bucket reason{};
  bucket_append(&reason, MANAGEMENT_INVALID_IMAGE_PREFIX);
  uint64_t prefix = reason.length;
  if (prepare_image(stack, &reason) != 0) {
    if (reason.length == prefix) bucket_append(&reason, "unknown problem");
    runenv_say(stack, RUNENV_ECHO_ERROR, "%s", bucket_cstring(&reason));
    int status = refuse(stack, connection, bucket_cstring(&reason));
    bucket_release(&reason);
    return status;
  }
  bucket_release(&reason);
  // Listening before the client hears of success: a client that selects the
  // stack right after its upload must find the socket bound.
  if (runenv_stack_open(stack) != 0) return refuse(stack, connection, MANAGEMENT_NO_CONTROL_SOCKET);
  if (fs_touch(&stack->deployed_path) != 0) {
    runenv_say(stack, RUNENV_ECHO_ERROR, "%s, %s", MANAGEMENT_NO_DEPLOYED_MARKER, strerror(errno));
    runenv_stack_close(stack);
    return refuse(stack, connection, MANAGEMENT_NO_DEPLOYED_MARKER);
  }
  runenv_say(stack, RUNENV_ECHO_INFO, "deployed%s", stack->bundle ? " (bundle)" : "");
  // The stack is deployed whether or not the client is still there to hear it.
  if (runenv_reply(connection, RUNENV_REPLY_EMPTY, nullptr) != 0)
    runenv_say(stack, RUNENV_ECHO_ERROR, "deployment reply not sent, %s", socket_strerror(connection));
  return 0;
}

}  // namespace

int runenv_deploy(runenv_stack* stack, int descriptor) {
  socket_record connection;
  if (socket_load(descriptor, &connection) != 0) {
    runenv_say(stack, RUNENV_ECHO_ERROR, "deployment connection %d unusable, %s", descriptor,
               socket_strerror(nullptr));
    return 1;
  }
  int status = deploy_on(stack, &connection);
  socket_close(&connection);
  return status;
}

int runenv_resume(runenv_stack* stack) {
  // Only a bundle's deployment makes app/; one that lost its manifest since
  // is refused rather than run as an executable image.
  struct stat info;
  stack->bundle = lstat(bucket_cstring(&stack->app_path), &info) == 0;
  if (stack->bundle) {
    bucket reason{};
    if (runenv_manifest_load(bucket_cstring(&stack->app_path), &stack->manifest, &reason) != 0) {
      runenv_say(stack, RUNENV_ECHO_ERROR, "%s%s", MANAGEMENT_INVALID_IMAGE_PREFIX, bucket_cstring(&reason));
      bucket_release(&reason);
      return 1;
    }
  }
  return runenv_stack_open(stack) != 0 ? 1 : 0;
}
