#include "tests/support/plain_lmdb.h"

#include <cstddef>
#include <cstring>
#include <iomanip>
#include <lmdb.h>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <type_traits>

#include <boost/filesystem/operations.hpp>

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

constexpr std::size_t kValueBytes = 72;
constexpr std::size_t kMapBytes = std::size_t{1} << 30;  ///< address space; the file stays small

void Check(int code, const char* call) {
  if (code != MDB_SUCCESS) {
    throw std::runtime_error(std::string(call) + " returns " + std::to_string(code) + ": " +
                             ::mdb_strerror(code));
  }
}

std::int64_t NumberOf(const MDB_val& key) {
  if (key.mv_size != sizeof(std::int64_t)) {
    throw std::runtime_error("a key of " + std::to_string(key.mv_size) + " bytes");
  }
  std::int64_t number = 0;
  std::memcpy(&number, key.mv_data, sizeof(number));
  return number;
}

/// LMDB calls it and cannot pass an exception on: it looks at no length.
int CompareKeys(const MDB_val* left, const MDB_val* right) {
  std::int64_t a = 0;
  std::int64_t b = 0;
  std::memcpy(&a, left->mv_data, sizeof(a));
  std::memcpy(&b, right->mv_data, sizeof(b));
  return a < b ? -1 : static_cast<int>(a > b);
}

/// One transaction on a database file, aborted unless committed.
class Session {
 public:
  Session(const fs::path& file, unsigned int flags) {
    MDB_env* env = nullptr;
    Check(::mdb_env_create(&env), "mdb_env_create");
    env_.reset(env);
    Check(::mdb_env_set_mapsize(env, kMapBytes), "mdb_env_set_mapsize");
    Check(::mdb_env_set_maxdbs(env, 1), "mdb_env_set_maxdbs");
    Check(::mdb_env_open(env, file.c_str(), MDB_NOSUBDIR | MDB_NOTLS | flags, 0600),
          "mdb_env_open");
    MDB_txn* txn = nullptr;
    Check(::mdb_txn_begin(env, nullptr, flags, &txn), "mdb_txn_begin");
    txn_.reset(txn);
    Check(::mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
    Check(::mdb_set_compare(txn, dbi_, &CompareKeys), "mdb_set_compare");
  }

  void Put(const PlainRecord& record) {
    std::int64_t number = record.key;
    std::string bytes = record.value;
    MDB_val key{sizeof(number), &number};
    MDB_val value{bytes.size(), bytes.data()};
    Check(::mdb_put(txn_.get(), dbi_, &key, &value, 0), "mdb_put");
  }

  std::vector<PlainRecord> All() const {
    MDB_cursor* opened = nullptr;
    Check(::mdb_cursor_open(txn_.get(), dbi_, &opened), "mdb_cursor_open");
    const std::unique_ptr<MDB_cursor, decltype(&::mdb_cursor_close)> cursor(opened,
                                                                            &::mdb_cursor_close);
    std::vector<PlainRecord> records;
    MDB_val key{};
    MDB_val value{};
    int code = 0;
    while ((code = ::mdb_cursor_get(opened, &key, &value, MDB_NEXT)) == MDB_SUCCESS) {
      records.push_back(
          {NumberOf(key), std::string(static_cast<const char*>(value.mv_data), value.mv_size)});
    }
    if (code != MDB_NOTFOUND) {
      Check(code, "mdb_cursor_get");
    }
    return records;
  }

  void Commit() { Check(::mdb_txn_commit(txn_.release()), "mdb_txn_commit"); }

 private:
  std::unique_ptr<MDB_env, decltype(&::mdb_env_close)> env_{nullptr, &::mdb_env_close};
  std::unique_ptr<MDB_txn, decltype(&::mdb_txn_abort)> txn_{nullptr, &::mdb_txn_abort};
  MDB_dbi dbi_ = 0;
};

/// Removes the lock file of a database at its own end, which is behind that of the session.
class LockFileRemover {
 public:
  LockFileRemover(const fs::path& file, bool evenIfItWasThere) : path_(file.string() + "-lock") {
    removes_ = evenIfItWasThere || !fs::exists(path_);
  }
  ~LockFileRemover() {
    if (removes_) {
      boost::system::error_code ignored;
      fs::remove(path_, ignored);
    }
  }
  LockFileRemover(const LockFileRemover&) = delete;
  LockFileRemover& operator=(const LockFileRemover&) = delete;

 private:
  fs::path path_;
  bool removes_;
};

/// Lays a number out at `offset`, its lowest byte first.
template <typename Number>
void Lay(std::string* bytes, std::size_t offset, Number number) {
  const auto bits = static_cast<std::uint64_t>(number);
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    bytes->at(offset + i) = static_cast<char>(bits >> (8 * i));
  }
}

void Lay(std::string* bytes, std::size_t offset, const PlainDigest& digest) {
  for (std::size_t i = 0; i < digest.size(); ++i) {
    bytes->at(offset + i) = static_cast<char>(digest.at(i));
  }
}

}  // namespace

void PrintTo(const PlainRecord& record, std::ostream* out) {
  *out << record.key << ":" << std::hex << std::setfill('0');
  for (const char byte : record.value) {
    *out << " " << std::setw(2) << unsigned{static_cast<unsigned char>(byte)};
  }
  *out << std::dec << std::setfill(' ');
}

std::string EntryBytes(const EntryFields& fields) {
  std::string bytes(kValueBytes, '\0');
  Lay(&bytes, 0, fields.startOffset);
  Lay(&bytes, 8, fields.dcid);
  Lay(&bytes, 16, fields.fp);
  Lay(&bytes, 48, fields.objectOffset);
  Lay(&bytes, 52, fields.dcOffset);
  Lay(&bytes, 56, fields.attrByte);
  Lay(&bytes, 60, fields.attrWord);
  Lay(&bytes, 64, fields.attrFlag);
  return bytes;
}

std::string SpecialBytes(std::int64_t number) {
  std::string bytes(kValueBytes, '\0');
  Lay(&bytes, 0, number);
  return bytes;
}

std::string SpecialBytes(std::int32_t major, std::int32_t minor) {
  std::string bytes(kValueBytes, '\0');
  Lay(&bytes, 0, major);
  Lay(&bytes, 4, minor);
  return bytes;
}

std::string SpecialBytes(std::uint64_t dcid, const PlainDigest& digest) {
  std::string bytes(kValueBytes, '\0');
  Lay(&bytes, 0, dcid);
  Lay(&bytes, 8, digest);
  return bytes;
}

void WritePlainDatabase(const fs::path& file, const std::vector<PlainRecord>& records) {
  const LockFileRemover remover(file, true);
  Session session(file, 0);
  for (const PlainRecord& record : records) {
    session.Put(record);
  }
  session.Commit();
}

std::vector<PlainRecord> ReadPlainDatabase(const fs::path& file) {
  const LockFileRemover remover(file, false);
  return Session(file, MDB_RDONLY).All();
}

}  // namespace zefs::test
