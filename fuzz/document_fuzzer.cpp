// Reads arbitrary bytes as a document. Every line is read twice, in one
// pass where it allows and by trying every placement of its delimiters: the
// two readings must agree, value for value. The whole text is then checked
// as vantrel-doc checks a file: never a crash, a hang, a leak or undefined
// behaviour.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include "AdminDocument.h"
#include "InputFile.h"
#include "VantrelDoc.h"

namespace {

bool Same(const doc::Line& a, const doc::Line& b) {
  return a.type == b.type && a.kind == b.kind && a.present == b.present &&
         a.values == b.values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (std::size_t start = 0; start <= text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view row = text.substr(start, end - start);
    doc::Line plain, full;
    std::string plainReason, fullReason;
    const bool read = doc::ReadLine(row, plain, &plainReason, true);
    if (read != doc::ReadLine(row, full, &fullReason, false) ||
        (read ? !Same(plain, full) : plainReason != fullReason))
      std::abort();
    start = end + 1;
  }
  std::ostringstream out, err;
  const int rc = vdoc::DocCheck(WriteInput(data, size, ".xml"), out, err);
  if (rc != 0 && rc != 1) std::abort();
  return 0;
}
