// An allocator for arrays of millions of entries (the indexes of a store, the
// identifiers of a document). An array of a few megabytes or more is placed
// on huge-page boundaries and offered to the kernel for huge pages: filled
// page by page it would take a page fault every 4 KiB, which costs more than
// the work of filling it. Smaller arrays come from the usual heap.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

namespace kiv {

template <class T>
struct LargeAllocator {
  using value_type = T;
  static constexpr std::size_t kHugePage = std::size_t{2} << 20;

  LargeAllocator() = default;
  template <class U>
  LargeAllocator(const LargeAllocator<U>&) {}  // NOLINT: rebinds

  T* allocate(std::size_t n) {
    const std::size_t bytes = n * sizeof(T);
    if (bytes < kHugePage) return std::allocator<T>().allocate(n);
    const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    void* p = std::aligned_alloc(kHugePage, rounded);
    if (!p) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    // Only advice: without huge pages the array works the same. The huge
    // pages that the array fills are offered, not the last one it only
    // starts: a huge page there would be resident whole, and the peak
    // memory would then depend on whether the kernel had one to give.
    ::madvise(p, bytes / kHugePage * kHugePage, MADV_HUGEPAGE);
#endif
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t n) {
    if (n * sizeof(T) < kHugePage)
      std::allocator<T>().deallocate(p, n);
    else
      std::free(p);
  }
  template <class U>
  bool operator==(const LargeAllocator<U>&) const {
    return true;
  }
  template <class U>
  bool operator!=(const LargeAllocator<U>&) const {
    return false;
  }
};

// A vector whose storage comes from LargeAllocator.
template <class T>
using LargeVector = std::vector<T, LargeAllocator<T>>;

}  // namespace kiv
