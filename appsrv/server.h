// The daemon's body: start-up, then the endless loop that acts on stop
// signals, supervises the stacks and serves one connection at a time.
#pragma once

#include <csignal>

#include "appsrv/cmdline.h"

// Written by the SIGINT (1) and SIGTERM (2) handlers; the loop tests it
// against 0 and decrements it by one when it acts on a stop.
extern volatile sig_atomic_t appsrv_stop_counter;

void appsrv_on_sigint(int signal_number);
void appsrv_on_sigterm(int signal_number);

// Never returns: the process ends with status 0 after a completed stop, or 1
// when the daemon cannot start.
[[noreturn]] void entry_point(const image::application_server::root* parsed);
