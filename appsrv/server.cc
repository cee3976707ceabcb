#include "appsrv/server.h"

#include <cstdlib>
#include <ctime>

#include "appsrv/handler.h"
#include "appsrv/status.h"
#include "base/runtime.h"
#include "base/socket.h"
#include "base/sockpoll.h"
#include "protocol/appsrv_protocol_reply/appsrv_protocol_reply.h"
#include "protocol/appsrv_protocol_request/appsrv_protocol_request.h"
#include "stackman/stackman.h"

volatile sig_atomic_t appsrv_stop_counter = 0;

namespace {

constexpr int32_t kPollMilliseconds = 1000;

enum class Phase { normal, stop_requested };

// A handler invoked for a signal other than its own hands that signal back
// to its default action; only async-signal-safe calls happen here.
void store(int signal_number, int own, sig_atomic_t value) {
  if (signal_number != own) {
    signal(signal_number, SIG_DFL);
    raise(signal_number);
  }
  appsrv_stop_counter = value;
}

void force_stop() {
  runtime_log("AppSrv: Signaled to force stop!\n");
  // All stacks share one grace period, so the stop is bounded as a whole.
  stackman_killall();
}

// The first stop asks every running stack to shut down; a further signal
// kills their jobs; the daemon exits once no stack runs.
void act_on_stop(Phase& phase) {
  if (phase == Phase::normal) {
    if (appsrv_stop_counter == 0) return;
    runtime_log("AppSrv: Signaled to stop!\n");
    stackman_broadcast(STACKMAN_SHUTDOWN);
    appsrv_stop_counter = appsrv_stop_counter - 1;
    runtime_log("AppSrv: Signal again to force stop!\n");
    phase = Phase::stop_requested;
    return;
  }
  if (appsrv_stop_counter != 0) {
    force_stop();
    appsrv_stop_counter = appsrv_stop_counter - 1;
  }
  if (stackman_is_running() == 0) exit(0);
}

void open_listener(const image::application_server::root* parsed, socket_record* listener) {
  socket_address address{};
  if (socket_address_tcp(parsed->socket.tcp_ip, parsed->socket.tcp_port, &address) != 0) {
    runtime_err("AppSrv: Invalid TCP/IP: %s\n", socket_strerror(nullptr));
    exit(1);
  }
  if (socket_open(&address, 1, 1, listener) != 0) {
    runtime_err("AppSrv: Unable to open listening socket: %s\n", socket_strerror(nullptr));
    exit(1);
  }
}

void serve(socket_record* connection) {
  dympage* request_arena = image___appsrv_protocol_request___create_allocator_f();
  dympage* reply_arena = image___appsrv_protocol_reply___create_allocator_f();
  handle_request(connection, request_arena, reply_arena);
  image___appsrv_protocol_reply___destroy_allocator_f(reply_arena);
  image___appsrv_protocol_request___destroy_allocator_f(request_arena);
  socket_close(connection);
}

}  // namespace

void appsrv_on_sigint(int signal_number) { store(signal_number, SIGINT, 1); }
void appsrv_on_sigterm(int signal_number) { store(signal_number, SIGTERM, 2); }

void entry_point(const image::application_server::root* parsed) {
  int64_t started = time(nullptr);
  runtime_startup();
  stackman_open("./runenv", "./stacks", "./data");
  socket_record listener{};
  open_listener(parsed, &listener);
  sockpoll* poll_set = sockpoll_create();
  sockpoll_attach(poll_set, &listener);
  appsrv_status_open(&listener, started);
  appsrv_status_refresh(false);

  Phase phase = Phase::normal;
  socket_record connection{};
  for (;;) {
    act_on_stop(phase);
    stackman_loop();
    // The pass's work is done once the loop is about to wait: the snapshot
    // then shows the stop handling, the supervision and the connection
    // served just before.
    appsrv_status_refresh(phase == Phase::stop_requested);
    // A signal interrupts the wait; it counts as a timeout and the stop is
    // acted on at the top of the next pass.
    if (sockpoll_wait(poll_set, appsrv_status_wait(kPollMilliseconds)) == 0) continue;
    if (sockpoll_can_read(poll_set, &listener) != 1) continue;
    if (socket_accept(&listener, 0, &connection) != 0) {
      runtime_err("AppSrv: Unable to accept incoming connection: %s\n", socket_strerror(&listener));
      continue;
    }
    ++appsrv_counted.connections;
    serve(&connection);
  }
}
