// Bundles packed on the fly for upload: a directory that holds appsrv.toml,
// or one executable wrapped with a manifest that runs it as the service.
// The archive is a plain tar, and packing is deterministic: the request
// announces the size of a first, counting pass, and the same entries are then
// streamed behind it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct ctl_bundle_entry {
  std::string name;  // inside the bundle
  std::string source;  // the file on disk; empty for generated contents
  std::string contents;  // a generated file (the wrapper's manifest)
  char kind;  // 'f' file, 'd' directory, 'l' symbolic link
  uint32_t permissions;
  int64_t mtime;  // seconds
  uint64_t size;  // of a file
  std::string target;  // of a link
};

struct ctl_bundle {
  std::vector<ctl_bundle_entry> entries;  // in the order they are packed
  uint64_t size;  // of the whole archive
};

// The directory's tree (links kept as links), measured. 0, or -1 with
// `error` saying what cannot be packed: no appsrv.toml at its top, a fifo,
// socket or device, an unreadable entry.
int ctl_bundle_directory(const char* directory, ctl_bundle* bundle, std::string* error);
// The program at `path` and a manifest whose [service] runs it, measured.
// 0, or -1 with `error`: not an ELF program or "#!" script, a name that
// cannot go into the manifest.
int ctl_bundle_program(const char* path, ctl_bundle* bundle, std::string* error);

// Takes the archive's bytes in order; false stops the packing.
using ctl_bundle_sink = std::function<bool(const void* data, uint64_t size)>;
// Packs the bundle into `sink`, reading its files anew: one that changed
// since it was measured is refused. 0, or -1 with `error` (left empty when
// the sink stopped it).
int ctl_bundle_write(const ctl_bundle* bundle, const ctl_bundle_sink& sink, std::string* error);
