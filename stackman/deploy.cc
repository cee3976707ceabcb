// Deployment: an uploaded image becomes a new stack with its key, its two
// directories, its name-tag and image, and a deploying job that inherits the
// client's connection and answers the client itself.
//
// The image is staged while it arrives: each piece goes into the image file
// of a hidden staging store and into the key's digest in the same pass, and
// its write-back starts at once. Once the last byte is in, the key is made,
// the name-tag written, everything synced and the staging store renamed to
// its key, so a crash at any moment leaves either a whole store or none under
// the key.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "base/fs.h"
#include "base/hash.h"
#include "base/runtime.h"
#include "stackman/internal.h"

namespace {

// Free space an upload may not take, so that a full-size image never leaves
// the stacks' own stores without room to work.
constexpr uint64_t kReserveMinimum = uint64_t{64} << 20;
constexpr uint64_t kReservePercent = 1;

// The staging store with an empty image file, open for writing; the failure's
// text, or null.
const char* open_staging(stackman_image* image) {
  bucket staging = stackman_staging_path();
  if (fs_mkdir(&staging) != 0) {
    bucket_release(&staging);
    return MANAGEMENT_MKDIR_STORE_PATH;
  }
  image->staging_path = staging;
  bucket file = fs_copy(&staging);
  fs_join(&file, "serv");
  fs_mkdir(&file);  // a failure shows when the image file is made
  fs_join(&file, "image");
  image->descriptor = open(bucket_cstring(&file), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  bucket_release(&file);
  return image->descriptor < 0 ? MANAGEMENT_STORE_IMAGE : nullptr;
}

void close_image_file(stackman_image* image) {
  if (image->descriptor >= 0) close(image->descriptor);
  image->descriptor = -1;
}

// The key digests the time, the name, the image and a random value, so two
// uploads of one image under two names in the same second still differ. The
// time and the name went in before the first image byte.
void make_key(stackman_image* image) {
  int random_value = rand();
  hash_write(&image->digest, &random_value, sizeof random_value);
  uint8_t digest[HASH_SHA256_SIZE];
  hash_close(&image->digest, digest);
  hash_maphex(HASH_SHA256, digest, stackman_state.key_text);
}

// What this deployment made on disk so far: a failed deployment removes only
// what it made itself, never a directory that was already there.
struct made_paths {
  bool stack_dir;
  bool store_dir;  // the staging store has become the store
};

stackman_stack* abandon(stackman_stack* stack, stackman_image* image, made_paths made, const char* error) {
  stackman_image_discard(image);
  if (made.store_dir) stackman_remove_hidden(&stack->store_path, &stackman_state.data_root, stack->key);
  if (made.stack_dir) stackman_remove_hidden(&stack->stack_path, &stackman_state.stacks_root, stack->key);
  stackman_stack_free(stack);
  stackman_set_error(error);
  return nullptr;
}

// The image synced, the name-tag written and synced, then their directories
// synced, so that the rename that publishes the store publishes all of it.
const char* finish_store(stackman_image* image, stackman_stack* stack) {
  int descriptor = image->descriptor;
  image->descriptor = -1;
  bool synced = stackman_sync_descriptor(descriptor) == 0;
  if (close(descriptor) != 0 && errno != EINTR) synced = false;
  if (!synced) return MANAGEMENT_STORE_IMAGE;
  bucket serv = fs_copy(&image->staging_path);
  fs_join(&serv, "serv");
  bucket tag = fs_copy(&serv);
  fs_join(&tag, "name");
  const char* error = nullptr;
  if (stackman_write_durable(&tag, stack->name, strlen(stack->name)) != 0) error = MANAGEMENT_STORE_NAME_TAG;
  if (error == nullptr && (stackman_sync_directory(&serv) != 0 || stackman_sync_directory(&image->staging_path) != 0))
    error = MANAGEMENT_STORE_IMAGE;
  bucket_release(&tag);
  bucket_release(&serv);
  return error;
}

bool entry_exists(bucket* path) {
  struct stat info;
  return lstat(bucket_cstring(path), &info) == 0;
}

// Moves the finished store under its key; a key that is taken by then (by
// anything) is left as it is.
int publish(stackman_image* image, stackman_stack* stack) {
  if (renameat2(AT_FDCWD, bucket_cstring(&image->staging_path), AT_FDCWD, bucket_cstring(&stack->store_path),
                RENAME_NOREPLACE) != 0)
    return -1;
  bucket_release(&image->staging_path);
  stackman_sync_directory(&stackman_state.data_root);
  return 0;
}

}  // namespace

uint64_t stackman_image_room() {
  struct statvfs info;
  if (statvfs(bucket_cstring(&stackman_state.data_root), &info) != 0) return UINT64_MAX;
  uint64_t free_bytes = static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
  uint64_t size = static_cast<uint64_t>(info.f_blocks) * info.f_frsize;
  uint64_t reserve = std::max(size / 100 * kReservePercent, kReserveMinimum);
  return free_bytes > reserve ? free_bytes - reserve : 0;
}

void stackman_image_begin(stackman_image* image, const char* name) {
  *image = stackman_image{};
  image->descriptor = -1;
  hash_open(&image->digest, HASH_SHA256);
  time_t now = time(nullptr);
  hash_write(&image->digest, &now, sizeof now);
  hash_write(&image->digest, name, strlen(name));
  image->error = open_staging(image);
}

void stackman_image_write(stackman_image* image, const void* bytes, uint64_t size) {
  if (image->error != nullptr || size == 0) return;
  if (fs_write_all(image->descriptor, bytes, size) != 0) {
    // A full disk is given back at once, not after the rest has arrived.
    image->error = MANAGEMENT_STORE_IMAGE;
    stackman_image_discard(image);
    return;
  }
  hash_write(&image->digest, bytes, size);
  // Write-back of this piece overlaps the arrival of the next.
  sync_file_range(image->descriptor, static_cast<off64_t>(image->size), static_cast<off64_t>(size),
                  SYNC_FILE_RANGE_WRITE);
  image->size += size;
}

void stackman_image_discard(stackman_image* image) {
  close_image_file(image);
  if (image->staging_path.length != 0) fs_remove_recursive(&image->staging_path);
  bucket_release(&image->staging_path);
}

stackman_stack* stackman_stack_allocate(const char* name, stackman_image* image, socket_record* connection) {
  make_key(image);
  stackman_stack* stack = stackman_stack_create(stackman_state.key_text, name);
  if (stack == nullptr) {
    stackman_image_discard(image);
    return nullptr;
  }

  made_paths made{};
  if (fs_mkdir(&stack->stack_path) != 0) return abandon(stack, image, made, MANAGEMENT_MKDIR_STACK_PATH);
  made.stack_dir = true;
  if (image->error != nullptr) return abandon(stack, image, made, image->error);
  if (entry_exists(&stack->store_path)) return abandon(stack, image, made, MANAGEMENT_MKDIR_STORE_PATH);
  if (const char* error = finish_store(image, stack)) return abandon(stack, image, made, error);
  if (publish(image, stack) != 0) return abandon(stack, image, made, MANAGEMENT_MKDIR_STORE_PATH);
  // From here on the store stands under its key.
  made.store_dir = true;

  snprintf(stackman_state.descriptor_text, sizeof stackman_state.descriptor_text, "%d", connection->descriptor);
  // The connection is inheritable only while this one child is started.
  socket_inherit(connection, 1);
  const char* deploy[] = {"--deploy", stackman_state.descriptor_text, nullptr};
  int started = stackman_start(stack, deploy);
  socket_inherit(connection, 0);
  if (started != 0) return abandon(stack, image, made, stackman_strerror());
  stack->figures.image_bytes = image->size;
  ++stackman_state.deployments.started;
  return stack;
}
