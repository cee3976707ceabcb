// The stack registry: the manager's state, start-up with recovery from the
// data root, lookups, iteration, name rules and record creation.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/fs.h"
#include "base/runtime.h"
#include "stackman/internal.h"

stackman_manager stackman_state;

namespace {

constexpr const char* kPrivatePath = "./private";
constexpr const char* kNodePath = "./private/node";
// A longer name-tag yields a name of its first bytes, as many as a name holds.
constexpr uint64_t kNameTagReadLimit = MANAGEMENT_NAME_MAX;
static_assert(STACKMAN_NAME_SIZE == MANAGEMENT_NAME_MAX + 1, "a record holds the longest name and its terminator");
constexpr uint64_t kKeyLength = STACKMAN_KEY_SIZE - 1;

[[noreturn]] void fatal(const char* line) {
  runtime_err("%s", line);
  exit(1);
}

void make_directory(const char* text) {
  bucket path = fs_init(text);
  fs_mkdir(&path);
  bucket_release(&path);
}

// Each working directory must be a directory (symbolic links followed).
void require_directory(const char* text) {
  bucket path = fs_init(text);
  int type = fs_type(&path);
  bucket_release(&path);
  switch (type) {
    case FS_TYPE_DIRECTORY: return;
    case FS_TYPE_NONE: runtime_err("Error: directory '%s' is missing\n", text); break;
    case FS_TYPE_FILE: runtime_err("Error: '%s' is a file, but must be a directory\n", text); break;
    case FS_TYPE_SOCKET: runtime_err("Error: '%s' is a socket, but must be a directory\n", text); break;
    default: runtime_err("Error: '%s' is not a directory\n", text); break;
  }
  exit(1);
}

void open_node_socket() {
  socket_address address{};
  if (socket_address_unix(kNodePath, &address) != 0) {
    runtime_err("Invalid unix socket path: %s\n", socket_strerror(nullptr));
    exit(1);
  }
  if (socket_open(&address, 1, 0, &stackman_state.node) != 0) {
    runtime_err("Unable to open os-node socket: %s\n", socket_strerror(nullptr));
    exit(1);
  }
}

bool name_taken(const char* name) {
  for (stackman_stack* s = stackman_state.stacks; s != nullptr; s = s->next)
    if (strcmp(s->name, name) == 0) return true;
  return false;
}

// Name assignment: the record being named takes part in the test, so a stack
// can never be given the name it already has.
int assign_name(stackman_stack* stack, const char* name) {
  if (name_taken(name)) {
    stackman_set_error(MANAGEMENT_KEY_NOT_UNIQUE);
    return -1;
  }
  snprintf(stack->name, sizeof stack->name, "%s", name);
  return 0;
}

const char* read_name_tag(stackman_stack* stack) {
  istream* in = fs_open_read(&stack->name_tag_path);
  if (in == nullptr) fatal("Fatal error: unable to recover state from file-system, load-name\n");
  uint64_t got = istream_read_len(in, stackman_state.name_buffer, kNameTagReadLimit);
  stackman_state.name_buffer[got] = '\0';
  istream_destroy(in);
  return stackman_state.name_buffer;
}

void empty_stack_path(stackman_stack* stack) {
  fs_remove_recursive(&stack->stack_path);
  fs_mkdir(&stack->stack_path);
}

void recover_stack(const char* key) {
  if (strlen(key) > kKeyLength) {
    runtime_err("Error: ignoring '%s' in the data root, not a stack key\n", key);
    return;
  }
  stackman_stack* stack = stackman_stack_create(key, "");
  if (stack == nullptr) fatal("Fatal error: unable to recover state from file-system, set-name\n");
  stackman_sweep_store(stack);
  if (!fs_exists(&stack->name_tag_path))
    fatal("Fatal error: unable to recover state from file-system, name-tag missing\n");
  if (assign_name(stack, read_name_tag(stack)) != 0)
    fatal("Fatal error: unable to recover state from file-system, set-name\n");
  bucket image = fs_copy(&stack->store_path);
  fs_joinv(&image, "serv", "image", nullptr);
  stack->figures.image_bytes = static_cast<uint64_t>(fs_size(&image));
  bucket_release(&image);
  if (!fs_exists(&stack->deployed_path)) {
    stack->state = STACKMAN_UNDEPLOYED;
    return;
  }
  empty_stack_path(stack);
  // A failed start is remembered as the last error only; the stack stays idle.
  stackman_start(stack, nullptr);
}

void recover_stacks() {
  fs_dir listing{};
  if (fs_dir_open(&stackman_state.data_root, &listing) != 0) fatal("Unable to open data root director\n");
  while (fs_dir_read(&listing)) recover_stack(fs_iter_name(&listing));
}

}  // namespace

void stackman_set_error(const char* text) { stackman_state.last_error = text; }

void stackman_open(const char* runenv_root, const char* stacks_root, const char* data_root) {
  srand(static_cast<unsigned>(time(nullptr)));
  stackman_state.runenv_root = fs_init(runenv_root);
  stackman_state.stacks_root = fs_init(stacks_root);
  stackman_state.data_root = fs_init(data_root);
  make_directory(kPrivatePath);
  make_directory(runenv_root);
  make_directory(stacks_root);
  require_directory(kPrivatePath);
  require_directory(runenv_root);
  require_directory(stacks_root);
  require_directory(data_root);
  // Before anything is bound or started: a second daemon here would start
  // every stack again and take the node socket over.
  stackman_lock();
  stackman_stop_orphans();
  stackman_sweep();
  open_node_socket();
  stackman_state.stacks = nullptr;
  recover_stacks();
}

stackman_stack* stackman_get(const char* name) {
  for (stackman_stack* s = stackman_state.stacks; s != nullptr; s = s->next)
    if (strcmp(s->name, name) == 0) return s;
  return nullptr;
}

stackman_stack* stackman_iter_begin(stackman_iter* iterator) {
  stackman_stack* first = stackman_state.stacks;
  if (first == nullptr) return nullptr;
  iterator->current = first;
  iterator->name = first->name;
  return first;
}

stackman_stack* stackman_iter_move(stackman_iter* iterator) {
  if (iterator->current == nullptr) return nullptr;
  iterator->current = iterator->current->next;
  if (iterator->current != nullptr) iterator->name = iterator->current->name;
  return iterator->current;
}

uint64_t stackman_is_running() {
  uint64_t count = 0;
  for (stackman_stack* s = stackman_state.stacks; s != nullptr; s = s->next)
    if (s->state == STACKMAN_RUNNING || s->state == STACKMAN_STOPPING) ++count;
  return count;
}

stackman_deployments stackman_deployment_counts() { return stackman_state.deployments; }

const char* stackman_strerror() { return stackman_state.last_error; }

int stackman_validate_name(const char* name) { return management_name_valid(name) ? 0 : -1; }

stackman_stack* stackman_stack_create(const char* key, const char* name) {
  if (name_taken(name)) {
    stackman_set_error(MANAGEMENT_KEY_NOT_UNIQUE);
    return nullptr;
  }
  auto* stack = static_cast<stackman_stack*>(runtime_zalloc(sizeof(stackman_stack)));
  snprintf(stack->key, sizeof stack->key, "%s", key);
  snprintf(stack->name, sizeof stack->name, "%s", name);
  stack->state = STACKMAN_IDLE;
  stack->job = nullptr;
  stack->stack_path = fs_copy(&stackman_state.stacks_root);
  fs_join(&stack->stack_path, key);
  stack->store_path = fs_copy(&stackman_state.data_root);
  fs_join(&stack->store_path, key);
  stack->name_tag_path = fs_copy(&stack->store_path);
  fs_joinv(&stack->name_tag_path, "serv", "name", nullptr);
  stack->deployed_path = fs_copy(&stack->store_path);
  fs_joinv(&stack->deployed_path, "serv", "deployed", nullptr);

  bucket worker = fs_copy(&stack->stack_path);
  fs_join(&worker, "os-worker");
  int made = socket_address_unix(bucket_cstring(&worker), &stack->worker_address);
  bucket_release(&worker);
  if (made != 0) {
    runtime_err("Invalid unix socket path: %s\n", socket_strerror(nullptr));
    exit(1);
  }
  stack->next = stackman_state.stacks;
  stackman_state.stacks = stack;
  return stack;
}

int stackman_start(stackman_stack* stack, const char* const* extra) {
  if (stack->state != STACKMAN_IDLE) {
    stackman_set_error(MANAGEMENT_INVALID_STATE);
    return -1;
  }
  const char* argv[10] = {STACKMAN_BOOTSTRAP,
                          bucket_cstring(&stack->stack_path),
                          stack->name,
                          bucket_cstring(&stackman_state.runenv_root),
                          bucket_cstring(&stack->store_path),
                          "--"};
  int count = 6;
  for (; extra != nullptr && *extra != nullptr; ++extra) argv[count++] = *extra;
  argv[count] = nullptr;
  process* job = process_create_job(argv, nullptr);
  if (job == nullptr) {
    stackman_set_error(MANAGEMENT_SPAWN_CHILD);
    return -1;
  }
  stack->job = job;
  stack->state = STACKMAN_RUNNING;
  ++stack->figures.starts;
  stack->figures.started = time(nullptr);
  stackman_jobs_record(stack);
  return 0;
}

void stackman_stack_free(stackman_stack* stack) {
  stackman_stack** link = &stackman_state.stacks;
  while (*link != nullptr && *link != stack) link = &(*link)->next;
  if (*link == stack) *link = stack->next;
  bucket_release(&stack->stack_path);
  bucket_release(&stack->store_path);
  bucket_release(&stack->name_tag_path);
  bucket_release(&stack->deployed_path);
  free(stack);
}

void stackman_reset() {
  while (stackman_stack* stack = stackman_state.stacks) {
    if (stack->job != nullptr) {
      kill(-stack->job->pid, SIGKILL);
      process_wait(stack->job);
      stackman_jobs_forget(stack);
      process_destroy(stack->job);
    }
    stackman_stack_free(stack);
  }
  socket_close(&stackman_state.node);
  stackman_unlock();
  bucket_release(&stackman_state.runenv_root);
  bucket_release(&stackman_state.stacks_root);
  bucket_release(&stackman_state.data_root);
  stackman_state.last_error = nullptr;
  stackman_state.deployments = {};
}
