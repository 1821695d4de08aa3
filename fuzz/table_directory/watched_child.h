#pragma once

#include <functional>
#include <string>

namespace zefs::fuzz {

/// Whose code a child process died in, by the innermost frame that is not the C library's.
enum class Culprit {
  kNone,         ///< the child ended by itself
  kLmdb,         ///< LMDB's code, called with valid arguments
  kLmdbAddress,  ///< ours, at an address that LMDB has handed out and that lies in or behind its
                 ///< map
  kHeap,         ///< the C library found its heap damaged: told apart by the address sanitizer only
  kOwn,          ///< ours
};

/// How a child process has ended.
struct Ending {
  Culprit culprit = Culprit::kNone;
  std::string what;   ///< what the child has told, or the signal with the functions it came from
  std::string words;  ///< what the child has written to its standard error
};

/// Runs `life` in a child process, which is killed, as a finding, when it takes too long, and
/// limited in what it may allocate. `life` returns what is told. The caller runs no other thread
/// and has no LMDB environment open.
Ending RunWatched(const std::function<std::string()>& life);

}  // namespace zefs::fuzz
