// Random databases merged, against a model that works byte by byte.

#include <algorithm>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/merge_model.h"
#include "tests/support/property.h"

namespace zefs::test {
namespace {

constexpr std::int64_t kDomain = 96;
constexpr int kCases = 1500;

/// Disjoint extents in order, of any fields, some with short values.
rc::Gen<Records> AnyDatabase() {
  using rc::gen::inRange;
  const auto hole = rc::gen::weightedOneOf<std::int64_t>(
      {{1, rc::gen::just<std::int64_t>(0)}, {1, inRange<std::int64_t>(0, 12)}});
  const auto bytes = rc::gen::weightedOneOf<std::size_t>(
      {{4, rc::gen::just<std::size_t>(72)}, {1, inRange<std::size_t>(16, 81)}});
  const auto extent =
      rc::gen::tuple(hole, inRange<std::int64_t>(1, 24), inRange<unsigned int>(60, 72),
                     rc::gen::arbitrary<std::int32_t>(), rc::gen::arbitrary<std::uint8_t>(), bytes);
  using Extents = std::vector<std::tuple<std::int64_t, std::int64_t, unsigned int, std::int32_t,
                                         std::uint8_t, std::size_t>>;
  const auto extents =
      rc::gen::resize(12, rc::gen::container<Extents>(rc::gen::resize(rc::kNominalSize, extent)));
  return rc::gen::map(extents, [](const Extents& given) {
    Records records;
    std::int64_t at = 0;
    for (const auto& [gap, length, dcid, objOff, any, size] : given) {
      const std::int64_t start = at + gap;
      const std::int64_t end = std::min(start + length, kDomain);
      at = end;
      if (start >= end) {
        break;
      }
      EntryFields fields;
      fields.startOffset = start;
      fields.dcid = dcid;
      fields.fp = DigestOf(any);
      fields.objectOffset = objOff;
      fields.dcOffset = objOff / 3;
      fields.attrByte = any;
      fields.attrWord = any * 3U;
      fields.attrFlag = any;
      PlainRecord record{end, EntryBytes(fields)};
      record.value.resize(size, '\x77');
      records.push_back(record);
    }
    return records;
  });
}

class MergePropertyTest : public MergeTest {
 protected:
  void SetUp() override {
    LoadBoth({}, {});
    ASSERT_EQ(0, peer().SetupDBEnv(Path("mergedb"), &merged_, 1UL << 30));
    for (LMDBContext* db : {&peer().smallDb(), &peer().fullDb(), &merged_}) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
  }
  void TearDown() override { peer().ClearDBEnv(&merged_); }

  /// Puts these records, and no others, into an open database.
  static void Refill(const LMDBContext& db, const Records& records) {
    MDB_txn* txn = nullptr;
    RC_ASSERT(::mdb_txn_begin(db.env, nullptr, 0, &txn) == 0);
    RC_ASSERT(::mdb_drop(txn, db.dbi, 0) == 0);
    for (const PlainRecord& record : records) {
      std::int64_t number = record.key;
      std::string bytes = record.value;
      MDB_val key{sizeof(number), &number};
      MDB_val value{bytes.size(), bytes.data()};
      RC_ASSERT(::mdb_put(txn, db.dbi, &key, &value, 0) == 0);
    }
    RC_ASSERT(::mdb_txn_commit(txn) == 0);
  }

  void CheckReferences(const Records& records) {
    std::unordered_map<unsigned long, unsigned long> refs;
    const StoredBloom stored = ReadBloomFile(File("bloom.merge"));
    for (const PlainRecord& record : records) {
      std::string whole = record.value;
      whole.resize(72, '\0');
      std::uint64_t dcid = 0;
      std::memcpy(&dcid, whole.data() + 8, sizeof(dcid));
      PlainDigest fp;
      std::memcpy(fp.data(), whole.data() + 16, fp.size());
      RC_ASSERT(stored.filter->Contains(fp));
      if (dcid >= 64) {
        refs[dcid] += static_cast<unsigned long>(record.key - StartOf(record));
      }
    }
    RC_ASSERT(stored.refs == refs);
    RC_ASSERT(stored.filter->GetInsertedFingerPrints() == records.size());
  }

  LMDBContext merged_;
  const refhost::LogRecorder quiet_{kLogFailure};
};

TEST_F(MergePropertyTest, TheMergedDatabaseIsTheUnionAndItsReferencesARecount) {
  std::size_t cut = 0;
  std::size_t records = 0;
  ExpectToHold("a merge writes the union of two databases", kCases, [&] {
    const Records full = *AnyDatabase();
    const Records small = *AnyDatabase();
    const auto batch = *rc::gen::element<std::uint32_t>(0, 1, 2, 7, 1000000);
    const bool withBloom = *rc::gen::arbitrary<bool>();
    const auto size = *rc::gen::inRange<std::int64_t>(0, kDomain + 1);
    Refill(peer().fullDb(), full);
    Refill(peer().smallDb(), small);
    Refill(merged_, {});
    boost::filesystem::remove(File("bloom.merge"));
    Set(&Config::mergeCommitBatchSize, batch);
    peer().committedFileSize() = size;
    peer().fileSize() = size + 5;
    peer().extMapVersion() = {1, 0};

    RC_ASSERT(peer().MergeDBs(peer().fullDb(), peer().smallDb(), merged_, withBloom) == 0);

    const Records expected = UnionOf(full, small, kDomain);
    RC_ASSERT(Extents(merged_) == expected);
    const std::int64_t lastEnd = expected.empty() ? 0 : expected.back().key;
    const std::map<std::int64_t, std::string> special = {
        {kPlainFileSizeKey, SpecialBytes(std::max(size, lastEnd))},
        {kPlainCommitCounterKey, SpecialBytes(std::int64_t{0})},
        {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
        {kPlainVersionKey, SpecialBytes(2, 0)}};
    RC_ASSERT(Special(merged_) == special);
    RC_ASSERT(peer().committedFileSize() == std::max(size, lastEnd));
    RC_ASSERT(peer().fileSize() == (lastEnd > size ? lastEnd : size + 5));
    RC_ASSERT(peer().newDcidRefs().empty());
    RC_ASSERT(boost::filesystem::exists(File("bloom.merge")) == withBloom);
    if (withBloom) {
      CheckReferences(expected);
    }
    RC_ASSERT(Extents(peer().fullDb()) == full);
    RC_ASSERT(Extents(peer().smallDb()) == small);
    records += expected.size();
    cut += static_cast<std::size_t>(
        std::count_if(expected.begin(), expected.end(), [&](const PlainRecord& record) {
          return std::count(full.begin(), full.end(), record) == 0 &&
                 std::count(small.begin(), small.end(), record) == 0;
        }));
  });
  EXPECT_GT(records, std::size_t{5} * kCases) << "the databases are crowded";
  EXPECT_GT(cut, std::size_t{1} * kCases) << "and overlap";
}

}  // namespace
}  // namespace zefs::test
