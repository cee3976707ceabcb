// The daemon's entry: parse the command line, install the stop handlers and
// run the server, which never returns.
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>

#include "appsrv/cmdline.h"
#include "appsrv/server.h"

namespace {

// No SA_RESTART: a stop signal ends a blocking poll or receive at once.
void install(int signal_number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(signal_number, &action, nullptr);
}

// Descriptors left open by whoever started the daemon would otherwise pass
// on to every stack; only the standard three are the daemon's to share.
void seal_inherited_descriptors() {
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return;
  int own = dirfd(directory);
  while (dirent* entry = readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    int number = atoi(entry->d_name);
    if (number > 2 && number != own) fcntl(number, F_SETFD, FD_CLOEXEC);
  }
  closedir(directory);
}

}  // namespace

int main(int argc, char** argv) {
  image::application_server::root parsed{};
  image::application_server::do_parse(argc, argv, &parsed);
  seal_inherited_descriptors();
  install(SIGINT, appsrv_on_sigint);
  install(SIGTERM, appsrv_on_sigterm);
  entry_point(&parsed);
}
