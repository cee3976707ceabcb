// The control channel: control messages from ./private/node to each stack's
// os-worker socket, to rename a stack, hand it a connection, tell it to shut
// down, and start an idle stack again when a client asks for it.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fs.h"
#include "base/runtime.h"
#include "protocol/os_internal_protocol/os_internal_protocol.h"
#include "stackman/internal.h"

namespace {

using root_t = image___os_internal_protocol___root_t;

void choose(dympage* arena, root_t* root, stackman_stack* stack, int selector, const char* name) {
  switch (selector) {
    case STACKMAN_SHUTDOWN:
      image___os_internal_protocol___root_t___type___iwrite_setto___shutdown(arena, root);
      // Stopping from the moment the message is composed, whatever happens
      // to the send: supervision then waits for the job to end.
      stack->state = STACKMAN_STOPPING;
      break;
    case STACKMAN_SOCKPASS:
      image___os_internal_protocol___root_t___type___iwrite_setto___sockpass(arena, root);
      break;
    case STACKMAN_SET_NAME: {
      auto* payload = image___os_internal_protocol___root_t___type___iwrite_setto___set_name(arena, root);
      if (payload != nullptr)
        image___os_internal_protocol___root___type___set_name_t___name___iwrite_set(arena, payload, name);
      break;
    }
    default: break;
  }
}

// Composes the message and sends it as one datagram, with the connection's
// descriptor alongside when one is given. 0 when sent.
int send_message(stackman_stack* stack, int selector, const char* name, socket_record* passed) {
  char* buffer = nullptr;
  uint64_t size = 0;
  ostream* out = ostream_create_memory(&buffer, &size);
  stackman_stack_message(stack, selector, name, out);
  ostream_destroy(out);
  socket_message message{buffer, size};
  int result = passed != nullptr
                   ? socket_msg_send_dup(&stackman_state.node, &stack->worker_address, &message, passed)
                   : socket_msg_send(&stackman_state.node, &stack->worker_address, &message);
  free(buffer);
  return result;
}

bool name_taken(const char* name) { return stackman_get(name) != nullptr; }

// The new name-tag is written whole and synced beside the old one and then
// renamed over it: a crash leaves either name, never a cut one.
int store_name_tag(stackman_stack* stack) {
  bucket temporary = stackman_name_tag_temporary(stack);
  int result = stackman_write_durable(&temporary, stack->name, strlen(stack->name));
  if (result == 0) result = fs_rename(&temporary, &stack->name_tag_path);
  if (result != 0) {
    fs_remove(&temporary);
  } else {
    bucket serv = fs_copy(&stack->store_path);
    fs_join(&serv, "serv");
    stackman_sync_directory(&serv);
    bucket_release(&serv);
  }
  bucket_release(&temporary);
  return result;
}

}  // namespace

void stackman_stack_message(stackman_stack* stack, int selector, const char* name, ostream* out) {
  dympage* arena = image___os_internal_protocol___create_allocator_f();
  root_t* root = image___os_internal_protocol___root_t___allocate_f(arena);
  try {
    choose(arena, root, stack, selector, name);
    image___os_internal_protocol___finalize_f(root);
    if (image___os_internal_protocol___serialize_bin_f(root, out) != 0) message_recover(root);
  } catch (const message_recovery&) {
    // A failed composition shows only as a short or empty buffer.
  }
  image___os_internal_protocol___destroy_allocator_f(arena);
}

stackman_stack* stackman_stack_rename(stackman_stack* stack, const char* new_name) {
  if (name_taken(new_name)) {
    stackman_set_error(MANAGEMENT_KEY_NOT_UNIQUE);
    return nullptr;
  }
  snprintf(stack->name, sizeof stack->name, "%s", new_name);
  if (store_name_tag(stack) != 0) {
    stackman_set_error(MANAGEMENT_NAME_TAG_NOT_FOUND);
    return nullptr;
  }
  if (send_message(stack, STACKMAN_SET_NAME, stack->name, nullptr) != 0)
    runtime_err("Failed to notify stack of rename to '%s'[%s], %s\n", stack->key, stack->name,
                socket_strerror(&stackman_state.node));
  return stack;
}

int stackman_upgrade_connection(stackman_stack* stack, socket_record* connection) {
  if (stack->state != STACKMAN_IDLE) {
    int result = send_message(stack, STACKMAN_SOCKPASS, nullptr, connection);
    stackman_set_error(socket_strerror(&stackman_state.node));
    return result == 0 ? 0 : -1;
  }
  // An idle stack has no process to take the connection: start it, and let
  // the client ask again once it runs.
  if (stackman_start(stack, nullptr) == 0) stackman_set_error(MANAGEMENT_RESURRECTING);
  return -1;
}

int stackman_signal(stackman_stack* stack, int selector) {
  int result = send_message(stack, selector, nullptr, nullptr);
  stackman_set_error(socket_strerror(&stackman_state.node));
  return result == 0 ? 0 : -1;
}

void stackman_broadcast(int selector) {
  size_t failed = 0;
  for (stackman_stack* stack = stackman_state.stacks; stack != nullptr; stack = stack->next) {
    if (stack->state != STACKMAN_RUNNING) continue;
    if (send_message(stack, selector, nullptr, nullptr) != 0) ++failed;
    stackman_set_error(socket_strerror(&stackman_state.node));
  }
  if (failed != 0) runtime_err("Error: failed to broadcast signal to `%zu` stacks\n", failed);
}
