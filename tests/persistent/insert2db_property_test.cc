// Random extents into a database of random disjoint records, against a model that knows of every
// byte what it is. The seed is printed; ZEFS_TEST_SEED sets another.

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <rapidcheck.h>
#include <string>
#include <tuple>
#include <vector>

#include "persistent/transaction.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/support/property.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::Transaction;

constexpr long kDomain = 64;
constexpr int kCases = 3000;

/// An extent: its range, and a number from which all else follows.
struct Given {
  long start;
  long end;
  std::uint32_t number;
  std::uint32_t objOff;  ///< all 32 bits of it
  std::size_t bytes;     ///< of the value: fewer than 72 in an old table
};

void showValue(const Given& given, std::ostream& out) {
  out << '[' << given.start << ", " << given.end << ") #" << given.number << " from "
      << given.objOff << ", " << given.bytes << " bytes";
}

DataCacheNode::ObjectID OidOf(const Given& given) {
  return Oid(64 + given.number, given.number);
}

PlainRecord RecordOf(const Given& given) {
  PlainRecord record =
      WholeRecord(given.start, given.end, OidOf(given), static_cast<std::int32_t>(given.objOff),
                  static_cast<std::int32_t>(given.number));
  record.value.resize(std::min(given.bytes, record.value.size()));
  return record;
}

/// The records as the bytes of the file tell: runs of bytes of one extent become one record, a cut
/// one if it is not all of it.
class ByteModel {
 public:
  explicit ByteModel(long domain) : owner_(static_cast<std::size_t>(domain)) {}

  void Store(const Given& given) {
    extents_.push_back(given);
    for (long at = given.start; at < given.end; ++at) {
      owner_[static_cast<std::size_t>(at)] = extents_.size();
    }
  }

  Records Expected() const {
    const auto domain = static_cast<long>(owner_.size());
    Records records;
    for (long at = 0; at < domain;) {
      const std::size_t owner = owner_[static_cast<std::size_t>(at)];
      long end = at + 1;
      while (end < domain && owner_[static_cast<std::size_t>(end)] == owner) {
        ++end;
      }
      if (owner != 0) {
        records.push_back(Run(extents_[owner - 1], at, end));
      }
      at = end;
    }
    return records;
  }

 private:
  static PlainRecord Run(const Given& whole, long start, long end) {
    if (start == whole.start && end == whole.end) {
      return RecordOf(whole);  // untouched: as short as it was
    }
    // What a short value does not hold reads as zero before it is cut.
    PlainRecord padded = RecordOf(whole);
    padded.value.resize(72, '\0');
    std::uint32_t objOff = 0;
    std::memcpy(&objOff, padded.value.data() + 48, 4);
    objOff += static_cast<std::uint32_t>(start - whole.start);
    const std::int64_t startOffset = start;
    std::memcpy(padded.value.data(), &startOffset, 8);
    std::memcpy(padded.value.data() + 48, &objOff, 4);
    padded.value[56] = 0;  // the byte and the flag attribute tell of the whole extent
    padded.value[64] = 0;
    padded.key = end;
    return padded;
  }

  std::vector<Given> extents_;
  std::vector<std::size_t> owner_;  ///< of each byte; 0: none
};

rc::Gen<std::uint32_t> AnyOffset() {
  return rc::gen::weightedOneOf<std::uint32_t>(
      {{2, rc::gen::inRange<std::uint32_t>(0, 1000)},
       {1, rc::gen::element<std::uint32_t>(INT32_MAX, 0x80000000U, UINT32_MAX, UINT32_MAX - 5)}});
}

template <typename T>
rc::Gen<std::vector<T>> UpTo(int most, const rc::Gen<T>& element) {
  return rc::gen::resize(
      most, rc::gen::container<std::vector<T>>(rc::gen::resize(rc::kNominalSize, element)));
}

/// Disjoint records in order, neighbours often touching, some of them short.
rc::Gen<std::vector<Given>> AnyDisjoint() {
  using rc::gen::inRange;
  // At least the start offset and the container lie in every value.
  const auto bytes = rc::gen::weightedOneOf<std::size_t>(
      {{2, rc::gen::just<std::size_t>(72)}, {1, inRange<std::size_t>(16, 72)}});
  const auto step = rc::gen::tuple(
      rc::gen::weightedOneOf<long>({{1, rc::gen::just(0L)}, {1, inRange<long>(0, 10)}}),
      inRange<long>(1, 20), AnyOffset(), bytes);
  return rc::gen::map(UpTo(10, step), [](const auto& steps) {
    std::vector<Given> records;
    long at = 0;
    for (const auto& [hole, length, objOff, size] : steps) {
      const long end = std::min(at + hole + length, kDomain);
      if (at + hole < end) {
        records.push_back(
            {at + hole, end, static_cast<std::uint32_t>(records.size() + 1), objOff, size});
      }
      at = end;
    }
    return records;
  });
}

rc::Gen<std::vector<Given>> AnyWrites() {
  using rc::gen::inRange;
  const auto write = rc::gen::tuple(inRange<long>(0, kDomain), inRange<long>(1, 24), AnyOffset());
  return rc::gen::map(UpTo(6, write), [](const auto& writes) {
    std::vector<Given> extents;
    for (const auto& [start, length, objOff] : writes) {
      extents.push_back({start, std::min(start + length, kDomain),
                         static_cast<std::uint32_t>(100 + extents.size()), objOff, 72});
    }
    return extents;
  });
}

class Insert2DBPropertyTest : public FlushTest {
 protected:
  void LoadUnsynced(const std::string& type) {
    LoadOver({}, type);
    ::mdb_env_set_flags(peer().smallDb().env, MDB_NOSYNC, 1);
  }

  /// Makes these records the only extents of the small database.
  static void Refill(const Transaction& transaction, const LMDBContext& db,
                     const std::vector<Given>& records) {
    RC_ASSERT(::mdb_drop(transaction.txn(), db.dbi, 0) == 0);
    for (const Given& given : records) {
      PlainRecord record = RecordOf(given);
      MDB_val key{sizeof(record.key), &record.key};
      MDB_val value{record.value.size(), record.value.data()};
      RC_ASSERT(::mdb_put(transaction.txn(), db.dbi, &key, &value, 0) == 0);
    }
  }

  void Store(const Transaction& transaction, const Given& given) {
    const ObjectID oid = OidOf(given);
    RC_ASSERT(peer().insert2DB(peer().smallDb(), transaction.txn(), transaction.cursor(),
                               given.start, given.end, &oid, given.objOff,
                               static_cast<int>(given.number)) == 0);
  }

  /// The journal that the writes leave: for each a DEL for every record it overlaps, then an ADD.
  static void AddToJournal(const ByteModel& before, const Given& given,
                           std::vector<JournalFields>* journal) {
    const auto fields = [&](std::uint32_t op) {
      return JournalOf(op, given.start, given.end, OidOf(given), given.objOff);
    };
    for (const PlainRecord& record : before.Expected()) {
      std::int64_t start = 0;
      std::memcpy(&start, record.value.data(), 8);
      if (start < given.end && given.start < record.key) {
        journal->push_back(fields(kOpDel));
      }
    }
    journal->push_back(fields(kOpAdd));
  }

  const refhost::LogRecorder quiet_{kLogFailure};
};

TEST_F(Insert2DBPropertyTest, EveryByteIsWhatWasStoredThereLast) {
  LoadUnsynced("GENERIC");
  long cuts = 0;
  ExpectToHold("insert2DB against a model of bytes", kCases, [&] {
    const auto records = *AnyDisjoint();
    const auto writes = *AnyWrites();
    const std::int32_t major = *rc::gen::element<std::int32_t>(1, 2);
    peer().extMapVersion() = {major, 0};
    ASSERT_EQ(0, peer().journal()->Destroy());
    ASSERT_EQ(0, peer().journal()->Start());

    const LMDBContext& db = peer().smallDb();
    ByteModel model(kDomain);
    for (const Given& given : records) {
      model.Store(given);
    }
    std::vector<JournalFields> journal;
    {
      Transaction transaction(db, Transaction::kWrite, "");
      Refill(transaction, db, records);
      for (const Given& given : writes) {
        AddToJournal(model, given, &journal);
        Store(transaction, given);
        model.Store(given);
      }
      RC_ASSERT(transaction.Commit() == 0);
    }
    const Records expected = model.Expected();
    RC_ASSERT(All(db) == expected);
    RC_ASSERT(peer().journal()->Flush(false) == 0);
    RC_ASSERT(BytesOf(File("journal")) == JournalBytes(journal));
    cuts += std::count_if(journal.begin(), journal.end(),
                          [](const JournalFields& fields) { return fields.op == kOpDel; });
  });
  EXPECT_GT(cuts, kCases) << "there are overlaps";
}

/// Extents of a file of many pages of records: most are small and split pages, some cover so many
/// records that pages become empty. By rising offset, as a flush stores them, or as they come.
class ManyPages {
 public:
  static constexpr long kDomain = 40000;

  explicit ManyPages(std::uint64_t seed) : random_(seed) {}

  std::vector<Given> Disjoint() {
    std::vector<Given> records;
    for (long at = Upto(8); at < kDomain;) {
      const long end = std::min(at + 1 + Upto(12), kDomain);
      const auto bytes = static_cast<std::size_t>(Upto(3) == 0 ? 16 + Upto(56) : 72);
      records.push_back({at, end, Number(), Number(), bytes});
      at = end + (Upto(2) == 0 ? Upto(6) : 0);
    }
    return records;
  }

  std::vector<Given> Writes() {
    std::vector<Given> writes;
    for (int i = 0; i < 1500; ++i) {
      const long start = Upto(kDomain);
      const long longest = Upto(100) == 0 ? 4000 : 16;
      writes.push_back(
          {start, std::min(start + 1 + Upto(longest), kDomain), Number(), Number(), 72});
    }
    if (Upto(2) == 0) {
      std::sort(writes.begin(), writes.end(),
                [](const Given& a, const Given& b) { return a.end < b.end; });
    }
    return writes;
  }

 private:
  long Upto(long limit) { return static_cast<long>(random_() % static_cast<unsigned long>(limit)); }
  std::uint32_t Number() { return static_cast<std::uint32_t>(1 + Upto(1 << 20)); }

  std::mt19937_64 random_;
};

TEST_F(Insert2DBPropertyTest, TheSameWherePagesSplitAndMergeUnderTheCursor) {
  constexpr int kCasesOfManyPages = 30;
  LoadUnsynced("PROVISION");
  const LMDBContext& db = peer().smallDb();
  std::size_t mostPages = 0;
  std::size_t fewestPages = SIZE_MAX;
  ExpectToHold("insert2DB over many pages", kCasesOfManyPages, [&] {
    ManyPages extents(*rc::gen::arbitrary<std::uint64_t>());
    ByteModel model(ManyPages::kDomain);
    Transaction transaction(db, Transaction::kWrite, "");
    const auto records = extents.Disjoint();
    Refill(transaction, db, records);
    for (const Given& given : records) {
      model.Store(given);
    }
    for (const Given& given : extents.Writes()) {
      Store(transaction, given);
      model.Store(given);
    }
    const Given all{0, ManyPages::kDomain, 7, 0, 72};
    if (*rc::gen::inRange(0, 4) == 0) {
      Store(transaction, all);  // nothing is left of any page
      model.Store(all);
    }
    MDB_stat stat;
    RC_ASSERT(::mdb_stat(transaction.txn(), db.dbi, &stat) == 0);
    mostPages = std::max(mostPages, stat.ms_leaf_pages);
    fewestPages = std::min(fewestPages, stat.ms_leaf_pages);
    RC_ASSERT(transaction.Commit() == 0);
    RC_ASSERT(All(db) == model.Expected());
  });
  EXPECT_GT(mostPages, 50U);
  EXPECT_EQ(1U, fewestPages);
}

}  // namespace
}  // namespace zefs::test
