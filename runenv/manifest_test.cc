#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

#include "runenv/runenv.h"
#include "tests/support/scratch_dir.h"

namespace {

// A bundle's top with an executable and a file that is not one.
class Manifest : public InScratchDir {
 protected:
  Manifest() {
    write_file("server", "#!/bin/sh\n");
    chmod("server", 0755);
    write_file("notes", "not a program\n");
  }

  // The reason, or "" when the manifest was taken.
  std::string load(const std::string& text, runenv_manifest* manifest) {
    write_file("appsrv.toml", text);
    bucket reason{};
    int result = runenv_manifest_load(root_, manifest, &reason);
    std::string said = result == 0 ? "" : bucket_cstring(&reason);
    EXPECT_EQ(result != 0, !said.empty()) << text;
    bucket_release(&reason);
    return said;
  }
};

TEST_F(Manifest, TakesEveryKeyAndFallsBackToTheDefaults) {
  runenv_manifest manifest;
  ASSERT_EQ(load("[service]\ncommand = [\"./server\", \"--port\", \"8080\"]\nrestart = \"never\"\nstop-timeout = 30\n"
                 "[handler]\ncommand = [\"cat\"]\n[env]\nGREETING = \"hello world\"\nempty = \"\"\n",
                 &manifest),
            "");
  EXPECT_STREQ(manifest.service_command.items[2], "8080");
  EXPECT_EQ(manifest.stop_timeout_s, 30u);
  ASSERT_EQ(manifest.environment.count, 2u);
  EXPECT_STREQ(manifest.environment.items[0], "GREETING=hello world");
  runenv_manifest_release(&manifest);

  ASSERT_EQ(load("[service]\ncommand = [\"sleep\", \"1\"]\n", &manifest), "");
  EXPECT_EQ(manifest.stop_timeout_s, RUNENV_STOP_TIMEOUT_DEFAULT_S);
  runenv_manifest_release(&manifest);
}

TEST_F(Manifest, RefusesWithTheFirstProblemAndItsLine) {
  const std::string service = "[service]\ncommand = [\"./server\"]\n";
  const std::pair<std::string, std::string> cases[] = {
      {"[service]\ncommand = [\"./missing\"]\n", " line 2: [service] command: \"./missing\" is not an executable file in the bundle"},
      {"[handler]\ncommand = [\"./notes\"]\n", " line 2: [handler] command: \"./notes\" is not an executable file in the bundle"},
      {"[service]\ncommand = []\n", " line 2: [service] command: expected a non-empty array of strings"},
      {"[service]\ncommand = [\n  \"./server\",\n  3,\n]\n", " line 4: [service] command: expected a non-empty array of strings"},
      {"[service]\ncommand = [\"\"]\n", " line 2: [service] command: the program is empty"},
      {service + "restart = \"sometimes\"\n", " line 3: [service] restart: expected \"always\", \"on-failure\" or \"never\""},
      {service + "stop-timeout = 31\n", " line 3: [service] stop-timeout: expected whole seconds from 1 to 30"},
      {service + "stop-timeout = 2.5\n", " line 3: [service] stop-timeout: expected whole seconds from 1 to 30"},
      {service + "user = \"root\"\n", " line 3: [service] unknown key \"user\""},
      {"[handler]\n", " line 1: [handler] command missing"},
      {service + "[web]\nport = 1\n", " line 3: unknown table [web]"},
      {"service = 3\n", " line 1: [service] must be a table"},
      {"[env]\nA = \"1\"\n", ": needs a [service] or a [handler] table"},
      {service + "[env]\n\"NOT A NAME\" = \"x\"\n", " line 4: [env] \"NOT A NAME\" is not a variable name"},
      {service + "[env]\nAPPSRV_STACK_NAME = \"x\"\n", " line 4: [env] APPSRV_STACK_NAME is set by the runtime"},
      {service + "[env]\nN = 1\n", " line 4: [env] N: expected a string without zero bytes"},
      // Tables are kept sorted by key; the report still names the earliest line.
      {"[service]\nrestart = \"x\"\ncommand = 5\n", " line 2: [service] restart: expected \"always\", \"on-failure\" or \"never\""},
  };
  for (const auto& [text, reason] : cases) {
    runenv_manifest manifest;
    EXPECT_EQ(load(text, &manifest), "appsrv.toml" + reason) << text;
    EXPECT_EQ(manifest.service_command.count + manifest.environment.count, 0u) << "released on refusal";
  }
  runenv_manifest manifest;
  EXPECT_EQ(load(service + "[service\n", &manifest).rfind("appsrv.toml line 3: ", 0), 0u) << "a syntax error";
}

}  // namespace
