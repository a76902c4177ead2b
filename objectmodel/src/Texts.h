// The short texts of one object, kept in the object itself.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace kiv {

// Up to N texts of one object, each ended by a NUL (store texts never hold
// one), in the object itself when they are short, else in one allocation.
template <int N>
class Texts {
 public:
  // Takes exactly N texts: a table given a column, and its object a text,
  // without N rising fails to compile.
  template <class... Views>
  void Assign(Views... views) {
    static_assert(sizeof...(Views) == N, "an object's texts are N texts");
    const std::string_view texts[] = {std::string_view(views)...};
    std::size_t total = 0;
    for (std::string_view text : texts) total += text.size() + 1;
    if (total > sizeof inline_) heap_.reset(new char[total]);
    char* const base = heap_ ? heap_.get() : inline_;
    char* at = base;
    int i = 0;
    for (std::string_view text : texts) {
      start_[i++] = static_cast<std::uint32_t>(at - base);
      if (!text.empty()) std::memcpy(at, text.data(), text.size());
      at += text.size();
      *at++ = '\0';
    }
    assigned_ = true;
  }
  // Text i, or the empty text before Assign.
  const char* operator[](int i) const {
    if (!assigned_) return "";
    return (heap_ ? heap_.get() : inline_) + start_[i];
  }

 private:
  std::uint32_t start_[N] = {};
  bool assigned_ = false;
  char inline_[8 * N + 16];
  std::unique_ptr<char[]> heap_;
};

}  // namespace kiv
