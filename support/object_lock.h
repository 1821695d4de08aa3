#pragma once

#include <mutex>

namespace Aldenta::Qnd::Morene::Zefs {

/// While it lives, this thread alone is at the object of this address: for members of classes that
/// are laid down and leave no room for a mutex. Objects share some sixty mutexes, so no other is
/// taken under it, and it is held for moments.
class ObjectLock {
 public:
  explicit ObjectLock(const void* object);

 private:
  std::lock_guard<std::mutex> lock_;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
