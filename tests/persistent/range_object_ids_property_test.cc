// Random records listed and rewritten, against a model that knows of each record by itself which
// element of the update it belongs to.

#include <algorithm>
#include <climits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tests/persistent/range_object_ids_fixture.h"
#include "tests/support/property.h"

namespace zefs::test {
namespace {

using ObjectIDs = Aldenta::Qnd::Morene::Zefs::CMappingTable::ObjectIDs;

constexpr int kCases = 1200;

/// Offsets around which records end, elements end and ranges begin and end.
rc::Gen<std::int64_t> AnyOffset() {
  return rc::gen::weightedOneOf<std::int64_t>(
      {{8, rc::gen::inRange<std::int64_t>(0, 60)},
       {2, rc::gen::inRange<std::int64_t>(250, 262)},  // where numbers and bytes sort differently
       {1, rc::gen::element<std::int64_t>(0, 1, 65536, LONG_MAX - 1, LONG_MAX)}});
}

rc::Gen<unsigned char> AnyFp() {
  return rc::gen::inRange<unsigned char>(0, 3);
}

template <typename T>
rc::Gen<std::vector<T>> UpTo(int most, const rc::Gen<T>& element) {
  return rc::gen::resize(
      most, rc::gen::container<std::vector<T>>(rc::gen::resize(rc::kNominalSize, element)));
}

/// Records by rising end, of few fingerprints; they may overlap, and some are short.
rc::Gen<Records> AnyRecords() {
  const auto bytes = rc::gen::weightedOneOf<std::size_t>(
      {{3, rc::gen::just<std::size_t>(72)}, {1, rc::gen::inRange<std::size_t>(16, 72)}});
  const auto record =
      rc::gen::tuple(AnyOffset(), AnyOffset(), rc::gen::inRange<std::uint64_t>(61, 67), AnyFp(),
                     rc::gen::arbitrary<std::uint8_t>(), bytes);
  using Given = std::tuple<std::int64_t, std::int64_t, std::uint64_t, unsigned char, std::uint8_t,
                           std::size_t>;
  return rc::gen::map(UpTo<Given>(30, record), [](const std::vector<Given>& given) {
    std::map<std::int64_t, std::string> byEnd;
    for (const auto& [end, start, dcid, fp, any, size] : given) {
      EntryFields fields;
      fields.startOffset = start;
      fields.dcid = dcid;
      fields.fp = DigestOf(fp);
      fields.objectOffset = any;
      fields.dcOffset = any * 3;
      fields.attrByte = any;
      fields.attrWord = any * 5U;
      fields.attrFlag = any;
      byEnd[end] = EntryBytes(fields).substr(0, size);
    }
    Records records;
    for (const auto& [end, value] : byEnd) {
      records.push_back({end, value});
    }
    return records;
  });
}

class RangeObjectIdsPropertyTest : public RangeObjectIdsTest {
 protected:
  static constexpr std::size_t kDcidAt = 8;
  static constexpr std::size_t kFpAt = 16;

  void SetUp() override {
    LoadBoth({}, {});
    ::mdb_env_set_flags(peer().fullDb().env, MDB_NOSYNC, 1);
  }

  /// Makes these records, and no others, the extents of the full database.
  void Refill(const Records& records) {
    const LMDBContext& db = peer().fullDb();
    MDB_txn* txn = nullptr;
    RC_ASSERT(::mdb_txn_begin(db.env, nullptr, 0, &txn) == 0);
    RC_ASSERT(::mdb_drop(txn, db.dbi, 0) == 0);
    for (PlainRecord record : records) {
      MDB_val key{sizeof(record.key), &record.key};
      MDB_val value{record.value.size(), record.value.data()};
      RC_ASSERT(::mdb_put(txn, db.dbi, &key, &value, 0) == 0);
    }
    RC_ASSERT(::mdb_txn_commit(txn) == 0);
  }

  static std::string Whole(const PlainRecord& record) {
    std::string whole = record.value;
    whole.resize(72, '\0');
    return whole;
  }
  template <typename T>
  static T FieldAt(const std::string& whole, std::size_t at) {
    T field;
    std::memcpy(&field, whole.data() + at, sizeof(field));
    return field;
  }

  /// What a listing gives.
  static ObjectIDs Expected(const Records& records, std::int64_t start, std::int64_t end) {
    ObjectIDs ids;
    for (const PlainRecord& record : records) {
      const std::string whole = Whole(record);
      const auto dcid = FieldAt<std::uint64_t>(whole, kDcidAt);
      if (record.key >= start && record.key <= end && dcid >= 63) {
        ObjectIDs::value_type id;
        id.objectID.dcid = dcid;
        id.objectID.fp = FieldAt<PlainDigest>(whole, kFpAt);
        id.startOffset = FieldAt<std::int64_t>(whole, 0);
        id.endOffset = record.key;
        ids.push_back(id);
      }
    }
    return ids;
  }
  static bool Same(const ObjectIDs& a, const ObjectIDs& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
      return std::tie(x.objectID.dcid, x.objectID.fp, x.objectID.attrByte, x.objectID.attrWord,
                      x.objectID.attrFlag, x.startOffset, x.endOffset) ==
             std::tie(y.objectID.dcid, y.objectID.fp, y.objectID.attrByte, y.objectID.attrWord,
                      y.objectID.attrFlag, y.startOffset, y.endOffset);
    });
  }

  /// What an update makes of the records: each that does not end before `start` belongs to the
  /// first element that ends no earlier, if there is one, and moves if that has its fingerprint.
  static Records Updated(const Records& records, std::int64_t start, const ObjectIDs& ids) {
    Records updated;
    for (const PlainRecord& record : records) {
      const auto owner = std::find_if(ids.begin(), ids.end(),
                                      [&](const auto& id) { return id.endOffset >= record.key; });
      const bool moves = record.key >= start && owner != ids.end() &&
                         std::equal(owner->objectID.fp.begin(), owner->objectID.fp.end(),
                                    FieldAt<PlainDigest>(Whole(record), kFpAt).begin());
      updated.push_back(moves ? Moved(record, owner->objectID.dcid) : record);
    }
    return updated;
  }

  const refhost::LogRecorder quiet_{kLogFailure};
};

rc::Gen<ObjectIDs> AnyIds() {
  using Given = std::tuple<std::int64_t, std::uint64_t, unsigned char>;
  const auto end = rc::gen::weightedOneOf<std::int64_t>(
      {{9, AnyOffset()}, {1, rc::gen::element<std::int64_t>(-1, LONG_MIN)}});
  const auto element = rc::gen::tuple(end, rc::gen::inRange<std::uint64_t>(61, 200), AnyFp());
  return rc::gen::map(rc::gen::tuple(UpTo<Given>(8, element), rc::gen::arbitrary<bool>()),
                      [](const std::tuple<std::vector<Given>, bool>& drawn) {
                        auto [given, ordered] = drawn;
                        if (ordered) {
                          std::sort(given.begin(), given.end());
                        }
                        ObjectIDs ids;
                        for (const auto& [at, dcid, fp] : given) {
                          ids.emplace_back();
                          ids.back().objectID.dcid = dcid;
                          ids.back().objectID.fp = DigestOf(fp);
                          ids.back().startOffset = at / 2;
                          ids.back().endOffset = at;
                        }
                        return ids;
                      });
}

TEST_F(RangeObjectIdsPropertyTest, ListingsAndUpdatesAgreeWithTheModel) {
  long listed = 0;
  long moved = 0;
  long kept = 0;
  ExpectToHold("object ids of ranges against a model", kCases, [&] {
    const Records records = *AnyRecords();
    const std::int64_t start = *AnyOffset();
    const std::int64_t end = *AnyOffset();
    const ObjectIDs ids = *AnyIds();
    Refill(records);
    if (*rc::gen::arbitrary<bool>()) {
      ReplaceLmdb();
    } else {
      peer().ReplaceLmdbApi(std::make_unique<storage::utils::LmdbCApiWrapper>());
    }

    // A listing from 0 would merge, and so cut what overlaps.
    const std::int64_t from = std::max<std::int64_t>(start, 1);
    const auto first = static_cast<unsigned long>(from);
    const auto last = static_cast<unsigned long>(end);
    const ObjectIDs expected = Expected(records, from, end);
    RC_ASSERT(Same(table().GetObjectIdsAndOffsets(first, last), expected));
    RC_ASSERT(Extents(peer().fullDb()) == records);

    const auto begin = static_cast<unsigned long>(start);
    RC_ASSERT(table().UpdateObjectIdsByRange(begin, last, ids) == 0);
    const Records updated = Updated(records, start, ids);
    RC_ASSERT(Extents(peer().fullDb()) == updated);
    RC_ASSERT(Same(table().GetObjectIdsAndOffsets(first, last), Expected(updated, from, end)));
    RC_ASSERT(script_.openTransactions == 0);
    RC_ASSERT(script_.openCursors == 0);

    script_.Take();
    listed += static_cast<long>(expected.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
      ++(records[i] == updated[i] ? kept : moved);
    }
  });
  EXPECT_GT(listed, kCases);
  EXPECT_GT(moved, kCases);
  EXPECT_GT(kept, kCases);
}

}  // namespace
}  // namespace zefs::test
