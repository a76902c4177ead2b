// Exports arbitrary bytes as an administration store: whatever the file
// holds, the export ends with status 0 or 1, never a crash, a hang, a leak
// or undefined behaviour.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "InputFile.h"
#include "SdaiSession.h"
#include "Vantrel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  ::setenv("KIV_ADMIN_STORE", WriteInput(data, size, ".db").c_str(), 1);
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
