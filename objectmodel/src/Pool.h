// Room for the objects of one kind: blocks of one size, taken from large
// chunks and reused once given back, all freed with the pool.
#pragma once

#include <cstddef>
#include <vector>

namespace kiv {

class Pool {
 public:
  Pool() = default;
  ~Pool();  // frees every chunk, blocks still taken included
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  // A block of size bytes, the same size on every call, aligned for any
  // object; owned by the pool.
  void* Take(std::size_t size);
  // Gives back a block that Take handed out, for the next Take.
  void Give(void* block);
  // The chunks taken from the system so far.
  std::size_t Chunks() const { return chunks_.size(); }

 private:
  struct Chunk {
    char* bytes;
    std::size_t size;
  };
  std::vector<Chunk> chunks_;
  std::size_t size_ = 0;  // of a block
  std::size_t left_ = 0;  // blocks not yet taken from the last chunk
  void* free_ = nullptr;  // blocks given back, each holding the next
};

}  // namespace kiv
