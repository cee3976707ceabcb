// The daemon's entry. The main loop arrives with the server itself; for now
// the command line is parsed and checked.
#include "appsrv/cmdline.h"

int main(int argc, char** argv) {
  image::application_server::root parsed{};
  image::application_server::do_parse(argc, argv, &parsed);
  return 0;
}
