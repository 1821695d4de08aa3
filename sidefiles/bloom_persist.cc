#include "sidefiles/bloom_persist.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <type_traits>
#include <unistd.h>

#include <sys/stat.h>

#include "host/file_io.h"
#include "host/zefs_log.h"
#include "sidefiles/adler32.h"
#include "support/filesystem.h"
#include "table/extent.h"
#include "table/sys_exception.h"

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogTrace;

namespace {

constexpr std::uint32_t kVersion = 1;
constexpr unsigned int kStagingBytes = 0x100000;

// The fields lie in the file as in memory, but for the padding behind these two.
constexpr std::size_t kFirstGap = 28;
constexpr std::size_t kSecondPart = 32;
constexpr std::size_t kSecondGap = 52;
static_assert(sizeof(BloomAttributes) == kBloomAttributesBytes);
static_assert(offsetof(BloomAttributes, bufferSize) == 0 &&
              sizeof(BloomAttributes::bufferSize) == 4);
static_assert(offsetof(BloomAttributes, bitmapSize) == 4 &&
              sizeof(BloomAttributes::bitmapSize) == 4);
static_assert(offsetof(BloomAttributes, expectedFingerprints) == 8 &&
              sizeof(BloomAttributes::expectedFingerprints) == 8);
static_assert(offsetof(BloomAttributes, insertedFingerprints) == 16 &&
              sizeof(BloomAttributes::insertedFingerprints) == 8);
static_assert(offsetof(BloomAttributes, hashFunctionCount) == 24 &&
              sizeof(BloomAttributes::hashFunctionCount) == kFirstGap - 24);
static_assert(offsetof(BloomAttributes, maxFalsePositive) == kSecondPart &&
              sizeof(BloomAttributes::maxFalsePositive) == 8);
static_assert(offsetof(BloomAttributes, bloomCrc) == 40 && sizeof(BloomAttributes::bloomCrc) == 4);
static_assert(offsetof(BloomAttributes, udcidBufferSize) == 44 &&
              sizeof(BloomAttributes::udcidBufferSize) == 4);
static_assert(offsetof(BloomAttributes, udcidCrc) == 48 &&
              sizeof(BloomAttributes::udcidCrc) == kSecondGap - 48);
static_assert(std::is_trivially_copyable_v<BloomAttributes>);

static_assert(sizeof(DcidReference) == kDcidReferenceBytes);
static_assert(offsetof(DcidReference, dcid) == 0 && sizeof(DcidReference::dcid) == 8);
static_assert(offsetof(DcidReference, bytes) == 8 && sizeof(DcidReference::bytes) == 8);
static_assert(std::has_unique_object_representations_v<DcidReference>);

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

/// Behind the filter data in what its checksum covers: size, inserted count, rate.
constexpr std::size_t kCoveredAttributesBytes = 20;

/// Throws unless all `wanted` bytes were read or written.
void CheckTransfer(ssize_t done, std::size_t wanted, const char* what) {
  if (done != static_cast<ssize_t>(wanted)) {
    ZEFS_LOG(kLogFailure, "returned size %d, expected size %d for %s", static_cast<int>(done),
             static_cast<int>(wanted), what);
    throw SysException(kErrIo);
  }
}

}  // namespace

void EncodeBloomAttributes(const BloomAttributes& attributes, unsigned char* bytes) {
  const auto* const fields = reinterpret_cast<const unsigned char*>(&attributes);
  std::memset(bytes, 0, kBloomAttributesBytes);
  std::memcpy(bytes, fields, kFirstGap);
  std::memcpy(bytes + kSecondPart, fields + kSecondPart, kSecondGap - kSecondPart);
}

BloomAttributes DecodeBloomAttributes(const unsigned char* bytes) {
  BloomAttributes attributes;
  std::memcpy(&attributes, bytes, kBloomAttributesBytes);
  return attributes;
}

void EncodeDcidReference(const DcidReference& reference, unsigned char* bytes) {
  std::memcpy(bytes, &reference, kDcidReferenceBytes);
}

DcidReference DecodeDcidReference(const unsigned char* bytes) {
  DcidReference reference;
  std::memcpy(&reference, bytes, kDcidReferenceBytes);
  return reference;
}

BloomPersist::BloomCRC::BloomCRC(std::uint32_t size, const unsigned char* data,
                                 std::uint64_t inserted, double maxFalsePositive)
    : size_(size),
      data_(data),
      inserted_(inserted),
      maxFalsePositive_(maxFalsePositive),
      scratch_(new (std::nothrow) unsigned char[size + kCoveredAttributesBytes]()) {}

std::uint32_t BloomPersist::BloomCRC::GetCRC() {
  if (scratch_ == nullptr) {
    return 1;
  }
  unsigned char* next = std::copy_n(data_, size_, scratch_.get());
  std::memcpy(next, &size_, sizeof(size_));
  next += sizeof(size_);
  std::memcpy(next, &inserted_, sizeof(inserted_));
  next += sizeof(inserted_);
  std::memcpy(next, &maxFalsePositive_, sizeof(maxFalsePositive_));
  static_assert(sizeof(size_) + sizeof(inserted_) + sizeof(maxFalsePositive_) ==
                kCoveredAttributesBytes);
  return Adler32(scratch_.get(), size_ + kCoveredAttributesBytes);
}

BloomPersist::Udcids::Udcids(std::size_t bytes)
    : buffer(std::make_unique<unsigned char[]>(bytes)), size(static_cast<std::uint32_t>(bytes)) {}

void BloomPersist::Udcids::FromBuffer(unsigned char* buffer, unsigned long count,
                                      DcidBytes* udcids) {
  udcids->clear();
  udcids->reserve(count);
  for (unsigned long i = 0; i < count; ++i) {
    const DcidReference reference = DecodeDcidReference(buffer + i * kDcidReferenceBytes);
    if (reference.dcid >= kFirstDcid) {
      udcids->emplace(reference.dcid, reference.bytes);
    }
  }
}

BloomPersist::~BloomPersist() {
  CheckAndClose();
}

int BloomPersist::Reset(bool noMmap) {
  if (buffer_ == nullptr) {
    buffer_ = std::make_unique<unsigned char[]>(kStagingBytes);
  }
  if (fd_ != -1) {
    const int closed = ::close(fd_);
    if (closed != 0) {
      ZEFS_LOG(kLogFailure, "close file failed, return is %d, errno is %d", closed, errno);
    }
  }
  fd_ = storage::utils::OpenNoPipe(path_, readOnly_ ? O_RDONLY : O_WRONLY | O_CREAT | O_APPEND,
                                   S_IRUSR | S_IWUSR);
  if (fd_ == -1) {
    ZEFS_LOG(kLogFailure, "failed to open file %s, errno is %d", path_.c_str(), errno);
    return fd_;
  }
  if (noMmap) {
    EnableNommap(path_, fd_);
  }
  return 0;
}

int BloomPersist::StoreBloom(BloomFilter* bloom, DcidBytes* udcids) {
  if (fd_ == -1) {
    throw SysException(kErrIo);
  }
  const std::uint32_t version = kVersion;
  CheckTransfer(safe_write(fd_, &version, sizeof(version)), sizeof(version),
                "failed to write version of bloom file");

  BloomAttributes attributes;
  attributes.bufferSize = bloom->GetBufferSize();
  attributes.bitmapSize = static_cast<std::uint32_t>(bloom->GetBitmapSize());
  attributes.expectedFingerprints = bloom->GetExpectedFingerprints();
  attributes.insertedFingerprints = bloom->GetInsertedFingerPrints();
  attributes.hashFunctionCount = bloom->GetHashFunctionCount();
  attributes.maxFalsePositive = bloom->GetMaxFalsePositive();
  attributes.bloomCrc = BloomCRC(attributes.bufferSize, bloom->GetBloom(),
                                 attributes.insertedFingerprints, attributes.maxFalsePositive)
                            .GetCRC();

  const Udcids list(udcids->size() * kDcidReferenceBytes);
  unsigned char* next = list.buffer.get();
  for (const auto& [dcid, bytes] : *udcids) {
    EncodeDcidReference({dcid, bytes}, next);
    next += kDcidReferenceBytes;
  }
  attributes.udcidBufferSize = list.size;
  attributes.udcidCrc = Adler32(list.buffer.get(), list.size);
  ZEFS_LOG(kLogTrace, "%s, path:%s, buffSize:%d, udcidBufSize:%d", "StoreBloom", path_.c_str(),
           static_cast<int>(attributes.bufferSize), static_cast<int>(attributes.udcidBufferSize));

  std::array<unsigned char, kBloomAttributesBytes> block{};
  EncodeBloomAttributes(attributes, block.data());
  CheckTransfer(safe_write(fd_, block.data(), block.size()), block.size(),
                "failed to store Bloom filter attribute");
  Write(bloom->GetBloom(), attributes.bufferSize);
  Write(list.buffer.get(), list.size);
  return 0;
}

int BloomPersist::ReadBloom(std::unique_ptr<BloomFilter>* bloom, DcidBytes* udcids) {
  if (fd_ == -1) {
    throw SysException(kErrIo);
  }
  std::uint32_t version = 0;  // read to get past it: all versions are taken for the one there is
  CheckTransfer(safe_read(fd_, &version, sizeof(version)), sizeof(version),
                "read version of bloom file");
  std::array<unsigned char, kBloomAttributesBytes> block{};
  CheckTransfer(safe_read(fd_, block.data(), block.size()), block.size(),
                "failed to store Bloom filter attribute");
  const BloomAttributes attributes = DecodeBloomAttributes(block.data());

  CheckStored(attributes.bufferSize);
  // Built for as many entries as it has bytes: that gives a filter of the size that was stored,
  // which the number of entries that the first one was built for need not do.
  auto filter = std::make_unique<BloomFilter>(attributes.bufferSize, attributes.maxFalsePositive);
  filter->SetInsertedFingerPrints(attributes.insertedFingerprints);
  Read(filter->GetBloom(), attributes.bufferSize);
  ZEFS_LOG(kLogTrace, "read bloom finish, bufSize:%d", static_cast<int>(attributes.bufferSize));
  const std::uint32_t bloomCrc =
      BloomCRC(attributes.bufferSize, filter->GetBloom(), attributes.insertedFingerprints,
               attributes.maxFalsePositive)
          .GetCRC();
  if (bloomCrc != attributes.bloomCrc) {
    return -1;
  }
  *bloom = std::move(filter);

  ZEFS_LOG(kLogTrace, "%s, path:%s, buffSize:%d, udcidBufSize:%d", "ReadBloom", path_.c_str(),
           static_cast<int>(attributes.bufferSize), static_cast<int>(attributes.udcidBufferSize));
  CheckStored(attributes.udcidBufferSize);
  const Udcids list(attributes.udcidBufferSize);
  Read(list.buffer.get(), list.size);
  if (Adler32(list.buffer.get(), list.size) != attributes.udcidCrc) {
    return -1;
  }
  Udcids::FromBuffer(list.buffer.get(), list.size / kDcidReferenceBytes, udcids);
  return 0;
}

void BloomPersist::Read(unsigned char* dst, unsigned int size) {
  for (unsigned int done = 0; done < size;) {
    const unsigned int chunk = std::min(size - done, kStagingBytes);
    CheckTransfer(safe_read(fd_, buffer_.get(), chunk), chunk, "failed to read buffer");
    std::copy_n(buffer_.get(), chunk, dst + done);
    done += chunk;
  }
}

void BloomPersist::Write(unsigned char* src, unsigned int size) {
  for (unsigned int done = 0; done < size;) {
    const unsigned int chunk = std::min(size - done, kStagingBytes);
    std::copy_n(src + done, chunk, buffer_.get());
    CheckTransfer(safe_write(fd_, buffer_.get(), chunk), chunk, "failed to write buffer to disk");
    done += chunk;
  }
}

/// Fails as Read would if the file ends within the next `size` bytes. A size that a damaged file
/// tells is found out so before memory is taken for it. A file whose length cannot be told counts
/// as ended.
void BloomPersist::CheckStored(unsigned int size) const {
  struct stat64 status {};
  const off64_t at = ::lseek64(fd_, 0, SEEK_CUR);
  const bool known = at != -1 && ::fstat64(fd_, &status) == 0;
  const off64_t left = known ? std::max(status.st_size - at, off64_t{0}) : 0;
  if (left < size) {
    const unsigned int whole = static_cast<unsigned int>(left) / kStagingBytes * kStagingBytes;
    CheckTransfer(left - whole, std::min(size - whole, kStagingBytes), "failed to read buffer");
  }
}

void BloomPersist::CheckAndClose() {
  if (fd_ == -1) {
    return;
  }
  const int closed = ::close(fd_);
  if (closed != 0) {
    ZEFS_LOG(kLogFailure, "close file %s failed, return is %d; errno is %d", path_.c_str(), closed,
             errno);
  }
  fd_ = -1;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
