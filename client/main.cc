// appsrvctl: the management client of the appsrv daemon.
#include <cstdio>
#include <cstdlib>

#include "base/runtime.h"
#include "client/ctl_args.h"
#include "client/ctl_commands.h"

int main(int argc, char** argv) {
  // A daemon or a stack that goes away must give EPIPE, not end the client.
  runtime_startup();
  ctl_options options;
  ctl_environment environment{getenv("APPSRV_ADDRESS"), getenv("APPSRV_SSH"), getenv("APPSRV_WORKDIR")};
  switch (ctl_parse(argc, argv, environment, &options)) {
    case CTL_HELP:
      fputs(ctl_help_text(options.command), stdout);
      return CTL_OK;
    case CTL_VERSION:
      printf("appsrvctl %s\n", ctl_version);
      return CTL_OK;
    case CTL_USAGE:
      fprintf(stderr, "appsrvctl: %s\n%s\n", options.error, ctl_usage_line(options.command));
      return CTL_USAGE_ERROR;
    case CTL_RUN:
      break;
  }
  return ctl_run(&options);
}
