#include "tests/support/fault_injection.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <lmdb.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <unistd.h>

#include <sys/stat.h>
#include <sys/uio.h>

#include "tests/support/figures.h"

namespace zefs::test {
namespace {

enum class Effect { kFail, kShorten, kKill };

struct Fault {
  Call call;
  int at;  ///< number of the call since OnlyBelow
  Effect effect;
  int error = 0;
  bool forGood = false;
  std::size_t bytes = 0;
};

struct State {
  std::string given;     ///< the watched directory as the test names it
  std::string real;      ///< the same without links, as the kernel names it
  std::string database;  ///< file name of the only environment that is watched; empty: all are
  std::vector<Fault> faults;
  std::array<int, kCalls> counts{};
  std::vector<std::size_t> writeSizes;
  std::vector<std::size_t> readSizes;
  bool fired = false;
};

// Calls arrive before main and after it: the mutex needs no construction, the state is made on the
// first use by a test, and while nothing is watched neither is touched.
std::mutex mutex;
std::atomic<bool> watching{false};

State& TheState() {
  static State* const state = new State;
  return *state;
}

int& CountOf(State& state, Call call) {
  return state.counts.at(static_cast<std::size_t>(call));
}

bool IsBelow(const std::string& directory, const std::string& path) {
  return path.compare(0, directory.size(), directory) == 0 &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

bool IsWatched(const State& state, const char* path) {
  return path != nullptr && (IsBelow(state.given, path) || IsBelow(state.real, path));
}

/// A descriptor of a removed file still counts: the kernel names it by its last path.
bool IsWatched(const State& state, int fd) {
  std::array<char, 32> link{};
  std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
  std::array<char, PATH_MAX> target{};
  return ::readlink(link.data(), target.data(), target.size() - 1) > 0 &&
         IsBelow(state.real, target.data());
}

// The path of a call's environment; null while it has none.
const char* PathOf(std::nullptr_t /*unused*/) {
  return nullptr;
}
const char* PathOf(const char* path) {
  return path;
}
const char* PathOf(MDB_env* env) {
  const char* path = nullptr;
  ::mdb_env_get_path(env, &path);
  return path;
}
const char* PathOf(MDB_txn* txn) {
  return PathOf(::mdb_txn_env(txn));
}
const char* PathOf(MDB_cursor* cursor) {
  return PathOf(::mdb_cursor_txn(cursor));
}

template <typename Target>
bool IsWatchedDatabase(const State& state, Target target) {
  if (state.database.empty()) {
    return true;
  }
  const char* path = PathOf(target);
  if (path == nullptr) {
    return false;
  }
  const std::string name(path);
  return name.substr(name.rfind('/') + 1) == state.database;
}

/// What is to happen to one call.
struct Verdict {
  bool fails = false;
  int error = 0;
  std::size_t bytes = 0;  ///< of a write: how much of it is done
};

/// Counts a watched call and looks up its fate.
Verdict Sentence(State& state, Call call, std::size_t bytes) {
  Verdict verdict{false, 0, bytes};
  const int number = ++CountOf(state, call);
  if (call == Call::kWrite) {
    state.writeSizes.push_back(bytes);
  } else if (call == Call::kRead) {
    state.readSizes.push_back(bytes);
  }
  for (const Fault& fault : state.faults) {
    if (fault.call != call || !(fault.at == number || (fault.forGood && fault.at < number))) {
      continue;
    }
    state.fired = true;
    switch (fault.effect) {
      case Effect::kFail:
        verdict.fails = true;
        verdict.error = fault.error;
        break;
      case Effect::kShorten:
        verdict.bytes = fault.bytes < bytes ? fault.bytes : bytes;
        break;
      case Effect::kKill:
        ::kill(::getpid(), SIGKILL);
        break;
    }
  }
  return verdict;
}

/// Judges the call if `isWatched(state)`.
template <typename IsWatched>
Verdict JudgeIf(Call call, std::size_t bytes, IsWatched isWatched) {
  const Verdict untouched{false, 0, bytes};
  if (!watching.load()) {
    return untouched;
  }
  const int before = errno;
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  const bool watched = isWatched(state);
  errno = before;
  return watching.load() && watched ? Sentence(state, call, bytes) : untouched;
}

/// A system call on `targets`, paths or descriptors: watched if any of them is.
template <typename... Targets>
Verdict Judge(Call call, std::size_t bytes, Targets... targets) {
  return JudgeIf(call, bytes,
                 [&](const State& state) { return (IsWatched(state, targets) || ...); });
}

/// A call of LMDB on `target`: an environment, transaction or cursor, or a path.
template <typename Target>
Verdict JudgeDatabase(Call call, Target target) {
  return JudgeIf(call, 0, [&](const State& state) { return IsWatchedDatabase(state, target); });
}

void AddFault(Fault fault, int nth) {
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  fault.at = CountOf(state, fault.call) + nth;
  state.faults.push_back(fault);
}

int Refuse(const Verdict& verdict) {
  errno = verdict.error;
  return -1;
}

}  // namespace

void Faults::OnlyBelow(const std::string& directory) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(directory.c_str(), nullptr),
                                                         &std::free);
  if (real == nullptr) {
    throw std::runtime_error("cannot watch calls below " + directory + ": it does not exist");
  }
  const std::lock_guard<std::mutex> lock(mutex);
  State fresh;
  fresh.given = directory;
  fresh.real = real.get();
  TheState() = fresh;
  watching = true;
}

void Faults::OnlyDatabase(const std::string& fileName) {
  const std::lock_guard<std::mutex> lock(mutex);
  TheState().database = fileName;
}

void Faults::FailNth(Call call, int nth, int error, bool forGood) {
  AddFault({call, 0, Effect::kFail, error, forGood}, nth);
}

void Faults::ShortWriteNth(int nth, std::size_t bytes) {
  AddFault({Call::kWrite, 0, Effect::kShorten, 0, false, bytes}, nth);
}

void Faults::KillNth(Call call, int nth) {
  AddFault({call, 0, Effect::kKill}, nth);
}

int Faults::Count(Call call) {
  const std::lock_guard<std::mutex> lock(mutex);
  return CountOf(TheState(), call);
}

std::vector<std::size_t> Faults::WriteSizes() {
  const std::lock_guard<std::mutex> lock(mutex);
  return TheState().writeSizes;
}

std::vector<std::size_t> Faults::ReadSizes() {
  const std::lock_guard<std::mutex> lock(mutex);
  return TheState().readSizes;
}

bool Faults::Fired() {
  const std::lock_guard<std::mutex> lock(mutex);
  return TheState().fired;
}

void Faults::Disarm() {
  const std::lock_guard<std::mutex> lock(mutex);
  TheState().faults.clear();
}

void Faults::Reset() {
  const std::lock_guard<std::mutex> lock(mutex);
  watching = false;
  TheState() = State();
}

int Faults::UntilNoneFires(const std::function<void(int nth)>& run) {
  constexpr int kTooMany = 100000;
  for (int nth = 1; nth < kTooMany; ++nth) {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      TheState().fired = false;
    }
    run(nth);
    Disarm();
    if (!Fired()) {
      return nth - 1;
    }
    CountFigure("faults injected");
  }
  throw std::runtime_error("a fault fires in every run");
}

}  // namespace zefs::test

// The calls themselves. They stand in the global namespace under the C library's names and are seen
// by every shared library of the process; each finds the C library's own, or the sanitizer's in
// front of it, behind this program. LMDB's library binds the calls that it makes of itself to its
// own functions, so that they do not come by here.
#define ZEFS_INTERPOSE __attribute__((visibility("default")))
#define ZEFS_NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))
// A call of which nothing happens when it fails: `targets` are the paths or descriptors in `args`.
#define ZEFS_INTERPOSE_CALL(call, name, params, args, ...)                          \
  ZEFS_INTERPOSE int name params {                                                  \
    ZEFS_NEXT(name);                                                                \
    const auto verdict = zefs::test::Judge(zefs::test::Call::call, 0, __VA_ARGS__); \
    return verdict.fails ? zefs::test::Refuse(verdict) : next args;                 \
  }
#define ZEFS_INTERPOSE_OPEN(name)                                                 \
  ZEFS_INTERPOSE int name(const char* path, int flags, ...) {                     \
    ZEFS_NEXT(name);                                                              \
    mode_t mode = 0;                                                              \
    if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {                                 \
      std::va_list rest;                                                          \
      va_start(rest, flags);                                                      \
      mode = va_arg(rest, mode_t);                                                \
      va_end(rest);                                                               \
    }                                                                             \
    const auto verdict = zefs::test::Judge(zefs::test::Call::kOpen, 0, path);     \
    return verdict.fails ? zefs::test::Refuse(verdict) : next(path, flags, mode); \
  }
// A call of LMDB, which returns its error; `target` tells its environment.
#define ZEFS_INTERPOSE_LMDB(call, name, params, args, target)                       \
  ZEFS_INTERPOSE int name params {                                                  \
    ZEFS_NEXT(name);                                                                \
    const auto verdict = zefs::test::JudgeDatabase(zefs::test::Call::call, target); \
    return verdict.fails ? verdict.error : next args;                               \
  }

extern "C" {

ZEFS_INTERPOSE_OPEN(open)
ZEFS_INTERPOSE_OPEN(open64)
ZEFS_INTERPOSE_CALL(kFsync, fsync, (int fd), (fd), fd)
ZEFS_INTERPOSE_CALL(kRename, rename, (const char* from, const char* to) noexcept, (from, to), from,
                    to)
ZEFS_INTERPOSE_CALL(kUnlink, unlink, (const char* path) noexcept, (path), path)
ZEFS_INTERPOSE_CALL(kMkdir, mkdir, (const char* path, mode_t mode) noexcept, (path, mode), path)
ZEFS_INTERPOSE_CALL(kStat, stat64, (const char* path, struct stat64* out) noexcept, (path, out),
                    path)
// Those of LMDB's library as well: it makes them through the C library. Weak: a program may bring
// its own in the place of these.
#pragma weak fdatasync
#pragma weak ftruncate
#pragma weak pwrite
#pragma weak writev
ZEFS_INTERPOSE_CALL(kFdatasync, fdatasync, (int fd), (fd), fd)
ZEFS_INTERPOSE_CALL(kFtruncate, ftruncate, (int fd, off_t size) noexcept, (fd, size), fd)
ZEFS_INTERPOSE ssize_t pwrite(int fd, const void* buffer, std::size_t size, off_t offset) {
  ZEFS_NEXT(pwrite);
  const auto verdict = zefs::test::Judge(zefs::test::Call::kPwrite, size, fd);
  return verdict.fails ? zefs::test::Refuse(verdict) : next(fd, buffer, size, offset);
}
ZEFS_INTERPOSE ssize_t writev(int fd, const struct iovec* parts, int count) {
  ZEFS_NEXT(writev);
  const auto verdict = zefs::test::Judge(zefs::test::Call::kWritev, 0, fd);
  return verdict.fails ? zefs::test::Refuse(verdict) : next(fd, parts, count);
}

ZEFS_INTERPOSE ssize_t read(int fd, void* buffer, std::size_t size) {
  ZEFS_NEXT(read);
  const auto verdict = zefs::test::Judge(zefs::test::Call::kRead, size, fd);
  return verdict.fails ? zefs::test::Refuse(verdict) : next(fd, buffer, size);
}

ZEFS_INTERPOSE ssize_t write(int fd, const void* buffer, std::size_t size) {
  ZEFS_NEXT(write);
  const auto verdict = zefs::test::Judge(zefs::test::Call::kWrite, size, fd);
  return verdict.fails ? zefs::test::Refuse(verdict) : next(fd, buffer, verdict.bytes);
}

// A close that fails has closed the descriptor all the same.
ZEFS_INTERPOSE int close(int fd) {
  ZEFS_NEXT(close);
  const auto verdict = zefs::test::Judge(zefs::test::Call::kClose, 0, fd);
  const int result = next(fd);
  return verdict.fails ? zefs::test::Refuse(verdict) : result;
}

ZEFS_INTERPOSE_LMDB(kMdbEnvCreate, mdb_env_create, (MDB_env * *env), (env), nullptr)
ZEFS_INTERPOSE_LMDB(kMdbEnvSetMapsize, mdb_env_set_mapsize, (MDB_env * env, std::size_t size),
                    (env, size), env)
ZEFS_INTERPOSE_LMDB(kMdbEnvSetMaxdbs, mdb_env_set_maxdbs, (MDB_env * env, MDB_dbi dbs), (env, dbs),
                    env)
ZEFS_INTERPOSE_LMDB(kMdbEnvOpen, mdb_env_open,
                    (MDB_env * env, const char* path, unsigned int flags, mdb_mode_t mode),
                    (env, path, flags, mode), path)
ZEFS_INTERPOSE_LMDB(kMdbEnvCopy2, mdb_env_copy2,
                    (MDB_env * env, const char* path, unsigned int flags), (env, path, flags), env)
ZEFS_INTERPOSE_LMDB(kMdbTxnBegin, mdb_txn_begin,
                    (MDB_env * env, MDB_txn* parent, unsigned int flags, MDB_txn** txn),
                    (env, parent, flags, txn), env)
ZEFS_INTERPOSE_LMDB(kMdbDbiOpen, mdb_dbi_open,
                    (MDB_txn * txn, const char* name, unsigned int flags, MDB_dbi* dbi),
                    (txn, name, flags, dbi), txn)
ZEFS_INTERPOSE_LMDB(kMdbSetCompare, mdb_set_compare,
                    (MDB_txn * txn, MDB_dbi dbi, MDB_cmp_func* compare), (txn, dbi, compare), txn)
ZEFS_INTERPOSE_LMDB(kMdbCursorOpen, mdb_cursor_open,
                    (MDB_txn * txn, MDB_dbi dbi, MDB_cursor** cursor), (txn, dbi, cursor), txn)
ZEFS_INTERPOSE_LMDB(kMdbCursorGet, mdb_cursor_get,
                    (MDB_cursor * cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op),
                    (cursor, key, data, op), cursor)
ZEFS_INTERPOSE_LMDB(kMdbCursorPut, mdb_cursor_put,
                    (MDB_cursor * cursor, MDB_val* key, MDB_val* data, unsigned int flags),
                    (cursor, key, data, flags), cursor)
ZEFS_INTERPOSE_LMDB(kMdbCursorDel, mdb_cursor_del, (MDB_cursor * cursor, unsigned int flags),
                    (cursor, flags), cursor)
ZEFS_INTERPOSE_LMDB(kMdbGet, mdb_get, (MDB_txn * txn, MDB_dbi dbi, MDB_val* key, MDB_val* data),
                    (txn, dbi, key, data), txn)
ZEFS_INTERPOSE_LMDB(kMdbPut, mdb_put,
                    (MDB_txn * txn, MDB_dbi dbi, MDB_val* key, MDB_val* data, unsigned int flags),
                    (txn, dbi, key, data, flags), txn)
ZEFS_INTERPOSE_LMDB(kMdbDel, mdb_del, (MDB_txn * txn, MDB_dbi dbi, MDB_val* key, MDB_val* data),
                    (txn, dbi, key, data), txn)
ZEFS_INTERPOSE_LMDB(kMdbStat, mdb_stat, (MDB_txn * txn, MDB_dbi dbi, MDB_stat* stat),
                    (txn, dbi, stat), txn)

// A commit that fails has ended the transaction all the same.
ZEFS_INTERPOSE int mdb_txn_commit(MDB_txn* txn) {
  ZEFS_NEXT(mdb_txn_commit);
  const auto verdict = zefs::test::JudgeDatabase(zefs::test::Call::kMdbTxnCommit, txn);
  if (!verdict.fails) {
    return next(txn);
  }
  ::mdb_txn_abort(txn);
  return verdict.error;
}

}  // extern "C"
