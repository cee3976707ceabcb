#include "base/fs.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "base/runtime.h"

namespace {

char realpath_buffer[4096];
char copy_buffer[1024];

constexpr int kTreeWalkDescriptors = 32;
constexpr const char* kReadMode = "rbe";  // "e": close-on-exec
constexpr const char* kWriteMode = "wbe";

const char* text_of(bucket* path) { return bucket_cstring(path); }

void join_one(bucket* path, const char* component) {
  if (component == nullptr || component[0] == '\0') return;
  if (component[0] == '/' || component[0] == '\\') {
    bucket_release(path);
  } else if (path->length == 0) {
    bucket_release(path);
  } else if (path->data[path->length - 1] != '/') {
    bucket_push(path, '/');
  }
  bucket_append(path, component);
}

FILE* file_of(void* handle) { return static_cast<FILE*>(handle); }

uint64_t file_read(istream* stream, void* destination, uint64_t count) {
  return fread(destination, 1, count, file_of(reinterpret_cast<istream_stdio*>(stream)->file));
}

int file_seek(istream* stream, int origin, int64_t offset) {
  int whence;
  switch (origin) {
    case 0: whence = SEEK_SET; break;
    case 1: whence = SEEK_CUR; break;
    case 2: whence = SEEK_END; break;
    default: return -1;
  }
  return fseeko(file_of(reinterpret_cast<istream_stdio*>(stream)->file), offset, whence) == 0 ? 0 : -1;
}

void file_close_input(istream* stream) { fclose(file_of(reinterpret_cast<istream_stdio*>(stream)->file)); }

uint64_t file_write(ostream* stream, const void* source, uint64_t count) {
  return fwrite(source, 1, count, file_of(reinterpret_cast<ostream_stdio*>(stream)->file));
}

uint64_t file_close_output(ostream* stream) {
  fclose(file_of(reinterpret_cast<ostream_stdio*>(stream)->file));
  return 0;
}

int remove_entry(const char* path, const struct stat*, int, FTW*) { return remove(path) == 0 ? 0 : -1; }

}  // namespace

bucket fs_init(const char* text) {
  bucket path{};
  bucket_append(&path, text);
  return path;
}

bucket fs_copy(bucket* path) { return fs_init(text_of(path)); }

void fs_join(bucket* path, const char* component) { join_one(path, component); }

void fs_joinv(bucket* path, ...) {
  va_list components;
  va_start(components, path);
  while (const char* component = va_arg(components, const char*)) join_one(path, component);
  va_end(components);
}

bucket* fs_join_ext(bucket* path, const char* component, const char* suffix) {
  join_one(path, component);
  bucket_append(path, suffix);
  return path;
}

int fs_realpath(bucket* path) {
  if (realpath(text_of(path), realpath_buffer) == nullptr) return -1;
  bucket_drop(path, path->length);
  bucket_append(path, realpath_buffer);
  return 0;
}

bucket* fs_dirname(bucket* path, bucket* result) {
  bucket_release(result);
  const char* text = text_of(path);
  const char* last_slash = strrchr(text, '/');
  if (last_slash == nullptr) return bucket_append(result, ".");
  if (last_slash == text) return bucket_append(result, "/");
  for (const char* c = text; c < last_slash; ++c) bucket_push(result, *c);
  return result;
}

bucket* fs_basename(bucket* path, bucket* result) {
  bucket_release(result);
  const char* last_slash = strrchr(text_of(path), '/');
  if (last_slash != nullptr) bucket_append(result, last_slash + 1);
  return result;
}

int fs_exists(bucket* path) {
  struct stat info;
  return stat(text_of(path), &info) == 0 ? 1 : 0;
}

int fs_type(bucket* path) {
  struct stat info;
  if (stat(text_of(path), &info) != 0) return FS_TYPE_NONE;
  if (S_ISREG(info.st_mode)) return FS_TYPE_FILE;
  if (S_ISDIR(info.st_mode)) return FS_TYPE_DIRECTORY;
  if (S_ISSOCK(info.st_mode)) return FS_TYPE_SOCKET;
  return FS_TYPE_OTHER;
}

int64_t fs_size(bucket* path) {
  struct stat info;
  return stat(text_of(path), &info) == 0 ? static_cast<int64_t>(info.st_size) : 0;
}

int64_t fs_get_mtime(bucket* path) {
  struct stat info;
  return stat(text_of(path), &info) == 0 ? static_cast<int64_t>(info.st_mtime) : -1;
}

int fs_set_mode(bucket* path, uint32_t mode) { return chmod(text_of(path), mode); }

int fs_set_mtime(bucket* path, int64_t seconds) {
  utimbuf times{static_cast<time_t>(seconds), static_cast<time_t>(seconds)};
  return utime(text_of(path), &times);
}

int fs_mkdir(bucket* path) { return mkdir(text_of(path), 0777); }

int fs_mkdir_recursive(bucket* path) {
  struct stat info;
  if (stat(text_of(path), &info) == 0) return 0;
  bucket parent{};
  fs_dirname(path, &parent);
  // "." and "/" always exist, so the recursion ends there at the latest.
  int result = fs_mkdir_recursive(&parent);
  bucket_release(&parent);
  if (result != 0) return result;
  return mkdir(text_of(path), 0777);
}

int fs_remove(bucket* path) { return remove(text_of(path)); }

int fs_remove_recursive(bucket* path) {
  return nftw(text_of(path), remove_entry, kTreeWalkDescriptors, FTW_PHYS | FTW_MOUNT | FTW_DEPTH) == 0 ? 0 : -1;
}

int fs_rename(bucket* old_path, bucket* new_path) { return rename(text_of(old_path), text_of(new_path)); }

int fs_write_all(int descriptor, const void* bytes, uint64_t size) {
  const char* next = static_cast<const char*>(bytes);
  while (size != 0) {
    ssize_t written = write(descriptor, next, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return -1;
    next += written;
    size -= static_cast<uint64_t>(written);
  }
  return 0;
}

int fs_touch(bucket* path) {
  FILE* file = fopen(text_of(path), kWriteMode);
  if (file == nullptr) return -1;
  fclose(file);
  return 0;
}

int fs_touch_path(bucket* path) {
  bucket parent{};
  fs_dirname(path, &parent);
  int result = fs_mkdir_recursive(&parent);
  bucket_release(&parent);
  if (result != 0) return result;
  return fs_touch(path);
}

int fs_fcopy(bucket* destination, bucket* source) {
  FILE* out = fopen(text_of(destination), kWriteMode);
  if (out == nullptr) return -1;
  FILE* in = fopen(text_of(source), kReadMode);
  if (in == nullptr) {
    fclose(out);
    return -1;
  }
  int result = 0;
  for (;;) {
    size_t got = fread(copy_buffer, 1, sizeof copy_buffer, in);
    if (got == 0) {
      result = ferror(in) ? -1 : 0;
      break;
    }
    if (fwrite(copy_buffer, 1, got, out) != got) {
      result = -1;
      break;
    }
  }
  fclose(in);
  if (fclose(out) != 0) result = -1;
  return result;
}

istream* fs_open_read(bucket* path) {
  FILE* file = fopen(text_of(path), kReadMode);
  if (file == nullptr) return nullptr;
  auto* stream = static_cast<istream_stdio*>(runtime_zalloc(sizeof(istream_stdio)));
  stream->base.read_len = file_read;
  stream->base.seek_pos = file_seek;
  stream->base.destroy = file_close_input;
  stream->file = file;
  return &stream->base;
}

ostream* fs_open_write(bucket* path) {
  FILE* file = fopen(text_of(path), kWriteMode);
  if (file == nullptr) return nullptr;
  auto* stream = static_cast<ostream_stdio*>(runtime_zalloc(sizeof(ostream_stdio)));
  stream->base.write_len = file_write;
  stream->base.finalize = file_close_output;
  stream->file = file;
  return &stream->base;
}

int fs_dir_open(bucket* path, fs_dir* iterator) {
  iterator->path = path;
  iterator->entry = nullptr;
  iterator->handle = opendir(text_of(path));
  return iterator->handle == nullptr ? -1 : 0;
}

int fs_dir_read(fs_dir* iterator) {
  if (iterator->handle == nullptr) return 0;
  while (dirent* entry = readdir(iterator->handle)) {
    if (entry->d_name[0] == '.') continue;
    iterator->entry = entry;
    return 1;
  }
  closedir(iterator->handle);
  iterator->handle = nullptr;
  iterator->entry = nullptr;
  return 0;
}

const char* fs_iter_name(fs_dir* iterator) { return iterator->entry->d_name; }

bucket fs_iter_path(fs_dir* iterator) {
  bucket path = fs_copy(iterator->path);
  join_one(&path, iterator->entry->d_name);
  return path;
}
