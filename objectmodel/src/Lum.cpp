#include "Lum.h"

#include <cstring>

#include "Hex.h"
#include "LumKivTrace.h"

LumUnicodeString::LumUnicodeString(const char* text) { *this = text; }

LumUnicodeString::LumUnicodeString(const LumUnicodeString& other) {
  Assign(other.ConvertToChar(), other.size_);
}

LumUnicodeString& LumUnicodeString::operator=(const LumUnicodeString& other) {
  if (this != &other) Assign(other.ConvertToChar(), other.size_);
  return *this;
}

LumUnicodeString& LumUnicodeString::operator=(const char* text) {
  if (!text) text = "";
  Assign(text, std::strlen(text));
  return *this;
}

char* LumUnicodeString::Resize(std::size_t size) {
  if (size < sizeof small_)
    large_.reset();
  else
    large_.reset(new char[size + 1]);
  size_ = size;
  char* text = large_ ? large_.get() : small_;
  text[size] = '\0';
  return text;
}

void LumUnicodeString::Assign(const char* text, std::size_t size) {
  // text may be this string's own: it is copied before the room changes.
  if (size < sizeof small_) {
    std::memmove(small_, text, size);
    small_[size] = '\0';
    large_.reset();
    size_ = size;
    return;
  }
  std::unique_ptr<char[]> copy(new char[size + 1]);
  std::memcpy(copy.get(), text, size);
  copy[size] = '\0';
  large_ = std::move(copy);
  size_ = size;
}

LumDbBinary::LumDbBinary(std::int16_t sizeHint) {
  if (sizeHint > 0) bytes_.reserve(static_cast<std::size_t>(sizeHint));
}

void LumDbBinary::Assign(const void* data, std::size_t size) {
  bytes_.assign(static_cast<const char*>(data), size);
}

LumUnicodeString LumDbBinary::GetHexaValue() const {
  LumUnicodeString hex;
  vantrel::HexWrite(bytes_, hex.Resize(bytes_.size() * 2));
  return hex;
}

LumRawCollPV::LumRawCollPV(int sizeHint) {
  if (sizeHint > kSmall) large_.reserve(static_cast<std::size_t>(sizeHint));
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
  const auto at = static_cast<std::size_t>(index - 1);
  return large_.empty() ? small_[at] : large_[at];
}
