#include "Pool.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstddef>

#include "LargeAllocator.h"

namespace kiv {

void* Pool::Take(std::size_t size) {
  if (free_) {
    void* block = free_;
    ASAN_UNPOISON_MEMORY_REGION(block, size_);
    free_ = *static_cast<void**>(block);
    return block;
  }
  if (left_ == 0) {
    // Chunks double with the pool up to a few megabytes, so that a small
    // store takes little and a large one is covered by huge pages.
    size_ = (size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
            alignof(std::max_align_t);
    const std::size_t blocks = std::size_t{16}
                               << std::min<std::size_t>(chunks_.size(), 20);
    const std::size_t count =
        std::min(blocks, std::max<std::size_t>(16, (4u << 20) / size_));
    // Out of memory leaves the pool as it was: the exception goes up to the
    // getter that asked.
    char* bytes = LargeAllocator<char>().allocate(size_ * count);
    try {
      chunks_.push_back({bytes, size_ * count});
    } catch (...) {
      LargeAllocator<char>().deallocate(bytes, size_ * count);
      throw;
    }
    left_ = count;
  }
  return chunks_.back().bytes + size_ * --left_;
}

Pool::~Pool() {
  for (const Chunk& chunk : chunks_)
    LargeAllocator<char>().deallocate(chunk.bytes, chunk.size);
}

void Pool::Give(void* block) {
  *static_cast<void**>(block) = free_;
  free_ = block;
  // A block given back is out of bounds until taken again.
  ASAN_POISON_MEMORY_REGION(block, size_);
}

}  // namespace kiv
