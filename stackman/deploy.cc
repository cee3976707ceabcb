// Deployment: an uploaded image becomes a new stack with its key, its two
// directories, its name-tag and image, and a deploying job that inherits the
// client's connection and answers the client itself. The store is built under
// a hidden staging name and renamed to its key once complete and synced, so
// a crash at any moment leaves either a whole store or none under the key.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/fs.h"
#include "base/hash.h"
#include "base/runtime.h"
#include "stackman/internal.h"

namespace {

// The key digests the time, the name, the image and a random value, so two
// uploads of one image under two names in the same second still differ.
void make_key(const char* name, const void* image, uint64_t image_size) {
  hash_context context;
  hash_open(&context, HASH_SHA256);
  time_t now = time(nullptr);
  hash_write(&context, &now, sizeof now);
  hash_write(&context, name, strlen(name));
  hash_write(&context, image, image_size);
  int random_value = rand();
  hash_write(&context, &random_value, sizeof random_value);
  uint8_t digest[HASH_SHA256_SIZE];
  hash_close(&context, digest);
  hash_maphex(HASH_SHA256, digest, stackman_state.key_text);
}

// What this deployment made on disk so far: a failed deployment removes only
// what it made itself, never a directory that was already there.
struct made_paths {
  bool stack_dir;
  bool build_dir;  // the staging directory, or the store itself when built in place
  bool store_dir;  // the staging directory has become the store
};

stackman_stack* abandon(stackman_stack* stack, bucket* build, made_paths made, const char* error) {
  if (made.build_dir) fs_remove_recursive(build);
  if (made.store_dir) stackman_remove_hidden(&stack->store_path, &stackman_state.data_root, stack->key);
  if (made.stack_dir) stackman_remove_hidden(&stack->stack_path, &stackman_state.stacks_root, stack->key);
  bucket_release(build);
  stackman_stack_free(stack);
  stackman_set_error(error);
  return nullptr;
}

// Name-tag and image, each written whole and synced, then their directories
// synced, so that the rename that publishes the store publishes all of it.
const char* fill_store(bucket* build, stackman_stack* stack, const void* image, uint64_t image_size) {
  bucket serv = fs_copy(build);
  fs_join(&serv, "serv");
  fs_mkdir(&serv);  // a failure shows when the name-tag is written
  bucket file = fs_copy(&serv);
  fs_join(&file, "name");
  const char* error = nullptr;
  if (stackman_write_durable(&file, stack->name, strlen(stack->name)) != 0) error = "store name-tag";
  bucket_release(&file);
  file = fs_copy(&serv);
  fs_join(&file, "image");
  if (error == nullptr && stackman_write_durable(&file, image, image_size) != 0) error = "store image";
  bucket_release(&file);
  if (error == nullptr && (stackman_sync_directory(&serv) != 0 || stackman_sync_directory(build) != 0))
    error = "store image";
  bucket_release(&serv);
  return error;
}

bool entry_exists(bucket* path) {
  struct stat info;
  return lstat(bucket_cstring(path), &info) == 0;
}

// Moves the finished store under its key; a key that is taken by then (by
// anything) is left as it is.
int publish(bucket* build, stackman_stack* stack) {
  if (renameat2(AT_FDCWD, bucket_cstring(build), AT_FDCWD, bucket_cstring(&stack->store_path), RENAME_NOREPLACE) != 0)
    return -1;
  stackman_sync_directory(&stackman_state.data_root);
  return 0;
}

}  // namespace

stackman_stack* stackman_stack_allocate(const char* name, const void* image, uint64_t image_size,
                                        socket_record* connection) {
  make_key(name, image, image_size);
  stackman_stack* stack = stackman_stack_create(stackman_state.key_text, name);
  if (stack == nullptr) return nullptr;

  made_paths made{};
  bool in_place = stackman_state.skip_sync;
  bucket build = in_place ? fs_copy(&stack->store_path) : stackman_staging_path(stack->key);
  if (fs_mkdir(&stack->stack_path) != 0) return abandon(stack, &build, made, "mkdir stack path");
  made.stack_dir = true;
  if (entry_exists(&stack->store_path) || fs_mkdir(&build) != 0) return abandon(stack, &build, made, "mkdir store path");
  made.build_dir = true;
  if (const char* error = fill_store(&build, stack, image, image_size)) return abandon(stack, &build, made, error);
  if (!in_place && publish(&build, stack) != 0) return abandon(stack, &build, made, "mkdir store path");
  // From here on the store stands under its key.
  made.build_dir = false;
  made.store_dir = true;

  snprintf(stackman_state.descriptor_text, sizeof stackman_state.descriptor_text, "%d", connection->descriptor);
  // The connection is inheritable only while this one child is started.
  socket_inherit(connection, 1);
  const char* deploy[] = {"--deploy", stackman_state.descriptor_text, nullptr};
  int started = stackman_start(stack, deploy);
  socket_inherit(connection, 0);
  if (started != 0) return abandon(stack, &build, made, stackman_strerror());
  stack->figures.image_bytes = image_size;
  ++stackman_state.deployments.started;
  bucket_release(&build);
  return stack;
}
