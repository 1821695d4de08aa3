#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zefs::test {

/// What fails: each has its own rules of what an operation may answer.
enum class Domain { kLmdb, kFile, kMemory };

/// One kind of call that can fail, whichever of the three harnesses fails it.
struct FaultKind {
  std::string name;
  Domain domain;
  std::vector<int> codes;  ///< what it may fail with
  /// The `nth` call since the watch began fails with `code`, or all from there on do.
  std::function<void(int nth, int code, bool forGood)> arm;
  std::function<int()> count;  ///< calls since the watch began
};

/// Every kind that there is.
const std::vector<FaultKind>& FaultKinds();

/// While it lives, calls of every kind count and can fail: LMDB's, those on files below
/// `directory`, and allocations; or, as counting takes memory itself, of memory alone. One lives at
/// a time.
class FaultWatch {
 public:
  FaultWatch(const std::string& directory, bool memoryAlone);
  ~FaultWatch();
  FaultWatch(const FaultWatch&) = delete;
  FaultWatch& operator=(const FaultWatch&) = delete;

  /// Whether any fault has taken effect.
  static bool Fired();
};

}  // namespace zefs::test
