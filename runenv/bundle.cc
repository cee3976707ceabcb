// Unpacking a bundle into app/: a tar archive from an uploader, so hostile
// input. Every entry is checked before libarchive writes it, and libarchive's
// own guards against the same attacks stay on beneath the checks.
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "base/fs.h"
#include "runenv/runenv.h"

namespace {

// Every entry costs at least a block on disk, and a file whole blocks, so
// that a bundle of countless empty files is charged for what it takes.
constexpr uint64_t kBlock = 4096;
// Names quoted in a reason are cut to this many bytes.
constexpr size_t kShownName = 200;

constexpr int kDiskFlags = ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                           ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS;

// `entry "NAME": PROBLEM`, or with a link `entry "NAME": KIND "TARGET" PROBLEM`.
void refuse(bucket* reason, const char* name, const char* problem) {
  bucket_append(reason, "entry ");
  runenv_append_quoted(reason, name, strlen(name));
  bucket_appendv(reason, ": ", problem, nullptr);
}

void refuse_link(bucket* reason, const char* name, const char* kind, const char* target, const char* problem) {
  refuse(reason, name, kind);
  runenv_append_quoted(reason, target, strlen(target));
  bucket_appendv(reason, " ", problem, nullptr);
}

// Calls `visit` for every component of a relative path, "." and empty ones
// left out; stops and returns false as soon as `visit` does.
template <typename Visit>
bool each_component(std::string_view path, Visit visit) {
  while (!path.empty()) {
    size_t slash = path.find('/');
    std::string_view part = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (part.empty() || part == ".") continue;
    if (!visit(part)) return false;
  }
  return true;
}

bool has_dotdot(std::string_view path) {
  return !each_component(path, [](std::string_view part) { return part != ".."; });
}

// A symbolic link may climb from its own directory no higher than app/, and
// only at the start of its target: once past a name, which may itself be a
// link, ".." no longer climbs where the text says it does. With no entry ever
// written through a link (libarchive's guard), every link then resolves
// inside app/. What is wrong with the target, or null.
const char* symlink_problem(std::string_view path, std::string_view target) {
  if (target.empty()) return "leads nowhere";
  if (target[0] == '/') return "leads outside app/";
  int64_t depth = -1;  // the link's own name is no directory
  each_component(path, [&](std::string_view) { return ++depth, true; });
  bool named = false;
  bool past_names = false;
  each_component(target, [&](std::string_view part) {
    if (part != "..") return named = true;
    if (named) return !(past_names = true);
    return --depth >= 0;
  });
  if (past_names) return "has \"..\" after a name";
  if (depth < 0) return "leads outside app/";
  return nullptr;
}

// The problem with the entry as a reason, or false when it may be written.
bool entry_refused(archive_entry* entry, bucket* reason) {
  const char* path = archive_entry_pathname(entry);
  if (path == nullptr || path[0] == '\0') {
    bucket_append(reason, "an entry without a name");
    return true;
  }
  if (path[0] == '/') return refuse(reason, path, "absolute path"), true;
  if (has_dotdot(path)) return refuse(reason, path, "\"..\" component"), true;
  if (const char* target = archive_entry_hardlink(entry)) {
    if (target[0] == '\0' || target[0] == '/' || has_dotdot(target))
      return refuse_link(reason, path, "hard link to ", target, "leads outside app/"), true;
    // A second name for a symbolic link keeps its target's text at another
    // depth, where it may climb out of app/ (unpacking runs in app/).
    struct stat linked {};
    if (lstat(target, &linked) == 0 && S_ISLNK(linked.st_mode))
      return refuse_link(reason, path, "hard link to ", target, "is a symbolic link"), true;
    return false;
  }
  switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
    case AE_IFDIR:
      return false;
    case AE_IFLNK: {
      const char* target = archive_entry_symlink(entry) != nullptr ? archive_entry_symlink(entry) : "";
      const char* problem = symlink_problem(path, target);
      if (problem == nullptr) return false;
      return refuse_link(reason, path, "symbolic link to ", target, problem), true;
    }
    case AE_IFCHR:
    case AE_IFBLK:
      return refuse(reason, path, "devices are not allowed"), true;
    case AE_IFIFO:
      return refuse(reason, path, "fifos are not allowed"), true;
    case AE_IFSOCK:
      return refuse(reason, path, "sockets are not allowed"), true;
    default:
      return refuse(reason, path, "unsupported kind of entry"), true;
  }
}

struct unpacking {
  archive* reader;
  archive* writer;
  uint64_t budget;  // bytes the bundle may take
  uint64_t charged;
  bucket* reason;
};

// Charges the entry's size as its header declares it, before any of its data
// is read: a few kilobytes of gzip can claim gigabytes.
bool within_budget(unpacking* job, archive_entry* entry) {
  uint64_t size = archive_entry_size_is_set(entry) && archive_entry_size(entry) > 0
                      ? static_cast<uint64_t>(archive_entry_size(entry))
                      : 0;
  uint64_t blocks = size / kBlock + (size % kBlock != 0 ? 1 : 0);
  uint64_t cost = (blocks == 0 ? 1 : blocks) * kBlock;
  if (cost <= job->budget - job->charged) {  // charged never passes budget
    job->charged += cost;
    return true;
  }
  char problem[160];
  snprintf(problem, sizeof problem, "the unpacked size passes the free space of the store less 64 MiB (%llu MiB)",
           static_cast<unsigned long long>(job->budget >> 20));
  refuse(job->reason, archive_entry_pathname(entry), problem);
  return false;
}

bool copy_data(unpacking* job, archive_entry* entry) {
  const void* block = nullptr;
  size_t size = 0;
  la_int64_t offset = 0;
  int status;
  while ((status = archive_read_data_block(job->reader, &block, &size, &offset)) == ARCHIVE_OK) {
    if (archive_write_data_block(job->writer, block, size, offset) < ARCHIVE_OK) {
      refuse(job->reason, archive_entry_pathname(entry), archive_error_string(job->writer));
      return false;
    }
  }
  if (status == ARCHIVE_EOF) return true;
  refuse(job->reason, archive_entry_pathname(entry), archive_error_string(job->reader));
  return false;
}

bool unpack_entries(unpacking* job) {
  archive_entry* entry = nullptr;
  bool first = true;
  for (;;) {
    int status = archive_read_next_header(job->reader, &entry);
    if (status == ARCHIVE_EOF) return true;
    if (status < ARCHIVE_WARN) {
      bucket_appendv(job->reason, first ? "damaged archive: " : "damaged archive after its first entries: ",
                     archive_error_string(job->reader), nullptr);
      return false;
    }
    first = false;
    if (entry_refused(entry, job->reason) || !within_budget(job, entry)) return false;
    if (archive_write_header(job->writer, entry) < ARCHIVE_WARN) {
      refuse(job->reason, archive_entry_pathname(entry), archive_error_string(job->writer));
      return false;
    }
    bool regular = archive_entry_hardlink(entry) == nullptr && archive_entry_filetype(entry) == AE_IFREG;
    if (regular && !copy_data(job, entry)) return false;
    if (archive_write_finish_entry(job->writer) < ARCHIVE_WARN) {
      refuse(job->reason, archive_entry_pathname(entry), archive_error_string(job->writer));
      return false;
    }
  }
}

uint64_t free_space(const char* path) {
  struct statvfs info;
  if (statvfs(path, &info) != 0) return 0;
  uint64_t available = static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
  return available > RUNENV_BUNDLE_SPARE ? available - RUNENV_BUNDLE_SPARE : 0;
}

// Unpacks with app/ as the working directory, so that every name libarchive
// writes is relative to it; the runtime's own working directory comes back
// before anything else happens.
bool unpack_inside(unpacking* job, const char* app_path) {
  int previous = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (previous < 0 || chdir(app_path) != 0) {
    bucket_appendv(job->reason, "app/ cannot be entered: ", strerror(errno), nullptr);
    if (previous >= 0) close(previous);
    return false;
  }
  bool unpacked = unpack_entries(job);
  if (fchdir(previous) != 0) {
    // Every relative path of the stack hangs on the working directory.
    perror("application-server-bootstrap: cannot return to the working directory");
    _exit(1);
  }
  close(previous);
  return unpacked;
}

}  // namespace

void runenv_append_quoted(bucket* reason, const char* text, size_t length) {
  bucket_push(reason, '"');
  for (size_t i = 0; i < length && i < kShownName; ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) {
      char escape[8];
      snprintf(escape, sizeof escape, "\\x%02x", byte);
      bucket_append(reason, escape);
      continue;
    }
    if (byte == '"' || byte == '\\') bucket_push(reason, '\\');
    bucket_push(reason, byte);
  }
  if (length > kShownName) bucket_append(reason, "...");
  bucket_push(reason, '"');
}

int runenv_bundle_unpack(const char* image_path, const char* app_path, bucket* reason) {
  archive* reader = archive_read_new();
  archive_read_support_format_tar(reader);
  archive_read_support_filter_gzip(reader);
  archive_read_support_filter_zstd(reader);
  if (archive_read_open_filename(reader, image_path, 64 * 1024) != ARCHIVE_OK) {
    archive_read_free(reader);
    return RUNENV_BUNDLE_NOT_ARCHIVE;
  }
  bucket app = fs_init(app_path);
  bool made = mkdir(app_path, 0755) == 0;
  if (!made) bucket_appendv(reason, "app/ cannot be made: ", strerror(errno), nullptr);
  archive* writer = archive_write_disk_new();
  archive_write_disk_set_options(writer, kDiskFlags);
  unpacking job{reader, writer, free_space(app_path), 0, reason};
  bool unpacked = made && unpack_inside(&job, app_path);
  archive_write_free(writer);
  archive_read_free(reader);
  if (!unpacked && made) fs_remove_recursive(&app);
  bucket_release(&app);
  return unpacked ? RUNENV_BUNDLE_UNPACKED : RUNENV_BUNDLE_REFUSED;
}
