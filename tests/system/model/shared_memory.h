#pragma once

#include <new>
#include <stdexcept>

#include <sys/mman.h>

namespace zefs::test {

/// A T, value-initialised, that a process and the children that it forks from now on share.
template <typename T>
class SharedWithChildren {
 public:
  SharedWithChildren() {
    void* const memory =
        ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::runtime_error("no memory to share with child processes");
    }
    shared_ = new (memory) T();
  }
  ~SharedWithChildren() { ::munmap(shared_, sizeof(T)); }
  SharedWithChildren(const SharedWithChildren&) = delete;
  SharedWithChildren& operator=(const SharedWithChildren&) = delete;

  T* operator->() const { return shared_; }
  T& operator*() const { return *shared_; }

 private:
  T* shared_;
};

}  // namespace zefs::test
