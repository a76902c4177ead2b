// Work done on a thread of its own while the caller goes on: the two
// documents of a comparison, or the wanted document of an apply while the
// store is exported.
#pragma once

#include <functional>
#include <new>
#include <thread>
#include <utility>

class Alongside {
 public:
  // Starts work at once.
  explicit Alongside(std::function<void()> work)
      : thread_([this, work = std::move(work)] {
          try {
            work();
          } catch (const std::bad_alloc&) {
            outOfMemory_ = true;
          }
        }) {}
  // Waits: a thread is never left running.
  ~Alongside() {
    if (thread_.joinable()) thread_.join();
  }
  Alongside(const Alongside&) = delete;
  Alongside& operator=(const Alongside&) = delete;

  // Waits for the work to end. Memory running out there goes up from here:
  // an exception may not leave a thread.
  void Wait() {
    if (thread_.joinable()) thread_.join();
    if (outOfMemory_) throw std::bad_alloc();
  }

 private:
  bool outOfMemory_ = false;
  std::thread thread_;
};
