#include "tests/persistent/abort_trace.h"

#include <dlfcn.h>
#include <lmdb.h>
#include <utility>

namespace zefs::test {
namespace {

bool tracing = false;
std::vector<std::string> aborted;
std::function<void()> next;

/// A write transaction has the number that follows the last committed one.
std::string NameOf(MDB_txn* txn) {
  MDB_env* const env = ::mdb_txn_env(txn);
  MDB_envinfo info{};
  ::mdb_env_info(env, &info);
  const char* path = nullptr;
  ::mdb_env_get_path(env, &path);
  const std::string file(path);
  return (::mdb_txn_id(txn) > info.me_last_txnid ? "write " : "read ") +
         file.substr(file.rfind('/') + 1);
}

void Note(MDB_txn* txn) {
  if (tracing) {
    aborted.push_back(NameOf(txn));
    if (const auto act = std::exchange(next, nullptr)) {
      act();
    }
  }
}

}  // namespace

AbortTrace::AbortTrace() {
  tracing = true;
}

AbortTrace::~AbortTrace() {
  tracing = false;
  aborted.clear();
  next = nullptr;
}

std::vector<std::string> AbortTrace::Take() {
  return std::exchange(aborted, {});
}

void AbortTrace::AtNext(std::function<void()> act) {
  next = std::move(act);
}

}  // namespace zefs::test

/// In front of LMDB's own for the whole process, as the calls of fault_injection.cc.
extern "C" __attribute__((visibility("default"))) void mdb_txn_abort(MDB_txn* txn) {
  static const auto real =
      reinterpret_cast<decltype(&::mdb_txn_abort)>(::dlsym(RTLD_NEXT, "mdb_txn_abort"));
  zefs::test::Note(txn);
  real(txn);
}
