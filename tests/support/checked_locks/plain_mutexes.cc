#include "tests/support/checked_locks/plain_mutexes.h"

#include <boost/thread/shared_mutex.hpp>

#include "tests/support/checked_locks/lock_checker.h"

using namespace zefs::test::locks;

namespace {

Mutex TypeOf(const std::mutex* /*mutex*/) {
  return Mutex::kStandard;
}
Mutex TypeOf(const boost::mutex* /*mutex*/) {
  return Mutex::kBoost;
}

template <typename Any>
void LockAt(const void* site, Any* mutex) {
  WillLockAt(site, mutex, TypeOf(mutex));
  mutex->lock();
  HasLockedAt(site, mutex, TypeOf(mutex));
}

template <typename Any>
void Unlock(Any* mutex) {
  HasUnlockedPlain(mutex);
  mutex->unlock();
}

}  // namespace

template <>
std::lock_guard<std::mutex>::lock_guard(std::mutex& m) : _M_device(m) {
  LockAt(__builtin_return_address(0), &m);
}
template <>
std::lock_guard<std::mutex>::~lock_guard() {
  Unlock(&_M_device);
}

template <>
std::unique_lock<std::mutex>::unique_lock(std::mutex& m) : _M_device(&m), _M_owns(true) {
  LockAt(__builtin_return_address(0), _M_device);
}
template <>
void std::unique_lock<std::mutex>::lock() {
  LockAt(__builtin_return_address(0), _M_device);
  _M_owns = true;
}
template <>
void std::unique_lock<std::mutex>::unlock() {
  _M_owns = false;
  Unlock(_M_device);
}

template <>
boost::unique_lock<boost::mutex>::unique_lock(boost::mutex& m_) : m(&m_), is_locked(true) {
  LockAt(__builtin_return_address(0), m);
}
template <>
boost::unique_lock<boost::mutex>::~unique_lock() {
  if (is_locked) {
    Unlock(m);
  }
}
template <>
void boost::unique_lock<boost::mutex>::lock() {
  LockAt(__builtin_return_address(0), m);
  is_locked = true;
}
template <>
void boost::unique_lock<boost::mutex>::unlock() {
  is_locked = false;
  Unlock(m);
}

namespace zefs::test::locks {

CheckedSharedMutex::CheckedSharedMutex() : kind_(KindMadeAt(__builtin_return_address(0))) {
  __tsan_mutex_create(this, __tsan_mutex_not_static);
}

}  // namespace zefs::test::locks
