#pragma once

#include <ostream>
#include <thread>

#include <boost/thread/shared_mutex.hpp>

namespace zefs::test {

enum class Held { kNot, kShared, kExclusively };

inline void PrintTo(Held held, std::ostream* out) {
  *out << (held == Held::kNot ? "free" : held == Held::kShared ? "shared" : "exclusive");
}

/// How `lock` is held. A lock that is held shared while a thread waits to have it exclusively
/// counts as held exclusively: new readers have to wait. Asked from a thread of its own, as a
/// thread must not try a lock that it holds.
inline Held HowIsHeld(boost::shared_mutex& lock) {
  Held held = Held::kNot;
  std::thread([&] {
    if (lock.try_lock()) {
      lock.unlock();
    } else if (lock.try_lock_shared()) {
      lock.unlock_shared();
      held = Held::kShared;
    } else {
      held = Held::kExclusively;
    }
  }).join();
  return held;
}

/// Waits until a thread waits for `lock`, which is held shared, to have it exclusively.
inline void AwaitWriterAt(boost::shared_mutex& lock) {
  while (HowIsHeld(lock) != Held::kExclusively) {
    std::this_thread::yield();
  }
}

}  // namespace zefs::test
