#pragma once

// Included in front of everything in a build that checks locks: guards of plain mutexes tell the
// checker what they do. They are not inline, so that each knows who has called it.

// Parts of <mutex>: nothing may have used the guards before they are told apart.
#include <bits/std_mutex.h>
#include <bits/unique_lock.h>

template <>
std::lock_guard<std::mutex>::lock_guard(std::mutex& m);
template <>
std::lock_guard<std::mutex>::~lock_guard();
template <>
std::unique_lock<std::mutex>::unique_lock(std::mutex& m);
template <>
void std::unique_lock<std::mutex>::lock();
template <>
void std::unique_lock<std::mutex>::unlock();

#include <boost/thread/lock_types.hpp>
#include <boost/thread/pthread/mutex.hpp>

template <>
boost::unique_lock<boost::mutex>::unique_lock(boost::mutex& m_);
template <>
boost::unique_lock<boost::mutex>::~unique_lock();
template <>
void boost::unique_lock<boost::mutex>::lock();
template <>
void boost::unique_lock<boost::mutex>::unlock();
