// Any bytes as a bloom file: nothing crashes, and the filter, the containers or the refusal are
// what a plain walk over the bytes finds. Each input is read as it is, and once more with its
// checksums put right, as hardly a mutation would come past them.

#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "refhost/host/log_recorder.h"
#include "sidefiles/bloom_persist.h"
#include "tests/sidefiles/bloom_file_image.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace zefs::test;
using Aldenta::Qnd::Morene::Zefs::BloomPersist;
using Aldenta::Qnd::Morene::Zefs::DcidBytes;
using zefs::fuzz::Require;
using zefs::fuzz::WriteFile;

/// How far a reading gets.
enum class End { kRefused, kFilterMismatch, kListRefused, kListMismatch, kLoaded };

/// What a file says, found without any help of the library.
struct Expected {
  explicit Expected(const std::string& file) {
    if (file.size() < kAtFilter) {
      return;
    }
    const std::uint64_t size = NumberAt(file, kAtBufferSize, 4);
    const std::string rateBytes = file.substr(kAtRate, 8);
    double rate = 0;
    std::memcpy(&rate, rateBytes.data(), sizeof(rate));
    if (size > file.size() - kAtFilter || !(rate > 0 && rate < 1)) {
      return;
    }
    filter = file.substr(kAtFilter, size);
    filterCrc = PlainAdler(filter + file.substr(kAtBufferSize, 4) + file.substr(kAtInserted, 8) +
                           rateBytes);
    if (filterCrc != NumberAt(file, kAtBloomCrc, 4)) {
      end = End::kFilterMismatch;
      return;
    }
    const std::uint64_t listSize = NumberAt(file, kAtListSize, 4);
    if (listSize > file.size() - kAtFilter - size) {
      end = End::kListRefused;
      return;
    }
    const std::string list = file.substr(kAtFilter + size, listSize);
    listCrc = PlainAdler(list);
    if (listCrc != NumberAt(file, kAtListCrc, 4)) {
      end = End::kListMismatch;
      return;
    }
    end = End::kLoaded;
    for (std::size_t at = 0; at + 16 <= list.size(); at += 16) {
      if (NumberAt(list, at, 8) >= 64) {
        udcids.insert({NumberAt(list, at, 8), NumberAt(list, at + 8, 8)});
      }
    }
  }

  End end = End::kRefused;
  std::uint32_t filterCrc = 0;  ///< from kFilterMismatch on
  std::uint32_t listCrc = 0;    ///< from kListMismatch on
  std::string filter;
  DcidBytes udcids;
};

void ReadAndCompare(const std::string& path, const std::string& file) {
  zefs::refhost::LogRecorder log(zefs::kLogFailure);
  WriteFile(path, reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
  const Expected expected(file);
  std::unique_ptr<BloomFilter> filter;
  const DcidBytes before{{7777, 1}};
  DcidBytes udcids = before;
  BloomPersist reader(path, true);
  Require(reader.Reset(false) == 0, "the file is not opened");
  int result = 1;
  try {
    result = reader.ReadBloom(&filter, &udcids);
  } catch (const std::exception&) {
    // Refused, as the result says that was not set.
  }
  const bool mismatch = expected.end == End::kFilterMismatch || expected.end == End::kListMismatch;
  Require((result == 0) == (expected.end == End::kLoaded), "loaded, or not");
  Require((result == -1) == mismatch, "a mismatch, or none");
  Require((filter != nullptr) == (expected.end >= End::kListRefused), "a filter, or none");
  if (filter != nullptr) {
    Require(filter->GetInsertedFingerPrints() == NumberAt(file, kAtInserted, 8), "another count");
    Require(DataOf(*filter).substr(0, expected.filter.size()) == expected.filter, "another filter");
  }
  const std::size_t failures = log.Take().size();
  const bool refused = expected.end == End::kRefused || expected.end == End::kListRefused;
  Require(failures <= (refused ? 1 : 0), "a failure is logged twice, or without being one");
  Require(udcids == (result == 0 ? expected.udcids : before), "other containers");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const TempDir dir;
  const std::string path = (dir / "bloom").string();
  std::string file(data, data + size);
  ReadAndCompare(path, file);
  if (Expected(file).end == End::kFilterMismatch) {
    file.replace(kAtBloomCrc, 4, Little(Expected(file).filterCrc, 4));
    ReadAndCompare(path, file);
  }
  if (Expected(file).end == End::kListMismatch) {
    file.replace(kAtListCrc, 4, Little(Expected(file).listCrc, 4));
    ReadAndCompare(path, file);
  }
  return 0;
}
