// What an upload costs, measured on the real daemon over loopback TCP: a
// 1 KiB image until the new stack answers (median), 256 MiB and 1 GiB end to
// end (connect until the stack's answer), the daemon's resident memory idle
// and at its peak during the 1 GiB uploads, and, in the same run on the same
// bytes, the machine's serial limit: one thread that receives the image over
// loopback, digests it with SHA-256, writes it to a file beside the daemon's
// data root and syncs it once at the end.
//
// Usage: upload_bench [--daemon PATH] [--versus PATH] [--bootstrap PATH] [--repeat N] [--under DIR]
// The daemon defaults to this build's appsrv, so a build of another revision
// can be measured with the same client; --versus runs a second daemon whose
// 1 KiB uploads alternate with the first one's, so that both see the same
// disk at the same moments (a shared machine's fsync latency drifts more
// than the two differ). It runs in a fresh working directory
// under /tmp (or DIR: a tmpfs there takes the disk out of the figures) with
// the test bootstrap as every stack's program. Before every large run the
// disk is synced and left alone for a moment, so that no run pays for the
// write-back or the discards of the one before it.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/hash.h"
#include "tests/support/daemon.h"

using namespace e2e;

namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr int kSmallUploads = 40;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::string image_of(uint64_t size) {
  std::string image(size, '\0');
  uint64_t state = 0x9e3779b97f4a7c15;
  for (uint64_t i = 0; i + 8 <= size; i += 8) {
    state = state * 6364136223846793005 + 1442695040888963407;
    memcpy(&image[i], &state, 8);
  }
  return image;
}

// A working directory with the bootstrap and the daemon started in it.
struct BenchDaemon {
  std::string dir;
  pid_t pid = -1;
  uint16_t port = 0;

  BenchDaemon(const std::string& binary, const std::string& bootstrap, const std::string& under) {
    std::string pattern = under + "/appsrv-upload-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    dir = pattern;
    for (const char* directory : {"/runenv/image", "/runenv/test-control", "/data"}) make_tree(dir + directory);
    if (symlink(bootstrap.c_str(), (dir + "/runenv/image/application-server-bootstrap").c_str()) != 0) abort();
    write_file(dir + "/runenv/test-control/default", "marker\n");
    port = free_port();
    pid = fork();
    if (pid == 0) {
      if (chdir(dir.c_str()) != 0) _exit(127);
      int quiet = open("/dev/null", O_WRONLY);
      dup2(quiet, 1);
      execl(binary.c_str(), binary.c_str(), "127.0.0.1", std::to_string(port).c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    if (!eventually([&] { return Connection(port).connected(); })) {
      fprintf(stderr, "the daemon %s did not start\n", binary.c_str());
      exit(1);
    }
  }
  ~BenchDaemon() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    if (system(("rm -rf '" + dir + "'").c_str()) != 0) fprintf(stderr, "could not remove %s\n", dir.c_str());
  }

  // A field of /proc/PID/status in MiB (VmRSS, VmHWM).
  double memory(const char* field) const {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find(std::string(field) + ":");
    return at == std::string::npos ? -1 : atof(status.c_str() + at + strlen(field) + 1) / 1024;
  }
  // From here VmHWM is the peak of what follows.
  void reset_peak() const { write_file("/proc/" + std::to_string(pid) + "/clear_refs", "5"); }

  // Seconds from connecting until the new stack answers; < 0 on failure.
  double upload(const std::string& name, const std::string& image) const {
    auto start = std::chrono::steady_clock::now();
    Connection connection(port, 120);
    if (!connection.send(frame(encode_upload(name, static_cast<int64_t>(image.size())))) ||
        !connection.send(image) || connection.line() != "deployed " + name)
      return -1;
    double took = seconds_since(start);
    ask(port, encode_delete(name));
    return took;
  }
};

// One thread: receive over loopback, SHA-256, write, one fsync at the end.
double serial_limit(const std::string& image, const std::string& dir) {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 1) != 0) abort();
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);

  auto start = std::chrono::steady_clock::now();
  std::thread sender([&] { Connection(ntohs(address.sin_port)).send(image); });
  int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  std::string path = dir + "/serial-limit";
  int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  std::vector<uint8_t> buffer(kMiB);
  hash_context context;
  hash_open(&context, HASH_SHA256);
  for (uint64_t left = image.size(); left > 0;) {
    uint64_t fill = 0, want = std::min<uint64_t>(buffer.size(), left);
    while (fill < want) {
      ssize_t got = recv(connection, buffer.data() + fill, want - fill, 0);
      if (got <= 0) abort();
      fill += static_cast<uint64_t>(got);
    }
    hash_write(&context, buffer.data(), fill);
    if (write(file, buffer.data(), fill) != static_cast<ssize_t>(fill)) abort();
    left -= fill;
  }
  if (fsync(file) != 0) abort();
  double took = seconds_since(start);
  uint8_t digest[HASH_SHA256_SIZE];
  hash_close(&context, digest);
  sender.join();
  close(file);
  close(connection);
  close(listener);
  unlink(path.c_str());
  return took;
}

double gigabytes_per_second(uint64_t bytes, double seconds) { return static_cast<double>(bytes) / seconds / 1e9; }

void settle() {
  sync();
  sleep(2);
}

}  // namespace

int main(int argc, char** argv) {
  std::string binary = APPSRV_BINARY, versus_binary, bootstrap = TEST_BOOTSTRAP, under = "/tmp";
  int repeat = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string option = argv[i];
    if (option == "--daemon") binary = argv[i + 1];
    else if (option == "--versus") versus_binary = argv[i + 1];
    else if (option == "--bootstrap") bootstrap = argv[i + 1];
    else if (option == "--repeat") repeat = std::max(1, atoi(argv[i + 1]));
    else if (option == "--under") under = argv[i + 1];
  }
  signal(SIGPIPE, SIG_IGN);
  BenchDaemon daemon(binary, bootstrap, under);
  printf("daemon %s\n", binary.c_str());
  double idle = daemon.memory("VmRSS");

  std::vector<const BenchDaemon*> daemons = {&daemon};
  std::unique_ptr<BenchDaemon> versus;
  if (!versus_binary.empty()) daemons.push_back((versus = std::make_unique<BenchDaemon>(versus_binary, bootstrap, under)).get());
  std::vector<std::vector<double>> small(daemons.size());
  const std::string kib = image_of(1024);
  for (int i = 0; i < kSmallUploads; ++i)
    for (size_t d = 0; d < daemons.size(); ++d) small[d].push_back(daemons[d]->upload("small" + std::to_string(i), kib));
  for (size_t d = 0; d < daemons.size(); ++d) {
    if (*std::min_element(small[d].begin(), small[d].end()) < 0) return fprintf(stderr, "a 1 KiB upload failed\n"), 1;
    printf("1 KiB until the stack answers: median %.2f ms of %d%s\n", median(small[d]) * 1000, kSmallUploads,
           d == 0 ? "" : (", alternating with the first: " + versus_binary).c_str());
  }
  versus.reset();

  double peak = 0;
  for (uint64_t size : {256 * kMiB, 1024 * kMiB}) {
    const std::string image = image_of(size);
    std::vector<double> daemon_runs, serial_runs;
    for (int i = 0; i < repeat; ++i) {
      settle();
      daemon.reset_peak();
      daemon_runs.push_back(daemon.upload("large" + std::to_string(i), image));
      if (size == 1024 * kMiB) peak = std::max(peak, daemon.memory("VmHWM"));
      settle();
      serial_runs.push_back(serial_limit(image, daemon.dir));
    }
    if (*std::min_element(daemon_runs.begin(), daemon_runs.end()) < 0)
      return fprintf(stderr, "a %llu MiB upload failed\n", static_cast<unsigned long long>(size / kMiB)), 1;
    double daemon_rate = gigabytes_per_second(size, median(daemon_runs));
    double serial_rate = gigabytes_per_second(size, median(serial_runs));
    double daemon_best = gigabytes_per_second(size, *std::min_element(daemon_runs.begin(), daemon_runs.end()));
    double serial_best = gigabytes_per_second(size, *std::min_element(serial_runs.begin(), serial_runs.end()));
    printf("%4llu MiB end to end: %.2f GB/s (best %.2f); serial limit %.2f GB/s (best %.2f); ratio %.2f (best %.2f);"
           " medians of %d\n",
           static_cast<unsigned long long>(size / kMiB), daemon_rate, daemon_best, serial_rate, serial_best,
           daemon_rate / serial_rate, daemon_best / serial_best, repeat);
  }
  printf("daemon RSS: idle %.1f MiB, peak during the 1 GiB uploads %.1f MiB (+%.1f MiB)\n", idle, peak, peak - idle);
  return 0;
}
