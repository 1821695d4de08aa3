#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/table_directory/archive.h"

// What is done to a sound table directory before it is loaded.

namespace zefs::fuzz {

/// The order is that of the corpus files: new kinds go to the end.
enum class DamageKind : std::uint8_t {
  kMetaMagic,
  kMetaVersion,
  kMetaAddress,
  kMetaMapSize,
  kMetaPageSize,
  kMetaFreeFlags,
  kMetaFreeDepth,
  kMetaFreeEntries,
  kMetaFreeRoot,
  kMetaMainPad,
  kMetaMainFlags,
  kMetaMainDepth,
  kMetaMainPages,
  kMetaMainEntries,
  kMetaMainRoot,
  kMetaLastPage,
  kMetaTransaction,
  kMetaPageFlags,
  kPageNumber,
  kPageFlags,
  kPageLower,
  kPageUpper,
  kPageRun,
  kNodeOffset,
  kNodeSize,
  kNodeFlags,
  kNodeKeySize,
  kNodeChild,
  kKeyBytes,
  kValueBytes,
  kAnyByte,
  kSwapPages,
  kCopyPage,
  kZeroPage,
  kRandomPage,
  kCutFile,
  kCutAtPage,
  kLongerFile,
  kSparseFile,
  kEmptyFile,
  kNoFile,
  kOtherFile,
  kGarbageFile,
  kDirectory,
  kDanglingLink,
  kLinkLoop,
  kLinkToOther,
  kFifo,
  kUnreadable,
  kLockGarbage,
  kLockDirectory,
  kLockFifo,
  kPutRecord,
  kDeleteRecord,
  kOddValue,
  kOddKey,
  kReversedExtent,
  kExtremeExtent,
  kSideBytes,
  kCount,
};

const char* NameOf(DamageKind kind);

/// True for what is done by LMDB's own calls, so that the database stays sound.
bool IsOfRecords(DamageKind kind);

/// One damage; which file, page and node it hits comes from the numbers, all of which are allowed.
struct Damage {
  DamageKind kind = DamageKind::kCount;
  std::uint8_t file = 0;
  std::uint16_t page = 0;
  std::uint16_t node = 0;
  std::uint8_t how = 0;  ///< 0: set, 1: exclusive or, 2: add; 4 and up: both meta pages, not one
  std::uint8_t unused = 0;
  std::uint64_t value = 0;
};

inline constexpr std::size_t kDamageBytes = 16;
Damage ReadDamage(ByteReader* reader);
void AppendDamage(const Damage& damage, std::string* out);

/// Does to the files of `directory` what is no damage of records.
void ApplyToFiles(const Damage& damage, const std::string& directory);

/// Does a damage of records, by LMDB's calls. LMDB may find the database unusable: nothing is done
/// then.
void ApplyToRecords(const Damage& damage, const std::string& directory);

/// The databases of a directory by name, and the other files without lock files.
std::vector<std::string> DatabasesIn(const std::string& directory);
std::vector<std::string> SideFilesIn(const std::string& directory);

}  // namespace zefs::fuzz
