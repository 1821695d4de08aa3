#pragma once

// Included in front of everything in a build that checks locks: guards of plain mutexes tell the
// checker what they do.

// Its parts, not <mutex>: the guards must be told apart before anything uses them.
#include <bits/std_mutex.h>
#include <bits/unique_lock.h>

#include "tests/support/checked_locks/lock_checker.h"

template <>
__attribute__((noinline)) inline std::lock_guard<std::mutex>::lock_guard(std::mutex& m)
    : _M_device(m) {
  const void* const site = __builtin_return_address(0);
  zefs::test::locks::WillLockAt(site, &m);
  _M_device.lock();
  zefs::test::locks::HasLockedAt(site, &m);
}
template <>
__attribute__((noinline)) inline std::lock_guard<std::mutex>::~lock_guard() {
  zefs::test::locks::HasUnlockedPlain(&_M_device);
  _M_device.unlock();
}

template <>
__attribute__((noinline)) inline std::unique_lock<std::mutex>::unique_lock(std::mutex& m)
    : _M_device(&m), _M_owns(false) {
  const void* const site = __builtin_return_address(0);
  zefs::test::locks::WillLockAt(site, &m);
  m.lock();
  _M_owns = true;
  zefs::test::locks::HasLockedAt(site, &m);
}
template <>
__attribute__((noinline)) inline void std::unique_lock<std::mutex>::lock() {
  const void* const site = __builtin_return_address(0);
  zefs::test::locks::WillLockAt(site, _M_device);
  _M_device->lock();
  _M_owns = true;
  zefs::test::locks::HasLockedAt(site, _M_device);
}
template <>
__attribute__((noinline)) inline void std::unique_lock<std::mutex>::unlock() {
  zefs::test::locks::HasUnlockedPlain(_M_device);
  _M_owns = false;
  _M_device->unlock();
}

#include <boost/thread/lock_types.hpp>
#include <boost/thread/pthread/mutex.hpp>

template <>
__attribute__((noinline)) inline boost::unique_lock<boost::mutex>::unique_lock(boost::mutex& m_)
    : m(&m_), is_locked(false) {
  const void* const site = __builtin_return_address(0);
  zefs::test::locks::WillLockAt(site, m);
  m->lock();
  is_locked = true;
  zefs::test::locks::HasLockedAt(site, m);
}
template <>
__attribute__((noinline)) inline void boost::unique_lock<boost::mutex>::lock() {
  const void* const site = __builtin_return_address(0);
  zefs::test::locks::WillLockAt(site, m);
  m->lock();
  is_locked = true;
  zefs::test::locks::HasLockedAt(site, m);
}
template <>
__attribute__((noinline)) inline void boost::unique_lock<boost::mutex>::unlock() {
  zefs::test::locks::HasUnlockedPlain(m);
  m->unlock();
  is_locked = false;
}
template <>
__attribute__((noinline)) inline boost::unique_lock<boost::mutex>::~unique_lock() {
  if (is_locked) {
    zefs::test::locks::HasUnlockedPlain(m);
    m->unlock();
  }
}
