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
  LumUnicodeString hex;
  hex.text_.resize(bytes_.size() * 2);
  char* digit = &hex.text_[0];
  for (unsigned char byte : bytes_) {
    *digit++ = kDigits[byte >> 4];
    *digit++ = kDigits[byte & 0x0F];
  }
  return hex;
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
