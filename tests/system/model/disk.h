#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/fingerprint.h"
#include "tests/system/model/pieces.h"

// What the files of a stored table hold, as values: predicted by the model, or read from the files
// by plain calls.

namespace zefs::test {

/// The object id of a table; empty at first.
struct Doid {
  std::uint64_t dcid = 0;
  crfp_digest_t fp{};
};
inline bool operator==(const Doid& a, const Doid& b) {
  return a.dcid == b.dcid && a.fp == b.fp;
}

using Version = std::array<std::int32_t, 2>;

/// One database: its extents, and those of its special items that are there.
struct Database {
  Layer extents;
  std::optional<long> fileSize;
  std::optional<long> counter;
  std::optional<Doid> doid;
  std::optional<Version> version;

  std::size_t Records() const;
};

struct JournalRecord {
  long start = 0;
  long end = 0;
  long objOff = 0;
  std::uint64_t dcid = 0;
  crfp_digest_t fp{};
  bool added = true;  ///< false: something was displaced
};

/// An extent whose container offset is wanted.
struct OffsetRecord {
  long key = 0;  ///< its start
  std::uint64_t dcid = 0;
  crfp_digest_t fp{};
  long dcOffset = 0;
};
bool operator<(const OffsetRecord& a, const OffsetRecord& b);
bool operator==(const OffsetRecord& a, const OffsetRecord& b);

/// What a bloom file says.
struct Bloom {
  std::map<std::uint64_t, std::uint64_t> bytesByDcid;
  std::uint64_t inserted = 0;
};

struct Disk {
  Database small;
  Database full;
  std::optional<Database> tmp;
  std::optional<std::vector<JournalRecord>> journal;
  std::vector<OffsetRecord> offsets;  ///< rising; one may be there twice
  std::optional<Bloom> bloom;

  /// Newest first.
  Layers Chain() const;
};

/// What lies in `directory`, of which nobody has an environment open. A finished merge whose rename
/// was cut off is taken for the full database, as a load does. Throws std::runtime_error.
Disk ReadDisk(const std::string& directory);

/// The first difference of two disks in words; empty if there is none.
std::string Difference(const Disk& predicted, const Disk& found);

/// A piece or an extent in words.
std::string Words(const Piece& piece, long end);
std::string Words(const std::optional<Seen>& seen);

}  // namespace zefs::test
