// Runs of the built binaries, for the test files of targets that define
// VANTREL_BINARY and VANTREL_DOC_BINARY.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "test_support.h"

namespace binaries {

// Runs vantrel-doc with args, KIV_ADMIN_STORE unset.
inline test_support::RunResult Doc(const std::vector<std::string>& args) {
  return test_support::Run(VANTREL_DOC_BINARY, args,
                           {{"KIV_ADMIN_STORE", std::nullopt}});
}

// Runs vantrel-doc with args, its standard input read from the file input.
inline test_support::RunResult DocFrom(const std::string& input,
                                       std::vector<std::string> args) {
  args.insert(args.begin(), {"-c", "f=$1; shift; exec \"$0\" \"$@\" <\"$f\"",
                             VANTREL_DOC_BINARY, input});
  return test_support::Run("/bin/sh", args,
                           {{"KIV_ADMIN_STORE", std::nullopt}});
}

// Runs vantrel-doc with args in a child of its own, its output to
// /dev/null; returns its pid.
inline pid_t Start(const std::vector<std::string>& args) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::freopen("/dev/null", "w", stdout);
    ::freopen("/dev/null", "w", stderr);
    std::vector<char*> argv = {const_cast<char*>(VANTREL_DOC_BINARY)};
    for (const std::string& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(VANTREL_DOC_BINARY, argv.data());
    ::_exit(127);
  }
  return child;
}

// The exit status of child, or -1 when a signal ended it.
inline int Wait(pid_t child) {
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Validates the JSON plan in the file plan against the shipped schema, then
// runs the Python statements asserts on it (as plan); status 0 when both
// hold, else the reason on standard error.
inline test_support::RunResult PlanChecked(const std::string& plan,
                                           const std::string& asserts) {
  return test_support::Run(
      "/usr/bin/python3",
      {"-c",
       "import json, sys, jsonschema\n"
       "plan = json.load(open(sys.argv[1]))\n"
       "jsonschema.validate(plan, json.load(open(sys.argv[2])))\n" +
           asserts,
       plan, SHARE_DIR "/vantrel-plan.schema.json"},
      {});
}

// Exports store ("" for the demonstration) to file with the built exporter,
// which must succeed; returns the document.
inline std::string Export(const std::string& store, const std::string& file) {
  std::optional<std::string> variable;
  if (!store.empty()) variable = store;
  const test_support::RunResult run = test_support::Run(
      VANTREL_BINARY, {"-f", file},
      {{"KIV_ADMIN_STORE", variable}, {"LUM_TRACE", std::nullopt}});
  EXPECT_EQ(run.status, 0) << run.err;
  return test_support::ReadFile(file);
}

}  // namespace binaries
