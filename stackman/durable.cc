// Crash-safe stores: files written and synced before they count, directories
// that appear under their key only when complete and disappear from it before
// they are taken apart, and the start-up sweep of whatever a crash left half
// made.
//
// Hidden names of the daemon's own, in the data root and the stacks root:
//   .staging-{id}    a store being built by deployment while its image
//                    arrives; {id} is 64 hexadecimal characters that name this
//                    upload alone (the key is known only after the last image
//                    byte); becomes {key} by one rename once its image and
//                    name-tag are synced
//   .deleting-{key}  a store or stack path being removed; hidden first, so a
//                    crash mid-removal never leaves a half store under a key
// and in a store, serv/.name.tmp: a new name-tag on its way over serv/name.
// Any other entry beginning with "." belongs to someone else and is left alone.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <fcntl.h>
#include <unistd.h>

#include "base/fs.h"
#include "base/hash.h"
#include "base/runtime.h"
#include "stackman/internal.h"

namespace {

constexpr const char* kStagingPrefix = ".staging-";
constexpr const char* kDeletingPrefix = ".deleting-";

bool is_key(const char* text) {
  size_t length = strlen(text);
  if (length != STACKMAN_KEY_SIZE - 1) return false;
  for (size_t i = 0; i < length; ++i)
    if (!((text[i] >= '0' && text[i] <= '9') || (text[i] >= 'a' && text[i] <= 'f'))) return false;
  return true;
}

bool has_prefix(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

// One of our hidden names: the prefix followed by exactly a key (or a
// staging id, which has the same shape).
bool is_own_hidden(const char* name) {
  for (const char* prefix : {kStagingPrefix, kDeletingPrefix})
    if (has_prefix(name, prefix) && is_key(name + strlen(prefix))) return true;
  return false;
}

void remove_leftover(bucket* path) {
  runtime_err("Error: removing '%s', left unfinished by an earlier run\n", bucket_cstring(path));
  fs_remove_recursive(path);
}

// fs_dir_read skips hidden names, so the sweep lists directories itself.
template <typename Visit>
void each_entry(bucket* root, Visit visit) {
  DIR* directory = opendir(bucket_cstring(root));
  if (directory == nullptr) return;
  while (dirent* entry = readdir(directory)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    visit(entry->d_name);
  }
  closedir(directory);
}

}  // namespace

bucket stackman_hidden_path(bucket* root, const char* prefix_kind, const char* key) {
  bucket path = fs_copy(root);
  fs_join_ext(&path, prefix_kind, key);
  return path;
}

// Unique for the life of the working directory: the wall clock in
// nanoseconds, the process and a count of the uploads it has staged, digested
// into the shape of a key so that the start-up sweep knows it as our own.
bucket stackman_staging_path() {
  static uint64_t staged = 0;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const uint64_t seed[] = {static_cast<uint64_t>(now.tv_sec), static_cast<uint64_t>(now.tv_nsec),
                           static_cast<uint64_t>(getpid()), ++staged};
  hash_context context;
  hash_open(&context, HASH_SHA256);
  hash_write(&context, seed, sizeof seed);
  uint8_t digest[HASH_SHA256_SIZE];
  hash_close(&context, digest);
  char id[STACKMAN_KEY_SIZE];
  hash_maphex(HASH_SHA256, digest, id);
  return stackman_hidden_path(&stackman_state.data_root, kStagingPrefix, id);
}

int stackman_sync_descriptor(int descriptor) {
  while (fsync(descriptor) != 0)
    if (errno != EINTR) return -1;
  return 0;
}

int stackman_sync_directory(bucket* path) {
  int descriptor = open(bucket_cstring(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return -1;
  int result = stackman_sync_descriptor(descriptor);
  close(descriptor);
  return result;
}

int stackman_write_durable(bucket* path, const void* bytes, uint64_t size) {
  int descriptor = open(bucket_cstring(path), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) return -1;
  int result = fs_write_all(descriptor, bytes, size);
  if (result == 0) result = stackman_sync_descriptor(descriptor);
  if (close(descriptor) != 0 && errno != EINTR) result = -1;
  return result;
}

void stackman_remove_hidden(bucket* path, bucket* root, const char* key) {
  bucket deleting = stackman_hidden_path(root, kDeletingPrefix, key);
  // Hidden first: from here on a crash leaves only a name the sweep removes.
  if (rename(bucket_cstring(path), bucket_cstring(&deleting)) == 0) {
    fs_remove_recursive(&deleting);
  } else {
    fs_remove_recursive(path);
  }
  bucket_release(&deleting);
}

void stackman_sweep() {
  bucket* data_root = &stackman_state.data_root;
  bucket* stacks_root = &stackman_state.stacks_root;
  for (bucket* root : {data_root, stacks_root}) {
    each_entry(root, [root](const char* name) {
      if (!is_own_hidden(name)) return;
      bucket path = fs_copy(root);
      fs_join(&path, name);
      remove_leftover(&path);
      bucket_release(&path);
    });
  }
  // A scratch directory whose store is gone (a deployment that never got its
  // store in place, or a destruction cut short) would never be removed.
  each_entry(stacks_root, [&](const char* name) {
    if (!is_key(name)) return;
    bucket store = fs_copy(data_root);
    fs_join(&store, name);
    bool orphan = !fs_exists(&store);
    bucket_release(&store);
    if (!orphan) return;
    bucket path = fs_copy(stacks_root);
    fs_join(&path, name);
    remove_leftover(&path);
    bucket_release(&path);
  });
}

void stackman_sweep_store(stackman_stack* stack) {
  bucket temporary = stackman_name_tag_temporary(stack);
  if (fs_exists(&temporary)) remove_leftover(&temporary);
  bucket_release(&temporary);
}

bucket stackman_name_tag_temporary(stackman_stack* stack) {
  bucket path = fs_copy(&stack->store_path);
  fs_joinv(&path, "serv", ".name.tmp", nullptr);
  return path;
}
