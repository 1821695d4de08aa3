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
#include <memory>
#include <mutex>
#include <stdexcept>
#include <unistd.h>

#include <sys/stat.h>

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
  std::string given;  ///< the watched directory as the test names it
  std::string real;   ///< the same without links, as the kernel names it
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

/// What is to happen to one call.
struct Verdict {
  bool fails = false;
  int error = 0;
  std::size_t bytes = 0;  ///< of a write: how much of it is done
};

/// Counts the call if any of `targets`, paths or descriptors, is watched, and looks up its fate.
template <typename... Targets>
Verdict Judge(Call call, std::size_t bytes, Targets... targets) {
  Verdict verdict{false, 0, bytes};
  if (!watching.load()) {
    return verdict;
  }
  const int before = errno;
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  const bool watched = (IsWatched(state, targets) || ...);
  errno = before;
  if (!watching.load() || !watched) {
    return verdict;
  }
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
  }
  throw std::runtime_error("a fault fires in every run");
}

}  // namespace zefs::test

// The calls themselves. They stand in the global namespace under the C library's names and are seen
// by every shared library of the process; each finds the C library's own, or the sanitizer's in
// front of it, behind this program.
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

}  // extern "C"
