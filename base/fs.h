// Paths as values and the few file-system operations the system needs.
// A path is a bucket; a nil bucket stands for the empty path. Results are 0
// or -1 unless said otherwise, with errno as the platform left it. Files and
// directories opened here are close-on-exec.
//
// Not reentrant: fs_realpath and fs_fcopy use static buffers of the family.
#pragma once

#include <cstdint>
#include <dirent.h>

#include "base/bucket.h"
#include "base/istream.h"
#include "base/ostream.h"

enum : int {
  FS_TYPE_NONE = 0,  // cannot be examined
  FS_TYPE_OTHER = 1,  // fifo, device, ...
  FS_TYPE_FILE = 2,
  FS_TYPE_DIRECTORY = 3,
  FS_TYPE_SOCKET = 4,
};

struct fs_dir {
  bucket* path;  // borrowed; must stay valid until the iteration ends
  DIR* handle;
  dirent* entry;  // owned by the directory stream
};

// New paths: the receiver owns them and releases them with bucket_release.
bucket fs_init(const char* text);
bucket fs_copy(bucket* path);

// Join rule: an empty component changes nothing; one starting with '/' or '\'
// replaces the path; otherwise a '/' is put between a non-empty path not
// ending in '/' and the component.
void fs_join(bucket* path, const char* component);
void fs_joinv(bucket* path, ...) __attribute__((sentinel));
// Joins the component, then appends the suffix verbatim.
bucket* fs_join_ext(bucket* path, const char* component, const char* suffix);

// Replaces the path with its resolved form; leaves it unchanged on failure.
int fs_realpath(bucket* path);
// Release `result`, fill it with the directory part / last component.
bucket* fs_dirname(bucket* path, bucket* result);
bucket* fs_basename(bucket* path, bucket* result);

int fs_exists(bucket* path);  // 1 when stat succeeds
int fs_type(bucket* path);  // follows symbolic links
int64_t fs_size(bucket* path);  // 0 when stat fails
int64_t fs_get_mtime(bucket* path);  // -1 when stat fails
int fs_set_mode(bucket* path, uint32_t mode);
int fs_set_mtime(bucket* path, int64_t seconds);
int fs_mkdir(bucket* path);  // mode 0777 before the umask
int fs_mkdir_recursive(bucket* path);  // 0 when something already exists there
int fs_remove(bucket* path);
// Removes the tree without following symbolic links or leaving the file system.
int fs_remove_recursive(bucket* path);
int fs_rename(bucket* old_path, bucket* new_path);
int fs_touch(bucket* path);  // creates or truncates
int fs_touch_path(bucket* path);  // makes the directory part first
int fs_fcopy(bucket* destination, bucket* source);
// Writes all `size` bytes to an open descriptor, going on after a short or
// interrupted write; 0, or -1 with errno when the descriptor refuses them.
int fs_write_all(int descriptor, const void* bytes, uint64_t size);

// File streams: null when the file cannot be opened. The read stream seeks
// with origin 0, 1, 2; destroying either stream closes the file.
istream* fs_open_read(bucket* path);
ostream* fs_open_write(bucket* path);

// Iteration skips every name that begins with "."; the directory stream is
// closed when fs_dir_read reports the end, so callers read to the end.
int fs_dir_open(bucket* path, fs_dir* iterator);
int fs_dir_read(fs_dir* iterator);  // 1 while there is an entry, 0 at the end
const char* fs_iter_name(fs_dir* iterator);
bucket fs_iter_path(fs_dir* iterator);
