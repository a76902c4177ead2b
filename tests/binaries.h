// Runs of the built binaries, for the test files of targets that define
// VANTREL_BINARY and VANTREL_DOC_BINARY.
#pragma once

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
  return test_support::Run("/bin/sh", args, {{"KIV_ADMIN_STORE", std::nullopt}});
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
