#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "host/config.h"
#include "host/data_cache.h"
#include "refhost/host/log_recorder.h"
#include "sidefiles/dc_offset_store.h"
#include "tests/support/temp_dir.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// What a test may see of a store beside its operations.
struct DcOffsetStoreTestPeer {
  DcOffsetStore& store;

  int fd() const { return store.fd_; }
  const DcOffsetSet& offsets() const { return store.offsets_; }
  const std::string& path() const { return store.path_; }
  std::mutex& mutex() const { return store.mutex_; }
};

}  // namespace Aldenta::Qnd::Morene::Zefs

namespace zefs::test {

using Aldenta::Qnd::Morene::Zefs::DcOffsetStore;
using Aldenta::Qnd::Morene::Zefs::DcOffsetStoreTestPeer;
using Aldenta::Qnd::Morene::Zefs::kDcOffsetRecordBytes;
using Aldenta::Qnd::Morene::Zefs::kOffsetStoreName;
using Aldenta::Qnd::Morene::Zefs::kOffsetStoreTmpSuffix;

using Bytes = std::vector<unsigned char>;
/// A record as a value that compares and sorts: `key`, `dcid`, `fp`, `dcOffset`.
using Fields = std::tuple<std::int64_t, std::uint64_t, crfp_digest_t, std::int64_t>;

inline Fields FieldsOf(const DCOffset& record) {
  return {record.key, record.dcid, record.fp, record.dcOffset};
}

inline std::vector<Fields> ListOf(const std::vector<DCOffset>& records) {
  std::vector<Fields> fields;
  for (const DCOffset& record : records) {
    fields.push_back(FieldsOf(record));
  }
  return fields;
}

inline std::vector<Fields> Sorted(const std::vector<DCOffset>& records) {
  std::vector<Fields> fields = ListOf(records);
  std::sort(fields.begin(), fields.end());
  return fields;
}

inline crfp_digest_t Fp(unsigned char fill) {
  crfp_digest_t fp;
  fp.fill(fill);
  return fp;
}

/// A record that wants an offset; all its fields follow from `key`.
inline DCOffset Wanted(std::int64_t key, std::int64_t dcOffset = -1) {
  return {key, 64 + static_cast<std::uint64_t>(key), Fp(static_cast<unsigned char>(key + 1)),
          dcOffset};
}

/// The file form of records, put together byte by byte and without the code under test.
inline Bytes FileOf(const std::vector<DCOffset>& records) {
  Bytes file;
  const auto put = [&file](std::uint64_t number) {
    for (int shift = 0; shift < 64; shift += 8) {
      file.push_back(static_cast<unsigned char>(number >> shift));
    }
  };
  for (const DCOffset& record : records) {
    put(static_cast<std::uint64_t>(record.key));
    put(record.dcid);
    file.insert(file.end(), record.fp.begin(), record.fp.end());
    put(static_cast<std::uint64_t>(record.dcOffset));
  }
  return file;
}

inline void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(file.flush());
}

inline Bytes ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A directory with a store in it, the two settings that it reads, and its log. Every record goes
/// out at a threshold of 100 unless a test says otherwise.
class DcOffsetStoreFixture : public testing::Test {
 protected:
  using Config = FileSystemDaemonConfig;

  DcOffsetStoreFixture() {
    Track(true);
    Threshold(100);
  }
  ~DcOffsetStoreFixture() override {
    Track(tracked_);
    Threshold(threshold_);
  }

  static void Track(bool on) { Config::GetInstance().Set(&Config::dcOffsetTrackingEnabled, on); }
  static void Threshold(std::uint32_t records) {
    Config::GetInstance().Set(&Config::dcOffsetStoreThreshold, records);
  }

  static int Store(DcOffsetStore& store, const DCOffset& record) {
    return store.CheckAndStore(record.key, record.dcid, record.fp,
                               static_cast<int>(record.dcOffset));
  }
  int Store(const DCOffset& record) { return Store(store_, record); }

  /// What a file holds now, read by another store from a copy. Nothing if it does not exist.
  static std::vector<DCOffset> OnFile(const std::string& path) {
    const TempDir elsewhere;
    const std::string copy = (elsewhere / "copy").string();
    WriteBytes(copy, ReadBytes(path));
    std::vector<DCOffset> records;
    DcOffsetStore(copy, false, kOffsetStoreName, kOffsetStoreTmpSuffix).Read(&records);
    return records;
  }
  std::vector<DCOffset> OnFile() const { return OnFile(path_); }

  std::vector<Fields> InMemory() const {
    return Sorted({peer_.offsets().begin(), peer_.offsets().end()});
  }

  /// The lines since the last call as "level text".
  std::vector<std::string> Log() {
    std::vector<std::string> lines;
    for (const refhost::LogRecord& record : log_.Take()) {
      lines.push_back(std::to_string(record.level) + " " + record.text);
    }
    return lines;
  }

  /// Those of Log that report a failure.
  std::vector<std::string> Failures() {
    std::vector<std::string> lines = Log();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) { return line.rfind("8 ", 0) != 0; }),
                lines.end());
    return lines;
  }

  bool Exists(const std::string& path) const { return boost::filesystem::exists(path); }

  const bool tracked_ = Config::GetInstance().Get(&Config::dcOffsetTrackingEnabled);
  const std::uint32_t threshold_ = Config::GetInstance().Get(&Config::dcOffsetStoreThreshold);
  refhost::LogRecorder log_;
  const TempDir dir_;
  const std::string path_ = (dir_ / kOffsetStoreName).string();
  const std::string aside_ = path_ + ".tmp";
  DcOffsetStore store_{path_, false, kOffsetStoreName, kOffsetStoreTmpSuffix};
  const DcOffsetStoreTestPeer peer_{store_};
};

}  // namespace zefs::test
