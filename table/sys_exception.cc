#include "table/sys_exception.h"

#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <execinfo.h>

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

constexpr unsigned int kStackFrames = 63;
constexpr std::size_t kDemangleRoom = 256;

/// Adds one line of backtrace_symbols, "module(name+offset) [address]", with the name demangled. A
/// line of another form goes in as it stands. `*demangled` is the demangler's buffer, which it may
/// replace. Cuts `line`.
void AddFrame(char* line, char** demangled, std::size_t* room, std::string* text) {
  char* open = nullptr;
  char* plus = nullptr;
  char* close = nullptr;
  for (char* c = line; *c != '\0'; ++c) {
    if (*c == '(') {
      open = c;
    } else if (*c == '+') {
      plus = c;
    } else if (*c == ')' && open != nullptr && plus != nullptr) {
      close = c;
      break;
    }
  }
  text->append("  ");
  if (close == nullptr || open > plus) {
    text->append(line).append("\n");
    return;
  }
  *open = *plus = *close = '\0';
  int status = 0;
  char* name = abi::__cxa_demangle(open + 1, *demangled, room, &status);
  if (status == 0) {
    *demangled = name;
  } else {
    name = open + 1;
  }
  text->append(name).append("+").append(plus + 1).append("\n");
}

/// A block of malloc, which goes with it: also when the text finds no memory.
template <typename T>
struct Block {
  explicit Block(T* taken) : start(taken) {}
  ~Block() { std::free(static_cast<void*>(start)); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  T* start;
};

/// The call stack of its caller, at most `frames` frames. Never inlined: the first frame, which it
/// leaves out, is its own.
[[gnu::noinline]] std::string get_backtrace(unsigned int frames) {
  std::string text = "stack trace:\n";
  const Block<void*> addresses(static_cast<void**>(std::malloc((frames + 1) * sizeof(void*))));
  const int count =
      addresses.start == nullptr ? 0 : backtrace(addresses.start, static_cast<int>(frames + 1));
  const Block<char*> lines(count == 0 ? nullptr : backtrace_symbols(addresses.start, count));
  if (lines.start == nullptr) {  // without memory for it the exception goes out all the same
    return text.append("  <empty, possibly corrupt>\n");
  }
  std::size_t room = kDemangleRoom;
  Block<char> demangled(static_cast<char*>(std::malloc(room)));
  for (int i = 1; i < count; ++i) {
    AddFrame(lines.start[i], &demangled.start, &room, &text);
  }
  return text;
}

}  // namespace

Exception::~Exception() = default;

SysException::SysException(int errorCode)
    : code(errorCode),
      stack(get_backtrace(kStackFrames)),
      message("errno " + std::to_string(errorCode) + "\n") {}

SysException::~SysException() = default;

const char* SysException::what() const noexcept {
  return message.c_str();
}

}  // namespace Aldenta::Qnd::Morene::Zefs
