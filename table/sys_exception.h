#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "support/visibility.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Common base of what the library throws on purpose.
class ZEFS_EXTMAP_API Exception : public std::exception {
 public:
  ~Exception() override;
};

// Codes that the library throws itself. Every other one is the return code of a failed LMDB or
// system call, handed on unchanged.
inline constexpr int kErrInternal =
    14;  ///< inconsistency of the tree, wrong kind of node or iterator
inline constexpr int kErrInvalid = 22;     ///< invalid argument or state
inline constexpr int kErrIo = 5;           ///< input or output failure
inline constexpr int kErrExists = 17;      ///< the target of a snapshot exists and is no directory
inline constexpr int kErrNoStepBack = -1;  ///< stepping back in the persistent table

/// The one exception of the library: an error code, and where it was thrown.
class ZEFS_EXTMAP_API SysException : public Exception {
 public:
  /// `code` is an errno value, or one handed on from LMDB or a system call.
  explicit SysException(int errorCode);
  ~SysException() override;

  /// "errno ", the code in decimal, and a newline. Valid as long as the exception.
  const char* what() const noexcept override;

  std::int32_t code;
  std::string stack;  ///< stack trace of the constructor's caller, one frame a line
  std::string message;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
