#pragma once

#include <cstring>
#include <functional>
#include <lmdb.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "persistent/records.h"
#include "support/lmdb_c_api_wrapper.h"

namespace zefs::test {

/// What a ScriptedLmdb has seen, and what it is to do.
struct LmdbScript {
  /// The calls by name, with what the caller is free to choose: "put 72 bytes".
  std::vector<std::string> calls;
  int openTransactions = 0;
  int openCursors = 0;

  /// The `nth` call of this name from now on (1: the next) returns `code` and has no effect, but
  /// that a commit ends its transaction, by an abort.
  void Fail(const std::string& name, int nth, int code) {
    failing = name;
    due = nth;
    with = code;
  }
  /// Runs ahead of each call, with its name.
  std::function<void(const std::string&)> ahead;

  /// Forgets the calls so far.
  std::vector<std::string> Take() { return std::exchange(calls, {}); }

  std::string failing;
  int due = 0;
  int with = 0;
};

/// A replacement of LMDB that hands its calls on to it, and is strict where LMDB is generous: a
/// value lies in memory of its own length, and is gone with the next write or move.
class ScriptedLmdb : public storage::utils::LmdbCApiWrapper {
 public:
  explicit ScriptedLmdb(LmdbScript* script) : script_(script) {}
  ~ScriptedLmdb() override = default;

  int dbi_open(MDB_txn* txn, const char* name, unsigned int flags,
               unsigned int* dbi) const override {
    const std::string what = name == nullptr ? "unnamed" : name;
    if (const int code = Enter("dbi_open", what + (flags == MDB_CREATE ? " create" : ""))) {
      return code;
    }
    return LmdbCApiWrapper::dbi_open(txn, name, flags, dbi);
  }
  int set_compare(MDB_txn* txn, unsigned int dbi,
                  int (*compare)(const MDB_val*, const MDB_val*)) const override {
    const bool known = compare == &Aldenta::Qnd::Morene::Zefs::LMDBKeyCompare;
    if (const int code = Enter("set_compare", known ? "by number" : "?")) {
      return code;
    }
    return LmdbCApiWrapper::set_compare(txn, dbi, compare);
  }
  int txn_begin(MDB_env* env, MDB_txn* parent, unsigned int flags, MDB_txn** txn) const override {
    const std::string what = flags == 0 ? "write" : "?";
    if (const int code = Enter("txn_begin", parent == nullptr ? what : "nested")) {
      return code;
    }
    const int code = LmdbCApiWrapper::txn_begin(env, parent, flags, txn);
    script_->openTransactions += code == 0 ? 1 : 0;
    return code;
  }
  int txn_commit(MDB_txn* txn) const override {
    const int code = Enter("txn_commit");
    Drop();
    --script_->openTransactions;
    script_->openCursors = 0;  // those of a write transaction end with it
    if (code != 0) {
      LmdbCApiWrapper::txn_abort(txn);
      return code;
    }
    return LmdbCApiWrapper::txn_commit(txn);
  }
  void txn_abort(MDB_txn* txn) const override {
    Enter("txn_abort");
    Drop();
    --script_->openTransactions;
    LmdbCApiWrapper::txn_abort(txn);
  }
  int cursor_open(MDB_txn* txn, unsigned int dbi, MDB_cursor** cursor) const override {
    if (const int code = Enter("cursor_open")) {
      return code;
    }
    const int code = LmdbCApiWrapper::cursor_open(txn, dbi, cursor);
    script_->openCursors += code == 0 ? 1 : 0;
    return code;
  }
  void cursor_close(MDB_cursor* cursor) const override {
    Enter("cursor_close");
    --script_->openCursors;
    LmdbCApiWrapper::cursor_close(cursor);
  }
  int cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op) const override {
    static const std::map<MDB_cursor_op, std::string> kNames = {
        {MDB_SET_RANGE, "range"}, {MDB_NEXT, "next"}, {MDB_PREV, "prev"}, {MDB_LAST, "last"}};
    const bool empty = key->mv_size == 0 && data->mv_size == 0;
    if (const int code = Enter("cursor_get", kNames.at(op) + (empty ? " empty" : ""))) {
      return code;
    }
    Drop();
    const int code = LmdbCApiWrapper::cursor_get(cursor, key, data, op);
    if (code == 0) {
      Keep(key);
      Keep(data);
    }
    return code;
  }
  int put(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data,
          unsigned int flags) const override {
    const std::string bytes = std::to_string(data->mv_size) + " bytes";
    if (const int code = Enter("put", flags == 0 ? bytes : "?")) {
      return code;
    }
    const int code = LmdbCApiWrapper::put(txn, dbi, key, data, flags);
    Drop();
    return code;
  }
  int env_sync(MDB_env* env, int force) const override {
    if (const int code = Enter("env_sync", force == 1 ? "always" : "?")) {
      return code;
    }
    return LmdbCApiWrapper::env_sync(env, force);
  }

 private:
  /// Notes a call; the code it is to fail with, or 0.
  int Enter(const std::string& name, const std::string& what = "") const {
    if (script_->ahead) {
      script_->ahead(name);
    }
    script_->calls.push_back(what.empty() ? name : name + ' ' + what);
    return name == script_->failing && --script_->due == 0 ? script_->with : 0;
  }
  void Keep(MDB_val* val) const {
    kept_.emplace_back(new unsigned char[val->mv_size]);
    std::memcpy(kept_.back().get(), val->mv_data, val->mv_size);
    val->mv_data = kept_.back().get();
  }
  void Drop() const { kept_.clear(); }

  LmdbScript* script_;
  mutable std::vector<std::unique_ptr<unsigned char[]>> kept_;
};

}  // namespace zefs::test
