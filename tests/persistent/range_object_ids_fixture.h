#pragma once

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/scripted_lmdb.h"

namespace zefs::test {

/// A table whose object ids are listed and rewritten.
class RangeObjectIdsTest : public MergeTest {
 protected:
  using ObjectIDs = CMappingLMDB::ObjectIDs;

  /// The record of an extent with attributes. Its fingerprint is made of `fp` alone.
  static PlainRecord Attributed(std::int64_t start, std::int64_t end, std::uint64_t dcid,
                                unsigned char fp) {
    EntryFields fields = FieldsOf(start, dcid);
    fields.fp = DigestOf(fp);
    fields.attrByte = 7;
    fields.attrWord = 70000;
    fields.attrFlag = 9;
    return {end, EntryBytes(fields)};
  }
  /// The same after an update has put it into `dcid`; all but the container comes from `record`.
  static PlainRecord Moved(PlainRecord record, std::uint64_t dcid) {
    constexpr std::size_t kDcidAt = 8;
    constexpr std::size_t kAttrByteAt = 56;
    constexpr std::size_t kAttrFlagAt = 64;
    record.value.resize(72, '\0');
    std::memcpy(&record.value[kDcidAt], &dcid, sizeof(dcid));
    record.value[kAttrByteAt] = 0;
    record.value[kAttrFlagAt] = 0;
    return record;
  }

  /// An element of an update: extents of `fp` that end up to `end` go to `dcid`.
  static ObjectIDs::value_type Element(std::int64_t end, std::uint64_t dcid, unsigned char fp) {
    ObjectIDs::value_type element;
    element.objectID.dcid = dcid;
    element.objectID.fp = DigestOf(fp);
    element.objectID.attrByte = 1;  // attributes and start play no part
    element.objectID.attrWord = 2;
    element.objectID.attrFlag = 3;
    element.startOffset = 12345;
    element.endOffset = end;
    return element;
  }

  /// What is listed: "[start, end) dcid fp", and the attributes if there are any.
  static std::vector<std::string> Shown(const ObjectIDs& ids) {
    std::vector<std::string> shown;
    for (const auto& id : ids) {
      std::ostringstream text;
      text << '[' << id.startOffset << ", " << id.endOffset << ") " << id.objectID.dcid << ' '
           << int{id.objectID.fp[0]};
      if (id.objectID.fp != DigestOf(id.objectID.fp[0])) {
        text << " and other bytes";
      }
      if (id.objectID.attrByte != 0 || id.objectID.attrWord != 0 || id.objectID.attrFlag != 0) {
        text << " with attributes";
      }
      shown.push_back(text.str());
    }
    return shown;
  }
  std::vector<std::string> Listed(unsigned long start, unsigned long end) {
    return Shown(table().GetObjectIdsAndOffsets(start, end));
  }

  /// From now on the operations run over a replacement of LMDB.
  void ReplaceLmdb() { peer().ReplaceLmdbApi(std::make_unique<ScriptedLmdb>(&script_)); }

  /// "words; message" of a failure at the level of failures.
  static std::string Told(const std::string& words, int code) {
    return "8 " + words + "; " + CMappingLMDB::LMDBErrorMessage(code);
  }
  /// The same by the owner of the transaction, which adds the code.
  static std::string ToldWithCode(const std::string& words, int code) {
    return Told(words, code) + " (errno " + std::to_string(code) + ')';
  }

  LmdbScript script_;
};

}  // namespace zefs::test
