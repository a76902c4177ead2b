#include "Hex.h"

#include <cstring>

namespace vantrel {
namespace {

// The two digits of every byte value: one copy per byte, no shifts.
struct Pairs {
  char pairs[256][2];
};

constexpr Pairs MakePairs() {
  const char digits[] = "0123456789ABCDEF";
  Pairs p{};
  for (int byte = 0; byte < 256; ++byte) {
    p.pairs[byte][0] = digits[byte >> 4];
    p.pairs[byte][1] = digits[byte & 0x0F];
  }
  return p;
}

constexpr Pairs kPairs = MakePairs();

// The value of a hexadecimal digit, or -1.
int Digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

void HexWrite(std::string_view bytes, char* out) {
  for (unsigned char byte : bytes) {
    std::memcpy(out, kPairs.pairs[byte], 2);
    out += 2;
  }
}

std::string Hex(std::string_view bytes) {
  std::string digits(2 * bytes.size(), '\0');
  HexWrite(bytes, digits.data());
  return digits;
}

bool Unhex(std::string_view digits, std::string* bytes) {
  if (digits.size() % 2) return false;
  bytes->resize(digits.size() / 2);
  for (std::size_t i = 0; i < bytes->size(); ++i) {
    const int high = Digit(digits[2 * i]), low = Digit(digits[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    (*bytes)[i] = static_cast<char>(high * 16 + low);
  }
  return true;
}

}  // namespace vantrel
