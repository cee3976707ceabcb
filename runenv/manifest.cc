// A bundle's manifest appsrv.toml: read with toml++, checked key by key, and
// turned into the commands and environment the runtime starts.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

#include "base/runtime.h"
#include "runenv/runenv.h"

namespace {

// A manifest is a few lines; anything near this is not one, and reading it
// whole must not cost what an uploader chooses.
constexpr int64_t kLargestManifest = 64 * 1024;

// The first problem by line, so that the report points at the earliest one
// whatever order the checks ran in (toml++ keeps tables sorted by key).
struct problems {
  uint32_t line = 0;
  std::string text;
  bool any = false;

  void add(const toml::node& node, const std::string& what) { add(node.source().begin.line, what); }
  void add(uint32_t at, const std::string& what) {
    if (any && at >= line) return;
    any = true;
    line = at;
    text = what;
  }
};

std::string quoted(std::string_view text) {
  bucket reason{};
  runenv_append_quoted(&reason, text.data(), text.size());
  std::string out(bucket_cstring(&reason), reason.length);
  bucket_release(&reason);
  return out;
}

bool valid_variable_name(std::string_view name) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
  for (char c : name)
    if (!(c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) return false;
  return true;
}

bool is_stack_variable(std::string_view name) {
  return name == "APPSRV_STACK_NAME" || name == "APPSRV_STACK_PATH" || name == "APPSRV_STORE_PATH";
}

// A command word relative to app/ must be there: a service that cannot start
// would only fail again and again after its deployment was reported done.
bool in_bundle(const char* app_path, const std::string& word) {
  if (word.find('/') == std::string::npos || word[0] == '/') return true;
  std::string path = std::string(app_path) + "/" + word;
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & 0111) != 0;
}

// `command`: a non-empty array of strings without zero bytes, the first not
// empty. The words go into `words`.
void read_command(const char* app_path, const std::string& table, const toml::node& node, runenv_words* words,
                  problems* found) {
  std::string where = "[" + table + "] command: ";
  const toml::array* array = node.as_array();
  if (array == nullptr || array->empty()) return found->add(node, where + "expected a non-empty array of strings");
  for (const toml::node& element : *array) {
    const toml::value<std::string>* word = element.as_string();
    if (word == nullptr) return found->add(element, where + "expected a non-empty array of strings");
    const std::string& text = word->get();
    if (text.find('\0') != std::string::npos) return found->add(element, where + "a word holds a zero byte");
    if (words->count == 0 && text.empty()) return found->add(element, where + "the program is empty");
    runenv_words_push(words, text.data(), text.size());
  }
  const std::string program = words->items[0];
  if (!in_bundle(app_path, program))
    found->add(node, where + quoted(program) + " is not an executable file in the bundle");
}

const toml::table* as_section(const toml::node& node, std::string_view name, problems* found) {
  const toml::table* table = node.as_table();
  if (table == nullptr) found->add(node, "[" + std::string(name) + "] must be a table");
  return table;
}

void read_service(const char* app_path, const toml::table& table, runenv_manifest* manifest, problems* found) {
  bool has_command = false;
  for (const auto& [key, node] : table) {
    std::string_view name = key.str();
    if (name == "command") {
      has_command = true;
      read_command(app_path, "service", node, &manifest->service_command, found);
    } else if (name == "restart") {
      const toml::value<std::string>* value = node.as_string();
      std::string_view text = value != nullptr ? std::string_view(value->get()) : "";
      if (text == "on-failure") manifest->restart = RUNENV_RESTART_ON_FAILURE;
      else if (text == "always") manifest->restart = RUNENV_RESTART_ALWAYS;
      else if (text == "never") manifest->restart = RUNENV_RESTART_NEVER;
      else found->add(node, "[service] restart: expected \"always\", \"on-failure\" or \"never\"");
    } else if (name == "stop-timeout") {
      const toml::value<int64_t>* value = node.as_integer();
      if (value == nullptr || value->get() < 1 || value->get() > RUNENV_STOP_TIMEOUT_MAX_S)
        found->add(node, "[service] stop-timeout: expected whole seconds from 1 to 30");
      else
        manifest->stop_timeout_s = static_cast<uint32_t>(value->get());
    } else {
      found->add(key.source().begin.line, "[service] unknown key " + quoted(name));
    }
  }
  if (!has_command) found->add(table, "[service] command missing");
}

void read_handler(const char* app_path, const toml::table& table, runenv_manifest* manifest, problems* found) {
  bool has_command = false;
  for (const auto& [key, node] : table) {
    if (key.str() == "command") {
      has_command = true;
      read_command(app_path, "handler", node, &manifest->handler_command, found);
    } else {
      found->add(key.source().begin.line, "[handler] unknown key " + quoted(key.str()));
    }
  }
  if (!has_command) found->add(table, "[handler] command missing");
}

void read_env(const toml::table& table, runenv_manifest* manifest, problems* found) {
  for (const auto& [key, node] : table) {
    std::string_view name = key.str();
    uint32_t line = key.source().begin.line;
    if (!valid_variable_name(name)) {
      found->add(line, "[env] " + quoted(name) + " is not a variable name");
      continue;
    }
    if (is_stack_variable(name)) {
      found->add(line, "[env] " + std::string(name) + " is set by the runtime");
      continue;
    }
    const toml::value<std::string>* value = node.as_string();
    if (value == nullptr || value->get().find('\0') != std::string::npos) {
      found->add(node, "[env] " + std::string(name) + ": expected a string without zero bytes");
      continue;
    }
    std::string entry = std::string(name) + "=" + value->get();
    runenv_words_push(&manifest->environment, entry.data(), entry.size());
  }
}

void read_manifest(const char* app_path, const toml::table& root, runenv_manifest* manifest, problems* found) {
  bool service = false;
  bool handler = false;
  for (const auto& [key, node] : root) {
    std::string_view name = key.str();
    const toml::table* table = nullptr;
    if (name != "service" && name != "handler" && name != "env") {
      found->add(key.source().begin.line, "unknown table [" + std::string(name) + "]");
    } else if ((table = as_section(node, name, found)) == nullptr) {
    } else if (name == "service") {
      service = true;
      read_service(app_path, *table, manifest, found);
    } else if (name == "handler") {
      handler = true;
      read_handler(app_path, *table, manifest, found);
    } else {
      read_env(*table, manifest, found);
    }
  }
  if (!found->any && !service && !handler) found->add(0u, "needs a [service] or a [handler] table");
}

// The manifest file, or a reason why it cannot be one. A link is refused
// rather than followed: the manifest is a file of the bundle's own.
bool read_text(const std::string& path, std::string* text, bucket* reason) {
  int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  struct stat info {};
  const char* problem = nullptr;
  if (descriptor < 0) problem = errno == ENOENT ? "missing at the top of the bundle" : "is not a regular file";
  else if (fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) problem = "is not a regular file";
  else if (info.st_size > kLargestManifest) problem = "larger than 64 KiB";
  text->resize(problem == nullptr ? static_cast<size_t>(info.st_size) : 0);
  size_t got = 0;
  while (problem == nullptr && got < text->size()) {
    ssize_t n = read(descriptor, text->data() + got, text->size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) problem = "cannot be read";
    else got += static_cast<size_t>(n);
  }
  if (descriptor >= 0) close(descriptor);
  if (problem != nullptr) bucket_appendv(reason, "appsrv.toml ", problem, nullptr);
  return problem == nullptr;
}

}  // namespace

void runenv_words_push(runenv_words* words, const char* text, uint64_t length) {
  words->items = static_cast<char**>(runtime_realloc(words->items, (words->count + 2) * sizeof(char*)));
  char* copy = static_cast<char*>(runtime_malloc(length + 1));
  memcpy(copy, text, length);
  copy[length] = '\0';
  words->items[words->count++] = copy;
  words->items[words->count] = nullptr;
}

void runenv_words_release(runenv_words* words) {
  for (uint32_t i = 0; i < words->count; ++i) free(words->items[i]);
  free(words->items);
  *words = runenv_words{};
}

int runenv_manifest_load(const char* app_path, runenv_manifest* manifest, bucket* reason) {
  *manifest = runenv_manifest{};
  manifest->restart = RUNENV_RESTART_ON_FAILURE;
  manifest->stop_timeout_s = RUNENV_STOP_TIMEOUT_DEFAULT_S;
  std::string text;
  if (!read_text(std::string(app_path) + "/appsrv.toml", &text, reason)) return -1;
  problems found;
  try {
    toml::table root = toml::parse(std::string_view(text), std::string_view("appsrv.toml"));
    read_manifest(app_path, root, manifest, &found);
  } catch (const toml::parse_error& error) {
    found.add(error.source().begin.line, std::string(error.description()));
  }
  if (!found.any) return 0;
  runenv_manifest_release(manifest);
  char line[32] = ": ";  // a problem of the whole file has no line
  if (found.line != 0) snprintf(line, sizeof line, " line %u: ", found.line);
  bucket_appendv(reason, "appsrv.toml", line, found.text.c_str(), nullptr);
  return -1;
}

void runenv_manifest_release(runenv_manifest* manifest) {
  runenv_words_release(&manifest->service_command);
  runenv_words_release(&manifest->handler_command);
  runenv_words_release(&manifest->environment);
}
