// Any bytes as a store file: nothing crashes, what is handed out is what a plain walk over the
// bytes finds, and the file is set aside, or gone when there was nothing in it.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "fuzz/fuzz_support.h"
#include "sidefiles/dc_offset_store.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = boost::filesystem;
using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::fuzz::Require;
using zefs::fuzz::WriteFile;

/// The valid records as rows of 56 bytes, found without any help of the store.
std::vector<std::string> Expected(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> rows;
  for (std::size_t at = 0; at < size; at += 56) {
    std::string row = std::string(8, '\xff') + std::string(40, '\0') + std::string(8, '\xff');
    std::memcpy(row.data(), data + at, std::min<std::size_t>(56, size - at));
    std::uint64_t dcid = 0;
    std::memcpy(&dcid, row.data() + 8, 8);
    const bool isNegative = (static_cast<unsigned char>(row[7]) & 0x80U) != 0;
    if (!isNegative && dcid >= 64) {
      rows.push_back(row);
    }
  }
  return rows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const zefs::test::TempDir dir;
  const std::string path = (dir / kOffsetStoreName).string();
  const std::string aside = path + kOffsetStoreTmpSuffix;
  const std::vector<std::string> rows = Expected(data, size);
  DcOffsetStore store(path, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
  std::vector<zefs::DCOffset> records;

  WriteFile(path, data, size);
  Require(store.Read(&records) == 0, "the store is not read");
  Require(rows.size() == records.size(), "another number of records");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    Require(std::memcmp(rows[i].data(), &records[i], rows[i].size()) == 0, "another record");
  }
  Require(!fs::exists(path), "the store stays");
  Require(fs::exists(aside) == !rows.empty(), "the list is not set aside");

  Require(store.MergeDcOffset(records) == 0, "the list is not taken back");
  Require(!fs::exists(aside), "the list stays aside");
  fs::remove(path);
  return 0;
}
