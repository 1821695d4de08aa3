#pragma once

#include <cstddef>

// Watches the locks of a process: who holds what, and in which order they are taken. For builds
// with ZEFS_CHECK_LOCKS, in which the types of the locks, and the calls that begin and end
// transactions and join threads, tell it what they do.
//
// Orders are kept by kind, not by lock: a kind is a member of a class, or the writers of one of the
// databases of a table. So two threads that take two locks in both orders are found in a run in
// which they never meet, and with different tables. Found are, each when it is first about to
// happen:
//  - a lock that the thread holds already, shared included: a writer that waits in between
//    makes it wait for itself;
//  - a kind whose rank is not above the ranks of all that the thread holds;
//  - a circle of kinds, each taken by some thread while it held the one before;
//  - an unlock by a thread that does not hold the lock so;
//  - the end of a lock or of a thread while the lock is held.
// Whoever joins a thread waits for everything that the thread takes: it counts as taken by both.
//
// Nothing here allocates, and the thread sanitizer does not see it: it orders no two threads.

namespace zefs::test::locks {

enum class How : unsigned char { kShared, kExclusively };

/// One lock of the system, however many objects there are that have it.
using Kind = int;

/// A finding is told once on the standard error, unless a Findings is there: tests hold locks up to
/// see who waits for them, which is no order of the system's. From EndAtFindings on it ends the
/// process, with what everybody holds.
void EndAtFindings();

/// What a finding says begins with one of these words: "again", "order", "circle", "unlock", "end".
class Findings {
 public:
  Findings();
  ~Findings();
  Findings(const Findings&) = delete;
  Findings& operator=(const Findings&) = delete;

  std::size_t count() const;
  const char* text(std::size_t index) const;
};

/// The kind of the locks that are made by the code at `site`.
Kind KindMadeAt(const void* site);
/// The kind of this name, as NameKind or a lock site gave it; -1: there is none.
Kind KindNamed(const char* name);
/// Gives a kind a name and a rank. Rank 0: its place among the others is told by use only.
void NameKind(Kind kind, const char* name, int rank);

void WillLock(const void* lock, Kind kind, How how);
void HasLocked(const void* lock, Kind kind, How how);
void HasUnlocked(const void* lock, Kind kind, How how);
void Gone(const void* lock, Kind kind);

// Plain mutexes, which do not know their kind: it is the class, or function, of the code at `site`,
// which locks one.
enum class Mutex : unsigned char { kStandard, kBoost };
void WillLockAt(const void* site, const void* mutex, Mutex type);
void HasLockedAt(const void* site, const void* mutex, Mutex type);
void HasUnlockedPlain(const void* mutex);

/// The plain mutexes that this thread takes are parts of a lock that the checker knows.
class InnerLocks {
 public:
  InnerLocks();
  ~InnerLocks();
  InnerLocks(const InnerLocks&) = delete;
  InnerLocks& operator=(const InnerLocks&) = delete;
};

/// Writes who holds what, and waits for what, to the standard error.
void TellHolders();

/// Pairs of kinds seen in this process, the second taken while the first was held.
std::size_t CountOrders();

}  // namespace zefs::test::locks
