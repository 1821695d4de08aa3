#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zefs::test {

/// The transactions that end by mdb_txn_abort while an object of this class lives, each as "read"
/// or "write" and the file name of its database. A commit that Faults lets fail ends so too. For
/// programs that compile abort_trace.cc; one object at a time, and no other thread at work.
class AbortTrace {
 public:
  AbortTrace();
  ~AbortTrace();
  AbortTrace(const AbortTrace&) = delete;
  AbortTrace& operator=(const AbortTrace&) = delete;

  /// The transactions since the last time. Forgets them.
  std::vector<std::string> Take();

  /// Runs `act` once, ahead of the next abort.
  void AtNext(std::function<void()> act);
};

}  // namespace zefs::test
