#pragma once

#include <stdexcept>
#include <string>

namespace zefs::refhost {

/// The place where data is kept failed: full, read-only, gone. The text is one line that names what
/// was tried, the path and the reason.
class StoreError : public std::runtime_error {
 public:
  StoreError(const std::string& text, int errorCode) : std::runtime_error(text), code(errorCode) {}

  int code;  ///< errno value or code of LMDB, 0 where there is none
};

/// What is stored does not fit together: an extent names an object that is not there, or reaches
/// beyond it. The text is one line.
class DamageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An errno value in words, with its name: "No space left on device (ENOSPC)"; a code of LMDB in
/// its words.
std::string ReasonOf(int errorCode);

/// "cannot `action` `path`: reason (NAME)".
StoreError SystemError(const std::string& action, const std::string& path, int errorCode);

}  // namespace zefs::refhost
