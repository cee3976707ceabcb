// runtime.json: what the runtime is doing, for the operator's tools. Written
// whole to a temporary name and renamed, so a reader sees the old state or
// the new one, never half of either.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "base/fs.h"
#include "base/text.h"
#include "runenv/runenv.h"

namespace {

const char* state_name(int32_t state) {
  switch (state) {
    case RUNENV_SERVICE_STARTING: return "starting";
    case RUNENV_SERVICE_RUNNING: return "running";
    case RUNENV_SERVICE_BACKOFF: return "backoff";
    default: return "stopped";
  }
}

std::string number_or_null(int64_t value, bool present) { return present ? std::to_string(value) : "null"; }

std::string service_json(const runenv_service* service) {
  std::string last_exit = "null";
  if (service->ended) {
    last_exit = "{\"code\": " + std::to_string(service->exit_code) + ", \"text\": ";
    text_append_json(&last_exit, service->exit_text);
    last_exit += ", \"at\": " + std::to_string(service->exit_at) + "}";
  }
  return "{\"pid\": " + number_or_null(service->pid, service->pid > 0) + ", \"state\": \"" +
         state_name(service->state) + "\", \"restarts\": " + std::to_string(service->restarts) +
         ", \"started\": " + number_or_null(service->started_at, service->started_at > 0) +
         ", \"last_exit\": " + last_exit + "}";
}

}  // namespace

void runenv_state_write(runenv_stack* stack) {
  bool service = stack->manifest.service_command.count > 0;
  std::string text = std::string("{\"mode\": \"") + (service ? "service" : "handler") +
                     "\", \"service\": " + (service ? service_json(&stack->service) : "null") +
                     ", \"handlers\": " + std::to_string(dymarray_size(&stack->handlers)) + "}\n";
  std::string path = bucket_cstring(&stack->state_path);
  std::string temporary = path + ".new";
  int descriptor = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool written = descriptor >= 0 && fs_write_all(descriptor, text.data(), text.size()) == 0;
  if (descriptor >= 0 && close(descriptor) != 0) written = false;
  if (written && rename(temporary.c_str(), path.c_str()) == 0) return;
  int error = errno;
  unlink(temporary.c_str());
  runenv_say(stack, RUNENV_LOG_ONLY, "runtime.json not written, %s", strerror(error));
}
