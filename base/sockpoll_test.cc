#include "base/sockpoll.h"

#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>

#include "base/runtime.h"
#include "base/socket.h"

namespace {

// A listening loopback socket on a kernel-chosen port.
struct listener {
  socket_record sock{};
  socket_address address{};
  listener() {
    EXPECT_EQ(socket_address_tcp("127.0.0.1", "0", &address), 0);
    EXPECT_EQ(socket_open(&address, 1, 1, &sock), 0);
    socklen_t length = sizeof address.storage;
    getsockname(sock.descriptor, reinterpret_cast<sockaddr*>(address.storage), &length);
  }
  ~listener() { socket_close(&sock); }
};

struct poll_set {
  sockpoll* set = sockpoll_create();
  ~poll_set() { sockpoll_destroy(set); }
};

TEST(Sockpoll, DetachedSlotsAreReusedAndReportNothing) {
  poll_set p;
  listener a, b, c, never;
  EXPECT_EQ(sockpoll_wait(p.set, 0), 0) << "an empty set times out at once";
  sockpoll_attach(p.set, &a.sock);
  sockpoll_attach(p.set, &a.sock);  // already in the set: nothing happens
  sockpoll_attach(p.set, &b.sock);
  EXPECT_EQ(p.set->count, 2u);
  EXPECT_EQ(b.sock.poll_slot, 1u);
  EXPECT_EQ(p.set->entries[1].fd, b.sock.descriptor);
  EXPECT_EQ(p.set->entries[1].events, POLLIN);
  EXPECT_EQ(sockpoll_can_read(p.set, &never.sock), -1) << "never attached";
  EXPECT_EQ(sockpoll_wait(p.set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(p.set, &b.sock), 0);

  socket_record client{};
  ASSERT_EQ(socket_open(&a.address, 0, 1, &client), 0);
  EXPECT_EQ(sockpoll_wait(p.set, 1000), 1);
  EXPECT_EQ(sockpoll_can_read(p.set, &a.sock), 1);
  EXPECT_EQ(sockpoll_can_read(p.set, &b.sock), 0);

  // Once detached, a free slot reports nothing, even across a wait.
  sockpoll_detach(p.set, &a.sock);
  EXPECT_EQ(sockpoll_wait(p.set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(p.set, &a.sock), 0);
  sockpoll_attach(p.set, &c.sock);
  EXPECT_EQ(c.sock.poll_slot, 0u);
  EXPECT_EQ(p.set->count, 2u);
  EXPECT_EQ(p.set->entries[0].fd, c.sock.descriptor);
  socket_close(&client);
}

TEST(Sockpoll, InterruptingSignalEndsTheWaitWithZero) {
  static volatile sig_atomic_t alarms = 0;
  struct sigaction action{}, previous{};
  action.sa_handler = [](int) { alarms = alarms + 1; };  // no SA_RESTART, as the daemon installs its stop handlers
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  itimerval timer{{0, 0}, {0, 50 * 1000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
  poll_set p;
  listener a;
  sockpoll_attach(p.set, &a.sock);
  int64_t started = runtime_getclock();
  EXPECT_EQ(sockpoll_wait(p.set, 5000), 0);
  EXPECT_LT(runtime_getclock() - started, 2500);
  EXPECT_EQ(alarms, 1);
  sigaction(SIGALRM, &previous, nullptr);
}

}  // namespace
