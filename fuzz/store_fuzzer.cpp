// Exports arbitrary bytes as an administration store: whatever the file
// holds, the export ends with status 0 or 1, never a crash, a hang, a leak
// or undefined behaviour.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "SdaiSession.h"
#include "Vantrel.h"

namespace {

// The store file of this process, rewritten for every input.
const std::string& StorePath() {
  static const std::string path = [] {
    const char* dir = std::getenv("TMPDIR");
    std::string p = std::string(dir ? dir : "/tmp") + "/vantrel-fuzz-" +
                    std::to_string(::getpid()) + ".db";
    ::setenv("KIV_ADMIN_STORE", p.c_str(), 1);
    std::atexit([] { std::remove(StorePath().c_str()); });
    return p;
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  {
    std::ofstream store(StorePath(), std::ios::binary | std::ios::trunc);
    store.write(reinterpret_cast<const char*>(data),
                static_cast<std::streamsize>(size));
  }
  std::streambuf* saved = std::cerr.rdbuf(nullptr);
  indent = 0;
  std::ofstream out("/dev/null");
  const int rc = ReadAdmin(&out);
  std::cerr.rdbuf(saved);
  if (rc != 0 && rc != 1) std::abort();
  // A failed export leaves its session open, as the tool's process would.
  if (SdaiSession* session = SdaiSession::CurrentSession())
    session->CloseSession();
  return 0;
}
