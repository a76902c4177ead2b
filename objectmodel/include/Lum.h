// The support classes of the object model: text, identifiers and lists.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// A text value. Held as narrow (UTF-8) characters.
class LumUnicodeString {
 public:
  LumUnicodeString() = default;
  // A null text gives the empty string.
  LumUnicodeString(const char* text);  // NOLINT: converts like the system's
  LumUnicodeString(const LumUnicodeString& other);
  LumUnicodeString(LumUnicodeString&&) noexcept = default;
  LumUnicodeString& operator=(const LumUnicodeString& other);
  LumUnicodeString& operator=(LumUnicodeString&&) noexcept = default;
  LumUnicodeString& operator=(const char* text);

  // Returns the text, zero-terminated; valid while this string lives
  // unchanged.
  const char* ConvertToChar() const { return large_ ? large_.get() : small_; }

 private:
  friend class LumDbBinary;  // writes its hexadecimal text in place
  // Makes room for size bytes and their NUL; returns where they go.
  char* Resize(std::size_t size);
  void Assign(const char* text, std::size_t size);

  // Names and identifiers fit in the string itself; a longer text has an
  // allocation of its own.
  std::unique_ptr<char[]> large_;
  std::size_t size_ = 0;
  char small_[40] = {};
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

  int Count() const { return count_; }
  // Returns the stored pointer at index (1 to Count()). An index out of that
  // range is a fatal error.
  void*& operator[](int index);
  void Append(void* item) {
    if (large_.empty() && count_ < kSmall) {
      small_[count_++] = item;
      return;
    }
    if (large_.empty()) large_.assign(small_, small_ + count_);
    large_.push_back(item);
    ++count_;
  }

 private:
  // Most lists are short: they stay in the list itself; a longer one moves
  // to an allocation of its own.
  static constexpr int kSmall = 8;
  void* small_[kSmall] = {};
  std::vector<void*> large_;
  int count_ = 0;
};

// A list of interface pointers. Each list getter of the object model stores
// pointers to the interface of its kind of element (a list of projects holds
// KivIProject pointers), each carrying one reference owned by the caller.
// Destroying the list does not release them.
class LumListPtrIUnknown : public LumRawCollPV {
 public:
  explicit LumListPtrIUnknown(int sizeHint) : LumRawCollPV(sizeHint) {}
};
