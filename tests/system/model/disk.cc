#include "tests/system/model/disk.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <unordered_map>

#include <boost/filesystem/operations.hpp>

#include "sidefiles/bloom_persist.h"
#include "sidefiles/dc_offset_store.h"
#include "sidefiles/extent_journal.h"
#include "tests/support/plain_lmdb.h"

namespace zefs::test {

namespace {

namespace fs = boost::filesystem;

template <typename T>
T At(const std::string& bytes, std::size_t offset) {
  T value{};
  if (offset + sizeof(T) > bytes.size()) {
    throw std::runtime_error("a record of " + std::to_string(bytes.size()) + " bytes");
  }
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

// Where the fields of the records lie.
constexpr std::size_t kDcid = 8;
constexpr std::size_t kFp = 16;
constexpr std::size_t kObjOff = 48;
constexpr std::size_t kDcOffset = 52;
constexpr std::size_t kAttrByte = 56;
constexpr std::size_t kAttrWord = 60;
constexpr std::size_t kAttrFlag = 64;

Piece PieceOf(const std::string& bytes) {
  Piece piece;
  piece.start = At<std::int64_t>(bytes, 0);
  piece.id.dcid = At<std::uint64_t>(bytes, kDcid);
  piece.id.fp = At<crfp_digest_t>(bytes, kFp);
  piece.objOff = At<std::int32_t>(bytes, kObjOff);
  piece.dcOffset = At<std::int32_t>(bytes, kDcOffset);
  piece.id.attrByte = At<std::uint8_t>(bytes, kAttrByte);
  piece.id.attrWord = At<std::uint32_t>(bytes, kAttrWord);
  piece.id.attrFlag = At<std::uint8_t>(bytes, kAttrFlag);
  return piece;
}

Database ReadDatabase(const fs::path& file) {
  Database database;
  for (const PlainRecord& record : ReadPlainDatabase(file)) {
    if (record.key == kPlainVersionKey) {
      database.version = At<Version>(record.value, 0);
    } else if (record.key == kPlainFileSizeKey) {
      database.fileSize = At<std::int64_t>(record.value, 0);
    } else if (record.key == kPlainCommitCounterKey) {
      database.counter = At<std::int64_t>(record.value, 0);
    } else if (record.key == kPlainDoidKey) {
      database.doid =
          Doid{At<std::uint64_t>(record.value, 0), At<crfp_digest_t>(record.value, kDcid)};
    } else {
      database.extents.emplace_hint(database.extents.end(), record.key, PieceOf(record.value));
    }
  }
  return database;
}

std::string BytesOf(const fs::path& file) {
  std::ifstream in(file.string(), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The whole records of a side file; one that a crash has cut off is no record.
template <typename Record, typename Take>
void ForEachRecord(const fs::path& file, const Take& take) {
  const std::string bytes = BytesOf(file);
  for (std::size_t at = 0; at + sizeof(Record) <= bytes.size(); at += sizeof(Record)) {
    take(At<Record>(bytes, at));
  }
}

std::optional<Bloom> ReadBloomOf(const fs::path& file) {
  if (!fs::exists(file)) {
    return std::nullopt;
  }
  Aldenta::Qnd::Morene::Zefs::BloomPersist stored(file.string(), true);
  std::unique_ptr<BloomFilter> filter;
  std::unordered_map<unsigned long, unsigned long> refs;
  if (stored.Reset(false) != 0 || stored.ReadBloom(&filter, &refs) != 0) {
    throw std::runtime_error("an unsound bloom file");
  }
  return Bloom{{refs.begin(), refs.end()}, filter->GetInsertedFingerPrints()};
}

std::string Hex(const crfp_digest_t& fp) {
  std::ostringstream out;
  out << std::hex;
  for (std::size_t i = 0; i < 4; ++i) {
    out << static_cast<unsigned int>(fp.at(i)) << (i == 3 ? "" : ".");
  }
  return out.str();
}

std::string Words(const Layer& layer) {
  std::string words;
  for (const auto& [end, piece] : layer) {
    words += "\n    " + Words(piece, end);
  }
  return words;
}

template <typename T>
std::string Number(const std::optional<T>& number) {
  return number ? std::to_string(*number) : "none";
}

std::string Difference(const std::string& name, const Database& predicted, const Database& found) {
  std::string words;
  if (predicted.extents != found.extents) {
    words = "extents: expected" + Words(predicted.extents) + "\n  found" + Words(found.extents);
  } else if (predicted.fileSize != found.fileSize) {
    words =
        "file size: expected " + Number(predicted.fileSize) + ", found " + Number(found.fileSize);
  } else if (predicted.counter != found.counter) {
    words = "commits: expected " + Number(predicted.counter) + ", found " + Number(found.counter);
  } else if (!(predicted.doid == found.doid)) {
    words = "do id";
  } else if (predicted.version != found.version) {
    words = "version";
  }
  return words.empty() ? words : name + ", " + words;
}

bool SameJournal(const std::optional<std::vector<JournalRecord>>& a,
                 const std::optional<std::vector<JournalRecord>>& b) {
  const auto same = [](const JournalRecord& x, const JournalRecord& y) {
    return std::tie(x.start, x.end, x.objOff, x.dcid, x.fp, x.added) ==
           std::tie(y.start, y.end, y.objOff, y.dcid, y.fp, y.added);
  };
  return a.has_value() == b.has_value() &&
         (!a || std::equal(a->begin(), a->end(), b->begin(), b->end(), same));
}

}  // namespace

std::size_t Database::Records() const {
  return extents.size() + (fileSize ? 1U : 0U) + (counter ? 1U : 0U) + (doid ? 1U : 0U) +
         (version ? 1U : 0U);
}

bool operator<(const OffsetRecord& a, const OffsetRecord& b) {
  return std::tie(a.key, a.dcid, a.fp, a.dcOffset) < std::tie(b.key, b.dcid, b.fp, b.dcOffset);
}

bool operator==(const OffsetRecord& a, const OffsetRecord& b) {
  return !(a < b) && !(b < a);
}

Layers Disk::Chain() const {
  Layers chain;
  if (tmp) {
    chain.push_back(&tmp->extents);
  }
  chain.push_back(&small.extents);
  chain.push_back(&full.extents);
  return chain;
}

Disk ReadDisk(const std::string& directory) {
  using Aldenta::Qnd::Morene::Zefs::Extent;
  const fs::path path(directory);
  Disk disk;
  const auto read = [&](const char* name, Database* database) {
    if (!fs::exists(path / name)) {
      return false;
    }
    if (fs::file_size(path / name) != 0) {  // else its making was cut off
      *database = ReadDatabase(path / name);
    }
    return true;
  };
  read("lsml0.mdb", &disk.small);
  if (!read("data.mdb", &disk.full) && fs::is_regular_file(path / "mergedb")) {
    read("mergedb", &disk.full);
  }
  Database tmp;
  if (read("tmp.mdb", &tmp)) {
    disk.tmp = std::move(tmp);
  }
  if (fs::exists(path / "journal")) {
    disk.journal.emplace();
    ForEachRecord<std::array<char, sizeof(Extent)>>(path / "journal", [&](const auto& bytes) {
      Extent record;
      std::memcpy(static_cast<void*>(&record), bytes.data(), sizeof(record));
      disk.journal->push_back({record.start, record.end, record.offset, record.dcid, record.fp,
                               record.op == Aldenta::Qnd::Morene::Zefs::ADD});
    });
  }
  ForEachRecord<zefs::DCOffset>(path / "dcoffset", [&](const zefs::DCOffset& record) {
    disk.offsets.push_back({record.key, record.dcid, record.fp, record.dcOffset});
  });
  std::sort(disk.offsets.begin(), disk.offsets.end());
  disk.bloom = ReadBloomOf(path / "bloom");
  return disk;
}

std::string Difference(const Disk& predicted, const Disk& found) {
  for (const std::string& words :
       {Difference("small database", predicted.small, found.small),
        Difference("full database", predicted.full, found.full),
        predicted.tmp && found.tmp ? Difference("tmp database", *predicted.tmp, *found.tmp)
                                   : std::string()}) {
    if (!words.empty()) {
      return words;
    }
  }
  if (predicted.tmp.has_value() != found.tmp.has_value()) {
    return std::string("tmp database: ") + (found.tmp ? "unexpected" : "missing");
  }
  if (!SameJournal(predicted.journal, found.journal)) {
    return "journal: expected " +
           (predicted.journal ? std::to_string(predicted.journal->size()) : "no") +
           " records, found " + (found.journal ? std::to_string(found.journal->size()) : "no");
  }
  if (predicted.offsets != found.offsets) {
    return "offset store: expected " + std::to_string(predicted.offsets.size()) +
           " records, found " + std::to_string(found.offsets.size());
  }
  if (predicted.bloom.has_value() != found.bloom.has_value() ||
      (found.bloom && (predicted.bloom->bytesByDcid != found.bloom->bytesByDcid ||
                       predicted.bloom->inserted != found.bloom->inserted))) {
    return "bloom file";
  }
  return "";
}

std::string Words(const Piece& piece, long end) {
  std::ostringstream out;
  out << '[' << piece.start << ", " << end << ") dcid " << piece.id.dcid << " fp "
      << Hex(piece.id.fp) << " attributes " << int{piece.id.attrByte} << '/' << piece.id.attrWord
      << '/' << int{piece.id.attrFlag} << " from " << piece.objOff << " dc offset "
      << piece.dcOffset << " checksum " << piece.checksum << " node " << piece.node;
  return out.str();
}

std::string Words(const std::optional<Seen>& seen) {
  return seen ? Words(seen->piece, seen->end) : "nothing";
}

}  // namespace zefs::test
