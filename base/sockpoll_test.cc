#include "base/sockpoll.h"

#include <arpa/inet.h>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
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
    sockaddr_in name{};
    socklen_t length = sizeof name;
    getsockname(sock.descriptor, reinterpret_cast<sockaddr*>(&name), &length);
    std::string port = std::to_string(ntohs(name.sin_port));
    EXPECT_EQ(socket_address_tcp("127.0.0.1", port.c_str(), &address), 0);
  }
  ~listener() { socket_close(&sock); }
};

struct poll_set {
  sockpoll* set = sockpoll_create();
  ~poll_set() { sockpoll_destroy(set); }
};

TEST(Sockpoll, EmptySetTimesOutAtOnce) {
  poll_set p;
  EXPECT_EQ(p.set->entries, nullptr);
  EXPECT_EQ(p.set->count, 0u);
  EXPECT_EQ(sockpoll_wait(p.set, 0), 0);
}

TEST(Sockpoll, DetachedSlotsAreReused) {
  poll_set p;
  listener a, b, c;
  sockpoll_attach(p.set, &a.sock);
  sockpoll_attach(p.set, &a.sock);  // already in the set: nothing happens
  EXPECT_EQ(p.set->count, 1u);
  sockpoll_attach(p.set, &b.sock);
  EXPECT_EQ(a.sock.poll_slot, 0u);
  EXPECT_EQ(b.sock.poll_slot, 1u);
  EXPECT_EQ(p.set->entries[1].fd, b.sock.descriptor);
  EXPECT_EQ(p.set->entries[1].events, POLLIN);

  sockpoll_detach(p.set, &a.sock);
  EXPECT_EQ(p.set->entries[0].fd, -1);
  EXPECT_EQ(a.sock.poll_slot, 0u);  // the socket keeps its old slot number
  sockpoll_attach(p.set, &c.sock);
  EXPECT_EQ(c.sock.poll_slot, 0u);
  EXPECT_EQ(p.set->count, 2u);
  EXPECT_EQ(p.set->entries[0].fd, c.sock.descriptor);
}

TEST(Sockpoll, PendingConnectionMakesTheListenerReadable) {
  poll_set p;
  listener quiet, busy;
  sockpoll_attach(p.set, &quiet.sock);
  sockpoll_attach(p.set, &busy.sock);
  EXPECT_EQ(sockpoll_wait(p.set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(p.set, &busy.sock), 0);

  socket_record client{};
  ASSERT_EQ(socket_open(&busy.address, 0, 1, &client), 0);
  EXPECT_EQ(sockpoll_wait(p.set, 1000), 1);
  EXPECT_EQ(sockpoll_can_read(p.set, &busy.sock), 1);
  EXPECT_EQ(sockpoll_can_read(p.set, &quiet.sock), 0);

  // Once detached, a free slot reports nothing, even across a wait.
  sockpoll_detach(p.set, &busy.sock);
  EXPECT_EQ(sockpoll_wait(p.set, 0), 0);
  EXPECT_EQ(sockpoll_can_read(p.set, &busy.sock), 0);
  socket_close(&client);
}

TEST(Sockpoll, NeverAttachedSocketIsMinusOne) {
  poll_set p;
  listener a, b;
  sockpoll_attach(p.set, &a.sock);
  EXPECT_EQ(sockpoll_can_read(p.set, &b.sock), -1);
}

volatile sig_atomic_t alarms = 0;
void on_alarm(int) { alarms = alarms + 1; }

TEST(Sockpoll, InterruptingSignalEndsTheWaitWithZero) {
  struct sigaction action{};
  action.sa_handler = on_alarm;  // no SA_RESTART, as the daemon installs its stop handlers
  struct sigaction previous{};
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  itimerval timer{};
  timer.it_value.tv_usec = 50 * 1000;
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
