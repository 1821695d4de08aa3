#include "tests/support/checked_locks/lock_checker.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sched.h>

#include "tests/support/checked_locks/checked_calls.h"
#include "tests/support/checked_locks/code_names.h"
#include "tests/support/checked_locks/lock_ranks.h"

// Compiled without the thread sanitizer, over tables of fixed size: what is read and written here,
// and the lock around it, are nothing to it. It is told to pass over the calls of the C library,
// too.

extern "C" {
__attribute__((weak)) void AnnotateIgnoreReadsBegin(const char* file, int line);
__attribute__((weak)) void AnnotateIgnoreReadsEnd(const char* file, int line);
__attribute__((weak)) void AnnotateIgnoreSyncBegin(const char* file, int line);
__attribute__((weak)) void AnnotateIgnoreSyncEnd(const char* file, int line);
}

namespace zefs::test::locks {

namespace {

constexpr int kMostKinds = 512;
constexpr int kMostSites = 4096;
constexpr int kMostHeld = 64;
constexpr int kMostThreads = 1024;
constexpr int kMostFindings = 64;
constexpr std::size_t kNameBytes = 96;
constexpr std::size_t kTextBytes = 1024;

/// A spin lock: held for a few steps over the tables.
class Spin {
 public:
  void lock() {
    while (flag_.test_and_set(std::memory_order_acquire)) {
      ::sched_yield();
    }
  }
  void unlock() { flag_.clear(std::memory_order_release); }

 private:
  std::atomic_flag flag_ = ATOMIC_FLAG_INIT;
};

class Spinning {
 public:
  explicit Spinning(Spin* spin) : spin_(spin) {
    if (AnnotateIgnoreReadsBegin != nullptr) {
      AnnotateIgnoreReadsBegin(__FILE__, __LINE__);  // and writes
      AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
    spin_->lock();
  }
  ~Spinning() {
    spin_->unlock();
    if (AnnotateIgnoreReadsBegin != nullptr) {
      AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
      AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    }
  }
  Spinning(const Spinning&) = delete;
  Spinning& operator=(const Spinning&) = delete;

 private:
  Spin* spin_;
};

struct KindEntry {
  const void* site;
  char name[kNameBytes];
  int rank;
  bool ignored;
};

struct Site {
  const void* pc;
  Kind kind;
};

struct Held {
  const void* lock;
  const void* token;  // what unlocks it, where that is something else
  Kind kind;
  How how;
};

struct Thread {
  bool live;
  bool known;  // the entry has been used: what its thread has taken is kept until it is joined
  pthread_t self;
  int count;
  Held held[kMostHeld];
  const void* waitsFor;
  Kind waitsForKind;
  bool taken[kMostKinds];
};

struct Tables {
  Spin spin;
  int kinds;
  KindEntry kind[kMostKinds];
  Site site[kMostSites];
  bool order[kMostKinds][kMostKinds];  // [first][second]
  int orders;
  Thread thread[kMostThreads];
  int threads;
  int collecting;
  bool ending;  // at a finding
  int findings;
  char finding[kMostFindings][kTextBytes];
};

Tables tables;

void TellHoldersUnlocked() {
  for (int i = 0; i < tables.threads; ++i) {
    const Thread& thread = tables.thread[i];
    if (!thread.live || (thread.count == 0 && thread.waitsFor == nullptr)) {
      continue;
    }
    std::fprintf(stderr, "  thread %d holds", i);
    for (int h = 0; h < thread.count; ++h) {
      std::fprintf(stderr, " %s %p (%s)", tables.kind[thread.held[h].kind].name,
                   thread.held[h].lock,
                   thread.held[h].how == How::kShared ? "shared" : "exclusively");
    }
    if (thread.waitsFor != nullptr) {
      std::fprintf(stderr, "; waits for %s %p", tables.kind[thread.waitsForKind].name,
                   thread.waitsFor);
    }
    std::fprintf(stderr, "\n");
  }
}

__attribute__((format(printf, 1, 2))) void Find(const char* format, ...) {
  char text[kTextBytes];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  if (tables.collecting > 0) {
    if (tables.findings < kMostFindings) {
      std::memcpy(tables.finding[tables.findings++], text, sizeof(text));
    }
    return;
  }
  std::fprintf(stderr, "lock checker: %s\n", text);
  if (!tables.ending) {
    return;
  }
  TellHoldersUnlocked();
  tables.spin.unlock();  // what runs at the end of the process may lock
  std::abort();
}

/// The thread's entry in the table. One that has ended gives its entry to the next thread of the
/// same handle, or, when there is no other entry left, of any.
class ThisThread {
 public:
  ThisThread() {
    const Spinning spinning(&tables.spin);
    const pthread_t self = ::pthread_self();
    int free = -1;
    for (int i = 0; i < tables.threads; ++i) {
      if (!tables.thread[i].live) {
        if (::pthread_equal(tables.thread[i].self, self) != 0) {
          free = i;
          break;
        }
        if (free == -1 && (!tables.thread[i].known || tables.threads == kMostThreads)) {
          free = i;
        }
      }
    }
    if (free == -1) {
      free = tables.threads++;
    }
    entry_ = &tables.thread[free];
    std::memset(entry_, 0, sizeof(*entry_));
    entry_->live = true;
    entry_->known = true;
    entry_->self = self;
  }
  ~ThisThread() {
    const Spinning spinning(&tables.spin);
    if (entry_->count != 0) {
      Find("end: of a thread that holds %s", tables.kind[entry_->held[0].kind].name);
    }
    entry_->live = false;
    entry_ = nullptr;
  }
  ThisThread(const ThisThread&) = delete;
  ThisThread& operator=(const ThisThread&) = delete;

  Thread* entry() const { return entry_; }

 private:
  Thread* entry_;
};

Thread* Self() {
  static thread_local const ThisThread self;
  return self.entry();  // null while the thread's own objects end
}

thread_local int innerLocks = 0;

// --- kinds -------------------------------------------------------------------------------------

Kind NewKind(const char* name) {
  if (tables.kinds == kMostKinds) {
    Find("circle: too many kinds of locks");
    return kMostKinds - 1;
  }
  KindEntry& entry = tables.kind[tables.kinds];
  std::snprintf(entry.name, sizeof(entry.name), "%s", name);
  return tables.kinds++;
}

Kind FindKind(const char* name) {
  for (Kind kind = 0; kind < tables.kinds; ++kind) {
    if (std::strcmp(tables.kind[kind].name, name) == 0) {
      return kind;
    }
  }
  return -1;
}

Kind KindOfName(const char* name) {
  const Kind kind = FindKind(name);
  return kind == -1 ? NewKind(name) : kind;
}

/// The slot of a code address in the table of sites.
Site* SlotOf(const void* pc) {
  auto at = reinterpret_cast<std::size_t>(pc) / 2 % kMostSites;
  while (tables.site[at].pc != nullptr && tables.site[at].pc != pc) {
    at = (at + 1) % kMostSites;
  }
  return &tables.site[at];
}

struct KnownClass {
  const char* end;  // of the class
  const char* name;
  int rank;
};

// The ranks of all: see lock_ranks.h.
constexpr KnownClass kPlainMutexesOf[] = {
    {"Zefs::CMappingLMDB", "mergeMutex_", kRankMergeMutex},
    {"Zefs::ExtentJournal", "mutex_ of ExtentJournal", kRankSideFile},
    {"Zefs::DcOffsetStore", "mutex_ of DcOffsetStore", kRankSideFile},
    {"Zefs::ObjectLock", "lock of an object", kRankObject},
};

bool EndsWith(const char* text, const char* end) {
  const std::size_t length = std::strlen(text);
  const std::size_t wanted = std::strlen(end);
  return length >= wanted && std::strcmp(text + length - wanted, end) == 0;
}

Kind KindAt(const void* site, Mutex mutex) {
  Site* const slot = SlotOf(site);
  if (slot->pc == site) {
    return slot->kind;
  }
  char text[kTextBytes] = "mutex of ";
  char* const name = text + std::strlen(text);
  NameCode(site, name, kNameBytes - std::strlen(text));
  Kind kind = -1;
  for (const KnownClass& known : kPlainMutexesOf) {
    if (EndsWith(name, known.end)) {
      // A table's own is Boost's. The other that it locks is its journal's, when it moves or starts
      // it.
      const bool journals = known.rank == kRankMergeMutex && mutex == Mutex::kStandard;
      kind = KindOfName(journals ? "mutex_ of ExtentJournal" : known.name);
      tables.kind[kind].rank = journals ? kRankSideFile : known.rank;
    }
  }
  if (kind == -1) {
    kind = KindOfName(text);
  }
  *slot = {site, kind};
  return kind;
}

// --- orders ------------------------------------------------------------------------------------

/// Whether a chain of orders leads from `first` to `second`; writes it into `out`.
bool Leads(Kind first, Kind second, char* out, std::size_t size) {
  static Kind before[kMostKinds];
  static Kind queue[kMostKinds];
  static bool seen[kMostKinds];
  std::memset(seen, 0, sizeof(seen));
  int end = 0;
  queue[end++] = first;
  seen[first] = true;
  for (int at = 0; at < end; ++at) {
    for (Kind next = 0; next < tables.kinds; ++next) {
      if (!seen[next] && tables.order[queue[at]][next]) {
        seen[next] = true;
        before[next] = queue[at];
        queue[end++] = next;
      }
    }
  }
  if (!seen[second]) {
    return false;
  }
  std::size_t used = 0;
  for (Kind at = second;; at = before[at]) {
    used += static_cast<std::size_t>(std::snprintf(
        out + used, size - used, "%s%s", at == second ? "" : " behind ", tables.kind[at].name));
    if (at == first || used + 1 >= size) {
      return true;
    }
  }
}

/// `second` is taken while `first` is held.
void Order(Kind first, Kind second) {
  if (tables.order[first][second] || tables.kind[first].ignored || tables.kind[second].ignored) {
    return;
  }
  const KindEntry& held = tables.kind[first];
  const KindEntry& wanted = tables.kind[second];
  if (held.rank != 0 && wanted.rank != 0) {
    if (held.rank >= wanted.rank) {
      tables.order[first][second] = tables.collecting == 0;  // told once
      Find("order: %s is taken while %s is held", wanted.name, held.name);
      return;
    }
  } else if (first == second) {
    return;  // a tree, a list: nothing is known of their order
  }
  char chain[kTextBytes / 2];
  if (Leads(second, first, chain, sizeof(chain))) {
    Find("circle: %s is taken while %s is held, which is taken so: %s", wanted.name, held.name,
         chain);
    return;
  }
  tables.order[first][second] = true;
  ++tables.orders;
}

void Wait(Thread* self, const void* lock, Kind kind, How how) {
  for (int i = 0; i < self->count; ++i) {
    if (self->held[i].lock == lock) {
      Find("again: %s is taken %s by the thread that holds it", tables.kind[kind].name,
           how == How::kShared ? "shared" : "exclusively");
      return;
    }
  }
  for (int i = 0; i < self->count; ++i) {
    Order(self->held[i].kind, kind);
  }
  self->taken[kind] = true;
  self->waitsFor = lock;
  self->waitsForKind = kind;
}

void Take(Thread* self, const void* lock, const void* token, Kind kind, How how) {
  self->waitsFor = nullptr;
  self->taken[kind] = true;
  if (self->count == kMostHeld) {
    Find("order: too many locks held at once");
    return;
  }
  self->held[self->count++] = {lock, token, kind, how};
}

bool Drop(Thread* self, const void* token, How how) {
  for (int i = self->count - 1; i >= 0; --i) {
    if (self->held[i].token == token && self->held[i].how == how) {
      std::memmove(&self->held[i], &self->held[i + 1],
                   sizeof(Held) * static_cast<std::size_t>(self->count - i - 1));
      --self->count;
      return true;
    }
  }
  return false;
}

// --- writers of databases ----------------------------------------------------------------------

constexpr KnownClass kWritersOf[] = {
    {"lsml0.mdb", "writers of the small database", kRankSmallWriters},
    {"tmp.mdb", "writers of the tmp database", kRankTmpWriters},
    {"mergedb", "writers of the merge database", kRankMergeWriters},
    {"data.mdb", "writers of the full database", kRankFullWriters},
};

Kind KindOfWriters(MDB_env* env) {
  const char* path = "";
  if (mdb_env_get_path(env, &path) != 0 || path == nullptr) {
    path = "";
  }
  for (const KnownClass& known : kWritersOf) {
    if (EndsWith(path, known.end)) {
      const Kind kind = KindOfName(known.name);
      tables.kind[kind].rank = known.rank;
      return kind;
    }
  }
  return KindOfName("writers of another database");
}

}  // namespace

Findings::Findings() {
  const Spinning spinning(&tables.spin);
  ++tables.collecting;
  tables.findings = 0;
}

Findings::~Findings() {
  const Spinning spinning(&tables.spin);
  --tables.collecting;
}

void EndAtFindings() {
  const Spinning spinning(&tables.spin);
  tables.ending = true;
}

std::size_t Findings::count() const {
  const Spinning spinning(&tables.spin);
  return static_cast<std::size_t>(tables.findings);
}

const char* Findings::text(std::size_t index) const {
  return tables.finding[index];
}

Kind KindMadeAt(const void* site) {
  const Spinning spinning(&tables.spin);
  Site* const slot = SlotOf(site);
  if (slot->pc != site) {
    char name[kNameBytes] = "lock of ";
    const std::size_t used = std::strlen(name);
    NameCode(site, name + used, sizeof(name) - used);
    *slot = {site, NewKind(name)};
  }
  return slot->kind;
}

Kind KindNamed(const char* name) {
  const Spinning spinning(&tables.spin);
  return FindKind(name);
}

void NameKind(Kind kind, const char* name, int rank) {
  const Spinning spinning(&tables.spin);
  std::snprintf(tables.kind[kind].name, kNameBytes, "%s", name);
  tables.kind[kind].rank = rank;
}

void WillLock(const void* lock, Kind kind, How how) {
  if (Thread* const self = Self()) {
    const Spinning spinning(&tables.spin);
    Wait(self, lock, kind, how);
  }
}

void HasLocked(const void* lock, Kind kind, How how) {
  if (Thread* const self = Self()) {
    const Spinning spinning(&tables.spin);
    Take(self, lock, lock, kind, how);
  }
}

void HasUnlocked(const void* lock, Kind kind, How how) {
  if (Thread* const self = Self()) {
    const Spinning spinning(&tables.spin);
    if (!Drop(self, lock, how)) {
      Find("unlock: of %s by a thread that does not hold it %s", tables.kind[kind].name,
           how == How::kShared ? "shared" : "exclusively");
    }
  }
}

void Gone(const void* lock, Kind kind) {
  const Spinning spinning(&tables.spin);
  for (int i = 0; i < tables.threads; ++i) {
    const Thread& thread = tables.thread[i];
    for (int h = 0; thread.live && h < thread.count; ++h) {
      if (thread.held[h].lock == lock) {
        Find("end: of %s, which a thread holds", tables.kind[kind].name);
        return;
      }
    }
  }
}

void WillLockAt(const void* site, const void* mutex, Mutex type) {
  Thread* const self = innerLocks == 0 ? Self() : nullptr;
  if (self != nullptr) {
    const Spinning spinning(&tables.spin);
    Wait(self, mutex, KindAt(site, type), How::kExclusively);
  }
}

void HasLockedAt(const void* site, const void* mutex, Mutex type) {
  Thread* const self = innerLocks == 0 ? Self() : nullptr;
  if (self != nullptr) {
    const Spinning spinning(&tables.spin);
    Take(self, mutex, mutex, KindAt(site, type), How::kExclusively);
  }
}

void HasUnlockedPlain(const void* mutex) {
  Thread* const self = innerLocks == 0 ? Self() : nullptr;
  if (self != nullptr) {
    const Spinning spinning(&tables.spin);
    Drop(self, mutex, How::kExclusively);  // one that was tried for is not known
  }
}

InnerLocks::InnerLocks() {
  ++innerLocks;
}

InnerLocks::~InnerLocks() {
  --innerLocks;
}

void TellHolders() {
  const Spinning spinning(&tables.spin);
  TellHoldersUnlocked();
}

std::size_t CountOrders() {
  const Spinning spinning(&tables.spin);
  return static_cast<std::size_t>(tables.orders);
}

}  // namespace zefs::test::locks

using namespace zefs::test::locks;

int zefs_checked_txn_begin(MDB_env* env, MDB_txn* parent, unsigned int flags, MDB_txn** txn) {
  Thread* const self = (flags & MDB_RDONLY) == 0 && env != nullptr ? Self() : nullptr;
  if (self == nullptr) {
    return mdb_txn_begin(env, parent, flags, txn);
  }
  Kind kind = 0;
  {
    const Spinning spinning(&tables.spin);
    kind = KindOfWriters(env);
    Wait(self, env, kind, How::kExclusively);
  }
  const int ret = mdb_txn_begin(env, parent, flags, txn);
  const Spinning spinning(&tables.spin);
  self->waitsFor = nullptr;
  if (ret == 0) {
    Take(self, env, *txn, kind, How::kExclusively);
  }
  return ret;
}

int zefs_checked_txn_commit(MDB_txn* txn) {
  if (Thread* const self = Self()) {
    const Spinning spinning(&tables.spin);
    Drop(self, txn, How::kExclusively);
  }
  return mdb_txn_commit(txn);
}

void zefs_checked_txn_abort(MDB_txn* txn) {
  if (Thread* const self = Self()) {
    const Spinning spinning(&tables.spin);
    Drop(self, txn, How::kExclusively);
  }
  mdb_txn_abort(txn);
}

int zefs_checked_join(pthread_t thread, void** result) {
  Thread* const self = Self();
  const int ret = pthread_join(thread, result);
  if (ret == 0 && self != nullptr) {
    const Spinning spinning(&tables.spin);
    for (int i = 0; i < tables.threads; ++i) {
      Thread& ended = tables.thread[i];
      if (ended.live || !ended.known || ::pthread_equal(ended.self, thread) == 0) {
        continue;
      }
      for (int h = 0; h < self->count; ++h) {
        for (Kind kind = 0; kind < tables.kinds; ++kind) {
          if (ended.taken[kind]) {
            Order(self->held[h].kind, kind);
          }
        }
      }
      ended.known = false;
    }
  }
  return ret;
}
