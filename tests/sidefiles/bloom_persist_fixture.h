#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "host/bloom_filter.h"
#include "refhost/host/log_recorder.h"
#include "sidefiles/bloom_persist.h"
#include "table/sys_exception.h"
#include "tests/sidefiles/bloom_file_image.h"
#include "tests/sidefiles/extent_journal_fixture.h"  // BytesOf, WriteBytes, Log
#include "tests/support/temp_dir.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// What no operation tells.
struct BloomPersistTestPeer {
  static int Descriptor(const BloomPersist& file) { return file.fd_; }
  static bool HasBuffer(const BloomPersist& file) { return file.buffer_ != nullptr; }
};

}  // namespace Aldenta::Qnd::Morene::Zefs

namespace zefs::test {

using Aldenta::Qnd::Morene::Zefs::BloomPersist;
using Aldenta::Qnd::Morene::Zefs::BloomPersistTestPeer;
using Aldenta::Qnd::Morene::Zefs::DcidBytes;
using Aldenta::Qnd::Morene::Zefs::SysException;

/// A distinct fingerprint for each number.
inline crfp_digest_t NthFp(unsigned int number) {
  crfp_digest_t fp{};
  for (unsigned char& byte : fp) {
    number = number * 1664525U + 1013904223U;
    byte = static_cast<unsigned char>(number >> 24U);
  }
  return fp;
}

/// What came out of a call: its result, or what it threw.
inline constexpr int kThrewIo = 1000 + 5;  ///< SysException(5)
inline constexpr int kThrewRate = 2001;    ///< std::invalid_argument
inline constexpr int kThrewLength = 2002;  ///< std::length_error
inline constexpr int kThrewMemory = 2003;  ///< std::bad_alloc

template <typename Run>
int OutcomeOf(Run run) {
  try {
    return run();
  } catch (const SysException& e) {
    return 1000 + e.code;
  } catch (const std::invalid_argument&) {
    return kThrewRate;
  } catch (const std::length_error&) {
    return kThrewLength;
  } catch (const std::bad_alloc&) {
    return kThrewMemory;
  }
}

/// What a ReadBloom gave and left behind. The filter and the map are not empty before.
struct Loaded {
  int outcome = 0;
  bool hasOldFilter = false;
  std::unique_ptr<BloomFilter> filter;
  DcidBytes udcids;
};

class BloomPersistFixture : public testing::Test {
 protected:
  /// A filter of 64 bytes and 5 fingerprints.
  static std::unique_ptr<BloomFilter> SmallFilter() { return FilterOf(16, 5); }

  /// A filter for `count` entries with the first `inserted` of the fingerprints.
  static std::unique_ptr<BloomFilter> FilterOf(unsigned long count, unsigned int inserted) {
    auto filter = std::make_unique<BloomFilter>(count, 0.02);
    for (unsigned int i = 0; i < inserted; ++i) {
      filter->Insert(NthFp(i));
    }
    return filter;
  }

  /// Stores into a new file; the result, or what was thrown.
  static int Store(const std::string& path, BloomFilter* filter, DcidBytes udcids) {
    boost::filesystem::remove(path);
    BloomPersist file(path, false);
    if (file.Reset(false) != 0) {
      return -1;
    }
    return OutcomeOf([&] { return file.StoreBloom(filter, &udcids); });
  }

  static DcidBytes OldUdcids() { return {{7777, 1}}; }

  static Loaded Load(const std::string& path) {
    Loaded loaded;
    loaded.udcids = OldUdcids();
    loaded.filter = FilterOf(1000, 3);
    const BloomFilter* const old = loaded.filter.get();
    const std::string oldData = DataOf(*old);
    BloomPersist file(path, true);
    EXPECT_EQ(0, file.Reset(false));
    loaded.outcome = OutcomeOf([&] { return file.ReadBloom(&loaded.filter, &loaded.udcids); });
    loaded.hasOldFilter = loaded.filter.get() == old;
    if (loaded.hasOldFilter) {
      EXPECT_EQ(3U, old->GetInsertedFingerPrints());
      EXPECT_EQ(oldData, DataOf(*old));
    }
    return loaded;
  }

  /// The same for a file of these bytes.
  Loaded LoadBytes(const std::string& bytes) const {
    boost::filesystem::remove(path_);
    WriteBytes(path_, bytes);
    return Load(path_);
  }

  static bool Exists(const std::string& path) { return boost::filesystem::exists(path); }

  const TempDir dir_;
  refhost::LogRecorder log_;
  const std::string path_ = (dir_ / "t1bloom").string();
};

/// The lines since the last time that report a failure.
inline Log FailuresOf(refhost::LogRecorder& log) {
  Log lines;
  for (LogRecord& line : log.Take()) {
    if (line.level == kLogFailure) {
      lines.push_back(std::move(line));
    }
  }
  return lines;
}

}  // namespace zefs::test
