#include "Lum.h"

#include "LumKivTrace.h"

LumUnicodeString::LumUnicodeString(const char* text)
    : text_(text ? text : "") {}

LumUnicodeString& LumUnicodeString::operator=(const char* text) {
  text_ = text ? text : "";
  return *this;
}

LumDbBinary::LumDbBinary(std::int16_t sizeHint) {
  if (sizeHint > 0) bytes_.reserve(static_cast<std::size_t>(sizeHint));
}

void LumDbBinary::Assign(const void* data, std::size_t size) {
  bytes_.assign(static_cast<const char*>(data), size);
}

LumUnicodeString LumDbBinary::GetHexaValue() const {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(bytes_.size() * 2);
  for (unsigned char byte : bytes_) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0x0F];
  }
  return LumUnicodeString(hex.c_str());
}

LumRawCollPV::LumRawCollPV(int sizeHint) {
  if (sizeHint > 0) items_.reserve(static_cast<std::size_t>(sizeHint));
}

void*& LumRawCollPV::operator[](int index) {
  if (index < 1 || index > Count()) {
    LumFatalError("AssertionFailed:index >= 1 && index <= Count()", nullptr,
                  nullptr, nullptr, __FILE__, __LINE__);
    // Only a returning handler gets here: hand out a slot that holds null.
    static void* outOfRange;
    outOfRange = nullptr;
    return outOfRange;
  }
  return items_[static_cast<std::size_t>(index - 1)];
}
