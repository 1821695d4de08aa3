#include "tests/system/power_cut/disk_recorder.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

namespace zefs::test {
namespace {

struct OpenFile {
  bool syncsWrites = false;
  bool forgotten = false;  ///< its syncs are left out
};

struct State {
  std::string given;  ///< the recorded directory as the test names it
  std::string real;   ///< the same without links
  std::vector<DiskEvent> events;
  std::map<int, OpenFile> files;
  std::set<std::string> forgottenNames;
};

// Held through each call that is recorded, so that the order of the events is that of the effects.
std::mutex mutex;
std::atomic<bool> recording{false};

State& TheState() {
  static State* const state = new State;
  return *state;
}

/// The path below the recorded directory; none for one that lies elsewhere.
std::optional<std::string> Below(const State& state, const char* path) {
  const std::string text = path == nullptr ? "" : path;
  for (const std::string& directory : {state.given, state.real}) {
    if (text.compare(0, directory.size(), directory) != 0) {
      continue;
    }
    if (text.size() == directory.size()) {
      return "";
    }
    if (text[directory.size()] == '/') {
      return text.substr(directory.size() + 1);
    }
  }
  return std::nullopt;
}

/// Makes a call that changes what paths stand for, and notes it if it succeeds.
template <typename Call>
int OnPaths(DiskEvent::Kind kind, const char* path, const char* other, Call call) {
  if (!recording.load()) {
    return call();
  }
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  const auto below = Below(state, path);
  const auto otherBelow = other == nullptr ? std::optional<std::string>("") : Below(state, other);
  const int result = call();
  if (result == 0 && below && otherBelow) {
    state.events.push_back({kind, -1, 0, 0, *below, *otherBelow});
  }
  return result;
}

template <typename Call>
int OnOpen(const char* path, int flags, Call call) {
  if (!recording.load()) {
    return call(flags & ~O_SYNC);
  }
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  const auto below = Below(state, path);
  const int fd = call(flags & ~O_SYNC);
  if (fd != -1 && below) {
    const std::string name = below->substr(below->rfind('/') + 1);
    state.files[fd] = OpenFile{(flags & O_DSYNC) != 0, state.forgottenNames.count(name) != 0};
    state.events.push_back({DiskEvent::kOpen, fd, flags, 0, *below, ""});
  }
  return fd;
}

/// Whether the descriptor is recorded; the caller has the lock.
const OpenFile* Recorded(const State& state, int fd) {
  const auto at = state.files.find(fd);
  return at == state.files.end() ? nullptr : &at->second;
}

/// Where a write without an offset of its own goes.
std::uint64_t Position(int fd) {
  if ((::fcntl(fd, F_GETFL) & O_APPEND) != 0) {
    struct stat64 status {};
    ::fstat64(fd, &status);
    return static_cast<std::uint64_t>(status.st_size);
  }
  return static_cast<std::uint64_t>(::lseek64(fd, 0, SEEK_CUR));
}

/// Makes a call that writes to `fd`, at `offset` or, if it is -1, where the descriptor stands.
/// `bytes(result)` gives what was written once it is known how much.
template <typename Call, typename Bytes>
ssize_t OnWrite(int fd, off64_t offset, Call call, Bytes bytes) {
  if (!recording.load()) {
    return call();
  }
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  const OpenFile* const file = Recorded(state, fd);
  if (file == nullptr) {
    return call();
  }
  const std::uint64_t at = offset == -1 ? Position(fd) : static_cast<std::uint64_t>(offset);
  const ssize_t result = call();
  if (result > 0) {
    const int error = errno;
    state.events.push_back(
        {DiskEvent::kWrite, fd, 0, at, "", bytes(static_cast<std::size_t>(result))});
    if (file->syncsWrites && !file->forgotten) {
      state.events.push_back({DiskEvent::kSyncWrite, fd, 0, 0, "", ""});
    }
    errno = error;
  }
  return result;
}

/// What is on its way from one file to another inside the kernel.
std::string BytesFrom(int fd, off64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  if (::pread64(fd, bytes.data(), size, offset) != static_cast<ssize_t>(size)) {
    throw std::runtime_error("cannot read what is copied");
  }
  return bytes;
}

/// A copy inside the kernel, from where `in` stands to where `out` stands.
template <typename Call>
ssize_t OnCopy(int out, int in, Call call) {
  const off64_t from = recording.load() ? ::lseek64(in, 0, SEEK_CUR) : 0;
  return OnWrite(out, -1, call, [=](std::size_t size) { return BytesFrom(in, from, size); });
}

/// A sync of `fd`, which only the record sees.
int OnSync(int fd) {
  if (::fcntl(fd, F_GETFD) == -1) {
    return -1;
  }
  if (recording.load()) {
    const std::lock_guard<std::mutex> lock(mutex);
    State& state = TheState();
    const OpenFile* const file = Recorded(state, fd);
    if (file != nullptr && !file->forgotten) {
      state.events.push_back({DiskEvent::kSync, fd, 0, 0, "", ""});
    }
  }
  return 0;
}

template <typename Call>
int OnTruncate(int fd, const char* path, std::uint64_t size, Call call) {
  if (!recording.load()) {
    return call();
  }
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  const auto below =
      fd == -1 ? Below(state, path)
               : (Recorded(state, fd) == nullptr ? std::nullopt : std::optional<std::string>(""));
  const int result = call();
  if (result == 0 && below) {
    state.events.push_back({DiskEvent::kTruncate, fd, 0, size, *below, ""});
  }
  return result;
}

template <typename Call>
int OnClose(int fd, Call call) {
  if (!recording.load()) {
    return call();
  }
  const std::lock_guard<std::mutex> lock(mutex);
  State& state = TheState();
  if (state.files.erase(fd) != 0) {
    state.events.push_back({DiskEvent::kClose, fd, 0, 0, "", ""});
  }
  return call();
}

template <typename Number>
void Put(std::ostream& out, Number number) {
  out.write(reinterpret_cast<const char*>(&number), sizeof number);
}
void PutText(std::ostream& out, const std::string& text) {
  Put(out, text.size());
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
}
template <typename Number>
bool Get(std::istream& in, Number* number) {
  return !in.read(reinterpret_cast<char*>(number), sizeof *number).fail();
}
bool GetText(std::istream& in, std::string* text) {
  std::size_t size = 0;
  if (!Get(in, &size)) {
    return false;
  }
  text->resize(size);
  return !in.read(text->data(), static_cast<std::streamsize>(size)).fail();
}

}  // namespace

void DiskRecorder::Begin(const std::string& directory) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(directory.c_str(), nullptr),
                                                         &std::free);
  if (real == nullptr) {
    throw std::runtime_error("cannot record " + directory + ": it does not exist");
  }
  const std::lock_guard<std::mutex> lock(mutex);
  TheState() = State{directory, real.get(), {}, {}, {}};
  recording = true;
}

void DiskRecorder::Mark(const std::string& word) {
  const std::lock_guard<std::mutex> lock(mutex);
  TheState().events.push_back({DiskEvent::kMark, -1, 0, 0, word, ""});
}

void DiskRecorder::ForgetSyncsOf(const std::string& fileName) {
  const std::lock_guard<std::mutex> lock(mutex);
  TheState().forgottenNames.insert(fileName);
}

std::vector<DiskEvent> DiskRecorder::End() {
  const std::lock_guard<std::mutex> lock(mutex);
  recording = false;
  return std::exchange(TheState().events, {});
}

void DiskRecorder::Save(const std::vector<DiskEvent>& events, const std::string& file) {
  std::ofstream out(file, std::ios::binary);
  for (const DiskEvent& event : events) {
    Put(out, event.kind);
    Put(out, event.fd);
    Put(out, event.flags);
    Put(out, event.offset);
    PutText(out, event.path);
    PutText(out, event.bytes);
  }
}

std::vector<DiskEvent> DiskRecorder::Saved(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<DiskEvent> events;
  for (DiskEvent event; Get(in, &event.kind) && Get(in, &event.fd) && Get(in, &event.flags) &&
                        Get(in, &event.offset) && GetText(in, &event.path) &&
                        GetText(in, &event.bytes);) {
    events.push_back(event);
  }
  return events;
}

}  // namespace zefs::test

// The calls themselves, in front of the C library's own for the whole process. The two names of a
// call take the same offsets: 64 bits.
static_assert(sizeof(off_t) == sizeof(off64_t));

#define ZEFS_RECORDED __attribute__((visibility("default")))
#define ZEFS_NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))

using zefs::test::DiskEvent;

#define ZEFS_RECORD_OPEN(name)                                                          \
  ZEFS_RECORDED int name(const char* path, int flags, ...) {                            \
    ZEFS_NEXT(name);                                                                    \
    mode_t mode = 0;                                                                    \
    if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {                                       \
      std::va_list rest;                                                                \
      va_start(rest, flags);                                                            \
      mode = va_arg(rest, mode_t);                                                      \
      va_end(rest);                                                                     \
    }                                                                                   \
    return zefs::test::OnOpen(path, flags, [&](int f) { return next(path, f, mode); }); \
  }
#define ZEFS_RECORD_CREAT(name)                                       \
  ZEFS_RECORDED int name(const char* path, mode_t mode) {             \
    ZEFS_NEXT(name);                                                  \
    return zefs::test::OnOpen(path, O_CREAT | O_WRONLY | O_TRUNC,     \
                              [&](int) { return next(path, mode); }); \
  }
#define ZEFS_RECORD_PWRITE(name)                                                                \
  ZEFS_RECORDED ssize_t name(int fd, const void* buffer, std::size_t size, off_t offset) {      \
    ZEFS_NEXT(name);                                                                            \
    return zefs::test::OnWrite(                                                                 \
        fd, offset, [&] { return next(fd, buffer, size, offset); },                             \
        [&](std::size_t done) { return std::string(static_cast<const char*>(buffer), done); }); \
  }
#define ZEFS_RECORD_PWRITEV(name)                                                          \
  ZEFS_RECORDED ssize_t name(int fd, const struct iovec* parts, int count, off_t offset) { \
    ZEFS_NEXT(name);                                                                       \
    return zefs::test::OnWrite(                                                            \
        fd, offset, [&] { return next(fd, parts, count, offset); },                        \
        [&](std::size_t done) { return Joined(parts, count, done); });                     \
  }
#define ZEFS_RECORD_FTRUNCATE(name)                                              \
  ZEFS_RECORDED int name(int fd, off_t size) noexcept {                          \
    ZEFS_NEXT(name);                                                             \
    return zefs::test::OnTruncate(fd, nullptr, static_cast<std::uint64_t>(size), \
                                  [&] { return next(fd, size); });               \
  }
#define ZEFS_RECORD_TRUNCATE(name)                                            \
  ZEFS_RECORDED int name(const char* path, off_t size) noexcept {             \
    ZEFS_NEXT(name);                                                          \
    return zefs::test::OnTruncate(-1, path, static_cast<std::uint64_t>(size), \
                                  [&] { return next(path, size); });          \
  }
#define ZEFS_RECORD_SENDFILE(name)                                                     \
  ZEFS_RECORDED ssize_t name(int to, int from, off_t* at, std::size_t size) noexcept { \
    ZEFS_NEXT(name);                                                                   \
    return zefs::test::OnCopy(to, from, [&] { return next(to, from, at, size); });     \
  }

namespace {

/// The first bytes of what a call gathers.
std::string Joined(const struct iovec* parts, int count, std::size_t size) {
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    bytes.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace

extern "C" {

ZEFS_RECORD_OPEN(open)
ZEFS_RECORD_OPEN(open64)
ZEFS_RECORD_CREAT(creat)
ZEFS_RECORD_CREAT(creat64)
ZEFS_RECORD_PWRITE(pwrite)
ZEFS_RECORD_PWRITE(pwrite64)
ZEFS_RECORD_PWRITEV(pwritev)
ZEFS_RECORD_PWRITEV(pwritev64)
ZEFS_RECORD_FTRUNCATE(ftruncate)
ZEFS_RECORD_FTRUNCATE(ftruncate64)
ZEFS_RECORD_TRUNCATE(truncate)
ZEFS_RECORD_TRUNCATE(truncate64)
ZEFS_RECORD_SENDFILE(sendfile)
ZEFS_RECORD_SENDFILE(sendfile64)

ZEFS_RECORDED ssize_t write(int fd, const void* buffer, std::size_t size) {
  ZEFS_NEXT(write);
  return zefs::test::OnWrite(
      fd, -1, [&] { return next(fd, buffer, size); },
      [&](std::size_t done) { return std::string(static_cast<const char*>(buffer), done); });
}

ZEFS_RECORDED ssize_t writev(int fd, const struct iovec* parts, int count) {
  ZEFS_NEXT(writev);
  return zefs::test::OnWrite(
      fd, -1, [&] { return next(fd, parts, count); },
      [&](std::size_t done) { return Joined(parts, count, done); });
}

ZEFS_RECORDED int close(int fd) {
  ZEFS_NEXT(close);
  return zefs::test::OnClose(fd, [&] { return next(fd); });
}

ZEFS_RECORDED int fsync(int fd) {
  return zefs::test::OnSync(fd);
}
ZEFS_RECORDED int fdatasync(int fd) {
  return zefs::test::OnSync(fd);
}
// Of lock files only, which are mapped for writing: nothing of them counts.
ZEFS_RECORDED int msync(void* /*address*/, std::size_t /*size*/, int /*flags*/) {
  return 0;
}

ZEFS_RECORDED int rename(const char* from, const char* to) noexcept {
  ZEFS_NEXT(rename);
  return zefs::test::OnPaths(DiskEvent::kRename, from, to, [&] { return next(from, to); });
}
ZEFS_RECORDED int unlink(const char* path) noexcept {
  ZEFS_NEXT(unlink);
  return zefs::test::OnPaths(DiskEvent::kUnlink, path, nullptr, [&] { return next(path); });
}
ZEFS_RECORDED int mkdir(const char* path, mode_t mode) noexcept {
  ZEFS_NEXT(mkdir);
  return zefs::test::OnPaths(DiskEvent::kMkdir, path, nullptr, [&] { return next(path, mode); });
}
ZEFS_RECORDED int rmdir(const char* path) noexcept {
  ZEFS_NEXT(rmdir);
  return zefs::test::OnPaths(DiskEvent::kRmdir, path, nullptr, [&] { return next(path); });
}

// Boost.Filesystem makes this call by its number, without offsets of its own.
ZEFS_RECORDED long syscall(long number, ...) noexcept {
  using Syscall = long (*)(long, ...) noexcept;
  static const auto next = reinterpret_cast<Syscall>(::dlsym(RTLD_NEXT, "syscall"));
  std::va_list rest;
  va_start(rest, number);
  // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it does not see va_start in this function
  const long first = va_arg(rest, long);
  const long second = va_arg(rest, long);
  const long third = va_arg(rest, long);
  const long fourth = va_arg(rest, long);
  const long fifth = va_arg(rest, long);
  const long sixth = va_arg(rest, long);
  // NOLINTEND(clang-analyzer-valist.Uninitialized)
  va_end(rest);
  const auto call = [&] { return next(number, first, second, third, fourth, fifth, sixth); };
  if (number != SYS_copy_file_range) {
    return call();
  }
  return zefs::test::OnCopy(static_cast<int>(third), static_cast<int>(first), call);
}

}  // extern "C"
