#include "client/ctl_bundle.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/ctl_commands.h"

namespace {

constexpr size_t kChunk = 64 * 1024;

bool fail(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

// One entry from lstat; links are kept as links, never followed.
bool describe(const std::string& path, const std::string& name, const struct stat& info, ctl_bundle_entry* entry,
              std::string* error) {
  *entry = ctl_bundle_entry{name, path, "", 'f', static_cast<uint32_t>(info.st_mode & 0777), info.st_mtime, 0, ""};
  if (S_ISDIR(info.st_mode)) return entry->kind = 'd', true;
  if (S_ISREG(info.st_mode)) return entry->size = static_cast<uint64_t>(info.st_size), true;
  if (!S_ISLNK(info.st_mode)) {
    const char* what = S_ISFIFO(info.st_mode) ? "a fifo" : S_ISSOCK(info.st_mode) ? "a socket" : "a device";
    return fail(error, "cannot pack " + ctl_quote(path.c_str()) + ": " + what);
  }
  entry->kind = 'l';
  entry->target.resize(static_cast<size_t>(info.st_size) + 1);
  ssize_t length = readlink(path.c_str(), entry->target.data(), entry->target.size());
  if (length < 0 || static_cast<size_t>(length) >= entry->target.size())
    return fail(error, "cannot pack " + ctl_quote(path.c_str()) + ": the link cannot be read");
  entry->target.resize(static_cast<size_t>(length));
  return true;
}

// Depth first, names sorted, so that both passes and every upload of the
// same tree pack the same bytes.
bool list_tree(const std::string& directory, const std::string& prefix, std::vector<ctl_bundle_entry>* entries,
               std::string* error) {
  DIR* listing = opendir(directory.c_str());
  if (listing == nullptr) return fail(error, "cannot read " + ctl_quote(directory.c_str()) + ": " + strerror(errno));
  std::vector<std::string> names;
  while (dirent* found = readdir(listing))
    if (strcmp(found->d_name, ".") != 0 && strcmp(found->d_name, "..") != 0) names.push_back(found->d_name);
  closedir(listing);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = directory + "/" + name;
    struct stat info;
    if (lstat(path.c_str(), &info) != 0)
      return fail(error, "cannot read " + ctl_quote(path.c_str()) + ": " + strerror(errno));
    entries->emplace_back();
    if (!describe(path, prefix + name, info, &entries->back(), error)) return false;
    if (S_ISDIR(info.st_mode) && !list_tree(path, prefix + name + "/", entries, error)) return false;
  }
  return true;
}

bool is_program(const std::string& path) {
  char head[4] = {};
  int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ssize_t got = descriptor >= 0 ? read(descriptor, head, sizeof head) : -1;
  if (descriptor >= 0) close(descriptor);
  return (got == 4 && memcmp(head, "\x7f" "ELF", 4) == 0) || (got >= 2 && head[0] == '#' && head[1] == '!');
}

// Where the archive's bytes go: the caller's sink, and whether it stopped.
struct output {
  const ctl_bundle_sink* sink;
  bool stopped;
};

la_ssize_t write_out(archive*, void* context, const void* data, size_t size) {
  auto* out = static_cast<output*>(context);
  if (!(*out->sink)(data, size)) {
    out->stopped = true;
    return -1;
  }
  return static_cast<la_ssize_t>(size);
}

// The file's bytes, or zeros of its size when only counting: the archive's
// length does not depend on what the data is.
bool write_data(archive* packer, const ctl_bundle_entry& entry, bool counting, std::string* error) {
  static const char zeros[kChunk] = {};
  if (!entry.contents.empty() || entry.source.empty())
    return archive_write_data(packer, entry.contents.data(), entry.contents.size()) >= 0 ||
           fail(error, archive_error_string(packer));
  int descriptor = counting ? -1 : open(entry.source.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat info{};
  if (!counting && (descriptor < 0 || fstat(descriptor, &info) != 0 ||
                    static_cast<uint64_t>(info.st_size) != entry.size)) {
    if (descriptor >= 0) close(descriptor);
    return fail(error, "cannot pack " + ctl_quote(entry.source.c_str()) + ": it changed while it was packed");
  }
  std::vector<char> buffer(counting ? 0 : kChunk);
  uint64_t done = 0;
  bool written = true;
  while (written && done < entry.size) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(kChunk, entry.size - done));
    ssize_t got = counting ? static_cast<ssize_t>(want) : read(descriptor, buffer.data(), want);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      written = fail(error, "cannot pack " + ctl_quote(entry.source.c_str()) + ": it changed while it was packed");
      break;
    }
    written = archive_write_data(packer, counting ? zeros : buffer.data(), static_cast<size_t>(got)) == got ||
              fail(error, archive_error_string(packer) != nullptr ? archive_error_string(packer) : "write failed");
    done += static_cast<uint64_t>(got);
  }
  if (descriptor >= 0) close(descriptor);
  return written;
}

// Owners are left at 0 and names out: they mean nothing on the server, and
// the bytes stay the same whoever packs.
bool write_entry(archive* packer, const ctl_bundle_entry& entry, bool counting, std::string* error) {
  archive_entry* header = archive_entry_new();
  archive_entry_set_pathname(header, entry.name.c_str());
  archive_entry_set_mtime(header, entry.mtime, 0);
  unsigned type = entry.kind == 'd' ? AE_IFDIR : entry.kind == 'l' ? AE_IFLNK : AE_IFREG;
  archive_entry_set_mode(header, type | entry.permissions);
  if (entry.kind == 'f') archive_entry_set_size(header, static_cast<la_int64_t>(entry.size));
  if (entry.kind == 'l') archive_entry_set_symlink(header, entry.target.c_str());
  bool written = archive_write_header(packer, header) >= ARCHIVE_WARN || fail(error, archive_error_string(packer));
  archive_entry_free(header);
  if (written && entry.kind == 'f') written = write_data(packer, entry, counting, error);
  return written;
}

int write_archive(const ctl_bundle* bundle, const ctl_bundle_sink& sink, bool counting, std::string* error) {
  error->clear();
  output out{&sink, false};
  archive* packer = archive_write_new();
  archive_write_set_format_pax_restricted(packer);
  bool written = archive_write_open(packer, &out, nullptr, write_out, nullptr) == ARCHIVE_OK;
  for (size_t i = 0; written && i < bundle->entries.size(); ++i)
    written = write_entry(packer, bundle->entries[i], counting, error);
  if (archive_write_close(packer) != ARCHIVE_OK) written = false;
  if (!written && error->empty() && !out.stopped)
    *error = archive_error_string(packer) != nullptr ? archive_error_string(packer) : "cannot pack the bundle";
  archive_write_free(packer);
  if (out.stopped) error->clear();
  return written ? 0 : -1;
}

int measure(ctl_bundle* bundle, std::string* error) {
  bundle->size = 0;
  auto count = [bundle](const void*, uint64_t size) { return bundle->size += size, true; };
  return write_archive(bundle, count, true, error);
}

// A TOML basic string: a JSON string literal is one, for valid UTF-8.
std::string manifest_for(const std::string& program) {
  return "# Made by appsrvctl upload --service: runs the program as the stack's service.\n"
         "[service]\n"
         "command = [" + ctl_json_string("./" + program) + "]\n";
}

}  // namespace

int ctl_bundle_directory(const char* directory, ctl_bundle* bundle, std::string* error) {
  *bundle = ctl_bundle{};
  std::string top = directory;
  struct stat info;
  if (lstat((top + "/appsrv.toml").c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    *error = "cannot pack " + ctl_quote(top.c_str()) + ": no appsrv.toml at its top";
    return -1;
  }
  if (!list_tree(top, "", &bundle->entries, error)) return -1;
  return measure(bundle, error);
}

int ctl_bundle_program(const char* path, ctl_bundle* bundle, std::string* error) {
  *bundle = ctl_bundle{};
  std::string source = path;
  std::string name = source.substr(source.find_last_of('/') + 1);
  struct stat info;
  const char* problem = nullptr;
  if (stat(path, &info) != 0) problem = strerror(errno);
  else if (S_ISDIR(info.st_mode)) problem = "a directory, which is uploaded without --service";
  else if (!S_ISREG(info.st_mode)) problem = "not a regular file";
  else if (!is_program(source)) problem = "neither an ELF program nor a \"#!\" script";
  else if (name == "appsrv.toml" || !ctl_utf8_valid(name)) problem = "its name cannot go into a manifest";
  if (problem != nullptr) {
    *error = "cannot wrap " + ctl_quote(source.c_str()) + ": " + problem;
    return -1;
  }
  std::string manifest = manifest_for(name);
  bundle->entries.push_back({"appsrv.toml", "", manifest, 'f', 0644, info.st_mtime, manifest.size(), ""});
  bundle->entries.push_back({name, source, "", 'f', 0755, info.st_mtime, static_cast<uint64_t>(info.st_size), ""});
  return measure(bundle, error);
}

int ctl_bundle_write(const ctl_bundle* bundle, const ctl_bundle_sink& sink, std::string* error) {
  return write_archive(bundle, sink, false, error);
}
