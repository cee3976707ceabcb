// The subcommands of appsrvctl. Each returns the exit status and writes its
// own messages: data on standard output, every message on standard error as
// "appsrvctl: ADDRESS: TEXT" (or the working directory for the commands
// that read it).
#pragma once

#include <string>

#include "client/ctl_args.h"
#include "client/ctl_wire.h"
#include "protocol/management.h"

int ctl_run(const ctl_options* options);

int ctl_run_list(const ctl_options* options);
int ctl_run_delete(const ctl_options* options);
int ctl_run_rename(const ctl_options* options);
int ctl_run_upload(const ctl_options* options);  // ctl_upload.cc
int ctl_run_select(const ctl_options* options);  // ctl_select.cc
// Read the daemon's working directory, here or through ctl_ssh_run.
int ctl_run_status(const ctl_options* options);  // ctl_status.cc
int ctl_run_logs(const ctl_options* options);  // ctl_logs.cc
int ctl_run_metrics(const ctl_options* options);  // ctl_metrics.cc

// Writes "appsrvctl: ADDRESS: " and the formatted text with a newline on
// standard error.
void ctl_report(const ctl_options* options, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes "appsrvctl: " and the formatted text with a newline on standard
// error: for what is found wrong before anything is sent, so that no address
// is named as if the daemon had answered.
void ctl_report_local(const char* format, ...) __attribute__((format(printf, 1, 2)));

// True when `name` is a valid stack name; otherwise reports "what: reason"
// (the vocabulary's reason, "invalid name" unless given) as found before
// anything was sent. The caller then ends with CTL_FAILED.
bool ctl_name_checked(const std::string& what, const char* name, const char* reason = MANAGEMENT_INVALID_NAME);

// Sends all of `size` bytes, going on after interrupted sends, without
// SIGPIPE; false when the socket refuses them.
bool ctl_send_all(int socket, const char* bytes, size_t size);

// A name as it appears in messages: single-quoted and terminal-safe.
std::string ctl_quote(const char* name);

// Connects, sends the request and reads the one reply. 0 with `reply`
// filled, or the status to end with after reporting "what: fault".
int ctl_exchange(const ctl_options* options, const std::string& what, const std::string& request,
                 ctl_reply* reply);

// Ends a command on a fault of the exchange: reports "what: fault" and the
// fault's hint, returns its status.
int ctl_report_fault(const ctl_options* options, const std::string& what, const ctl_fault& fault);

// Ends a command on a failure reply: reports `what: reason`, returns its status.
int ctl_report_failure(const ctl_options* options, const std::string& what, const ctl_reply* reply);
