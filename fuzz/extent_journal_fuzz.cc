// Any bytes as a journal that is read back: nothing crashes, and what comes out is what a plain
// walk over the bytes finds.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "fuzz/fuzz_support.h"
#include "sidefiles/extent_journal.h"

namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::Extent;
using Aldenta::Qnd::Morene::Zefs::ExtentJournal;
using zefs::fuzz::Require;
using zefs::fuzz::WriteFile;

/// The directory of this run, gone at its end.
struct WorkDir {
  WorkDir() : path(fs::temp_directory_path() / fs::unique_path("zefs-fuzz-%%%%-%%%%-%%%%")) {
    fs::create_directory(path);
  }
  ~WorkDir() {
    boost::system::error_code ignored;
    fs::remove_all(path, ignored);
  }
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;
  const fs::path path;
};

/// The records as rows of 76 bytes, found without any help of the journal.
std::vector<std::string> Expected(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> rows;
  for (std::size_t at = 0; at < size; at += 80) {
    std::string row(80, '\0');
    std::memcpy(row.data(), data + at, std::min<std::size_t>(80, size - at));
    row.resize(76);
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::memcpy(&start, row.data() + 8, 8);
    std::memcpy(&end, row.data() + 16, 8);
    if (end != 0 && start <= end) {
      rows.push_back(row);
    }
  }
  return rows;
}

void RequireRows(const std::vector<std::string>& rows, const std::vector<Extent>& records) {
  Require(rows.size() == records.size(), "another number of records");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    Require(records[i].end != 0 && records[i].start <= records[i].end, "an invalid record");
    Require(std::memcmp(rows[i].data(), &records[i], rows[i].size()) == 0, "another record");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const WorkDir dir;
  const std::string path = (dir.path / ExtentJournal::JOURNAL_FILENAME).string();
  const std::vector<std::string> rows = Expected(data, size);
  std::vector<Extent> records;
  ExtentJournal journal(path, false);

  WriteFile(path + ExtentJournal::REPLAY_EXTENTION, data, size);
  Require(journal.Read(&records) == 0, "the replay file is not read");
  RequireRows(rows, records);

  WriteFile(path, data, size);
  Require(journal.Start() == 0, "the journal does not start");
  Require(journal.Replay(&records) == 0, "the journal is not handed back");
  RequireRows(rows, records);
  Require(journal.Destroy() == 0, "the files stay");
  return 0;
}
