#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "host/bloom_filter.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Bytes referenced in each data container, by its id.
using DcidBytes = std::unordered_map<unsigned long, unsigned long>;

/// The attributes of a bloom file; docs/formats.md shows the whole file. They follow its version
/// word, a 4-byte number, so that they are not aligned there.
struct BloomAttributes {
  std::uint32_t bufferSize = 0;            ///< bytes of filter data behind the attributes
  std::uint32_t bitmapSize = 0;            ///< low half of the filter's; not used on reading
  std::uint64_t expectedFingerprints = 0;  ///< not used on reading
  std::uint64_t insertedFingerprints = 0;
  std::uint32_t hashFunctionCount = 0;  ///< not used on reading
  double maxFalsePositive = 0;
  std::uint32_t bloomCrc = 0;         ///< BloomPersist::BloomCRC::GetCRC
  std::uint32_t udcidBufferSize = 0;  ///< bytes of the container list behind the filter data
  std::uint32_t udcidCrc = 0;         ///< Adler-32 of the list
};
inline constexpr std::size_t kBloomAttributesBytes = 56;

/// Writes the kBloomAttributesBytes at `bytes`, zeros where no field lies.
void EncodeBloomAttributes(const BloomAttributes& attributes, unsigned char* bytes);

/// The attributes in the kBloomAttributesBytes at `bytes`, whatever they are.
BloomAttributes DecodeBloomAttributes(const unsigned char* bytes);

/// One entry of the container list.
struct DcidReference {
  std::uint64_t dcid = 0;
  std::uint64_t bytes = 0;  ///< sum of the lengths of the extents in that container
};
inline constexpr std::size_t kDcidReferenceBytes = 16;

/// Writes one entry to the kDcidReferenceBytes at `bytes`.
void EncodeDcidReference(const DcidReference& reference, unsigned char* bytes);

/// The entry in the kDcidReferenceBytes at `bytes`, whatever they are.
DcidReference DecodeDcidReference(const unsigned char* bytes);

/// Reader and writer of one bloom file: a filter of the fingerprints that the full database of a
/// table references, and how many bytes it references in each data container. A merge stores them,
/// so that whoever asks for them later need not walk that database again. The file is only a
/// short-cut: losing it costs a walk.
///
/// Filter data and list have a checksum each. The filter's also covers its size, its number of
/// insertions and its rate; the version and the attributes that are not used on reading are not
/// covered. The file may be damaged, cut, or anything else: it is refused before memory is taken
/// for what it does not hold.
///
/// An instance belongs to one call and thread; it has no lock. The writer fills a new file of
/// another name, which then replaces the one that readers open.
class BloomPersist {
 public:
  /// What the checksum of a filter covers: the data, its size, the count and the rate.
  class BloomCRC {
   public:
    /// `data` are `size` bytes, not owned; they are read by GetCRC.
    BloomCRC(std::uint32_t size, const unsigned char* data, std::uint64_t inserted,
             double maxFalsePositive);

    /// The checksum. 1 if there was no memory to put together what it covers: a file stored with
    /// that is refused when it is read, and one that is read is refused now.
    std::uint32_t GetCRC();

   private:
    std::uint32_t size_;
    const unsigned char* data_;
    std::uint64_t inserted_;
    double maxFalsePositive_;
    std::unique_ptr<unsigned char[]> scratch_;  // the covered bytes, one after the other
  };

  /// The container list in its file form.
  struct Udcids {
    /// A zeroed list of `bytes` bytes, of which `size` counts what fits into 32 bits.
    explicit Udcids(std::size_t bytes);

    /// Refills `*udcids` from the `count` entries at `buffer`, without those whose container id is
    /// below kFirstDcid. Of several entries of one container the first counts.
    static void FromBuffer(unsigned char* buffer, unsigned long count, DcidBytes* udcids);

    std::unique_ptr<unsigned char[]> buffer;
    std::uint32_t size;  ///< bytes
  };

  /// Touches no file. `path` is the full path of the file; `readOnly` says what Reset opens it for.
  BloomPersist(const std::string& path, bool readOnly) : readOnly_(readOnly), path_(path) {}
  /// Closes the file. What was stored stays, whole or not.
  ~BloomPersist();
  BloomPersist(const BloomPersist&) = delete;
  BloomPersist& operator=(const BloomPersist&) = delete;

  /// Opens the file anew, for reading from its start, or for appending, with the rights 0600 if it
  /// has to be created. A writer has removed an older file first: only what comes first in a file
  /// is read back. With `noMmap` the descriptor goes through EnableNommap. Returns 0, or the
  /// negative result of the failed open.
  int Reset(bool noMmap);

  /// Appends the filter and the list; there is no sync. The list holds 2^28 - 1 containers at most,
  /// and beyond that the remainder. Returns 0. Throws SysException(kErrIo) if the file is not open
  /// or a write fails; what the writes before it have left stays in the file.
  int StoreBloom(BloomFilter* bloom, DcidBytes* udcids);

  /// Replaces the filter and the map by those of the file. Returns 0, or -1 if a checksum differs.
  /// Throws SysException(kErrIo) if the file is not open, ends too early or cannot be read, and
  /// hands on what the filter's constructor throws for a rate or size that makes no sense
  /// (std::invalid_argument, std::length_error) and std::bad_alloc.
  ///
  /// On a failure `*udcids` is as before, and so is `*bloom` if the filter was the reason. If it
  /// was the list, `*bloom` is the filter of the file: the caller replaces it.
  int ReadBloom(std::unique_ptr<BloomFilter>* bloom, DcidBytes* udcids);

  /// Reads, or writes, just `size` bytes in chunks of 1 MiB. Throws SysException(kErrIo) if a chunk
  /// comes out short; those before it are done. Reset was called before.
  void Read(unsigned char* dst, unsigned int size);
  void Write(unsigned char* src, unsigned int size);

  /// Closes the file if it is open. A failure is only logged.
  void CheckAndClose();

 private:
  friend struct BloomPersistTestPeer;

  void CheckStored(unsigned int size) const;

  int fd_ = -1;                              // -1: closed
  std::unique_ptr<unsigned char[]> buffer_;  // the staging chunk, made by Reset
  bool readOnly_;
  std::string path_;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
