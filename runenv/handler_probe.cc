// A handler for the runtime's tests, run as an ELF application image: reads
// one line from its standard input, then writes what it was started with.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <unistd.h>

namespace {

std::string open_descriptors() {
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return "?";
  int own = dirfd(directory);
  std::string list;
  while (dirent* entry = readdir(directory)) {
    if (entry->d_name[0] == '.' || atoi(entry->d_name) == own) continue;
    list += (list.empty() ? "" : " ") + std::string(entry->d_name);
  }
  closedir(directory);
  return list;
}

const char* variable(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "<unset>";
}

}  // namespace

int main() {
  char line[1024] = "";
  if (fgets(line, sizeof line, stdin) != nullptr) line[strcspn(line, "\n")] = '\0';
  char cwd[4096] = "";
  if (getcwd(cwd, sizeof cwd) == nullptr) strcpy(cwd, "?");
  printf("line=%s\n", line);
  printf("name=%s\n", variable("APPSRV_STACK_NAME"));
  printf("stack=%s\n", variable("APPSRV_STACK_PATH"));
  printf("store=%s\n", variable("APPSRV_STORE_PATH"));
  printf("pwd=%s\n", cwd);
  printf("fds=%s\n", open_descriptors().c_str());
  return 0;
}
