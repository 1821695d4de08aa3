#pragma once

#include <functional>
#include <lmdb.h>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "tests/persistent/persistent_fixture.h"
#include "tests/support/plain_lmdb.h"

namespace zefs::test {

/// [sOff, eOff) of the object in container `dcid`, from its byte `objOff` on. Fingerprint and
/// attributes follow from `dcid`.
struct Part {
  long sOff;
  long eOff;
  std::uint64_t dcid;
  long objOff = 0;

  bool operator==(const Part& other) const {
    return std::tie(sOff, eOff, dcid, objOff) ==
           std::tie(other.sOff, other.eOff, other.dcid, other.objOff);
  }
};

inline void PrintTo(const Part& part, std::ostream* out) {
  *out << '[' << part.sOff << ", " << part.eOff << ") of " << part.dcid << " from " << part.objOff;
}

inline Aldenta::Qnd::Morene::Zefs::ObjectID OidOf(const Part& part) {
  return Oid(part.dcid, static_cast<unsigned int>(part.dcid));
}

inline Part PartOf(const Aldenta::Qnd::Morene::Zefs::Ext& ext) {
  return {ext.sOff, ext.eOff, ext.objectID.dcid, ext.objOff};
}

/// The record of a part, as a database holds it.
inline PlainRecord RecordOf(const Part& part, std::int32_t dcOffset = -1) {
  const auto oid = OidOf(part);
  EntryFields fields;
  fields.startOffset = part.sOff;
  fields.dcid = oid.dcid;
  fields.fp = oid.fp;
  fields.objectOffset = static_cast<std::int32_t>(part.objOff);
  fields.dcOffset = dcOffset;
  fields.attrByte = oid.attrByte;
  fields.attrWord = oid.attrWord;
  fields.attrFlag = oid.attrFlag;
  return {part.eOff, EntryBytes(fields)};
}

inline std::vector<PlainRecord> RecordsOf(const std::vector<Part>& parts) {
  std::vector<PlainRecord> records;
  for (const Part& part : parts) {
    records.push_back(RecordOf(part));
  }
  return records;
}

/// A loaded table over databases of known records.
class ReadPathTest : public PersistentTableTest {
 protected:
  using LMDBContext = Aldenta::Qnd::Morene::Zefs::LMDBContext;
  using ExtLMDB = Aldenta::Qnd::Morene::Zefs::ExtLMDB;
  using Ext = Aldenta::Qnd::Morene::Zefs::Ext;

  /// The destructor of a table leaves a tmp database open: closes it, for the leak checker.
  ~ReadPathTest() override {
    if (table_ != nullptr && peer().tmpDb().opened) {
      peer().ClearDBEnv(&peer().tmpDb());
    }
  }

  /// Writes the databases and loads the table; without `tmp` there is no tmp database. Forgets the
  /// log lines of the load.
  CMappingLMDB& LoadRecords(const std::vector<PlainRecord>& full,
                            const std::vector<PlainRecord>& small = {},
                            const std::optional<std::vector<PlainRecord>>& tmp = std::nullopt) {
    boost::filesystem::create_directories(Directory());
    WritePlainDatabase(File(CMappingLMDB::FULLDB), full);
    WritePlainDatabase(File(CMappingLMDB::LSML0DB), small);
    if (tmp) {
      WritePlainDatabase(File(CMappingLMDB::TMPDB), *tmp);
    }
    CMappingLMDB& loaded = Load();
    log_.Take();
    return loaded;
  }
  CMappingLMDB& LoadOver(const std::vector<Part>& full, const std::vector<Part>& small = {}) {
    return LoadRecords(RecordsOf(full), RecordsOf(small));
  }
  CMappingLMDB& LoadOver(const std::vector<Part>& full, const std::vector<Part>& small,
                         const std::vector<Part>& tmp) {
    return LoadRecords(RecordsOf(full), RecordsOf(small), RecordsOf(tmp));
  }

  /// Writes a part through the table, into its cache.
  void Cache(const Part& part, void* node = nullptr) {
    const ObjectID oid = OidOf(part);
    table().insert(part.sOff, part.eOff, &oid, part.objOff, 0, node, -1, nullptr);
    log_.Take();
  }

  /// What the table keeps of a part that it has fetched ahead; the parts come in order.
  void Prefetch(const Part& part, void* node = nullptr) {
    ExtLMDB ext;
    ext.sOff = part.sOff;
    ext.eOff = part.eOff;
    ext.objectID = OidOf(part);
    ext.objOff = part.objOff;
    ext.data = node;
    ext.owner_ = table_.get();
    peer().prefetchExts().push_back(ext);
  }

  /// The part at an iterator; nothing at the end.
  std::optional<Part> Shown(const Aldenta::Qnd::Morene::Zefs::CMappingTable::iterator& at) {
    return at == table().end() ? std::nullopt : std::optional<Part>(PartOf(*at));
  }
  std::optional<Part> At(long offset) { return Shown(table().lower_bound(offset, nullptr)); }
  std::optional<Part> InCacheAt(long offset) {
    return Shown(table().lower_bound_in_cache(offset, nullptr));
  }

  /// Writes records into an open database, in a transaction of the test.
  static void Put(LMDBContext& db, const std::vector<PlainRecord>& records) {
    Change(db, [&](MDB_txn* txn) {
      for (const PlainRecord& record : records) {
        std::int64_t number = record.key;
        std::string bytes = record.value;
        MDB_val key{sizeof(number), &number};
        MDB_val value{bytes.size(), bytes.data()};
        Check(::mdb_put(txn, db.dbi, &key, &value, 0));
      }
    });
  }

  /// Empties an open database, special items included.
  static void Clear(LMDBContext& db) {
    Change(db, [&](MDB_txn* txn) { Check(::mdb_drop(txn, db.dbi, 0)); });
  }

  /// What LMDB tells of the transactions that read an open database now, one line of words if there
  /// are none.
  static std::string ReadersOf(const LMDBContext& db) {
    std::string lines;
    ::mdb_reader_list(
        db.env,
        [](const char* line, void* out) {
          *static_cast<std::string*>(out) += line;
          return 0;
        },
        &lines);
    return lines;
  }

  static void Check(int code) {
    if (code != 0) {
      throw std::runtime_error(std::string("a call of LMDB fails: ") + ::mdb_strerror(code));
    }
  }

 private:
  static void Change(LMDBContext& db, const std::function<void(MDB_txn*)>& change) {
    MDB_txn* txn = nullptr;
    Check(::mdb_txn_begin(db.env, nullptr, 0, &txn));
    change(txn);
    Check(::mdb_txn_commit(txn));
  }
};

/// Cursors on databases of a chain in its order, as a caller of the look-up may bring them along.
class Cursors {
 public:
  explicit Cursors(const std::list<Aldenta::Qnd::Morene::Zefs::LMDBContext*>& chain) {
    for (const auto* db : chain) {
      Aldenta::Qnd::Morene::Zefs::CMappingLMDB::MDBTXNCONTEXT context;
      if (::mdb_txn_begin(db->env, nullptr, MDB_RDONLY, &context.txn) != 0 ||
          ::mdb_cursor_open(context.txn, db->dbi, &context.cursor) != 0) {
        throw std::runtime_error("cannot open a cursor");
      }
      contexts_.push_back(context);
    }
  }
  ~Cursors() {
    for (const auto& context : contexts_) {
      ::mdb_cursor_close(context.cursor);
      ::mdb_txn_abort(context.txn);
    }
  }
  Cursors(const Cursors&) = delete;
  Cursors& operator=(const Cursors&) = delete;

  std::list<Aldenta::Qnd::Morene::Zefs::CMappingLMDB::MDBTXNCONTEXT>::iterator begin() {
    return contexts_.begin();
  }

 private:
  std::list<Aldenta::Qnd::Morene::Zefs::CMappingLMDB::MDBTXNCONTEXT> contexts_;
};

}  // namespace zefs::test
