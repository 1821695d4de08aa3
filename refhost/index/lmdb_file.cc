#include "refhost/index/lmdb_file.h"

#include <lmdb.h>
#include <utility>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr unsigned int kEnvFlags = MDB_NOSUBDIR | MDB_NOTLS;
constexpr mdb_mode_t kFileMode = 0600;

MDB_val ValueOf(std::string_view bytes) {
  // LMDB reads through this pointer only.
  return {bytes.size(), const_cast<char*>(bytes.data())};
}

std::string_view BytesOf(const MDB_val& value) {
  return {static_cast<const char*>(value.mv_data), value.mv_size};
}

}  // namespace

/// Ends with this object; what was written stays only after Commit.
class LmdbFile::Transaction {
 public:
  Transaction(const LmdbFile& file, unsigned int flags) : file_(file) {
    file_.Require(mdb_txn_begin(file_.env_, nullptr, flags, &txn_), "begin a transaction on");
  }
  ~Transaction() {
    if (txn_ != nullptr) {
      mdb_txn_abort(txn_);
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  MDB_txn* get() const { return txn_; }
  void Commit() { file_.Require(mdb_txn_commit(std::exchange(txn_, nullptr)), "commit to"); }

 private:
  const LmdbFile& file_;
  MDB_txn* txn_ = nullptr;
};

LmdbFile::LmdbFile(std::string path, std::size_t mapBytes)
    : LmdbFile(std::move(path), mapBytes, 0) {}

LmdbFile LmdbFile::ToLookAt(std::string path) {
  return LmdbFile(std::move(path), 0, MDB_RDONLY | MDB_NOLOCK);
}

LmdbFile::LmdbFile(std::string path, std::size_t mapBytes, unsigned int flags)
    : path_(std::move(path)) {
  Require(mdb_env_create(&env_), "open");
  try {
    if (mapBytes != 0) {
      Require(mdb_env_set_mapsize(env_, mapBytes), "open");
    }
    Require(mdb_env_open(env_, path_.c_str(), kEnvFlags | flags, kFileMode), "open");
    const bool readOnly = (flags & MDB_RDONLY) != 0;
    Transaction transaction(*this, readOnly ? MDB_RDONLY : 0);
    Require(mdb_dbi_open(transaction.get(), nullptr, readOnly ? 0 : MDB_CREATE, &dbi_), "open");
    transaction.Commit();
    if (!readOnly) {
      // An empty file has not been synced by any commit, and half of one cannot be opened again.
      Require(mdb_env_sync(env_, 1), "sync");
    }
  } catch (...) {
    mdb_env_close(env_);
    throw;
  }
}

LmdbFile::~LmdbFile() {
  mdb_env_close(env_);
}

void LmdbFile::Require(int code, const char* action) const {
  if (code != 0) {
    throw SystemError(action, path_, code);
  }
}

std::optional<std::string> LmdbFile::Get(std::string_view key) const {
  const Transaction transaction(*this, MDB_RDONLY);
  MDB_val wanted = ValueOf(key);
  MDB_val value{};
  const int code = mdb_get(transaction.get(), dbi_, &wanted, &value);
  if (code == MDB_NOTFOUND) {
    return std::nullopt;
  }
  Require(code, "read");
  return std::string(BytesOf(value));
}

void LmdbFile::Apply(const std::vector<Change>& changes) {
  Transaction transaction(*this, 0);
  for (const Change& change : changes) {
    MDB_val key = ValueOf(change.key);
    if (change.value.has_value()) {
      MDB_val value = ValueOf(*change.value);
      Require(mdb_put(transaction.get(), dbi_, &key, &value, 0), "write");
    } else if (const int code = mdb_del(transaction.get(), dbi_, &key, nullptr);
               code != MDB_NOTFOUND) {
      Require(code, "write");
    }
  }
  transaction.Commit();
}

void LmdbFile::ForEach(
    const std::function<void(std::string_view key, std::string_view value)>& take) const {
  const Transaction transaction(*this, MDB_RDONLY);
  MDB_cursor* cursor = nullptr;
  Require(mdb_cursor_open(transaction.get(), dbi_, &cursor), "read");
  struct Close {
    MDB_cursor* cursor;
    ~Close() { mdb_cursor_close(cursor); }
  };
  const Close close{cursor};
  MDB_val key{};
  MDB_val value{};
  int code = mdb_cursor_get(cursor, &key, &value, MDB_FIRST);
  for (; code == 0; code = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) {
    take(BytesOf(key), BytesOf(value));
  }
  if (code != MDB_NOTFOUND) {
    Require(code, "read");
  }
}

std::size_t LmdbFile::size() const {
  const Transaction transaction(*this, MDB_RDONLY);
  MDB_stat stat{};
  Require(mdb_stat(transaction.get(), dbi_, &stat), "read");
  return stat.ms_entries;
}

}  // namespace zefs::refhost
