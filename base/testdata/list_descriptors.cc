// Test helper: prints the descriptor numbers this process was started with,
// ascending and separated by blanks, leaving out the one that reading the
// directory itself needs. Exit status 2 when the list cannot be read.
#include <dirent.h>
#include <cstdio>
#include <cstdlib>
#include <set>

int main() {
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return 2;
  std::set<int> numbers;
  while (dirent* entry = readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    int number = atoi(entry->d_name);
    if (number != dirfd(directory)) numbers.insert(number);
  }
  closedir(directory);
  const char* separator = "";
  for (int number : numbers) {
    printf("%s%d", separator, number);
    separator = " ";
  }
  printf("\n");
  return 0;
}
