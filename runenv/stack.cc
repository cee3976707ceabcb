// The stack as the runtime knows it: its identity, its paths, its control
// socket and the environment its children get.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <unistd.h>

#include "base/fs.h"
#include "base/runtime.h"
#include "runenv/runenv.h"

extern char** environ;

namespace {

// The resolved form of `path`, or -1 with errno when it cannot be resolved.
int absolute(const char* path, bucket* result) {
  *result = fs_init(path);
  if (fs_realpath(result) == 0) return 0;
  int error = errno;
  bucket_release(result);
  errno = error;
  return -1;
}

// The variable's name in a "NAME=value" entry.
std::string_view variable_name(const char* entry) {
  std::string_view text = entry;
  return text.substr(0, text.find('='));
}

bool set_by_stack(std::string_view name, const runenv_words* own) {
  if (name == "APPSRV_STACK_NAME" || name == "APPSRV_STACK_PATH" || name == "APPSRV_STORE_PATH") return true;
  for (uint32_t i = 0; i < own->count; ++i)
    if (variable_name(own->items[i]) == name) return true;
  return false;
}

void push_variable(runenv_words* words, const char* name, const char* value) {
  bucket entry{};
  bucket_appendv(&entry, name, "=", value, nullptr);
  runenv_words_push(words, entry.data, entry.length);
  bucket_release(&entry);
}

}  // namespace

int runenv_stack_init(runenv_stack* stack, const runenv_args* args) {
  memset(stack, 0, sizeof *stack);
  stack->worker.descriptor = -1;
  stack->log.descriptor = -1;
  dymarray_init(&stack->handlers, sizeof(runenv_handler), 0);
  dymarray_init(&stack->sources, sizeof(runenv_log_source*), 0);

  // The key is the stack path's last component, trailing slashes aside.
  bucket given = fs_init(args->stack_path);
  while (given.length > 1 && given.data[given.length - 1] == '/') bucket_drop(&given, 1);
  const char* last_slash = strrchr(bucket_cstring(&given), '/');
  bucket_append(&stack->key, last_slash != nullptr ? last_slash + 1 : given.data);
  stack->worker_path = fs_copy(&given);
  fs_join(&stack->worker_path, "os-worker");
  bucket_release(&given);
  runenv_stack_set_name(stack, args->name, strlen(args->name));

  if (absolute(args->stack_path, &stack->stack_path) != 0) {
    runtime_err("Error: stack '%s'[%s] stack path '%s' unusable, %s\n", bucket_cstring(&stack->key),
                stack->name, args->stack_path, strerror(errno));
    return -1;
  }
  if (absolute(args->store_path, &stack->store_path) != 0) {
    runtime_err("Error: stack '%s'[%s] store path '%s' unusable, %s\n", bucket_cstring(&stack->key),
                stack->name, args->store_path, strerror(errno));
    return -1;
  }
  stack->image_path = fs_copy(&stack->store_path);
  fs_joinv(&stack->image_path, "serv", "image", nullptr);
  stack->deployed_path = fs_copy(&stack->store_path);
  fs_joinv(&stack->deployed_path, "serv", "deployed", nullptr);
  stack->app_path = fs_copy(&stack->store_path);
  fs_join(&stack->app_path, "app");
  stack->state_path = fs_copy(&stack->stack_path);
  fs_join(&stack->state_path, "runtime.json");
  return 0;
}

void runenv_stack_set_name(runenv_stack* stack, const char* name, uint64_t length) {
  if (length > RUNENV_NAME_SIZE - 1) length = RUNENV_NAME_SIZE - 1;
  memcpy(stack->name, name, length);
  stack->name[length] = '\0';
}

int runenv_stack_open(runenv_stack* stack) {
  socket_address address;
  if (socket_address_unix(bucket_cstring(&stack->worker_path), &address) != 0 ||
      socket_open(&address, 1, 0, &stack->worker) != 0) {
    runtime_err("Error: stack '%s'[%s] unable to open os-worker socket '%s', %s\n",
                bucket_cstring(&stack->key), stack->name, bucket_cstring(&stack->worker_path),
                socket_strerror(nullptr));
    return -1;
  }
  return 0;
}

void runenv_stack_close(runenv_stack* stack) {
  if (stack->worker.descriptor < 0) return;
  socket_close(&stack->worker);
  unlink(bucket_cstring(&stack->worker_path));
}

void runenv_stack_release(runenv_stack* stack) {
  runenv_stack_close(stack);
  while (dymarray_size(&stack->sources) > 0)
    runenv_source_close(stack, *static_cast<runenv_log_source**>(dymarray_last(&stack->sources)));
  runenv_log_close(&stack->log);
  runenv_manifest_release(&stack->manifest);
  for (bucket* path : {&stack->key, &stack->worker_path, &stack->stack_path, &stack->store_path, &stack->image_path,
                       &stack->deployed_path, &stack->app_path, &stack->state_path})
    bucket_release(path);
  for (uint64_t i = 0; i < dymarray_size(&stack->handlers); ++i)
    close(static_cast<runenv_handler*>(dymarray_at(&stack->handlers, i))->connection);
  dymarray_destroy(&stack->handlers);
  dymarray_destroy(&stack->sources);
}

namespace {

runenv_words stack_environment(runenv_stack* stack) {
  const runenv_words* own = &stack->manifest.environment;
  runenv_words words{};
  for (char** entry = environ; *entry != nullptr; ++entry)
    if (!set_by_stack(variable_name(*entry), own)) runenv_words_push(&words, *entry, strlen(*entry));
  push_variable(&words, "APPSRV_STACK_NAME", stack->name);
  push_variable(&words, "APPSRV_STACK_PATH", bucket_cstring(&stack->stack_path));
  push_variable(&words, "APPSRV_STORE_PATH", bucket_cstring(&stack->store_path));
  for (uint32_t i = 0; i < own->count; ++i) runenv_words_push(&words, own->items[i], strlen(own->items[i]));
  return words;
}

}  // namespace

process* runenv_stack_spawn(runenv_stack* stack, process_options* options) {
  runenv_words environment = stack_environment(stack);
  options->environment = environment.items;
  process* child = process_spawn(options);
  int error = errno;
  runenv_words_release(&environment);
  errno = error;
  return child;
}
