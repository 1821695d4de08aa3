#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "tests/system/power_cut/disk_recorder.h"

namespace zefs::test {

/// The files below a directory: the bytes of each by its relative path; no bytes, not even none,
/// for a directory.
using DiskImage = std::map<std::string, std::optional<std::string>>;

/// The files below a directory as they are.
DiskImage ImageOf(const boost::filesystem::path& directory);

/// Makes `directory` look like that and no other.
void WriteImage(const DiskImage& image, const boost::filesystem::path& directory);

/// What a file system promises of names: of the files made, renamed and removed in a directory.
enum class Names {
  /// As the journalling ones in use do: after a power cut the changes of names have come to the
  /// disk up to some point of their order, and none behind it. A sync of a file or directory
  /// brings that point at least up to the last change that named it, or, of a directory, that was
  /// made in it.
  kInOrder,
  /// As the letter of POSIX allows: each change of a name since the last sync of its directory has
  /// come to the disk or not, by itself; a rename is one change. A sync of a file says nothing of
  /// its name.
  kUnordered
};

/// A disk under a run of recorded calls, and what a power cut may leave of it.
///
/// Of the contents it assumes no more than POSIX does, under both policies: a sync of a file (fsync
/// and fdatasync alike) makes its bytes and its size last; a write to a descriptor opened with
/// O_DSYNC makes the bytes of that write last, and the size that it needs. Until then each write,
/// by itself, is lost, or kept, or torn: any of the 512-byte sectors that it touches may have come
/// to the disk. A change of the size is lost or kept whatever becomes of the bytes, so that a file
/// may hold zeros where it was written to, or end in front of bytes that were.
class ModelDisk {
 public:
  static constexpr std::size_t kSector = 512;

  /// How much of what is not on the disk yet a power cut leaves: the corners first, then by chance.
  enum class Left { kNothing, kNamesOnly, kNamesAndTornBytes, kAll, kByChance };
  static constexpr int kCorners = 4;

  /// A disk on which all of `image` has lasted.
  ModelDisk(const DiskImage& image, Names names);

  /// Does what a recorded call did. A call that does not fit the files that are there is told by
  /// std::runtime_error: the record is not whole.
  void Apply(const DiskEvent& event);

  /// The files that a power cut leaves now.
  DiskImage AfterPowerCut(Left left, std::mt19937_64* random) const;
  /// The same for a number: the corners, then by chance.
  DiskImage AfterPowerCut(int variant, std::mt19937_64* random) const;

  /// The files as the run sees them.
  DiskImage Now() const;

 private:
  using Node = std::size_t;
  static constexpr Node kNone = static_cast<Node>(-1);
  using Entry = std::pair<Node, std::string>;  // a name in a directory
  using Entries = std::map<Entry, Node>;

  struct Change {
    bool truncates = false;
    std::uint64_t offset = 0;  // of a truncation: the size
    std::string bytes;
    bool lasts = false;
  };
  struct File {
    bool isDirectory = false;
    std::string lasting;
    std::vector<Change> changes;  // not on the disk yet, in their order
  };
  /// A change of names: what these entries stand for from now on; kNone for nothing.
  using NameChange = std::vector<std::pair<Entry, Node>>;

  Node NewNode(bool isDirectory);
  Node Find(const std::string& path) const;
  Entry EntryOf(const std::string& path) const;
  void Rename(const NameChange& change);
  void SyncNames(Node node);
  static void Make(const NameChange& change, Entries* entries);
  static void Apply(const Change& change, std::string* bytes);
  Entries NamesLeft(Left left, std::mt19937_64* random) const;
  static std::string BytesLeft(const File& file, Left left, std::mt19937_64* random);
  DiskImage Show(const Entries& entries, const std::vector<std::string>& bytes) const;

  const Names names_;
  std::vector<File> files_;  // the first is the directory itself
  Entries now_;
  Entries lasting_;
  std::vector<NameChange> changes_;  // not on the disk yet, in their order
  std::map<int, Node> descriptors_;
  Node written_ = kNone;  // by the last event
};

}  // namespace zefs::test
