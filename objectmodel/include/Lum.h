// The support classes of the object model: text, identifiers and lists.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A text value. Held as narrow (UTF-8) characters.
class LumUnicodeString {
 public:
  LumUnicodeString() = default;
  // A null text gives the empty string.
  LumUnicodeString(const char* text);  // NOLINT: converts like the system's
  LumUnicodeString(const LumUnicodeString&) = default;
  LumUnicodeString& operator=(const LumUnicodeString&) = default;
  LumUnicodeString& operator=(const char* text);

  // Returns the text, zero-terminated; valid while this string lives
  // unchanged.
  const char* ConvertToChar() const { return text_.c_str(); }

 private:
  friend class LumDbBinary;  // writes its hexadecimal text in place
  std::string text_;
};

// An object identifier: a run of bytes.
class LumDbBinary {
 public:
  // sizeHint only reserves room: the identifier starts empty.
  explicit LumDbBinary(std::int16_t sizeHint);

  // Replaces the bytes with size bytes from data.
  void Assign(const void* data, std::size_t size);
  const std::string& Bytes() const { return bytes_; }

  // Returns the bytes as upper-case hexadecimal, two digits per byte; the
  // empty text for an empty identifier.
  LumUnicodeString GetHexaValue() const;

 private:
  std::string bytes_;
};

// A collection of untyped pointers, indexed from 1.
class LumRawCollPV {
 public:
  explicit LumRawCollPV(int sizeHint);

  int Count() const { return static_cast<int>(items_.size()); }
  // Returns the stored pointer at index (1 to Count()). An index out of that
  // range is a fatal error.
  void*& operator[](int index);
  void Append(void* item) {
    // Most lists are short: room for a few at once, not one at a time.
    if (items_.empty()) items_.reserve(8);
    items_.push_back(item);
  }

 private:
  std::vector<void*> items_;
};

// A list of interface pointers. Each list getter of the object model stores
// pointers to the interface of its kind of element (a list of projects holds
// KivIProject pointers), each carrying one reference owned by the caller.
// Destroying the list does not release them.
class LumListPtrIUnknown : public LumRawCollPV {
 public:
  explicit LumListPtrIUnknown(int sizeHint) : LumRawCollPV(sizeHint) {}
};
