#include "fuzz/table_directory/watched_child.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sstream>
#include <ucontext.h>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include "fuzz/fuzz_support.h"
#include "fuzz/table_directory/lmdb_calls.h"
#include "fuzz/table_directory/symbols.h"

#ifdef __SANITIZE_ADDRESS__
// The signals are for the handler below, and a report ends in one of them.
extern "C" [[gnu::visibility("default")]] const char*
__asan_default_options() {  // NOLINT(bugprone-reserved-identifier)
  return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0:"
         "abort_on_error=1:detect_leaks=0:detect_stack_use_after_return=0";
}
extern "C" [[gnu::visibility("default")]] const char*
__ubsan_default_options() {  // NOLINT(bugprone-reserved-identifier)
  return "abort_on_error=1:print_stacktrace=1";
}
#endif

namespace zefs::fuzz {

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr time_t kSeconds = 30;
#else
constexpr time_t kSeconds = 8;
#endif
constexpr std::size_t kStackBytes = 1U << 18;
constexpr int kMostFrames = 64;
constexpr greg_t kWriteFault = 2;  // in the error code of a page fault
constexpr int kTold = 70;          // exit status of a child that has told its end on the pipe

int tellTo = -1;  // the child's end of the pipe
unsigned long callsThen = 0;
bool alarmed = false;

void Tell(const char* text) {
  [[maybe_unused]] const ssize_t written = ::write(tellTo, text, std::strlen(text));
}

/// Whether `address` lies in the map of a database, or where a node of its last page may point. The
/// heap may be damaged: none of it is used.
bool IsInDatabaseMap(const void* address) {
  constexpr std::uintptr_t kBehind = 1U << 20;
  static std::array<char, 1U << 17> maps;
  const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  std::size_t length = 0;
  for (ssize_t got = 1; got > 0 && length + 1 < maps.size();) {
    got = ::read(fd, &maps[length], maps.size() - 1 - length);
    length += static_cast<std::size_t>(std::max(got, ssize_t{0}));
  }
  ::close(fd);
  maps[length] = '\0';
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  char* rest = nullptr;
  for (char* line = ::strtok_r(maps.data(), "\n", &rest); line != nullptr;
       line = ::strtok_r(nullptr, "\n", &rest)) {
    char* dash = nullptr;
    const std::uintptr_t begin = std::strtoull(line, &dash, 16);
    const std::uintptr_t end = *dash == '-' ? std::strtoull(dash + 1, nullptr, 16) : 0;
    if ((std::strstr(line, ".mdb") != nullptr || std::strstr(line, "mergedb") != nullptr) &&
        wanted >= begin && wanted < end + kBehind) {
      return true;
    }
  }
  return false;
}

/// "lmdb", "own" or "" for the C library and what else lies in between.
const char* OwnerOf(const Dl_info& info) {
  constexpr const char* kBetween[] = {"libc.so",  "libc-",   "libpthread", "libgcc", "libstdc++",
                                      "ld-linux", "libasan", "libubsan",   "libm",   "vdso"};
  if (std::strstr(info.dli_fname, "liblmdb") != nullptr) {
    return "lmdb";
  }
  const bool between = std::any_of(std::begin(kBetween), std::end(kBetween), [&](const char* name) {
    return std::strstr(info.dli_fname, name) != nullptr;
  });
  return between ? "" : "own";
}

/// Tells whose code the frames lead to, and the functions: "CULPRIT SIGNAL function function".
void TellFrames(int signal, const void* address, std::uintptr_t interrupted, bool writing) {
  std::array<void*, kMostFrames> frames{};
  const int count = ::backtrace(frames.data(), kMostFrames);
  std::array<char, 4096> text{};
  std::size_t length = 0;
  const auto add = [&](const char* word, unsigned long number) {
    const int added = std::snprintf(&text[length], text.size() - length, " %s+0x%lx", word, number);
    length = std::min(text.size() - 1, length + static_cast<std::size_t>(std::max(added, 0)));
  };
  const char* owner = "";
  bool heap = false;
  // The handler's own frames come first.
  void* const* const last = frames.data() + count;
  void* const* const first =
      std::find_if(static_cast<void* const*>(frames.data()), last, [interrupted](void* frame) {
        return reinterpret_cast<std::uintptr_t>(frame) == interrupted;
      });
  for (void* const* frame = first == last ? frames.data() : first; frame != last; ++frame) {
    Dl_info info{};
    if (::dladdr(*frame, &info) == 0 || info.dli_fname == nullptr) {
      continue;
    }
    const char* const here = OwnerOf(info);
    if (*owner == '\0') {
      owner = here;
      const char* const name = info.dli_sname == nullptr ? "" : info.dli_sname;
      heap = heap || std::strstr(name, "free") != nullptr || std::strstr(name, "alloc") != nullptr;
    }
    const auto at = reinterpret_cast<std::uintptr_t>(*frame);
    if (std::strcmp(here, "lmdb") == 0) {
      add(info.dli_sname == nullptr ? "mdb_" : info.dli_sname,
          at - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
    } else if (std::strcmp(here, "own") == 0) {
      add("own", at - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
    }
  }
  const char* culprit = std::strcmp(owner, "lmdb") == 0 ? "lmdb" : "own";
  if ((signal == SIGBUS || signal == SIGSEGV) && std::strcmp(owner, "lmdb") != 0 &&
      IsInDatabaseMap(address)) {
    culprit = "address";
  } else if (signal == SIGABRT && heap) {
    culprit = "heap";
  }
  if ((signal == SIGBUS || signal == SIGSEGV) && writing && std::strcmp(owner, "lmdb") != 0) {
    culprit = "write";  // nothing that LMDB hands out is written to
  }
  if (signal == SIGALRM) {
    culprit = InsideLmdb() != nullptr && LmdbCalls() == callsThen ? "lmdb" : "own";
  }
  Tell(culprit);
  Tell(" ");
  Tell(signal == SIGALRM ? "HANG" : ::sigabbrev_np(signal));
  Tell(text.data());
}

void OnSignal(int signal, siginfo_t* info, void* context) {
  if (signal == SIGALRM && !alarmed) {
    alarmed = true;
    callsThen = LmdbCalls();
    ::alarm(1);
    return;
  }
  static bool telling = false;
  if (telling) {  // the frames cannot be told
    Tell("heap NESTED signals");
    ::_exit(kTold);
  }
  telling = true;
  const auto* const machine = static_cast<const ucontext_t*>(context);
  TellFrames(signal, info->si_addr,
             static_cast<std::uintptr_t>(machine->uc_mcontext.gregs[REG_RIP]),
             (machine->uc_mcontext.gregs[REG_ERR] & kWriteFault) != 0);
  ::_exit(kTold);
}

void Watch() {
  static std::array<char, kStackBytes> stack;
  stack_t alternate{};
  alternate.ss_sp = stack.data();
  alternate.ss_size = stack.size();
  ::sigaltstack(&alternate, nullptr);
  struct sigaction action {};
  action.sa_sigaction = &OnSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  for (const int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGALRM}) {
    ::sigaction(signal, &action, nullptr);
  }
#ifndef __SANITIZE_ADDRESS__
  constexpr rlim_t kAddressSpace = rlim_t{64} << 30;  // five maps
  const rlimit space{kAddressSpace, kAddressSpace};
  ::setrlimit(RLIMIT_AS, &space);
#endif
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::alarm(kSeconds);
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> bytes{};
  for (;;) {
    const ssize_t got = ::read(fd, bytes.data(), bytes.size());
    if (got <= 0) {
      return text;
    }
    text.append(bytes.data(), static_cast<std::size_t>(got));
  }
}

Culprit CulpritOf(const std::string& told) {
  const std::string word = told.substr(0, told.find(' '));
  if (word == "lmdb") {
    return Culprit::kLmdb;
  }
  if (word == "address") {
    return Culprit::kLmdbAddress;
  }
  return word == "heap" ? Culprit::kHeap : Culprit::kOwn;
}

/// Puts names in the place of what the child has told of this program's frames, "own+0x123".
std::string WithNames(const std::string& told) {
  static const Symbols symbols;
  constexpr const char* kOwnFrame = "own+0x";
  std::istringstream words(told);
  std::string named;
  for (std::string word; words >> word;) {
    if (word.compare(0, std::strlen(kOwnFrame), kOwnFrame) == 0) {
      const std::string name =
          symbols.NameOf(std::strtoull(word.c_str() + std::strlen(kOwnFrame), nullptr, 16));
      word = name.empty() ? word : name;
    }
    named += (named.empty() ? "" : " ") + word;
  }
  return named;
}

/// Whether the child died where LMDB's keys and values are read, of which no more is read than LMDB
/// tells: at an address or a size that LMDB should not have told.
bool IsReadOfLmdb(const Ending& ending) {
  constexpr const char* kReaders[] = {"10ReadRecord", "7ReadKey", "LMDBKeyCompare", "SpecialValueC",
                                      "CompareKeys"};
  std::istringstream words(ending.what);
  std::string culprit;
  std::string signal;
  std::string function;
  std::string caller;
  words >> culprit >> signal >> function >> caller;
  const bool reader = std::any_of(std::begin(kReaders), std::end(kReaders), [&](const char* name) {
    return function.find(name) != std::string::npos;
  });
  if (!reader || culprit == "write") {
    return false;
  }
  const std::size_t report = ending.words.find("AddressSanitizer: ");
  if (report == std::string::npos) {
    return signal != "ABRT";
  }
  // LMDB has its own keys compared; what this library asks for must not have been freed.
  const bool byLmdb = caller.compare(0, 4, "mdb_") == 0;
  return ending.words.find("READ of size", report) != std::string::npos &&
         (byLmdb || ending.words.find("heap-buffer-overflow", report) != std::string::npos);
}

[[noreturn]] void BeChild(const std::function<std::string()>& life, int tell, int words) {
  tellTo = tell;
  ::dup2(words, STDERR_FILENO);
  ::dup2(words, STDOUT_FILENO);
  Watch();
  const std::string result = life();
  Tell(result.c_str());
  ::_exit(0);
}

}  // namespace

Ending RunWatched(const std::function<std::string()>& life) {
  // The first backtrace loads a library, which the handler must not do.
  static const int primed = [] {
    std::array<void*, 2> frames{};
    return ::backtrace(frames.data(), 2);
  }();
  Require(primed != 0, "there are no backtraces");
  const int words = ::memfd_create("words", MFD_CLOEXEC);
  int ends[2] = {-1, -1};
  Require(words != -1 && ::pipe2(ends, O_CLOEXEC) == 0, "no pipe to a child process");
  std::fflush(nullptr);
  const pid_t child = ::fork();
  Require(child != -1, "there is no child process");
  if (child == 0) {
    BeChild(life, ends[1], words);
  }
  ::close(ends[1]);
  Ending ending;
  ending.what = ReadAll(ends[0]);
  ::close(ends[0]);
  int status = 0;
  while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  ::lseek(words, 0, SEEK_SET);
  ending.words = ReadAll(words);
  ::close(words);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    const bool told = WIFEXITED(status) && WEXITSTATUS(status) == kTold && !ending.what.empty();
    ending.culprit = told ? CulpritOf(ending.what) : Culprit::kOwn;
    ending.what = WithNames(ending.what);
    if (ending.culprit == Culprit::kOwn && IsReadOfLmdb(ending)) {
      ending.culprit = Culprit::kLmdbAddress;
      ending.what.replace(0, ending.what.find(' '), "address");
    }
    if (!told) {
      ending.what += " ended with wait status " + std::to_string(status);
    }
  }
  return ending;
}

}  // namespace zefs::fuzz
