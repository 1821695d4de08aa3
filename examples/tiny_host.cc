// The least that an executable has to supply to load the library with tables in memory: a silent
// log, the choice of the table, fingerprints as text and back, and CPU accounting that is switched
// off. What only stored tables need is refused.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "host/auto_log_cpu.h"
#include "host/bloom_filter.h"
#include "host/config.h"
#include "host/file_io.h"
#include "host/fingerprint.h"
#include "host/zefs_log.h"

using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;

void ZEFS_LOG(int /*level*/, const char* /*format*/, ...) {}

ZefsConfig& ZefsConfig::GetInstance() {
  static ZefsConfig config;  // useLmdbTable stays 0: tables in memory
  return config;
}

FileSystemDaemonConfig::FileSystemDaemonConfig()
    : bigTableMapSizeGiB(0),
      batchUpdateThreshold(0),
      objIdReadyThreshold(0),
      mergeEntriesThreshold(0),
      mergeCommitCountThreshold(0),
      mergeCommitTimeThreshold(0),
      mergeWaitEntriesThreshold(0),
      mergeCommitBatchSize(0),
      persistBloom(0),
      prefetchEnabled(0),
      prefetchSpanBytes(0),
      dcOffsetTrackingEnabled(false),
      dcOffsetStoreThreshold(0) {}

FileSystemDaemonConfig& FileSystemDaemonConfig::GetInstance() {
  static FileSystemDaemonConfig config;
  return config;
}

int CRFPDigestToString_r(const unsigned char* digest, int kind, char* buffer, unsigned long size) {
  if (kind != kCrfpDigestKind || size < FingerprintText{}.size()) {
    return -1;
  }
  for (std::size_t i = 0; i < crfp_digest_t{}.size(); ++i) {
    std::snprintf(buffer + 2 * i, 3, "%02x", digest[i]);
  }
  return 0;
}

int CRFPStringToDigest_r(const char* text, int kind, unsigned char* digest) {
  if (kind != kCrfpDigestKind || std::strlen(text) != FingerprintText{}.size() - 1 ||
      std::strspn(text, "0123456789abcdef") != std::strlen(text)) {
    return -1;
  }
  for (std::size_t i = 0; i < crfp_digest_t{}.size(); ++i) {
    const char digits[] = {text[2 * i], text[2 * i + 1], '\0'};
    digest[i] = static_cast<unsigned char>(std::strtoul(digits, nullptr, 16));
  }
  return 0;
}

const char* CRFPEmptyFP(int /*kind*/) {
  return "0000000000000000000000000000000000000000000000000000000000000000";
}

int CRFPIsEmptyDigest(const unsigned char* digest, int /*kind*/) {
  return std::memcmp(digest, crfp_digest_t{}.data(), crfp_digest_t{}.size()) == 0 ? 1 : 0;
}

// --- stored tables only --------------------------------------------------------------------------

ssize_t safe_read(int /*fd*/, void* /*buffer*/, std::size_t /*size*/) {
  errno = ENOSYS;
  return -1;
}
ssize_t safe_write(int /*fd*/, const void* /*buffer*/, std::size_t /*size*/) {
  errno = ENOSYS;
  return -1;
}
int safe_fsync(int /*fd*/) {
  errno = ENOSYS;
  return -1;
}
int EnableNommap(const std::string& /*path*/, int /*fd*/) {
  return 0;
}
bool IsZxfs(const std::string& /*path*/) {
  return false;
}
unsigned long get_millis() {
  return 0;
}

BloomFilter::BloomFilter(unsigned long n, double falsePositive)
    : expected_(n), maxFalsePositive_(falsePositive), hashFunctionCount_(0), bufferSize_(0) {
  throw std::invalid_argument("no filters here");
}
BloomFilter::~BloomFilter() = default;
void BloomFilter::Insert(const crfp_digest_t& /*fp*/) {}
bool BloomFilter::Contains(const crfp_digest_t& /*fp*/) const {
  return true;
}
unsigned int BloomFilter::GetBufferSize() const {
  return bufferSize_;
}
unsigned char* BloomFilter::GetBloom() const {
  return bits_.get();
}
unsigned long BloomFilter::GetBitmapSize() const {
  return 0;
}
unsigned long BloomFilter::GetExpectedFingerprints() const {
  return expected_;
}
unsigned long BloomFilter::GetInsertedFingerPrints() const {
  return inserted_;
}
void BloomFilter::SetInsertedFingerPrints(unsigned long count) {
  inserted_ = count;
}
unsigned int BloomFilter::GetHashFunctionCount() const {
  return hashFunctionCount_;
}
double BloomFilter::GetMaxFalsePositive() const {
  return maxFalsePositive_;
}

// --- CPU accounting, switched off ----------------------------------------------------------------

bool AutoLogCpu::enabled_ = false;
bool AutoLogCpu::initialized_ = false;
boost::shared_mutex AutoLogCpu::rwMutex_;
void AutoLogCpu::start(Aldenta::Qnd::Tarvenda::Utils::thread_stats_t* /*counters*/) {}
void AutoLogCpu::end(Aldenta::Qnd::Tarvenda::Utils::thread_stats_t* /*counters*/) {}
