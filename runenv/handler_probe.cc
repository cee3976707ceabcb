// A handler for the runtime's tests, run as an ELF application image: reads
// one line from its standard input, then writes what it was started with.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <unistd.h>

int main() {
  char line[1024] = "";
  if (fgets(line, sizeof line, stdin) != nullptr) line[strcspn(line, "\n")] = '\0';
  char cwd[4096];
  std::string descriptors;
  DIR* directory = opendir("/proc/self/fd");
  while (dirent* entry = directory != nullptr ? readdir(directory) : nullptr)
    if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(directory))
      descriptors += (descriptors.empty() ? "" : " ") + std::string(entry->d_name);
  if (directory != nullptr) closedir(directory);
  printf("line=%s\n", line);
  for (const char* name : {"APPSRV_STACK_NAME", "APPSRV_STACK_PATH", "APPSRV_STORE_PATH"})
    printf("%s=%s\n", name, getenv(name) != nullptr ? getenv(name) : "<unset>");
  printf("pwd=%s\nfds=%s\n", getcwd(cwd, sizeof cwd) != nullptr ? cwd : "?", descriptors.c_str());
  return 0;
}
