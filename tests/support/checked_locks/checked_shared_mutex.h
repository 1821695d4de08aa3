#pragma once

#include <sanitizer/tsan_interface.h>

#include "tests/support/checked_locks/lock_checker.h"

namespace zefs::test::locks {

/// What Boost's shared mutex does, told to the checker, and to the thread sanitizer as a lock of
/// its own. Boost's is built over a mutex that every operation takes, so that to the sanitizer
/// each reader is ordered behind the last: a race of two readers shows only if they meet. To it
/// readers of this one are not ordered at all.
class CheckedSharedMutex {
 public:
  CheckedSharedMutex();  // not inline: it is known by who has called it
  ~CheckedSharedMutex() {
    Gone(this, kind_);
    __tsan_mutex_destroy(this, __tsan_mutex_not_static);
  }
  CheckedSharedMutex(const CheckedSharedMutex&) = delete;
  CheckedSharedMutex& operator=(const CheckedSharedMutex&) = delete;

  void lock() {
    WillLock(this, kind_, How::kExclusively);
    {
      const Inside inside(this, 0);
      lock_.lock();
    }
    HasLocked(this, kind_, How::kExclusively);
  }
  bool try_lock() {
    bool locked = false;
    {
      const Inside inside(this, __tsan_mutex_try_lock, &locked);
      locked = lock_.try_lock();
    }
    return Tried(locked, How::kExclusively);
  }
  void unlock() {
    HasUnlocked(this, kind_, How::kExclusively);
    const InsideUnlock inside(this, 0);
    lock_.unlock();
  }

  void lock_shared() {
    WillLock(this, kind_, How::kShared);
    {
      const Inside inside(this, __tsan_mutex_read_lock);
      lock_.lock_shared();
    }
    HasLocked(this, kind_, How::kShared);
  }
  bool try_lock_shared() {
    bool locked = false;
    {
      const Inside inside(this, __tsan_mutex_try_read_lock, &locked);
      locked = lock_.try_lock_shared();
    }
    return Tried(locked, How::kShared);
  }
  void unlock_shared() {
    HasUnlocked(this, kind_, How::kShared);
    const InsideUnlock inside(this, __tsan_mutex_read_lock);
    lock_.unlock_shared();
  }

  /// Which lock of the system it is: for NameKind.
  Kind kind() const { return kind_; }

 private:
  /// The sanitizer looks at the whole lock from here on, not at what it is built of.
  class Inside {
   public:
    Inside(void* lock, unsigned int flags, const bool* locked = nullptr)
        : lock_(lock), flags_(flags), locked_(locked) {
      __tsan_mutex_pre_lock(lock_, flags_);
    }
    ~Inside() {
      const bool failed = locked_ != nullptr && !*locked_;
      __tsan_mutex_post_lock(lock_, flags_ | (failed ? __tsan_mutex_try_lock_failed : 0), 1);
    }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    void* lock_;
    unsigned int flags_;
    const bool* locked_;
    const InnerLocks inner_;
  };
  class InsideUnlock {
   public:
    InsideUnlock(void* lock, unsigned int flags) : lock_(lock), flags_(flags) {
      __tsan_mutex_pre_unlock(lock_, flags_);
    }
    ~InsideUnlock() { __tsan_mutex_post_unlock(lock_, flags_); }
    InsideUnlock(const InsideUnlock&) = delete;
    InsideUnlock& operator=(const InsideUnlock&) = delete;

   private:
    void* lock_;
    unsigned int flags_;
    const InnerLocks inner_;
  };

  bool Tried(bool locked, How how) {
    if (locked) {
      HasLocked(this, kind_, how);
    }
    return locked;
  }

  const Kind kind_;
  boost::unchecked_shared_mutex lock_;
};

}  // namespace zefs::test::locks
