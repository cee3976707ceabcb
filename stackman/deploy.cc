// Deployment: an uploaded image becomes a new stack with its key, its two
// directories, its name-tag and image, and a deploying job that inherits the
// client's connection and answers the client itself.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

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
// directories it made itself, never one that was already there.
struct made_paths {
  bool stack_dir;
  bool store_dir;
};

stackman_stack* abandon(stackman_stack* stack, made_paths made, const char* error) {
  if (made.store_dir) fs_remove_recursive(&stack->store_path);
  if (made.stack_dir) fs_remove_recursive(&stack->stack_path);
  stackman_stack_free(stack);
  stackman_set_error(error);
  return nullptr;
}

int write_file(bucket* path, const void* bytes, uint64_t size) {
  ostream* out = fs_open_write(path);
  if (out == nullptr) return -1;
  if (size != 0) ostream_write_len(out, bytes, size);
  ostream_destroy(out);
  return 0;
}

}  // namespace

stackman_stack* stackman_stack_allocate(const char* name, const void* image, uint64_t image_size,
                                        socket_record* connection) {
  make_key(name, image, image_size);
  stackman_stack* stack = stackman_stack_create(stackman_state.key_text, name);
  if (stack == nullptr) return nullptr;

  made_paths made{};
  if (fs_mkdir(&stack->stack_path) != 0) return abandon(stack, made, "mkdir stack path");
  made.stack_dir = true;
  if (fs_mkdir(&stack->store_path) != 0) return abandon(stack, made, "mkdir store path");
  made.store_dir = true;
  bucket serv = fs_copy(&stack->store_path);
  fs_join(&serv, "serv");
  fs_mkdir(&serv);  // a failure shows when the name-tag is opened
  bucket_release(&serv);

  if (write_file(&stack->name_tag_path, stack->name, strlen(stack->name)) != 0)
    return abandon(stack, made, "store name-tag");
  bucket image_path = fs_copy(&stack->store_path);
  fs_joinv(&image_path, "serv", "image", nullptr);
  int stored = write_file(&image_path, image, image_size);
  bucket_release(&image_path);
  if (stored != 0) return abandon(stack, made, "store image");

  snprintf(stackman_state.descriptor_text, sizeof stackman_state.descriptor_text, "%d", connection->descriptor);
  // The connection is inheritable only while this one child is started.
  socket_inherit(connection, 1);
  const char* deploy[] = {"--deploy", stackman_state.descriptor_text, nullptr};
  int started = stackman_start(stack, deploy);
  socket_inherit(connection, 0);
  if (started != 0) return abandon(stack, made, stackman_strerror());
  return stack;
}
