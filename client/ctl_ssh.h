// appsrvctl through SSH: the management protocol carried by `ssh -W` to the
// daemon's port as the SSH host sees it, and the commands that read the
// daemon's working directory run by appsrvctl on that host. ssh is the
// system's OpenSSH client from PATH, never asking anything (BatchMode);
// APPSRV_SSH_OPTIONS adds options of the operator's own (words split at
// white space), put first so that they win over appsrvctl's.
#pragma once

#include "client/ctl_args.h"
#include "client/ctl_wire.h"

// Starts ssh -W with one end of a socketpair as its standard input and
// output and gives the other end to `sock`, which then carries the protocol
// as a TCP connection would. 0, or -1 with the fault when ssh cannot be
// started. Only the latest such ssh is remembered.
int ctl_ssh_connect(const ctl_address* address, uint32_t timeout_ms, socket_record* sock, ctl_fault* fault);

// For a connection that ended without what was expected: when it was the
// latest one made through ssh and ssh itself failed (status 255), the fault
// becomes ssh's own words, status 5. Otherwise the fault stays as it is.
void ctl_ssh_explain(ctl_fault* fault);

// Runs appsrvctl on the SSH host with the same command, operands and options
// (--workdir only when given as an option), its output and messages passed
// through as they come. Its exit status, or 5 after a message when ssh or
// appsrvctl could not run there.
int ctl_ssh_run(const ctl_options* options);
