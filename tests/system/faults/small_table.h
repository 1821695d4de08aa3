#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "tests/persistent/lifecycle_fixture.h"
#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/persistent/persistent_fixture.h"
#include "tests/support/temp_dir.h"

// A table of a known small content, made anew for each fault.

namespace zefs::test {

inline constexpr long kFileBytes = 480;  ///< the bytes that are looked at

/// What stands behind one byte of the file; all zero in a hole.
struct Byte {
  std::uint64_t dcid = 0;
  long place = 0;  ///< in the object
  int dcOffset = 0;

  bool operator==(const Byte& other) const {
    return dcid == other.dcid && place == other.place && dcOffset == other.dcOffset;
  }
};
using Bytes = std::array<Byte, kFileBytes>;
/// As runs.
void PrintTo(const Bytes& bytes, std::ostream* out);

/// What a table answers.
struct Content {
  Bytes bytes{};
  long fileSize = 0;
  std::uint64_t doid = 0;  ///< container of the table's own object id, 0: none
  int version = 0;
};

/// How a table stands before the operation.
enum class Start {
  kMerged,       ///< small and full database, bloom file, offset store
  kFailedMerge,  ///< a tmp database beside them, and the type that has a journal
  kNothing       ///< no directory yet
};
const char* NameOf(Start start);

/// Answers like the cache behind it, in memory that never runs out.
class SparedCache final : public DataCacheManagementInterface {
 public:
  explicit SparedCache(FakeCache* cache) : cache_(cache) {}
  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) override;
  int ProtectShare(DataTransferManagement* transfer, const std::string& shareScope,
                   const std::string& share) override;

 private:
  FakeCache* cache_;
};

/// The directories that tables start from, written once.
class Templates {
 public:
  Templates();
  /// Does not exist for kNothing.
  boost::filesystem::path Of(Start start) const;

 private:
  TempDir dir_;
};

/// One table in a directory of its own, which goes with it.
class SmallTable {
 public:
  using CMappingLMDB = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
  using Peer = Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer;

  SmallTable(const Templates& templates, Start start);
  ~SmallTable();
  SmallTable(const SmallTable&) = delete;
  SmallTable& operator=(const SmallTable&) = delete;

  /// A table object that is not loaded.
  void Make();
  /// Makes and loads it.
  void Load();
  /// Writes to the cache what has not been flushed yet.
  void WriteCache();
  /// The host takes the references and gives the table an object id.
  void TakeReferences();
  /// The node without an object id gets one.
  void MakeAllReady();
  /// Ends the object's life and, as the end of the process would, that of a tmp database that it
  /// leaves open.
  void Destroy();

  /// All that the table answers. Throws what a look-up throws.
  Content Look();
  Bytes LookAtBytes();

  CMappingLMDB& table() { return *table_; }
  Peer peer() { return Peer(*table_); }
  bool exists() const { return table_ != nullptr; }
  std::string directory() const { return directory_.string(); }
  std::string root() const { return dir_.path().string(); }
  /// The files lie in `directory` from now on.
  void MoveTo(const boost::filesystem::path& directory) { directory_ = directory; }
  std::string type() const;

  /// What an operation has answered, but for its code.
  std::string answer;

 private:
  const TempDir dir_;
  const Start start_;
  boost::filesystem::path directory_;
  FakeCache cache_;
  SparedCache spared_{&cache_};
  std::array<DataCacheNode*, 3> nodes_{};
  std::unique_ptr<CMappingLMDB> table_;
};

/// The content of `directory`, which no environment of this process has open, as a table loads it
/// from a copy.
Content LoadedFrom(const std::string& directory, const std::string& type);

/// Without the journal as if it had been read, and its records then not applied.
/// The bytes of the databases alone, and of databases and cache, worked out by hand.
Bytes ExpectedStored(Start start, bool withJournal = true);
Bytes ExpectedBefore(Start start);
/// Every database on its own, oldest first: what may show where newer data was lost.
std::vector<Bytes> Levels(Start start, bool withJournal = true);
/// Whether the byte is one that the first flush stores.
bool IsFlushed(long at);

}  // namespace zefs::test
